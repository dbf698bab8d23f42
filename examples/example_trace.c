/* Library frame and debug output: route the trace output to a log file of
 * our own with local-time stamps, initialise, trace, dump a control command,
 * let the log rotate to its backup, silence the output, exit. */
#include "example_support.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* The application's own traces, in the library's prefix style. */
#define APP_TRACE(fmt, ...)                                                                             \
    util_ops_pfun->dbgout->traceout(util_ops_pfun->dbgout->pstDebugAttr->get(), "[%s +%-4d %s] " fmt, \
                                    __FILE__, __LINE__, __func__, __VA_ARGS__)

static long file_size(const char* path)
{
    struct stat st;
    return stat(path, &st) == 0 ? (long)st.st_size : -1;
}

static int run(void)
{
    util_ops_dbgout_fun_t* dbgout = util_ops_pfun->dbgout;
    util_dbgout_attr_fun_t* attr = dbgout->pstDebugAttr;
    UTIL_U8 cmd[] = {0x81, 0x01, 0x04, 0x07, 0x02, 0xFF};
    char text[6 * sizeof cmd + 1];
    char backup[160];
    time_t now = time(NULL);
    struct tm local;
    time_t tz = 0;
    UTIL_S32 dst = 0;
    UTIL_U32 bits = 0;
    long before;
    int i;

    printf("library: %s\n", util_ops_pfun->verInfo);

    /* Timestamps in local time. The library never consults the time-zone
     * database while tracing: it is told the offset (seconds west of UTC)
     * and whether daylight-saving time is in effect. */
    tzset();
    localtime_r(&now, &local);
    attr->set_extraInfo_attr(timezone, local.tm_isdst > 0 ? 1 : 0, 254);
    attr->get_extraInfo_attr(&tz, &dst, &bits);
    printf("trace timestamps: %ld s west of UTC, daylight %d, format %u\n", (long)tz, (int)dst, (unsigned)bits);

    /* A 2 KiB log with one backup generation. */
    attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP | UTIL_DBGOUT_DBGLOG_TIMESTAMP,
                          ex_env.log, 2048);
    EX_CHECK(strcmp(attr->get_dbglog_logPath(), ex_env.log) == 0);
    EX_CHECK(attr->get_dbglog_logMaxSize() == 2048);

    EX_CHECK(util_ops_pfun->util_init() == 0); /* traces the version, the time and the type sizes */
    EX_CHECK(APP_TRACE("camera application started, pid %d\n", (int)getpid()) == 0);

    /* A camera-control command as text, and traced. */
    EX_CHECK(dbgout->cmdToStr(cmd, (UTIL_U8)sizeof cmd, text) == 0);
    printf("command bytes: %s\n", text);
    EX_CHECK(dbgout->cmdPrint(cmd, (UTIL_U8)sizeof cmd) == 0);

    /* Fill the log past its limit: the library moves it to "<log>_bak"
     * (reporting that on stderr) and the next message starts a new file. */
    snprintf(backup, sizeof backup, "%s_bak", ex_env.log);
    for (i = 0; i < 100 && access(backup, F_OK) != 0; ++i) {
        EX_CHECK(APP_TRACE("frame statistics %d: 25 fps, 4096 kbit/s\n", i) == 0);
    }
    EX_CHECK(access(backup, F_OK) == 0);
    printf("rotated after %d messages: %s holds %ld bytes\n", i, backup, file_size(backup));
    EX_CHECK(APP_TRACE("first message of the new log, limit %d bytes\n", 2048) == 0);

    /* No output at all: nothing is formatted or written. */
    attr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    before = file_size(ex_env.log);
    EX_CHECK(APP_TRACE("enType %d: this message goes nowhere\n", 0) == 0);
    EX_CHECK(file_size(ex_env.log) == before);
    attr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_DBGLOG;

    EX_CHECK(util_ops_pfun->util_exit() == 0);
    attr->fclose_dbglog_fp();
    return 0;
}

int main(void)
{
    static const ex_step_t steps[] = {run};
    return ex_main("trace", steps, sizeof steps / sizeof steps[0], 1);
}
