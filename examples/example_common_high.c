/* Common high helpers on files in a scratch directory: rewrite settings in a
 * configuration file, read numbers and first lines, run a file of shell
 * commands and capture their output, pin the thread to a processor, read
 * the local time, and delete files and directories. */
#include "example_support.h"

#include <pthread.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static int write_text(const char* path, const char* text)
{
    FILE* fp = fopen(path, "w");
    if (fp == NULL) return -1;
    fputs(text, fp);
    return fclose(fp) == 0 ? 0 : -1;
}

static void print_file(const char* heading, const char* path)
{
    char line[256];
    FILE* fp = fopen(path, "r");

    printf("%s:\n", heading);
    while (fp != NULL && fgets(line, sizeof line, fp) != NULL) printf("  %s", line);
    if (fp != NULL) fclose(fp);
}

static int configuration(void)
{
    util_ops_common_high_fun_t* high = util_ops_pfun->common_high;
    char conf[128], first[64], dir[128], base[64];
    UTIL_S32 fps = 0;
    char fps_file[128];

    ex_path("camera.conf", conf, sizeof conf);
    EX_CHECK(write_text(conf, "# camera settings\n"
                              "hostname = \"cam-01\"\n"
                              "http_port = \"80\"\n"
                              "wdr=0\n") == 0);

    /* Each call replaces every line that contains the keyword anywhere,
     * so keywords must not be parts of other settings' names. */
    EX_CHECK(high->update_line_conf_str(conf, "hostname", "cam-lobby", "%s = \"%s\"") == 0);
    EX_CHECK(high->update_line_conf_int(conf, "http_port", 8080, "%s = \"%d\"") == 0);
    EX_CHECK(high->update_line_conf_int(conf, "wdr", 1, "%s=%d") == 0);
    EX_CHECK(high->update_line_conf(conf, "# camera", "# camera settings, rewritten by example_common_high") == 0);
    /* Only the three formats above are accepted. */
    EX_CHECK(high->update_line_conf_int(conf, "wdr", 1, "%s: %d") == -1);
    print_file("configuration after the updates", conf);

    EX_CHECK(high->compare_str_to_file(conf, "http_port", 9) == 1); /* lines that start with the text */
    EX_CHECK(high->readTextFirstLineStr(conf, first, sizeof first - 1) > 0);
    printf("first line: %s\n", first);
    printf("size: %llu bytes (stat), %llu bytes (seek)\n", (unsigned long long)high->get_file_size(conf),
           (unsigned long long)high->get_file_size2(conf));
    EX_CHECK(high->get_file_size(conf) == high->get_file_size2(conf));

    EX_CHECK(high->parsePathName(conf, dir, base) == 0);
    printf("directory %s, file %s\n", dir, base);
    EX_CHECK(strcmp(base, "camera.conf") == 0);

    ex_path("fps", fps_file, sizeof fps_file);
    EX_CHECK(write_text(fps_file, " 25 frames per second\n") == 0);
    EX_CHECK(high->readTextNum(fps_file, &fps) == 0 && fps == 25);
    return 0;
}

static int commands(void)
{
    util_ops_common_high_fun_t* high = util_ops_pfun->common_high;
    util_string_list_t cmds = {NULL, 0};
    char path[128], output[128] = {0};
    int i;

    ex_path("startup.cmds", path, sizeof path);
    EX_CHECK(write_text(path, "# run at start-up\n"
                              "\n"
                              "  echo network ready  \n"
                              "uname -s\n") == 0);
    /* At most 8 commands; comments, blank lines and white space are dropped. */
    EX_CHECK(high->readFileShellCmds_malloc(path, &cmds, 8) == 0);
    for (i = 0; i < cmds.size && cmds.strList[i].string != NULL; ++i) {
        /* The last byte, zeroed above, is kept back: the output is always terminated. */
        UTIL_S32 n = high->popen_cmd_result(cmds.strList[i].string, output, sizeof output - 1);
        EX_CHECK(n > 0);
        printf("$ %s\n%s", cmds.strList[i].string, output);
    }
    EX_CHECK(i == 2);
    EX_CHECK(util_ops_pfun->common_base->strList_free(cmds) == 0);

    /* The wait status of system(), with SIGCHLD at its default meanwhile. */
    EX_CHECK(high->pox_system("test -d /tmp") == 0);
    return 0;
}

static int thread_and_time(void)
{
    util_ops_common_high_fun_t* high = util_ops_pfun->common_high;
    long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    struct tm now;
    UTIL_U32 usec = 0;
    UTIL_S32 rc = -1;
    long cpu;

    /* Pin this thread to the first processor it may use. A processor
     * outside the process's allowed set is refused with the platform's
     * error number (EINVAL), printed on stderr. */
    for (cpu = 0; cpu < cpus && rc != 0; ++cpu) {
        rc = high->setThreadCPU(pthread_self(), (UTIL_U32)cpu);
    }
    EX_CHECK(rc == 0);
    printf("thread pinned to processor %ld of %ld\n", cpu - 1, cpus);

    EX_CHECK(high->get_local_time(&now, &usec) == 0);
    printf("local time: %04d-%02d-%02d %02d:%02d:%02d.%06u\n", now.tm_year + 1900, now.tm_mon + 1, now.tm_mday,
           now.tm_hour, now.tm_min, now.tm_sec, (unsigned)usec);
    EX_CHECK(high->get_local_time_r(&now) == 0); /* whole seconds, safe on any thread */
    return 0;
}

static int cleanup(void)
{
    util_ops_common_high_fun_t* high = util_ops_pfun->common_high;
    char names[3][256];

    ex_path("recordings", names[0], sizeof names[0]);
    EX_CHECK(mkdir(names[0], 0755) == 0);
    /* A directory lists "." and "..": even an empty one is not "empty" here. */
    EX_CHECK(high->is_file_empty(names[0]) == 0);
    ex_path("fps", names[1], sizeof names[1]);
    ex_path("no-such-file", names[2], sizeof names[2]);
    /* Returns the number of entries that could not be deleted; missing
     * names are only reported. */
    EX_CHECK(high->deleteFileList(names, 3) == 0);
    EX_CHECK(access(names[0], F_OK) != 0 && access(names[1], F_OK) != 0);
    return 0;
}

int main(void)
{
    static const ex_step_t steps[] = {configuration, commands, thread_and_time, cleanup};
    return ex_main("common_high", steps, sizeof steps / sizeof steps[0], 0);
}
