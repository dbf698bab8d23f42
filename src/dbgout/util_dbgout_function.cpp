// Debug output: the global debug record with its accessors, the trace
// function with its log-file and syslog writers, and the command byte dump.
#include "util_dbgout_function.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "dbgout/util_dbgout_internal.h"
#include "core/util_msg.h"
#include "core/util_text.h"

void quillane::console_message(FILE* stream, const char* fmt, ...) noexcept {
    // A diagnostic never changes errno: the caller may still want the reason.
    const int saved_errno = errno;
    va_list ap;
    va_start(ap, fmt);
    flockfile(stream);
    vfprintf(stream, fmt, ap);
    fflush(stream);
    funlockfile(stream);
    va_end(ap);
    errno = saved_errno;
}

namespace {

constexpr std::size_t kTraceBufSize = 224;
constexpr std::size_t kBackupNameSize = 128;
constexpr std::size_t kPathSize = sizeof(util_dbgout_dbglog_t::log_path);
constexpr useconds_t kRotationPauseUs = 10000;

util_dbgout_t _debugAttr_baseInit = {
    UTIL_DBGOUT_ENUM_TYPE_DBGLOG,
    {UTIL_DBGOUT_DBGLOG_ENABLE, nullptr, "/dev/util_dbgout.log", 0x100000},
    {0, 0},
    {0, 0, 0},
};

// The BUSY bit decides which messages are dropped during a rotation, but it
// cannot keep one thread from closing the stream while another is still
// writing to it. This lock guards the stream pointer and the option word
// (install, write, close); it is released while a rotation pauses, so the
// BUSY protocol stays visible, and while a log file is being opened, since
// an open may wait and every record's traces share this one lock.
std::mutex g_stream_lock;

// A child forked while another thread held the lock would never get it.
struct ForkSafeStreamLock {
    ForkSafeStreamLock() noexcept {
        pthread_atfork([] { g_stream_lock.lock(); }, [] { g_stream_lock.unlock(); },
                       [] { g_stream_lock.unlock(); });
    }
} g_fork_safe_stream_lock;

// Shifted seconds, wrapping instead of overflowing for absurd zone values.
time_t shift_seconds(time_t t, time_t tz, UTIL_S32 dst) noexcept {
    return static_cast<time_t>(static_cast<std::uint64_t>(t) - static_cast<std::uint64_t>(tz) +
                               static_cast<std::uint64_t>(static_cast<std::int64_t>(dst) * 3600));
}

bool path_is_terminated(const util_dbgout_dbglog_t* pdbglog) noexcept {
    return std::memchr(pdbglog->log_path, '\0', kPathSize) != nullptr;
}

void close_stream(util_dbgout_dbglog_t* pdbglog) noexcept {
    if (pdbglog->log_fp != nullptr) {
        std::fclose(pdbglog->log_fp);
        pdbglog->log_fp = nullptr;
    }
}

// Opens a log stream only on a regular file. Anything else at the path (a
// FIFO without a reader, a terminal, a directory) could block the open or
// every later write, or swallow the messages, so it is refused. O_NONBLOCK
// keeps the open itself from waiting; the check is on the descriptor, so a
// file swapped in after the caller's stat is caught too. Always close-on-exec,
// so the shell commands the library runs don't inherit it.
FILE* open_regular(const char* path, int flags, const char* mode) noexcept {
    const int fd = open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return nullptr;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    FILE* fp = fdopen(fd, mode);
    if (fp == nullptr) {
        close(fd);
    }
    return fp;
}

// A new log file in place of one that is missing. Opened for appending, not
// truncated: the open runs without the lock, and a file another thread
// created and wrote to in the meantime keeps its messages.
FILE* create_log(const char* path) noexcept { return open_regular(path, O_RDWR | O_CREAT | O_APPEND, "a+"); }

// Opens the log file by its state on disk: created when missing, rewritten
// from the start when already over the limit, appended to otherwise.
FILE* open_log(const char* path, UTIL_U64 max_size) noexcept {
    struct stat st;
    if (stat(path, &st) != 0) {
        return create_log(path);
    }
    if (static_cast<UTIL_U64>(st.st_size) > max_size) {
        return open_regular(path, O_RDWR, "r+");
    }
    return open_regular(path, O_WRONLY | O_CREAT | O_APPEND, "a");
}

int write_stamped(FILE* fp, const UTIL_CHAR* msg, const util_dbgout_extra_info_t* px) noexcept {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    Func_nolocks_localtime(&tm, tv.tv_sec, px->log_timezone, px->log_daylight);
    const int ms = static_cast<int>(tv.tv_usec / 1000);
    const int us = static_cast<int>(tv.tv_usec % 1000);
    switch (px->timestamp_bits) {
        case 255:
            return std::fprintf(fp, "%d-%02d-%02d %02d:%02d:%02d.%03d.%03d %s", tm.tm_year + 1900, tm.tm_mon + 1,
                                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms, us, msg);
        case 254:
            return std::fprintf(fp, "%d-%02d-%02d %02d:%02d:%02d.%03d %s", tm.tm_year + 1900, tm.tm_mon + 1,
                                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms, msg);
        case 126:
            return std::fprintf(fp, "%02d-%02d %02d:%02d:%02d.%03d %s", tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                                tm.tm_min, tm.tm_sec, ms, msg);
        case 63:
            return std::fprintf(fp, "%02d %02d:%02d:%02d.%03d %s", tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms,
                                msg);
        default:
            return std::fprintf(fp, "%02d:%02d:%02d.%03d %s", tm.tm_hour, tm.tm_min, tm.tm_sec, ms, msg);
    }
}

}  // namespace

UTIL_S32 Func_is_leap_year(time_t year) noexcept {
    return (year % 4 == 0 && (year % 100 != 0 || year % 400 == 0)) ? 1 : 0;
}

void Func_nolocks_localtime(struct tm* tmp, time_t t, time_t tz, UTIL_S32 dst) noexcept {
    // The conversion covers 1970-01-01 to 9999-12-31; a shifted time outside
    // that range is pinned to the nearest end instead of producing nonsense.
    constexpr std::int64_t kLastSecond = 253402300799;  // 9999-12-31 23:59:59
    std::int64_t s = shift_seconds(t, tz, dst);
    if (s < 0) s = 0;
    if (s > kLastSecond) s = kLastSecond;

    const std::int64_t days = s / 86400;
    const std::int64_t secs = s % 86400;
    tmp->tm_isdst = dst;
    tmp->tm_hour = static_cast<int>(secs / 3600);
    tmp->tm_min = static_cast<int>((secs % 3600) / 60);
    tmp->tm_sec = static_cast<int>(secs % 60);
    tmp->tm_wday = static_cast<int>((days + 4) % 7);

    // Civil date from a day count in one step (the proleptic Gregorian
    // calendar in 400-year eras, years starting in March), instead of walking
    // year by year from 1970.
    const std::int64_t z = days + 719468;
    const std::int64_t era = z / 146097;
    const std::int64_t doe = z - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy_march = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy_march + 2) / 153;
    const std::int64_t mday = doy_march - (153 * mp + 2) / 5 + 1;
    const std::int64_t mon = mp < 10 ? mp + 2 : mp - 10;  // 0 = January
    const std::int64_t year = yoe + era * 400 + (mon <= 1 ? 1 : 0);
    // March 1st is day 59 of a common year, 60 of a leap year.
    const std::int64_t yday = mon <= 1 ? doy_march - 306 : doy_march + 59 + Func_is_leap_year(year);

    tmp->tm_yday = static_cast<int>(yday);
    tmp->tm_mon = static_cast<int>(mon);
    tmp->tm_mday = static_cast<int>(mday);
    tmp->tm_year = static_cast<int>(year - 1900);
}

namespace {

// Runs `step` with the stream lock released and takes the lock back before
// returning its result. The only places the lock is let go: an open (which
// may wait) and the pause of a rotation. Whatever was read under the lock
// must be read again afterwards.
template <typename Step>
auto without_lock(std::unique_lock<std::mutex>& lock, Step step) noexcept {
    lock.unlock();
    auto result = step();
    lock.lock();
    return result;
}

// Installs a stream opened without the lock, unless another thread installed
// one meanwhile: then that stream is shared and this one closed.
void install_stream(util_dbgout_dbglog_t* pdbglog, FILE* fresh) noexcept {
    if (pdbglog->log_fp == nullptr) {
        pdbglog->log_fp = fresh;
    } else if (fresh != nullptr) {
        std::fclose(fresh);
    }
}

// Opens the log file for the first message after the stream was closed.
// False drops the message: nothing could be opened (or it is no regular
// file), or a rotation started while the lock was released.
bool open_stream(std::unique_lock<std::mutex>& lock, util_dbgout_dbglog_t* pdbglog, const char* path) noexcept {
    const UTIL_U64 max_size = pdbglog->log_max_size;
    FILE* fresh = without_lock(lock, [&] { return open_log(path, max_size); });
    if (fresh == nullptr) {
        return false;
    }
    install_stream(pdbglog, fresh);
    return (pdbglog->enable & UTIL_DBGOUT_DBGLOG_BUSY) == 0;
}

struct Written {
    bool dropped;   // the message did not reach the file
    long position;  // the stream's size afterwards, negative when unknown
};

Written write_message(FILE* fp, const UTIL_CHAR* msg, UTIL_U32 enable, const util_dbgout_extra_info_t* px) noexcept {
    const int written = (enable & UTIL_DBGOUT_DBGLOG_TIMESTAMP) != 0 ? write_stamped(fp, msg, px) : std::fputs(msg, fp);
    std::fflush(stdout);
    // A failed write (a full disk, say) drops this message; clearing the
    // error lets the next message try again.
    const bool dropped = written < 0 || std::fflush(fp) != 0;
    if (dropped) {
        std::clearerr(fp);
    }
    return {dropped, std::ftell(fp)};
}

// The file was deleted or moved away while open: the stream is closed and a
// new file started, again without holding the lock across the open.
void reopen_deleted(quillane::Where where, std::unique_lock<std::mutex>& lock, util_dbgout_dbglog_t* pdbglog,
                    const char* path) noexcept {
    close_stream(pdbglog);
    install_stream(pdbglog, without_lock(lock, [&] { return create_log(path); }));
    UTIL_DBG_ERR_AT(where, "stat ERR\n");
}

// Past the size limit: after a pause in which messages are dropped (BUSY),
// the file is renamed to its backup, or file logging is switched off.
UTIL_S32 rotate(quillane::Where where, std::unique_lock<std::mutex>& lock, util_dbgout_dbglog_t* pdbglog) noexcept {
    if ((pdbglog->enable & UTIL_DBGOUT_DBGLOG_BUSY) != 0 || pdbglog->log_fp == nullptr) {
        UTIL_DBG_ERR_AT(where, "warning: mult pthread enter\n");
        return 1;
    }
    pdbglog->enable |= UTIL_DBGOUT_DBGLOG_BUSY;
    without_lock(lock, [] { return usleep(kRotationPauseUs); });
    if (pdbglog->log_fp == nullptr) {
        UTIL_DBG_ERR_AT(where, "log(%s) max, wait a moment\n", pdbglog->log_path);
        pdbglog->enable &= ~UTIL_DBGOUT_DBGLOG_BUSY;
        return 0;
    }
    close_stream(pdbglog);
    if ((pdbglog->enable & UTIL_DBGOUT_DBGLOG_BACKUP) != 0) {
        char backup[kBackupNameSize];
        std::snprintf(backup, sizeof backup, "%s_bak", pdbglog->log_path);
        if (std::rename(pdbglog->log_path, backup) == 0) {
            UTIL_DBG_ERR_AT(where, "update %s success\n", backup);
        } else {
            UTIL_DBG_ERR_AT(where, "update %s error\n", backup);
        }
    } else {
        pdbglog->enable &= ~UTIL_DBGOUT_DBGLOG_ENABLE;
    }
    pdbglog->enable &= ~UTIL_DBGOUT_DBGLOG_BUSY;
    return 0;
}

}  // namespace

// The stream lock is held from start to end; the steps above let it go only
// through without_lock.
UTIL_S32 Func_dbgout_dbglog(util_dbgout_dbglog_t* pdbglog, const UTIL_CHAR* msg,
                            util_dbgout_extra_info_t* pextraInfo) noexcept {
    std::unique_lock<std::mutex> lock(g_stream_lock);
    if ((pdbglog->enable & UTIL_DBGOUT_DBGLOG_BUSY) != 0) {
        return 1;
    }
    if ((pdbglog->enable & UTIL_DBGOUT_DBGLOG_ENABLE) == 0) {
        close_stream(pdbglog);
        return 0;
    }
    // A path written straight into the record may lack its terminator; such
    // a path names no file we could safely look at.
    if (!path_is_terminated(pdbglog)) {
        return 1;
    }
    // The path is copied out because the lock is not held across an open.
    char path[kPathSize];
    std::memcpy(path, pdbglog->log_path, kPathSize);
    if (pdbglog->log_fp == nullptr && !open_stream(lock, pdbglog, path)) {
        return 1;
    }
    const Written written = write_message(pdbglog->log_fp, msg, pdbglog->enable, pextraInfo);
    struct stat st;
    if (stat(path, &st) != 0) {
        reopen_deleted(UTIL_HERE, lock, pdbglog, path);
        return 0;
    }
    // A position that cannot be read leaves no size to keep in check.
    if (written.position < 0 || static_cast<UTIL_U64>(written.position) <= pdbglog->log_max_size) {
        return written.dropped ? 1 : 0;
    }
    return rotate(UTIL_HERE, lock, pdbglog);
}

UTIL_S32 Func_dbgout_syslog(util_dbgout_syslog_t* psyslog, const UTIL_CHAR* msg,
                            util_dbgout_extra_info_t* pextraInfo) noexcept {
    if (psyslog->timestamp_enable == 0) {
        syslog(psyslog->priority, "%s", msg);
        return 0;
    }
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    const std::int64_t local = shift_seconds(tv.tv_sec, pextraInfo->log_timezone, pextraInfo->log_daylight);
    const auto sod = static_cast<UTIL_U32>(((local % 86400) + 86400) % 86400);
    const int hour = static_cast<int>(sod / 3600);
    const int min = static_cast<int>((sod % 3600) / 60);
    const int sec = static_cast<int>((sod % 3600) % 60);
    const int ms = static_cast<int>(tv.tv_usec / 1000);
    const int us = static_cast<int>(tv.tv_usec % 1000);
    // The seconds-only form ("%02d.%03d.%03d") is deliberately not selectable:
    // 31 already names the full form, and any other value keeps the short one.
    switch (pextraInfo->timestamp_bits) {
        case 31:
            syslog(psyslog->priority, "%02d:%02d:%02d.%03d.%03d %s", hour, min, sec, ms, us, msg);
            break;
        case 3:
            syslog(psyslog->priority, "%03d.%03d %s", ms, us, msg);
            break;
        default:
            syslog(psyslog->priority, "%03d %s", ms, msg);
            break;
    }
    return 0;
}

namespace {

UTIL_S32 Func_util_dbgout_log(util_dbgout_t* p_dbg, const UTIL_CHAR* fmt, ...) noexcept {
    if (p_dbg == nullptr) {
        return -1;
    }
    if (p_dbg->enType == UTIL_DBGOUT_ENUM_TYPE_NOLOG) {
        return 0;
    }
    if (fmt == nullptr) {
        return -1;
    }
    char buf[kTraceBufSize] = {};
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);

    UTIL_S32 ret = 0;
    if ((p_dbg->enType & UTIL_DBGOUT_ENUM_TYPE_DBGLOG) != 0) {
        ret = Func_dbgout_dbglog(&p_dbg->dbglogAttr, buf, &p_dbg->extraInfo);
    }
    if ((p_dbg->enType & UTIL_DBGOUT_ENUM_TYPE_SYSLOG) != 0) {
        ret = Func_dbgout_syslog(&p_dbg->syslogAttr, buf, &p_dbg->extraInfo);
    }
    return ret;
}

UTIL_S32 Func_dbgout_cmdToStr(UTIL_U8* arr, UTIL_U8 size, UTIL_CHAR* buf) noexcept {
    if (size < 3) {
        std::perror("the cmd length is less than 3");
        UTIL_TRACE("error: the cmd length:%d is less than 3\n", size);
        return -1;
    }
    if (arr == nullptr || buf == nullptr) {
        UTIL_TRACE("error: arr or buf is NULL\n");
        return -1;
    }
    // "{0xHH" for the first byte, ", 0xHH" for each further one, "}" last:
    // exactly six characters a byte.
    UTIL_CHAR* p = buf;
    for (unsigned i = 0; i < size; ++i) {
        if (i == 0) {
            *p++ = '{';
        } else {
            *p++ = ',';
            *p++ = ' ';
        }
        *p++ = '0';
        *p++ = 'x';
        *p++ = quillane::kHexDigitsUpper[arr[i] >> 4];
        *p++ = quillane::kHexDigitsUpper[arr[i] & 0xF];
    }
    *p++ = '}';
    *p = '\0';
    return 0;
}

UTIL_S32 Func_dbgout_cmdPrint(UTIL_U8* arr, UTIL_U8 size) noexcept {
    // The longest dump (255 bytes) fits on the stack, so there is no
    // allocation that could fail; a refused command traces an empty text.
    std::array<UTIL_CHAR, 6 * 255 + 1> text{};
    Func_dbgout_cmdToStr(arr, size, text.data());
    UTIL_TRACE("cmd[%d]:%s\n\n", size, text.data());
    return 0;
}

// ---- accessors of the global record ----

util_dbgout_t* attr_get() noexcept { return &_debugAttr_baseInit; }

void attr_set_dbglog_enable(UTIL_U32 enable) noexcept { _debugAttr_baseInit.dbglogAttr.enable = enable; }

UTIL_U32 attr_get_dbglog_enable() noexcept { return _debugAttr_baseInit.dbglogAttr.enable; }

void attr_set_dbglog_logMaxSize(UTIL_U64 logMaxSize) noexcept {
    _debugAttr_baseInit.dbglogAttr.log_max_size = logMaxSize;
}

UTIL_U64 attr_get_dbglog_logMaxSize() noexcept { return _debugAttr_baseInit.dbglogAttr.log_max_size; }

void attr_set_dbglog_logPath(const UTIL_CHAR* logPath) noexcept {
    if (logPath == nullptr || strnlen(logPath, kPathSize) >= kPathSize) {
        return;
    }
    UTIL_CHAR* field = _debugAttr_baseInit.dbglogAttr.log_path;
    std::memset(field, 0, kPathSize);
    std::memcpy(field, logPath, std::strlen(logPath));
}

UTIL_CHAR* attr_get_dbglog_logPath() noexcept { return _debugAttr_baseInit.dbglogAttr.log_path; }

void attr_set(util_dbgout_t* pst) noexcept {
    if (pst == nullptr) {
        return;
    }
    util_dbgout_dbglog_t& own = _debugAttr_baseInit.dbglogAttr;
    std::memcpy(own.log_path, pst->dbglogAttr.log_path, kPathSize);
    own.log_max_size = pst->dbglogAttr.log_max_size;
    own.enable = pst->dbglogAttr.enable;
}

void attr_fclose_dbglog_fp() noexcept {
    std::lock_guard<std::mutex> lock(g_stream_lock);
    close_stream(&_debugAttr_baseInit.dbglogAttr);
}

void attr_set_dbglog_attr(UTIL_U32 enable, const UTIL_CHAR* logPath, UTIL_U64 logMaxSize) noexcept {
    attr_set_dbglog_logPath(logPath);
    attr_set_dbglog_logMaxSize(logMaxSize);
    attr_set_dbglog_enable(enable);
}

void attr_set_syslog_attr(UTIL_S32 priority, UTIL_U32 timestampEnable) noexcept {
    _debugAttr_baseInit.syslogAttr.priority = priority;
    _debugAttr_baseInit.syslogAttr.timestamp_enable = timestampEnable;
}

void attr_set_extraInfo_attr(time_t logTimezone, UTIL_S32 logDaylight, UTIL_U32 timestampBits) noexcept {
    _debugAttr_baseInit.extraInfo.log_timezone = logTimezone;
    _debugAttr_baseInit.extraInfo.log_daylight = logDaylight;
    _debugAttr_baseInit.extraInfo.timestamp_bits = timestampBits;
}

void attr_get_extraInfo_attr(time_t* logTimezone, UTIL_S32* logDaylight, UTIL_U32* timestampBits) noexcept {
    if (logTimezone != nullptr) *logTimezone = _debugAttr_baseInit.extraInfo.log_timezone;
    if (logDaylight != nullptr) *logDaylight = _debugAttr_baseInit.extraInfo.log_daylight;
    if (timestampBits != nullptr) *timestampBits = _debugAttr_baseInit.extraInfo.timestamp_bits;
}

util_dbgout_attr_fun_t util_ops_debug_attr_fun_NAME = {
    attr_set,
    attr_get,
    attr_set_dbglog_enable,
    attr_get_dbglog_enable,
    attr_set_dbglog_logMaxSize,
    attr_get_dbglog_logMaxSize,
    attr_set_dbglog_logPath,
    attr_get_dbglog_logPath,
    attr_fclose_dbglog_fp,
    attr_set_dbglog_attr,
    attr_set_syslog_attr,
    attr_set_extraInfo_attr,
    attr_get_extraInfo_attr,
};

}  // namespace

util_ops_dbgout_fun_t util_ops_dbgout_fun = {
    &util_ops_debug_attr_fun_NAME,
    Func_util_dbgout_log,
    Func_dbgout_cmdToStr,
    Func_dbgout_cmdPrint,
};
