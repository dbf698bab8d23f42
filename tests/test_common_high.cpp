// File helpers, configuration-line update, and shell and process helpers of
// the common high table, on real files and real processes.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <thread>

#include "test_support.h"

using namespace qtest;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

namespace {

util_ops_common_high_fun_t* high() { return util_ops_pfun->common_high; }
char* c(std::string& s) { return s.data(); }

std::string err(const std::string& fn, const std::string& text) {
    return "DBG_ERR:util_common_high_function\\.cpp " + fn + "\\[[0-9]{4}\\] " + text;
}
std::string info(const std::string& fn, const std::string& text) {
    return "DBG_INFO:util_common_high_function\\.cpp " + fn + "\\[[0-9]{4}\\] " + text;
}

TEST(FileHelpers, SizesDirectoriesAndPaths) {
    TempDir dir;
    std::string f = dir.file("f.bin");
    write_file(f, std::string(1234, 'x'));
    EXPECT_EQ(high()->get_file_size(f.c_str()), 1234u);
    EXPECT_EQ(high()->get_file_size2(f.c_str()), 1234u);
    EXPECT_EQ(high()->get_file_size(dir.file("none").c_str()), 0u);
    EXPECT_EQ(high()->get_file_size2(dir.file("none").c_str()), 0u);
    std::string d = dir.file("d");
    mkdir(d.c_str(), 0755);
    EXPECT_EQ(high()->is_file_empty(c(d)), 0);  // "." and ".." are entries too
    EXPECT_EQ(high()->is_file_empty(c(f)), -1);
    EXPECT_EQ(high()->is_file_empty(nullptr), -1);

    struct Case {
        const char* path;
        const char* dir;
        const char* base;
    };
    for (const Case& k : {Case{"/usr/bin/x", "/usr/bin", "x"}, Case{"/x", "", "x"}, Case{"x", "", "x"},
                          Case{"a/b/", "a/b", ""}}) {
        char dn[32];
        char bn[32];
        std::memset(dn, '@', sizeof dn);
        std::memset(bn, '@', sizeof bn);
        EXPECT_EQ(high()->parsePathName(k.path, dn, bn), 0);
        EXPECT_STREQ(dn, k.dir) << k.path;
        EXPECT_STREQ(bn, k.base) << k.path;
    }
    char only[8];
    EXPECT_EQ(high()->parsePathName("a/b", nullptr, only), 0);
    EXPECT_STREQ(only, "b");
    EXPECT_EQ(high()->parsePathName(nullptr, only, only), -1);
}

TEST(FileHelpers, CountingLinesThatBeginWithAText) {
    TempDir dir;
    std::string f = dir.file("lines.txt");
    write_file(f, "ab1\nab2\nxx\nab3\n");
    std::string ab = "ab";
    auto count = [&](int max_num) {
        FILE* fp = std::fopen(f.c_str(), "r");
        const int n = high()->isTextExistStr(fp, c(ab), 2, max_num);
        std::fclose(fp);
        return n;
    };
    EXPECT_EQ(count(-1), 3);
    EXPECT_EQ(count(2), 2);
    EXPECT_EQ(count(0), 0);
    EXPECT_EQ(high()->compare_str_to_file(c(f), c(ab), 2), 3);
    write_file(f, "ab1\nab2\nxx\nab3");  // the last line has no line feed: not examined
    EXPECT_EQ(high()->compare_str_to_file(c(f), c(ab), 2), 2);
    std::string missing = dir.file("missing");
    EXPECT_EQ(high()->compare_str_to_file(c(missing), c(ab), 2), -1);

    FILE* fp = std::fopen(f.c_str(), "r");
    CaptureStderr();
    EXPECT_EQ(high()->isTextExistStr(fp, c(ab), 0, -1), -1);
    EXPECT_EQ(high()->isTextExistStr(fp, c(ab), 1025, -1), -1);
    EXPECT_EQ(high()->isTextExistStr(fp, c(ab), 2, -2), -1);
    EXPECT_EQ(high()->isTextExistStr(nullptr, c(ab), 2, -1), -1);
    const std::string range =
        err("Func_isTextExistStr",
            "Range Error: size must \\[1,1024\\],and max_num must be equal or greater than  -1");
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(range + range + range + err("Func_isTextExistStr", "fp or str is null")));
    std::fclose(fp);
}

TEST(FileHelpers, ReadingNumbersAndFirstLines) {
    TempDir dir;
    std::string f = dir.file("n.txt");
    write_file(f, " 42 apples");
    UTIL_S32 num = -7;
    EXPECT_EQ(high()->readTextNum(c(f), &num), 0);
    EXPECT_EQ(num, 42);
    std::string missing = dir.file("none");
    num = -7;
    EXPECT_EQ(high()->readTextNum(c(missing), &num), -1);
    EXPECT_EQ(num, -7);
    // All 100 bytes belong to the number: read no further, and saturate.
    write_file(f, std::string(100, '9') + "123");
    EXPECT_EQ(high()->readTextNum(c(f), &num), 0);
    EXPECT_EQ(num, 2147483647);
    write_file(f, "-" + std::string(99, '9'));
    EXPECT_EQ(high()->readTextNum(c(f), &num), 0);
    EXPECT_EQ(num, -2147483647 - 1);

    char buf[16];
    auto first_line = [&](const std::string& content) {
        write_file(f, content);
        std::memset(buf, '@', sizeof buf);
        return high()->readTextFirstLineStr(c(f), buf, 10);
    };
    EXPECT_EQ(first_line("12\n34"), 2);
    EXPECT_STREQ(buf, "12");
    EXPECT_EQ(first_line("abc"), 10);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(first_line(""), 10);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(first_line("0123456789ABCDEF"), 10);  // the terminator goes at index 10, no further
    EXPECT_EQ(buf[10], '\0');
    EXPECT_EQ(buf[11], '@');
    EXPECT_EQ(high()->readTextFirstLineStr(c(missing), buf, 10), -1);
}

// Runs a test step inside a directory, so that a command injected through a
// name could only create a file there, where the test looks for it.
struct CwdGuard {
    std::string old;
    explicit CwdGuard(const std::string& dir) {
        char buf[4096];
        old = getcwd(buf, sizeof buf) != nullptr ? buf : "/";
        EXPECT_EQ(chdir(dir.c_str()), 0);
    }
    ~CwdGuard() { (void)!chdir(old.c_str()); }
};

TEST(FileHelpers, DeletingAListOfNames) {
    TempDir dir;
    std::string file = dir.file("a.txt");
    std::string sub = dir.file("sub");
    write_file(file, "x");
    mkdir(sub.c_str(), 0755);
    write_file(sub + "/inner", "y");
    // A directory whose name would run a command if it reached the shell
    // unquoted; the command would create a file in the working directory.
    const CwdGuard cwd(dir.path());
    std::string hostile = dir.file("h;touch injected;x");
    ASSERT_EQ(mkdir(hostile.c_str(), 0755), 0);
    static char names[6][256];
    std::memset(names, 0, sizeof names);
    std::snprintf(names[0], 256, "%s", file.c_str());
    std::snprintf(names[2], 256, "%s", dir.file("missing").c_str());
    std::snprintf(names[3], 256, "%s", sub.c_str());
    std::snprintf(names[4], 256, "%s", hostile.c_str());
    std::memset(names[5], 'z', 256);  // no terminator in the slot
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(high()->deleteFileList(names, 6), 1);
    const std::string out = GetCapturedStdout();
    const std::string errs = GetCapturedStderr();
    EXPECT_FALSE(exists(file));
    EXPECT_FALSE(exists(sub));
    EXPECT_FALSE(exists(hostile));
    EXPECT_FALSE(exists(dir.file("injected")));
    EXPECT_THAT(out, ::testing::HasSubstr("warning: index:1: file:  is NULL or no exist\n"));
    EXPECT_THAT(out, ::testing::HasSubstr("warning: index:2: file: " + dir.file("missing") + " is NULL or no exist\n"));
    EXPECT_THAT(out, ::testing::HasSubstr("remove file: " + file + " succeed\n"));
    EXPECT_THAT(out, ::testing::HasSubstr(sub + " is dir, so execel Func_pox_system cmd: rm " + sub + " -rf \n"));
    EXPECT_THAT(errs, ::testing::HasSubstr("error: index:5: file name is not terminated\n"));
    EXPECT_THAT(out, ::testing::HasSubstr("cmd: rm -rf -- '" + hostile + "' \n"));

    std::snprintf(names[0], 256, "/dev/null");
    CaptureStderr();
    EXPECT_EQ(high()->deleteFileList(names, 1), 1);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(err("Func_deleteFileList", "error: file is not file or dir: /dev/null failed\n")));
}

ino_t inode_of(const std::string& path) {
    struct stat st {};
    stat(path.c_str(), &st);
    return st.st_ino;
}

std::set<std::string> names_in(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) names.insert(entry.path().filename());
    return names;
}

class ConfigUpdate : public ::testing::Test {
protected:
    TempDir dir_;
    std::string path_ = dir_.file("app.conf");
    ino_t inode() { return inode_of(path_); }
};

TEST_F(ConfigUpdate, EveryMatchingLineIsReplaced) {
    const std::string original = "a = \"1\"\nb = \"2\"\n# ab = \"3\"\nc=4";
    write_file(path_, original);
    // A second name for the old file keeps it (and its inode) alive: the
    // update must leave it alone and write a new file.
    const std::string link = path_ + ".old";
    ASSERT_EQ(::link(path_.c_str(), link.c_str()), 0);
    std::string b = "b", nine = "9", fmt = "%s = \"%s\"";
    EXPECT_EQ(high()->update_line_conf_str(c(path_), c(b), c(nine), c(fmt)), 0);
    EXPECT_EQ(read_file(path_), "a = \"1\"\nb = \"9\"\nb = \"9\"\nc=4");  // comment lines match too
    EXPECT_EQ(read_file(link), original);

    std::string key = "c", intfmt = "%s=%d", quoted = "%s = \"%d\"";
    EXPECT_EQ(high()->update_line_conf_int(c(path_), c(key), -5, c(intfmt)), 0);
    EXPECT_EQ(read_file(path_), "a = \"1\"\nb = \"9\"\nb = \"9\"\nc=-5\n");  // a matching last line gets its line feed
    EXPECT_EQ(high()->update_line_conf_int(c(path_), c(key), -5, c(quoted)), 0);
    EXPECT_THAT(read_file(path_), ::testing::EndsWith("c = \"-5\"\n"));

    std::string nothing = "zzz", whole = "ignored=1";
    write_file(path_, "x=1\ny=2");
    EXPECT_EQ(high()->update_line_conf(c(path_), c(nothing), c(whole)), 0);
    EXPECT_EQ(read_file(path_), "x=1\ny=2");

    std::string bad = "%s  = \"%s\"";
    CaptureStderr();
    EXPECT_EQ(high()->update_line_conf_str(c(path_), c(b), c(nine), c(bad)), -1);
    EXPECT_EQ(high()->update_line_conf_int(c(path_), c(b), 1, c(bad)), -1);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(err("Func_update_line_conf_str", "error: format is wrong\n") +
                             err("Func_update_line_conf_int", "error: format is wrong\n")));
    std::string missing = dir_.file("missing.conf");
    EXPECT_EQ(high()->update_line_conf(c(missing), c(b), c(whole)), -1);
    EXPECT_FALSE(exists(missing));
}

TEST_F(ConfigUpdate, OversizedContentIsRefusedBeforeTheFileIsTouched) {
    const std::string original = "k=1\n" + std::string(300, 'L') + "\nend\n";
    write_file(path_, original);
    std::string k = "k", v = "2", fmt = "%s = \"%s\"";
    CaptureStderr();
    EXPECT_EQ(high()->update_line_conf_str(c(path_), c(k), c(v), c(fmt)), -1);  // a 301-byte line
    EXPECT_EQ(read_file(path_), original);
    write_file(path_, std::string(40, 'k') + "\n");
    std::string longkey = std::string(40, 'k'), longval = std::string(30, 'v');
    EXPECT_EQ(high()->update_line_conf_str(c(path_), c(longkey), c(longval), c(fmt)), -1);  // 77 > 63
    std::string big;
    for (int i = 0; i < 30; ++i) big += "line" + std::to_string(i) + std::string(70, '.') + "\n";
    write_file(path_, big);  // 2000+ bytes; replacing a short line by a long one overflows
    const ino_t before_big = inode();
    std::string line0 = "line0.", item(200, 'I');
    EXPECT_EQ(high()->update_line_conf(c(path_), c(line0), c(item)), -1);
    GetCapturedStderr();
    EXPECT_EQ(read_file(path_), big);
    EXPECT_EQ(inode(), before_big);
}

TEST_F(ConfigUpdate, HostilePathsAndTheLock) {
    // The removal command quotes a path with shell characters.
    {
        const CwdGuard cwd(dir_.path());
        std::string hostile = "x;touch injected;y.conf";
        write_file(hostile, "k=1\n");
        std::string k = "k", line = "k=2";
        EXPECT_EQ(high()->update_line_conf(c(hostile), c(k), c(line)), 0);
        EXPECT_EQ(read_file(hostile), "k=2\n");
        EXPECT_FALSE(exists("injected"));
    }
    std::string k = "k", line = "k=2";

    // Another process holds the lock: the read phase waits for it.
    write_file(path_, "k=1\n");
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        const int fd = open(path_.c_str(), O_RDONLY);
        flock(fd, LOCK_EX);
        char one = 1;
        (void)!write(ready[1], &one, 1);
        usleep(400000);
        _exit(0);
    }
    char one;
    ASSERT_EQ(read(ready[0], &one, 1), 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(high()->update_line_conf(c(path_), c(k), c(line)), 0);
    const auto waited = std::chrono::steady_clock::now() - start;
    waitpid(holder, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
    EXPECT_GE(waited, std::chrono::milliseconds(250));
    EXPECT_EQ(read_file(path_), "k=2\n");
}

TEST_F(ConfigUpdate, RefusalsLinksModesAndReadOnlyDirectories) {
    const std::string original = "a = \"1\"\nb = \"2\"\n", unchanged = regex_escape(path_) + " left unchanged\n";
    write_file(path_, original);
    // A line end would add a setting, an empty keyword would match every line.
    for (auto [keyword, item] : {std::pair<std::string, std::string>{"a", "a = \"1\"\nadmin = \"1\""},
                                 {"a\n", "a = \"3\""}, {"a", "a = \"3\"\r"}, {"", "a = \"3\""}}) {
        CaptureStderr();
        EXPECT_EQ(high()->update_line_conf(c(path_), c(keyword), c(item)), -1) << item;
        const std::string why = keyword.empty() ? "empty keyword, " : "line end in the keyword or the new line, ";
        EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("update_conf", "error: " + why + unchanged)));
        EXPECT_EQ(read_file(path_), original);
    }

    // Through a symbolic link the target is rewritten with its mode; the link stays.
    const std::string real = dir_.file("real.conf"), link = dir_.file("link.conf");
    write_file(real, original);
    ASSERT_EQ(chmod(real.c_str(), 0640), 0);
    ASSERT_EQ(symlink("real.conf", link.c_str()), 0);
    std::string via = link, dangling = dir_.file("dangling.conf"), b = "b", item = "b=3";
    EXPECT_EQ(high()->update_line_conf(c(via), c(b), c(item)), 0);
    struct stat st {};
    EXPECT_TRUE(lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    EXPECT_EQ(read_file(real), "a = \"1\"\nb=3\n");
    EXPECT_TRUE(stat(real.c_str(), &st) == 0 && (st.st_mode & 07777) == 0640);
    ASSERT_EQ(symlink("gone.conf", dangling.c_str()), 0);
    EXPECT_EQ(high()->update_line_conf(c(dangling), c(b), c(item)), -1);
    EXPECT_EQ(names_in(dir_.path()), (std::set<std::string>{"app.conf", "real.conf", "link.conf", "dangling.conf"}));
    // Only a regular file is rewritten: a directory at the path stays as it is.
    std::string directory = dir_.path();
    CaptureStderr();
    EXPECT_EQ(high()->update_line_conf(c(directory), c(b), c(item)), -1);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(err("update_conf", "error: " + regex_escape(directory) + " is not a regular file\n")));

    // A writable file in a directory that takes no new file is rewritten in place.
    if (geteuid() != 0) return;
    const std::string ro = dir_.file("ro"), conf = ro + "/app.conf";
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    ASSERT_EQ(mkdir(ro.c_str(), 0755), 0);
    write_file(conf, original);
    ASSERT_EQ(chmod(conf.c_str(), 0666), 0);
    const ino_t before = inode_of(conf);
    const pid_t pid = fork();
    if (pid == 0) {
        std::string p = conf;
        _exit(setgid(65534) == 0 && setuid(65534) == 0 && high()->update_line_conf(c(p), c(b), c(item)) == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(conf), "a = \"1\"\nb=3\n");
    EXPECT_EQ(inode_of(conf), before);
}

// Writer processes, writer i setting its own line to wi=1, wi=2, ... up to
// `updates`, or until killed when that is 0.
std::vector<pid_t> start_writers(const std::string& path, int writers, int updates) {
    std::vector<pid_t> pids;
    for (int i = 0; i < writers; ++i) {
        pids.push_back(fork());
        if (pids.back() != 0) continue;
        std::string p = path, key = "w" + std::to_string(i) + "=";
        for (int v = 1; updates == 0 || v <= updates; ++v) {
            std::string line = key + std::to_string(v);
            if (high()->update_line_conf(c(p), c(key), c(line)) != 0) _exit(1);
        }
        _exit(0);
    }
    return pids;
}

// Writers killed at random moments, one alone or four at once: the file is
// always whole, each line one rewrite's. Then four writers, 50 rewrites each,
// while this process reads the file: never missing, empty or mixed, and no
// rewrite is lost.
TEST_F(ConfigUpdate, RewritesAreWholeAndFollowEachOther) {
    const char start[] = "w0=0\nw1=0\nw2=0\nw3=0\n# the end\n";
    const std::regex whole(R"(w0=(\d+)\nw1=(\d+)\nw2=(\d+)\nw3=(\d+)\n# the end\n)");
    std::mt19937 random(20240611);  // fixed, so a failure replays
    int lost = 0, rewrites = 0;
    for (int round = 0; round < 300 && lost < 5; ++round) {
        write_file(path_, start);
        const std::vector<pid_t> pids = start_writers(path_, round % 2 == 0 ? 1 : 4, 0);
        usleep(std::uniform_int_distribution<useconds_t>(0, 4000)(random));
        for (pid_t pid : pids) kill(pid, SIGKILL);
        for (pid_t pid : pids) {
            int status = -1;
            waitpid(pid, &status, 0);
            EXPECT_TRUE(WIFSIGNALED(status)) << "a writer failed before the kill";
        }
        const std::string text = read_file(path_);
        std::smatch m;
        if (!std::regex_match(text, m, whole)) {
            ADD_FAILURE() << "round " << round << ": \"" << text << "\"";
            ++lost;
        }
        for (std::size_t i = 1; i < m.size(); ++i) rewrites += std::stoi(m[i]);
    }
    RecordProperty("rewrites_before_the_kills", rewrites);

    write_file(path_, start);
    std::vector<pid_t> pids = start_writers(path_, 4, 50);
    int reads = 0, broken = 0;
    for (std::size_t running = pids.size(); running > 0; ++reads) {
        broken += std::regex_match(read_file(path_), whole) ? 0 : 1;
        for (pid_t& pid : pids) {
            int status = -1;
            if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) {
                EXPECT_EQ(status, 0);
                pid = -1;
                --running;
            }
        }
    }
    EXPECT_EQ(broken, 0) << "of " << reads << " reads";
    EXPECT_EQ(read_file(path_), "w0=50\nw1=50\nw2=50\nw3=50\n# the end\n");
}

// A full file system: the rewrite fails and the old file stays. A reader
// holds the old file open, as a daemon does its settings, so removing it
// would free no room for the new one.
TEST_F(ConfigUpdate, AFullFileSystemKeepsTheOldFile) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: mounts a small tmpfs in a private mount namespace";
    const pid_t pid = fork();
    if (pid == 0) {  // the namespace and its mount end with this child
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", dir_.path().c_str(), "tmpfs", 0, "size=64k") != 0) {
            _exit(64);
        }
        const std::string original = "a = \"1\"\nb = \"2\"\n";
        write_file(path_, original);
        const int reader = open(path_.c_str(), O_RDONLY);
        const int filler = open(dir_.file("fill").c_str(), O_WRONLY | O_CREAT, 0600);
        static char block[4096];
        while (write(filler, block, sizeof block) > 0 || write(filler, block, 1) > 0) {
        }
        std::string b = "b", item = "b = \"" + std::string(100, '9') + "\"";
        CaptureStderr();
        const int rc = high()->update_line_conf(c(path_), c(b), c(item));
        const std::string message = GetCapturedStderr();
        const std::string expected = err("update_conf", "error: " + regex_escape(path_) +
                                                            ": the new content could not be written, file left "
                                                            "unchanged: No space left on device\n");
        _exit((rc == -1 ? 0 : 1) | (read_file(path_) == original ? 0 : 2) |
              (names_in(dir_.path()).size() == 2 ? 0 : 4) | (std::regex_match(message, std::regex(expected)) ? 0 : 8) |
              (reader >= 0 ? 0 : 64));
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1 result, 2 old content lost, 4 temporary file left, 8 message, 64 set-up";
}

TEST(ShellCommands, ReadingACommandFile) {
    TempDir dir;
    std::string f = dir.file("cmds.sh");
    write_file(f, "# comment\n\n   \n  ifconfig eth0 up  \nroute");
    util_string_list_t list{};
    ASSERT_EQ(high()->readFileShellCmds_malloc(c(f), &list, 4), 0);
    ASSERT_EQ(list.size, 4);
    EXPECT_STREQ(list.strList[0].string, "ifconfig eth0 up");
    EXPECT_EQ(list.strList[0].length, 16);
    EXPECT_STREQ(list.strList[1].string, "route");
    EXPECT_EQ(list.strList[1].length, 5);
    EXPECT_EQ(list.strList[2].string, nullptr);
    EXPECT_EQ(list.strList[3].length, 0);
    util_ops_pfun->common_base->strList_free(list);

    ASSERT_EQ(high()->readFileShellCmds_malloc(c(f), &list, 1), 0);
    EXPECT_STREQ(list.strList[0].string, "ifconfig eth0 up");
    util_ops_pfun->common_base->strList_free(list);

    std::string missing = dir.file("none");
    CaptureStderr();
    EXPECT_EQ(high()->readFileShellCmds_malloc(c(missing), &list, 2), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("Func_readFileShellCmds_malloc", "error: open file failed!!!")));
    EXPECT_EQ(list.size, 2);  // the zeroed list stays for the caller to free
    util_ops_pfun->common_base->strList_free(list);
    CaptureStderr();
    EXPECT_EQ(high()->readFileShellCmds_malloc(c(f), &list, -1), -1);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(err("Func_readFileShellCmds_malloc",
                                 "error: malloc faild!!! buffer:pbuf->strList, type:util_string_t, count:-1\n")));
}

TEST(ShellCommands, PipesAndTheirOutput) {
    char result[64];
    std::memset(result, '@', sizeof result);
    std::string hello = "echo hello";
    EXPECT_EQ(high()->popen_cmd_result(c(hello), result, 64), 6);
    EXPECT_EQ(std::string(result, 7), std::string("hello\n\0", 7));
    EXPECT_EQ(result[63], '\0');
    std::string silent = "true";
    CaptureStderr();
    EXPECT_EQ(high()->popen_cmd_result(c(silent), result, 64), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("Func_popen_cmd_result", "fread  failed\n")));
    EXPECT_EQ(high()->popen_cmd(c(silent)), 0);
}

// A process with a name of our own (process names are cut to 15 characters).
struct Sleeper {
    TempDir dir;
    std::string name = "qts" + std::to_string(getpid() % 100000);
    pid_t pid = -1;
    Sleeper() {
        const std::string exe = dir.file(name);
        std::string cmd = "cp /bin/sleep " + exe;
        EXPECT_EQ(std::system(cmd.c_str()), 0);
        pid = fork();
        if (pid == 0) {
            execl(exe.c_str(), name.c_str(), "30", static_cast<char*>(nullptr));
            _exit(127);
        }
        usleep(200000);
    }
    ~Sleeper() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

TEST(ShellCommands, FindingAndKillingAProcessByName) {
    Sleeper s;
    CaptureStdout();
    EXPECT_EQ(high()->find_pid(c(s.name)), s.pid);
    EXPECT_THAT(GetCapturedStdout(), FullyMatches(info("Func_find_pid", "find pid: " + s.name + ":" +
                                                                             std::to_string(s.pid) + "\n")));
    std::string nine = "9";
    CaptureStdout();
    high()->kill_pid(c(s.name), c(nine));
    const std::string out = GetCapturedStdout();
    EXPECT_THAT(out, ::testing::HasSubstr("cmd:kill -9 " + std::to_string(s.pid) + "\n"));
    EXPECT_THAT(out, ::testing::HasSubstr("kill pid: " + std::to_string(s.pid) + " ret:0\n"));
    int status = 0;
    ASSERT_EQ(waitpid(s.pid, &status, 0), s.pid);
    s.pid = -1;
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);

    std::string nobody = "qtnobody" + std::to_string(getpid());
    CaptureStdout();
    CaptureStderr();
    high()->kill_pid(c(nobody), c(nine));
    GetCapturedStdout();
    EXPECT_THAT(GetCapturedStderr(), ::testing::HasSubstr("not found " + nobody + " pid\n"));
}

TEST(ShellCommands, HostileNamesAndSignalsRunNothingElse) {
    TempDir dir;
    const std::string marker1 = dir.file("injected1");
    const std::string marker2 = dir.file("injected2");
    const std::string marker3 = dir.file("injected3");
    std::string names[] = {"x\";touch " + marker1 + ";\"", "$(touch " + marker2 + ")", "`touch " + marker3 + "`"};
    CaptureStdout();
    CaptureStderr();
    for (std::string& n : names) EXPECT_EQ(high()->find_pid(c(n)), 0);
    std::string longname(200, 'n');
    EXPECT_EQ(high()->find_pid(c(longname)), 0);
    Sleeper s;
    std::string bad_level = "9;touch " + marker1;
    high()->kill_pid(c(s.name), c(bad_level));
    GetCapturedStdout();
    const std::string errs = GetCapturedStderr();
    EXPECT_FALSE(exists(marker1));
    EXPECT_FALSE(exists(marker2));
    EXPECT_FALSE(exists(marker3));
    EXPECT_THAT(errs, ::testing::HasSubstr("error: not a signal: 9;touch"));
    EXPECT_THAT(errs, ::testing::HasSubstr("error: name too long: nnnn"));
    EXPECT_EQ(kill(s.pid, 0), 0);  // still alive
}

}  // namespace
