// Common high utilities: file helpers, configuration-line update, shell and
// process helpers, thread affinity and local time.
#include "util_common_high_function.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "core/util_alloc.h"
#include "common/util_common_base_internal.h"
#include "common/util_common_high_internal.h"
#include "core/util_msg.h"
#include "core/util_text.h"
#include "core/util_raii.h"
#include "core/util_shell.h"

extern "C" __attribute__((visibility("default"))) UTIL_S32 Func_pox_system(const UTIL_CHAR* cmd_line) {
    // A caller that ignores SIGCHLD would make system() lose the child's
    // status; run the command with the default disposition instead.
    const UTIL_Void__FUNC__S32 previous = std::signal(SIGCHLD, SIG_DFL);
    const UTIL_S32 status = std::system(cmd_line);
    if (previous != SIG_ERR) {
        std::signal(SIGCHLD, previous);
    }
    return status;
}

UTIL_S32 Func_get_local_time(struct tm* ptm, UTIL_U32* ptvUsec) noexcept {
    if (ptm == nullptr || ptvUsec == nullptr) {
        UTIL_DBG_ERR("error; ptm or ptvUsec is NULL!!!\n");
        return -1;
    }
    struct timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) {
        UTIL_DBG_ERR("error; gettimeofday failed\n");
        return -1;
    }
    // The zone is read again on every call, so a changed TZ takes effect at
    // once; the conversion itself is the re-entrant one, so streams that
    // synchronise on different threads need no lock around it.
    tzset();
    const time_t seconds = tv.tv_sec;
    struct tm local = {};
    if (localtime_r(&seconds, &local) == nullptr) {
        UTIL_DBG_ERR("error; localtime failed\n");
        return -1;
    }
    *ptm = local;
    *ptvUsec = static_cast<UTIL_U32>(tv.tv_usec);
    return 0;
}

UTIL_S32 Func_get_local_time_r(struct tm* ptm) noexcept {
    if (ptm == nullptr) {
        UTIL_DBG_ERR("error; ptm or ptvUsec is NULL!!!\n");
        return -1;
    }
    const time_t now = std::time(nullptr);
    localtime_r(&now, ptm);
    return 0;
}


namespace {

using quillane::UniqueDir;
using quillane::UniqueFile;
using quillane::UniquePipe;

// The leading decimal number of text[0..n) by the rules of atoi (blanks, an
// optional sign, digits up to the first other character), never reading past
// n and saturating instead of overflowing.
UTIL_S32 leading_int(const char* text, std::size_t n) noexcept {
    std::size_t i = 0;
    while (i < n && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
    bool negative = false;
    if (i < n && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    constexpr std::int64_t kPastInt = std::int64_t{INT_MAX} + 1;
    std::int64_t value = 0;
    for (; i < n && quillane::is_decimal_digit(static_cast<unsigned char>(text[i])); ++i) {
        value = quillane::push_digit(value, static_cast<unsigned char>(text[i]), kPastInt);
    }
    value = std::min(value, kPastInt);
    if (negative) value = -value;
    if (value > INT_MAX) value = INT_MAX;
    return static_cast<UTIL_S32>(value);
}

// ---- file helpers ----

UTIL_U64 Func_get_file_size(const UTIL_CHAR* filepath) noexcept {
    struct stat st;
    if (filepath == nullptr || stat(filepath, &st) < 0) return 0;
    return static_cast<UTIL_U64>(st.st_size);
}

UTIL_U64 Func_get_file_size2(const UTIL_CHAR* filepath) noexcept {
    if (filepath == nullptr) return 0;
    UniqueFile fp(std::fopen(filepath, "rbe"));
    if (!fp || std::fseek(fp.get(), 0, SEEK_END) != 0) return 0;
    const long end = std::ftell(fp.get());
    return end < 0 ? 0 : static_cast<UTIL_U64>(end);
}

UTIL_S32 Func_is_file_empty(UTIL_CHAR* path) noexcept {
    if (path == nullptr) return -1;
    UniqueDir dir(opendir(path));
    if (!dir) return -1;
    int entries = 0;
    while (readdir(dir.get()) != nullptr) ++entries;
    return entries == 0 ? 1 : 0;
}

UTIL_S32 Func_parsePathName(const UTIL_CHAR* path, UTIL_CHAR* dirName, UTIL_CHAR* baseName) noexcept {
    if (path == nullptr) return -1;
    const char* slash = std::strrchr(path, '/');
    if (dirName != nullptr) {
        const std::size_t n = slash == nullptr ? 0 : static_cast<std::size_t>(slash - path);
        std::memcpy(dirName, path, n);
        dirName[n] = '\0';
    }
    if (baseName != nullptr) {
        const char* base = slash == nullptr ? path : slash + 1;
        std::memmove(baseName, base, std::strlen(base) + 1);
    }
    return 0;
}

UTIL_S32 Func_isTextExistStr(FILE* fp, UTIL_CHAR* str, UTIL_S32 size, UTIL_S32 max_num) noexcept {
    if (fp == nullptr || str == nullptr) {
        UTIL_DBG_ERR("fp or str is null");
        return -1;
    }
    if (size < 1 || size > 1024 || max_num < -1) {
        UTIL_DBG_ERR("Range Error: size must [1,1024],and max_num must be equal or greater than  -1");
        return -1;
    }
    char line[1024];
    UTIL_S32 count = 0;
    for (;;) {
        std::memset(line, 0, sizeof line);
        if (std::fgets(line, sizeof line, fp) == nullptr || std::feof(fp)) break;
        if (std::strncmp(line, str, static_cast<std::size_t>(size)) != 0) continue;
        if (max_num >= 0 && count >= max_num) break;
        ++count;
    }
    return count;
}

UTIL_S32 Func_compare_str_to_file(UTIL_CHAR* path, UTIL_CHAR* str, UTIL_S32 size) noexcept {
    if (path == nullptr) return -1;
    UniqueFile fp(std::fopen(path, "re"));
    if (!fp) return -1;
    const UTIL_S32 count = Func_isTextExistStr(fp.get(), str, size, -1);
    return count;
}

UTIL_S32 Func_readTextNum(UTIL_CHAR* filePath, UTIL_S32* num) noexcept {
    if (filePath == nullptr || num == nullptr || access(filePath, F_OK) != 0) return -1;
    UniqueFile fp(std::fopen(filePath, "re"));
    if (!fp) return -1;
    char text[100] = {};
    const std::size_t n = std::fread(text, 1, sizeof text, fp.get());
    *num = leading_int(text, n);
    return 0;
}

UTIL_S32 Func_readTextFirstLineStr(UTIL_CHAR* filePath, UTIL_CHAR* str, UTIL_U32 size) noexcept {
    if (filePath == nullptr || str == nullptr) return -1;
    UniqueFile fp(std::fopen(filePath, "re"));
    if (!fp) return -1;
    std::memset(str, 0, size);
    std::fread(str, 1, size, fp.get());
    UTIL_U32 pos = 0;
    while (pos < size && str[pos] != '\n') ++pos;
    str[pos] = '\0';
    return static_cast<UTIL_S32>(pos > INT_MAX ? INT_MAX : pos);
}

UTIL_S32 Func_deleteFileList(UTIL_CHAR (*delListName)[256], UTIL_S32 num) noexcept {
    UTIL_S32 errors = 0;
    for (UTIL_S32 i = 0; delListName != nullptr && i < num; ++i) {
        const UTIL_CHAR* name = delListName[i];
        // A slot without a terminator names nothing we could safely use.
        if (std::memchr(name, '\0', 256) == nullptr) {
            UTIL_DBG_ERR("error: index:%d: file name is not terminated\n", i);
            ++errors;
            continue;
        }
        if (name[0] == '\0' || access(name, F_OK) != 0) {
            UTIL_DBG_INFO("warning: index:%d: file: %s is NULL or no exist\n", i, name);
            continue;
        }
        struct stat st {};
        stat(name, &st);
        if (S_ISDIR(st.st_mode)) {
            char cmd[256];
            // Plain names give "rm NAME -rf"; others are quoted so they can
            // only ever name the directory.
            const bool ok = quillane::command_with_text(cmd, sizeof cmd, name, "rm ", " -rf", "rm -rf -- ");
            if (!ok) {
                UTIL_DBG_ERR("error: index:%d: command for %s is too long\n", i, name);
                ++errors;
                continue;
            }
            Func_pox_system(cmd);
            usleep(100000);
            UTIL_DBG_INFO("%s is dir, so execel Func_pox_system cmd: %s \n", name, cmd);
        } else if (S_ISREG(st.st_mode)) {
            if (std::remove(name) == 0) {
                UTIL_DBG_INFO("remove file: %s succeed\n", name);
            } else {
                UTIL_DBG_ERR("error: remove file: %s failed\n", name);
                ++errors;
            }
        } else {
            UTIL_DBG_ERR("error: file is not file or dir: %s failed\n", name);
            ++errors;
        }
    }
    return errors;
}

// ---- configuration-line update ----

constexpr std::size_t kLineBuf = 64;
constexpr std::size_t kContentBuf = 2048;
constexpr std::size_t kOutLineBuf = 256;

// Waits for the exclusive lock; true once it is held. A signal only cuts the
// wait short, it is no reason to go on without the lock.
bool lock_file(int fd) noexcept {
    int rc;
    while ((rc = flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (rc != 0) {
        UTIL_DBG_INFO("file lock by others");
    }
    return rc == 0;
}

// Opens `path` for reading and locks it, filling `st` with the locked file's
// status. A writer that held the lock before us has renamed its new file over
// the one we opened, and a lock on a replaced file guards nothing: so once
// the lock is ours the path must still name that file, or we start again on
// the file that is there now.
UniqueFile open_locked(const char* path, struct stat& st) noexcept {
    for (;;) {
        UniqueFile fp(std::fopen(path, "re"));
        if (!fp) return fp;
        const bool locked = lock_file(fileno(fp.get()));
        if (fstat(fileno(fp.get()), &st) != 0) return nullptr;
        struct stat now {};
        if (!locked || (stat(path, &now) == 0 && now.st_dev == st.st_dev && now.st_ino == st.st_ino)) return fp;
    }
}

bool write_all(int fd, const char* data, std::size_t size) noexcept {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Flushes the file to the disk and closes it; false (with errno) when either
// fails, since the data may then never reach the disk.
bool sync_and_close(int fd, bool ok) noexcept {
    ok = ok && fsync(fd) == 0;
    const int saved = errno;
    if (close(fd) != 0 && ok) return false;
    errno = saved;
    return ok;
}

constexpr int kNoTempFile = 1;

// Writes `content` to a new file beside `target` and renames it over the
// target, so that the path names either the whole old file or the whole new
// one at every instant, whatever happens to this process. The new file takes
// the old one's mode, and as root its owner too, so that the programs that
// read the settings still may. Returns 0; -1 with errno, the old file and the
// directory as they were; or kNoTempFile when the directory takes no new file.
int replace_file(const char* target, const struct stat& old, const char* content, std::size_t size) noexcept {
    const char* slash = std::strrchr(target, '/');
    const std::size_t dir_len = slash == nullptr ? 0 : static_cast<std::size_t>(slash - target) + 1;
    // ".NAME.XXXXXX", the name cut short so that it stays a valid file name.
    const std::size_t base_len = std::min<std::size_t>(std::strlen(target + dir_len), 240);
    const std::size_t tmp_size = dir_len + base_len + 9;
    quillane::UniqueHeap<char> tmp(static_cast<char*>(quillane::mem_malloc(tmp_size)));
    if (!tmp) {
        errno = ENOMEM;
        return -1;
    }
    std::snprintf(tmp.get(), tmp_size, "%.*s.%.*s.XXXXXX", static_cast<int>(dir_len), target,
                  static_cast<int>(base_len), target + dir_len);
    const int fd = mkostemp(tmp.get(), O_CLOEXEC);
    if (fd < 0) return errno == EACCES || errno == EPERM ? kNoTempFile : -1;
    const bool written = (geteuid() != 0 || fchown(fd, old.st_uid, old.st_gid) == 0) &&
                         fchmod(fd, old.st_mode & 07777) == 0 && write_all(fd, content, size);
    if (!sync_and_close(fd, written) || rename(tmp.get(), target) != 0) {
        const int saved = errno;
        unlink(tmp.get());
        errno = saved;
        return -1;
    }
    // The rename is done; syncing the directory makes it survive a power cut.
    tmp.get()[dir_len] = '\0';
    const int dir = open(dir_len == 0 ? "." : tmp.get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    return 0;
}

// The fallback for a file whose directory takes no new file (a writable file
// in a read-only directory): nothing can be renamed over it, so it is
// truncated and written anew in place. Removing it first, as a plain rewrite
// would, could not succeed in such a directory, and if it ever did the file
// would be gone for good should the create then fail. Unlike replace_file, a
// crash or a full disk in the middle of this leaves the file short.
bool rewrite_in_place(const char* target, const char* content, std::size_t size) noexcept {
    const int fd = open(target, O_WRONLY | O_TRUNC | O_CLOEXEC);
    return fd >= 0 && sync_and_close(fd, write_all(fd, content, size));
}

// Texts that would damage the file, refused in the name of the rewrite at `at`.
bool refused_texts(quillane::Where at, const char* path, const char* keyword, const char* item) noexcept {
    if (keyword[0] == '\0') {
        // Every line contains the empty text: the whole file would become
        // copies of one line.
        UTIL_DBG_ERR_AT(at, "error: empty keyword, %s left unchanged\n", path);
        return true;
    }
    if (std::strpbrk(keyword, "\r\n") != nullptr || std::strpbrk(item, "\r\n") != nullptr) {
        // The line end would slip a second setting into the file.
        UTIL_DBG_ERR_AT(at, "error: line end in the keyword or the new line, %s left unchanged\n", path);
        return true;
    }
    return false;
}

// The new content of a configuration file: every line containing `keyword`
// replaced by `item` and a line feed, the others as they were.
enum class Rewritten { ok, too_long, read_failed };
Rewritten rewrite_lines(FILE* in, const char* keyword, const char* item, char (&content)[kContentBuf],
                        std::size_t& used) noexcept {
    const std::size_t item_len = std::strlen(item);
    char* line = nullptr;
    std::size_t cap = 0;
    Rewritten result = Rewritten::ok;
    for (ssize_t n; (n = getline(&line, &cap, in)) >= 0;) {
        const bool match = std::strstr(line, keyword) != nullptr;
        const std::size_t out_len = match ? item_len + 1 : static_cast<std::size_t>(n);
        if (out_len >= kOutLineBuf || used + out_len >= kContentBuf) {
            result = Rewritten::too_long;
            break;
        }
        if (match) {
            std::memcpy(content + used, item, item_len);
            content[used + item_len] = '\n';
        } else {
            std::memcpy(content + used, line, out_len);
        }
        used += out_len;
    }
    std::free(line);
    if (result == Rewritten::ok && std::ferror(in) != 0) result = Rewritten::read_failed;
    return result;
}

UTIL_S32 update_conf(UTIL_CHAR* path, UTIL_CHAR* keyword, UTIL_CHAR* item) noexcept {
    if (path == nullptr || keyword == nullptr || item == nullptr) return -1;
    // Everything that could be refused is checked before the file is
    // touched, so a refusal leaves it exactly as it was.
    if (refused_texts(UTIL_HERE, path, keyword, item)) return -1;
    struct stat st {};
    if (stat(path, &st) != 0) return -1;  // a missing file is not created
    if (!S_ISREG(st.st_mode)) {
        UTIL_DBG_ERR("error: %s is not a regular file\n", path);
        return -1;
    }
    // Through a symbolic link the link's target is rewritten: renaming over
    // the link would turn it into a copy, cut off from the file it names.
    struct stat lst {};
    quillane::UniqueHeap<char> resolved;
    if (lstat(path, &lst) == 0 && S_ISLNK(lst.st_mode)) {
        resolved.reset(realpath(path, nullptr));
        if (!resolved) return -1;
    }
    const char* target = resolved ? resolved.get() : path;

    // The lock is held from the first read to the rename, so that concurrent
    // rewrites of one file follow each other and none is lost.
    UniqueFile in = open_locked(target, st);
    if (!in) return -1;
    char content[kContentBuf];
    std::size_t used = 0;
    const Rewritten read = rewrite_lines(in.get(), keyword, item, content, used);
    if (read == Rewritten::too_long) {
        UTIL_DBG_ERR("error: %s: a line or the new content is too long, file left unchanged\n", path);
        return -1;
    }
    // What was read up to an error is not the file: writing it would lose the rest.
    if (read == Rewritten::read_failed) {
        UTIL_DBG_ERR("error: %s: read failed, file left unchanged\n", path);
        return -1;
    }
    char text[64];
    int rc = replace_file(target, st, content, used);
    if (rc == kNoTempFile) {
        rc = rewrite_in_place(target, content, used) ? 0 : -1;
        if (rc != 0) {
            UTIL_DBG_ERR("error: %s: rewriting in place failed, the file may be short: %s\n", path,
                         strerror_r(errno, text, sizeof text));
        }
    } else if (rc != 0) {
        UTIL_DBG_ERR("error: %s: the new content could not be written, file left unchanged: %s\n", path,
                     strerror_r(errno, text, sizeof text));
    }
    // Unlocked explicitly: a child forked meanwhile by another thread shares
    // the open file, and closing our copy would not release the lock.
    flock(fileno(in.get()), LOCK_UN);
    return rc;
}

UTIL_S32 Func_update_line_conf(UTIL_CHAR* path, UTIL_CHAR* keyword, UTIL_CHAR* new_key_word_value) noexcept {
    return update_conf(path, keyword, new_key_word_value);
}

UTIL_S32 Func_update_line_conf_str(UTIL_CHAR* path, UTIL_CHAR* keyword, UTIL_CHAR* keyvalue,
                                   UTIL_CHAR* format) noexcept {
    if (format == nullptr || std::strcmp(format, "%s = \"%s\"") != 0) {
        UTIL_DBG_ERR("error: format is wrong\n");
        return -1;
    }
    if (keyword == nullptr || keyvalue == nullptr) return -1;
    char line[kLineBuf] = {};
    if (std::snprintf(line, sizeof line, "%s = \"%s\"", keyword, keyvalue) >= static_cast<int>(sizeof line)) {
        UTIL_DBG_ERR("error: the line for %s is too long\n", keyword);
        return -1;
    }
    return update_conf(path, keyword, line);
}

UTIL_S32 Func_update_line_conf_int(UTIL_CHAR* path, UTIL_CHAR* keyword, UTIL_S32 keyvalue,
                                   UTIL_CHAR* format) noexcept {
    const char* fmt = nullptr;
    if (format != nullptr && std::strcmp(format, "%s = \"%d\"") == 0) {
        fmt = "%s = \"%d\"";
    } else if (format != nullptr && std::strcmp(format, "%s=%d") == 0) {
        fmt = "%s=%d";
    } else {
        UTIL_DBG_ERR("error: format is wrong\n");
        return -1;
    }
    if (keyword == nullptr) return -1;
    char line[kLineBuf] = {};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int n = std::snprintf(line, sizeof line, fmt, keyword, keyvalue);
#pragma GCC diagnostic pop
    if (n >= static_cast<int>(sizeof line)) {
        UTIL_DBG_ERR("error: the line for %s is too long\n", keyword);
        return -1;
    }
    return update_conf(path, keyword, line);
}

// ---- process and shell helpers ----

constexpr std::size_t kCmdBuf = 128;

UTIL_S32 Func_readFileShellCmds_malloc(UTIL_CHAR* filePath, util_string_list_t* pbuf, UTIL_S32 mblock) noexcept {
    if (pbuf == nullptr) return -1;
    pbuf->strList = mblock < 0 ? nullptr
                               : static_cast<util_string_t*>(quillane::mem_calloc(
                                     mblock == 0 ? 1 : static_cast<std::size_t>(mblock), sizeof(util_string_t)));
    if (pbuf->strList == nullptr) {
        UTIL_DBG_ERR("error: malloc faild!!! buffer:%s, type:%s, count:%d\n", "pbuf->strList", "util_string_t", mblock);
        return -1;
    }
    pbuf->size = mblock;
    UniqueFile fp(filePath != nullptr ? std::fopen(filePath, "re") : nullptr);
    if (!fp) {
        UTIL_DBG_ERR("error: open file failed!!!");
        return -1;
    }
    quillane::UniqueHeap<char> line(static_cast<char*>(quillane::mem_malloc(1024)));
    if (!line) {
        UTIL_DBG_ERR("error: malloc faild!!! buffer:%s, type:%s, count:%d\n", "str", "char", 1024);
        return -1;
    }
    UTIL_S32 index = 0;
    while (index < mblock && std::fgets(line.get(), 1024, fp.get()) != nullptr) {
        if (std::strlen(line.get()) < 2) continue;
        const char* text = Func_strTrim(line.get());
        if (text == nullptr || text[0] == '\0' || text[0] == '#') continue;
        const std::size_t len = std::strlen(text);
        auto* copy = static_cast<UTIL_CHAR*>(quillane::mem_malloc(len + 1));
        if (copy == nullptr) {
            UTIL_DBG_ERR("error: malloc faild!!! buffer:%s, type:%s, count:%d\n", "pbuf->strList[index].string",
                         "char", static_cast<int>(len));
            return -1;
        }
        std::memcpy(copy, text, len + 1);
        pbuf->strList[index].string = copy;
        pbuf->strList[index].length = static_cast<UTIL_S32>(len);
        ++index;
    }
    return 0;
}

// Builds "ps | grep \"NAME\"" (a plain name) or "ps | grep -e 'NAME'"
// (anything else, so the name can never end the pattern and start a command).
bool lookup_command(const char* name, char (&cmd)[kCmdBuf]) noexcept {
    return quillane::command_with_text(cmd, sizeof cmd, name, "ps | grep \"", "\"", "ps | grep -e ");
}

UTIL_S32 Func_find_pid(UTIL_CHAR* pidname) noexcept {
    if (pidname == nullptr) return 0;
    char cmd[kCmdBuf];
    if (!lookup_command(pidname, cmd)) {
        UTIL_DBG_ERR("error: name too long: %s\n", pidname);
        return 0;
    }
    char out[kCmdBuf] = {};
    std::size_t n = 0;
    {
        UniquePipe pipe(popen(cmd, "re"));
        if (!pipe) {
            UTIL_DBG_ERR("fopen %s failed\n", cmd);
            return 0;
        }
        n = std::fread(out, 1, sizeof out, pipe.get());
        if (n == 0) {
            UTIL_DBG_ERR("fread %s failed\n", cmd);
        }
    }
    UTIL_S32 pid = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (out[i] >= '0' && out[i] <= '9') {
            std::size_t end = i;
            while (end < n && out[end] != ' ') ++end;
            pid = leading_int(out + i, end - i);
            break;
        }
    }
    UTIL_DBG_INFO("find pid: %s:%d\n", pidname, pid);
    return pid;
}

// A signal as kill takes it after the dash: a number, or a name such as
// TERM, SIGKILL or RTMIN+3.
bool signal_text_ok(std::string_view level) noexcept {
    if (level.empty() || level.size() > 16) return false;
    for (unsigned char c : level) {
        if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' || c == '-')) return false;
    }
    return level.front() != '-' && level.front() != '+';
}

void Func_kill_pid(UTIL_CHAR* pid_name, UTIL_CHAR* level) noexcept {
    if (pid_name == nullptr || level == nullptr || !signal_text_ok(level)) {
        UTIL_DBG_ERR("error: not a signal: %s\n", level != nullptr ? level : "(null)");
        return;
    }
    char cmd[kCmdBuf];
    std::size_t pos = 0;
    quillane::append_text(cmd, sizeof cmd, pos, "kill -");
    quillane::append_text(cmd, sizeof cmd, pos, level);
    quillane::append_text(cmd, sizeof cmd, pos, " ");
    const UTIL_S32 pid = Func_find_pid(pid_name);
    if (pid == 0) {
        UTIL_DBG_ERR("not found %s pid\n", pid_name);
        return;
    }
    char number[12];
    Func_itoa(pid, number);
    quillane::append_text(cmd, sizeof cmd, pos, number);
    UTIL_DBG_INFO("cmd:%s\n", cmd);
    const UTIL_S32 ret = Func_pox_system(cmd);
    UTIL_DBG_INFO("kill pid: %d ret:%d\n", pid, ret);
}

UTIL_S32 Func_popen_cmd(UTIL_CHAR* cmd) noexcept {
    UniquePipe pipe(cmd != nullptr ? popen(cmd, "re") : nullptr);
    if (!pipe) {
        UTIL_DBG_ERR("Fail to peopn\n");
        return -1;
    }
    return 0;
}

UTIL_S32 Func_popen_cmd_result(UTIL_CHAR* cmd, UTIL_CHAR* result, UTIL_U32 size) noexcept {
    UniquePipe pipe(cmd != nullptr && result != nullptr ? popen(cmd, "re") : nullptr);
    if (!pipe) {
        UTIL_DBG_ERR("popen failed\n");
        return -1;
    }
    std::memset(result, 0, size);
    const std::size_t n = std::fread(result, 1, size, pipe.get());
    if (n == 0) {
        UTIL_DBG_ERR("fread %s failed\n", result);
        return -1;
    }
    return static_cast<UTIL_S32>(n > INT_MAX ? INT_MAX : n);
}

}  // namespace

namespace {

UTIL_S32 Func_setThreadCPU(pthread_t thread, UTIL_U32 cpu_num) noexcept {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu_num < CPU_SETSIZE) {
        CPU_SET(cpu_num, &set);
    }
    int rc = pthread_setaffinity_np(thread, sizeof set, &set);
    if (rc != 0) {
        UTIL_DBG_ERR("pthread_setaffinity_np Error:%x\n", rc);
        return rc;
    }
    rc = pthread_getaffinity_np(thread, sizeof set, &set);
    if (rc != 0) {
        UTIL_DBG_ERR("pthread_getaffinity_np Error:%x\n", rc);
        return rc;
    }
    if (cpu_num >= CPU_SETSIZE || !CPU_ISSET(cpu_num, &set)) {
        UTIL_DBG_ERR("CPU_ISSET Error\n");
        return -1;
    }
    return 0;
}

}  // namespace

util_ops_common_high_fun_t util_ops_common_high_fun = {
    Func_pox_system,
    Func_readFileShellCmds_malloc,
    Func_get_file_size,
    Func_get_file_size2,
    Func_is_file_empty,
    Func_parsePathName,
    Func_isTextExistStr,
    Func_compare_str_to_file,
    Func_readTextNum,
    Func_readTextFirstLineStr,
    Func_deleteFileList,
    Func_update_line_conf_str,
    Func_update_line_conf_int,
    Func_update_line_conf,
    Func_find_pid,
    Func_kill_pid,
    Func_popen_cmd,
    Func_popen_cmd_result,
    Func_setThreadCPU,
    Func_get_local_time,
    Func_get_local_time_r,
};
