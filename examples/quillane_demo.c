/* A camera application's first contact with the library: route the trace
 * output, initialise, trace, dump a control command, read the local time,
 * and print the version. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "util_function.h"

int main(int argc, char** argv)
{
    const char* log_path = argc > 1 ? argv[1] : "/tmp/quillane_demo.log";
    util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;
    UTIL_U8 cmd[] = {0x81, 0x01, 0x04, 0x07, 0x02, 0xFF};
    char text[6 * sizeof cmd + 1];
    struct tm now;
    UTIL_U32 usec = 0;
    FILE* log;
    char line[256];

    remove(log_path);
    /* Log file with millisecond timestamps and one backup generation. */
    attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP | UTIL_DBGOUT_DBGLOG_TIMESTAMP,
                          log_path, 64 * 1024);
    attr->set_extraInfo_attr(0, 0, 254);

    util_ops_pfun->util_init();
    util_ops_pfun->dbgout->traceout(attr->get(), "demo: camera application started\n");
    if (util_ops_pfun->dbgout->cmdToStr(cmd, (UTIL_U8)sizeof cmd, text) == 0) {
        printf("command bytes: %s\n", text);
    }
    util_ops_pfun->dbgout->cmdPrint(cmd, (UTIL_U8)sizeof cmd);
    if (util_ops_pfun->common_high->get_local_time(&now, &usec) == 0) {
        printf("local time: %04d-%02d-%02d %02d:%02d:%02d.%06u\n", now.tm_year + 1900, now.tm_mon + 1,
               now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec, (unsigned)usec);
    }
    util_ops_pfun->util_exit();
    attr->fclose_dbglog_fp();

    printf("version: %s\n", util_ops_pfun->verInfo);
    printf("trace output in %s:\n", log_path);
    log = fopen(log_path, "r");
    if (log == NULL) {
        perror(log_path);
        return EXIT_FAILURE;
    }
    while (fgets(line, sizeof line, log) != NULL) {
        fputs("  ", stdout);
        fputs(line, stdout);
    }
    fclose(log);
    return EXIT_SUCCESS;
}
