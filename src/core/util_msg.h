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

// The same two styles for code that writes a message on behalf of a named
// operation: the shared container templates, or a check helper called from
// many functions. The caller passes where the message belongs, so the text
// names the operation the user called, not the helper that wrote it.
namespace quillane {
struct Where {
    const char* file;
    const char* func;
    int line;
};
}  // namespace quillane

// Where the macro stands: this file, this function, this line.
#define UTIL_HERE (::quillane::Where{UTIL_SRC_FILE, __func__, __LINE__})
// An operation's own name with the current file and line, for templates that
// run on behalf of several named operations.
#define UTIL_HERE_AS(name) (::quillane::Where{UTIL_SRC_FILE, (name), __LINE__})

#define UTIL_DBG_ERR_AT(where, fmt, ...)                                                                  \
    ::quillane::console_message(stderr, "DBG_ERR:%s %s[%04d] " fmt, (where).file, (where).func, (where).line \
                                __VA_OPT__(, ) __VA_ARGS__)
#define UTIL_DBG_INFO_AT(where, fmt, ...)                                                                  \
    ::quillane::console_message(stdout, "DBG_INFO:%s %s[%04d] " fmt, (where).file, (where).func, (where).line \
                                __VA_OPT__(, ) __VA_ARGS__)
#define UTIL_TRACE_AT(where, fmt, ...)                                                                         \
    util_ops_pfun->dbgout->traceout(util_ops_pfun->dbgout->pstDebugAttr->get(), "[%s +%-4d %s] " fmt, (where).file, \
                                    (where).line, (where).func __VA_OPT__(, ) __VA_ARGS__)
