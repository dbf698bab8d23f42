/* What every example program needs besides the library: a scratch directory
 * of its own, the library's trace output routed into it (never onto the
 * device's default log), a check that stops the example when a call fails
 * unexpectedly, and the clean-up at the end.
 *
 * Include it first: it selects the POSIX interfaces the examples use. */
#ifndef QUILLANE_EXAMPLE_SUPPORT_H
#define QUILLANE_EXAMPLE_SUPPORT_H

#ifndef _XOPEN_SOURCE
#define _XOPEN_SOURCE 700 /* mkdtemp, nftw */
#endif

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "util_function.h"

/* Inside a function returning int: report the failed condition and return 1. */
#define EX_CHECK(cond)                                                                  \
    do {                                                                                \
        if (!(cond)) {                                                                  \
            fprintf(stderr, "%s:%d: unexpected result: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                                                   \
        }                                                                               \
    } while (0)

/* The running example's scratch directory and trace log. */
static struct {
    char dir[64];   /* the scratch directory */
    char log[128];  /* the trace log inside it */
} ex_env;

/* Builds "<scratch dir>/<name>" into out (size bytes). */
static inline const char* ex_path(const char* name, char* out, size_t size)
{
    snprintf(out, size, "%s/%s", ex_env.dir, name);
    return out;
}

/* Makes the scratch directory and sends the library's trace output to
 * trace.log inside it, before any call that could trace. The log path must
 * stay below 64 characters, so the directory is made under /tmp. */
static inline int ex_setup(const char* name)
{
    util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;

    /* The library's console messages go to stderr at once; a line-buffered
     * stdout keeps the example's own lines in order with them in a pipe. */
    setvbuf(stdout, NULL, _IOLBF, 0);
    snprintf(ex_env.dir, sizeof ex_env.dir, "/tmp/quillane_%s_XXXXXX", name);
    if (mkdtemp(ex_env.dir) == NULL) {
        perror("mkdtemp");
        return -1;
    }
    ex_path("trace.log", ex_env.log, sizeof ex_env.log);
    attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE, ex_env.log, 256 * 1024);
    attr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_DBGLOG;
    return 0;
}

/* Prints the trace log, indented, under a heading. */
static inline void ex_print_log(void)
{
    char line[256];
    FILE* fp = fopen(ex_env.log, "r");

    printf("trace output (%s):\n", ex_env.log);
    if (fp == NULL) {
        printf("  (none)\n");
        return;
    }
    while (fgets(line, sizeof line, fp) != NULL) {
        printf("  %s", line);
    }
    fclose(fp);
}

static inline int ex_remove_entry(const char* path, const struct stat* st, int type, struct FTW* ftw)
{
    (void)st;
    (void)type;
    (void)ftw;
    return remove(path);
}

/* Closes the log, silences the trace output for the rest of the process
 * and removes the scratch directory with everything in it. */
static inline void ex_teardown(void)
{
    util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;

    attr->fclose_dbglog_fp();
    attr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    if (ex_env.dir[0] != '\0') {
        nftw(ex_env.dir, ex_remove_entry, 8, FTW_DEPTH | FTW_PHYS);
    }
}

/* One part of an example: 0 when everything went as expected. */
typedef int (*ex_step_t)(void);

/* The whole of an example's main: set up, run the steps in order until one
 * fails, show the trace log if asked, clean up. */
static inline int ex_main(const char* name, const ex_step_t* steps, size_t count, int print_log)
{
    int rc = 0;
    size_t i;

    if (ex_setup(name) != 0) return EXIT_FAILURE;
    for (i = 0; i < count && rc == 0; ++i) {
        rc = steps[i]();
    }
    if (print_log) ex_print_log();
    ex_teardown();
    return rc == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

#endif /* QUILLANE_EXAMPLE_SUPPORT_H */
