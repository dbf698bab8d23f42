// The library's two message styles, written once for every module.
//
// Console diagnostics go straight to stderr/stdout and bypass the debug
// attributes; trace messages go through the public table, so a caller that
// replaces the trace slot sees every module's messages.
#pragma once

#include <cstdio>

#include "util_function.h"

#ifdef __FILE_NAME__
#define UTIL_SRC_FILE __FILE_NAME__
#else
#define UTIL_SRC_FILE __FILE__
#endif

namespace quillane {

// Writes prefix and text under the stream's lock and flushes at once, so that
// a message from one thread never interleaves with another's.
void console_message(FILE* stream, const char* fmt, ...) noexcept __attribute__((format(printf, 2, 3)));

}  // namespace quillane

// (a) console diagnostics: "DBG_ERR:file function[line] text" on stderr and
// "DBG_INFO:file function[line] text" on stdout.
#define UTIL_DBG_ERR(fmt, ...)                                                                    \
    ::quillane::console_message(stderr, "DBG_ERR:%s %s[%04d] " fmt, UTIL_SRC_FILE, __func__, \
                                __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define UTIL_DBG_INFO(fmt, ...)                                                                    \
    ::quillane::console_message(stdout, "DBG_INFO:%s %s[%04d] " fmt, UTIL_SRC_FILE, __func__, \
                                __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// (b) trace messages: "[file +line function] text", routed by the debug attributes.
#define UTIL_TRACE(fmt, ...)                                                                      \
    util_ops_pfun->dbgout->traceout(util_ops_pfun->dbgout->pstDebugAttr->get(), "[%s +%-4d %s] " fmt, \
                                    UTIL_SRC_FILE, __LINE__, __func__ __VA_OPT__(, ) __VA_ARGS__)
