// File helpers, configuration-line update, and shell and process helpers of
// the common high table, on real files and real processes.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <set>

#include "test_support.h"

using namespace qtest;
using ::testing::HasSubstr;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

namespace {

util_ops_common_high_fun_t* high() { return util_ops_pfun->common_high; }
char* c(const std::string& s) { return const_cast<char*>(s.c_str()); }

std::string err(const std::string& fn, const std::string& text) {
    return "DBG_ERR:util_common_high_function\\.cpp " + fn + "\\[[0-9]{4}\\] " + text;
}

TEST(FileHelpers, SizesPathsAndLineCounts) {
    TempDir dir;
    const std::string f = dir.file("f.bin"), none = dir.file("none");
    write_file(f, std::string(1234, 'x'));
    EXPECT_EQ(high()->get_file_size(f.c_str()) + high()->get_file_size2(f.c_str()), 2468u);
    EXPECT_EQ(high()->get_file_size(none.c_str()) + high()->get_file_size2(none.c_str()), 0u);
    EXPECT_EQ(high()->is_file_empty(c(dir.path())), 0);  // "." and ".." are entries too
    EXPECT_EQ(high()->is_file_empty(c(f)), -1);
    for (auto [path, d, b] : {std::tuple{"/usr/bin/x", "/usr/bin", "x"}, {"/x", "", "x"}, {"x", "", "x"}, {"a/b/", "a/b", ""}}) {
        char dn[32], bn[32];
        EXPECT_EQ(high()->parsePathName(path, dn, bn), 0);
        EXPECT_EQ(std::string(dn) + "|" + bn, std::string(d) + "|" + b) << path;
    }
    char only[8];
    EXPECT_EQ(high()->parsePathName("a/b", nullptr, only), 0);
    EXPECT_STREQ(only, "b");
    EXPECT_EQ(high()->parsePathName(nullptr, only, only), -1);

    write_file(f, "ab1\nab2\nxx\nab3\n");
    auto count = [&](int size, int max_num) {
        FILE* fp = std::fopen(f.c_str(), "r");
        const int n = high()->isTextExistStr(fp, c("ab"), size, max_num);
        std::fclose(fp);
        return n;
    };
    EXPECT_EQ(std::vector<int>({count(2, -1), count(2, 2), count(2, 0), count(1024, -1), count(3, -1)}),
              std::vector<int>({3, 2, 0, 0, 0}));
    EXPECT_EQ(high()->compare_str_to_file(c(f), c("ab"), 2), 3);
    write_file(f, "ab1\nab2\nxx\nab3");  // the last line has no line feed: not examined
    EXPECT_EQ(high()->compare_str_to_file(c(f), c("ab"), 2), 2);
    EXPECT_EQ(high()->compare_str_to_file(c(none), c("ab"), 2), -1);
    CaptureStderr();
    EXPECT_EQ(count(0, -1) + count(1025, -1) + count(2, -2), -3);
    EXPECT_EQ(high()->isTextExistStr(nullptr, c("ab"), 2, -1), -1);
    const std::string range = err("Func_isTextExistStr", "Range Error: size must \\[1,1024\\],and max_num must be equal or greater than  -1");
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(range + range + range + err("Func_isTextExistStr", "fp or str is null")));
}

TEST(FileHelpers, ReadingNumbersAndFirstLines) {
    TempDir dir;
    const std::string f = dir.file("n.txt"), missing = dir.file("none");
    // All 100 bytes may belong to the number: read no further, and saturate.
    for (auto [text, want] : {std::pair<std::string, int>{" 42 apples", 42}, {"+7", 7}, {std::string(100, '9') + "123", INT_MAX},
                              {"-" + std::string(99, '9'), INT_MIN}, {std::string(100, ' ') + "12", 0}}) {
        write_file(f, text);
        int num = -7;
        EXPECT_EQ(high()->readTextNum(c(f), &num), 0);
        EXPECT_EQ(num, want) << text;
    }
    int num = -7;
    EXPECT_EQ(high()->readTextNum(c(missing), &num), -1);
    EXPECT_EQ(num, -7);

    for (auto [text, rc, want] : {std::tuple<const char*, int, const char*>{"12\n34", 2, "12"}, {"abc", 10, "abc"}, {"", 10, ""},
                                  {"0123456789ABCDEF", 10, "0123456789"}}) {
        write_file(f, text);
        char buf[16];
        std::memset(buf, '@', sizeof buf);
        EXPECT_EQ(high()->readTextFirstLineStr(c(f), buf, 10), rc) << text;
        EXPECT_EQ(std::string(buf), want);
        EXPECT_EQ(std::string(buf + 10, 2), std::string(rc == 10 ? "\0@" : "@@", 2));  // the terminator may go at index 10
    }
    char buf[4];
    EXPECT_EQ(high()->readTextFirstLineStr(c(missing), buf, 4), -1);
}

// Runs a test step inside a directory, so that a command injected through a
// name could only create a file there, where the test looks for it.
struct CwdGuard {
    std::string old = std::filesystem::current_path();
    explicit CwdGuard(const std::string& dir) { std::filesystem::current_path(dir); }
    ~CwdGuard() { std::filesystem::current_path(old); }
};

TEST(FileHelpers, DeletingAListOfNames) {
    TempDir dir;
    const std::string file = dir.file("a.txt"), sub = dir.file("sub"), missing = dir.file("missing");
    // A directory whose name would run a command if it reached the shell unquoted.
    const std::string hostile = dir.file("h;touch injected;x");
    write_file(file, "x");
    ASSERT_EQ(mkdir(sub.c_str(), 0755) | mkdir(hostile.c_str(), 0755), 0);
    write_file(sub + "/inner", "y");
    const CwdGuard cwd(dir.path());
    static char names[6][256];
    std::memset(names, 0, sizeof names);
    std::snprintf(names[0], 256, "%s", file.c_str());
    std::snprintf(names[2], 256, "%s", missing.c_str());
    std::snprintf(names[3], 256, "%s", sub.c_str());
    std::snprintf(names[4], 256, "%s", hostile.c_str());
    std::memset(names[5], 'z', 256);  // no terminator in the slot
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(high()->deleteFileList(names, 6), 1);
    const std::string out = GetCapturedStdout(), errs = GetCapturedStderr();
    for (const auto& gone : {file, sub, hostile, dir.file("injected")}) EXPECT_FALSE(exists(gone)) << gone;
    EXPECT_THAT(out, HasSubstr("warning: index:1: file:  is NULL or no exist\n"));
    EXPECT_THAT(out, HasSubstr("warning: index:2: file: " + missing + " is NULL or no exist\n"));
    EXPECT_THAT(out, HasSubstr("remove file: " + file + " succeed\n"));
    EXPECT_THAT(out, HasSubstr(sub + " is dir, so execel Func_pox_system cmd: rm " + sub + " -rf \n"));
    EXPECT_THAT(out, HasSubstr("cmd: rm -rf -- '" + hostile + "' \n"));
    EXPECT_THAT(errs, HasSubstr("error: index:5: file name is not terminated\n"));
    std::snprintf(names[0], 256, "/dev/null");
    CaptureStderr();
    EXPECT_EQ(high()->deleteFileList(names, 1), 1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("Func_deleteFileList", "error: file is not file or dir: /dev/null failed\n")));
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
};

TEST_F(ConfigUpdate, MatchingLinesAreReplacedInANewFile) {
    const std::string original = "a = \"1\"\nb = \"2\"\n# ab = \"3\"\nc=4";
    write_file(path_, original);
    // A second name for the old file keeps it alive: the update writes a new file.
    ASSERT_EQ(link(path_.c_str(), (path_ + ".old").c_str()), 0);
    EXPECT_EQ(high()->update_line_conf_str(c(path_), c("b"), c("9"), c("%s = \"%s\"")), 0);
    EXPECT_EQ(read_file(path_), "a = \"1\"\nb = \"9\"\nb = \"9\"\nc=4");  // comment lines match too
    EXPECT_EQ(read_file(path_ + ".old"), original);
    EXPECT_EQ(high()->update_line_conf_int(c(path_), c("c"), -5, c("%s=%d")), 0);
    EXPECT_EQ(read_file(path_), "a = \"1\"\nb = \"9\"\nb = \"9\"\nc=-5\n");  // a matching last line gets its line feed
    EXPECT_EQ(high()->update_line_conf_int(c(path_), c("c"), -5, c("%s = \"%d\"")), 0);
    EXPECT_THAT(read_file(path_), ::testing::EndsWith("c = \"-5\"\n"));
    write_file(path_, "x=1\ny=2");
    EXPECT_EQ(high()->update_line_conf(c(path_), c("zzz"), c("ignored=1")), 0);
    EXPECT_EQ(read_file(path_), "x=1\ny=2");

    CaptureStderr();
    EXPECT_EQ(high()->update_line_conf_str(c(path_), c("b"), c("9"), c("%s  = \"%s\"")), -1);
    EXPECT_EQ(high()->update_line_conf_int(c(path_), c("b"), 1, c("%s = %d")), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("Func_update_line_conf_str", "error: format is wrong\n") +
                                                  err("Func_update_line_conf_int", "error: format is wrong\n")));
    EXPECT_EQ(high()->update_line_conf(c(dir_.file("missing.conf")), c("b"), c("b=1")), -1);
    // Each missing text alone is refused, the file untouched.
    EXPECT_EQ(high()->update_line_conf(nullptr, c("x"), c("x=2")), -1);
    EXPECT_EQ(high()->update_line_conf(c(path_), nullptr, c("x=2")), -1);
    EXPECT_EQ(high()->update_line_conf(c(path_), c("x"), nullptr), -1);
    EXPECT_EQ(read_file(path_), "x=1\ny=2");
    EXPECT_EQ(names_in(dir_.path()), (std::set<std::string>{"app.conf", "app.conf.old"}));
}

// Lines are held in 256 bytes, the new content in 2048 and a formatted line
// in 64, terminators included: one byte more is refused before the file is
// touched, with the message of the step that refused it.
TEST_F(ConfigUpdate, SizeLimitsAreExact) {
    std::string eight;
    for (int i = 0; i < 8; ++i) eight += std::string(254, 'L') + "\n";  // 2040 bytes
    const struct {
        std::string content, item;
        int rc;
    } rows[] = {
        {"k=1\n" + std::string(254, 'L') + "\n", "k=2", 0},  {"k=1\n" + std::string(255, 'L') + "\n", "k=2", -1},
        {"k=1\n", "k=" + std::string(252, 'I'), 0},          {"k=1\n", "k=" + std::string(253, 'I'), -1},
        {eight + "k=1\n", "k=2345", 0},                      {eight + "k=1\n", "k=23456", -1},
    };
    const std::string too_long = ": a line or the new content is too long, file left unchanged\n";
    for (const auto& row : rows) {
        write_file(path_, row.content);
        CaptureStderr();
        EXPECT_EQ(high()->update_line_conf(c(path_), c("k="), c(row.item)), row.rc) << row.content.size();
        const std::string message = GetCapturedStderr();
        if (row.rc == 0) continue;
        EXPECT_EQ(read_file(path_), row.content);
        EXPECT_THAT(message, FullyMatches(err("update_conf", "error: " + regex_escape(path_) + too_long)));
    }
    write_file(path_, "k\n");
    EXPECT_EQ(high()->update_line_conf_str(c(path_), c("k"), c(std::string(57, 'v')), c("%s = \"%s\"")), 0);
    EXPECT_EQ(high()->update_line_conf_int(c(path_), c(std::string(51, 'k')), INT_MIN, c("%s=%d")), 0);
    CaptureStderr();
    EXPECT_EQ(high()->update_line_conf_str(c(path_), c("k"), c(std::string(58, 'v')), c("%s = \"%s\"")), -1);
    EXPECT_EQ(high()->update_line_conf_int(c(path_), c(std::string(52, 'k')), INT_MIN, c("%s=%d")), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("Func_update_line_conf_str", "error: the line for k is too long\n") +
                                                  err("Func_update_line_conf_int", "error: the line for k{52} is too long\n")));
    EXPECT_EQ(read_file(path_), "k = \"" + std::string(57, 'v') + "\"\n");
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
    const std::string real = dir_.file("real.conf"), link = dir_.file("link.conf"), dangling = dir_.file("dangling.conf");
    write_file(real, original);
    ASSERT_EQ(chmod(real.c_str(), 0640) | symlink("real.conf", link.c_str()) | symlink("gone", dangling.c_str()), 0);
    EXPECT_EQ(high()->update_line_conf(c(link), c("b"), c("b=3")), 0);
    struct stat st {};
    EXPECT_TRUE(lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    EXPECT_EQ(read_file(real), "a = \"1\"\nb=3\n");
    EXPECT_TRUE(stat(real.c_str(), &st) == 0 && (st.st_mode & 07777) == 0640);
    EXPECT_EQ(high()->update_line_conf(c(dangling), c("b"), c("b=3")), -1);
    EXPECT_EQ(names_in(dir_.path()), (std::set<std::string>{"app.conf", "real.conf", "link.conf", "dangling.conf"}));
    // Only a regular file is rewritten: a directory at the path stays as it is.
    CaptureStderr();
    EXPECT_EQ(high()->update_line_conf(c(dir_.path()), c("b"), c("b=3")), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("update_conf", "error: " + regex_escape(dir_.path()) + " is not a regular file\n")));

    // A writable file in a directory that takes no new file is rewritten in place.
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give up privileges";
    const std::string ro = dir_.file("ro"), conf = ro + "/app.conf";
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755) | mkdir(ro.c_str(), 0755), 0);
    write_file(conf, original);
    ASSERT_EQ(chmod(conf.c_str(), 0666), 0);
    ASSERT_EQ(stat(conf.c_str(), &st), 0);
    const ino_t before = st.st_ino;
    const pid_t pid = fork();
    if (pid == 0) _exit(setgid(65534) == 0 && setuid(65534) == 0 && high()->update_line_conf(c(conf), c("b"), c("b=3")) == 0 ? 0 : 1);
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(conf), "a = \"1\"\nb=3\n");
    EXPECT_TRUE(stat(conf.c_str(), &st) == 0 && st.st_ino == before);
}

// Four writers, 50 rewrites each of their own line, while this process
// reads the file: never missing, empty or mixed, and no rewrite is lost.
TEST_F(ConfigUpdate, ConcurrentRewritesAreWholeAndFollowEachOther) {
    const std::regex whole(R"(w0=\d+\nw1=\d+\nw2=\d+\nw3=\d+\n# the end\n)");
    write_file(path_, "w0=0\nw1=0\nw2=0\nw3=0\n# the end\n");
    std::vector<pid_t> pids;
    for (int i = 0; i < 4; ++i) {
        if ((pids.emplace_back(fork())) != 0) continue;
        const std::string key = "w" + std::to_string(i) + "=";
        for (int v = 1; v <= 50; ++v) {
            if (high()->update_line_conf(c(path_), c(key), c(key + std::to_string(v))) != 0) _exit(1);
        }
        _exit(0);
    }
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
        write_file(path_, "a = \"1\"\n");
        FILE* reader = std::fopen(path_.c_str(), "r");
        write_file(dir_.file("fill"), std::string(128 * 1024, 'f'));  // cut short where the room ends
        CaptureStderr();
        const int rc = high()->update_line_conf(c(path_), c("a"), c("a = \"" + std::string(100, '9') + "\""));
        const std::string expected = err("update_conf", "error: " + regex_escape(path_) +
                                                            ": the new content could not be written, file left "
                                                            "unchanged: No space left on device\n");
        _exit((rc == -1 ? 0 : 1) | (read_file(path_) == "a = \"1\"\n" ? 0 : 2) | (names_in(dir_.path()).size() == 2 ? 0 : 4) |
              (std::regex_match(GetCapturedStderr(), std::regex(expected)) ? 0 : 8) | (reader != nullptr ? 0 : 64));
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << "1 result, 2 old content lost, 4 temporary file left, 8 message, 64 set-up (exit status << 8)";
}

TEST(ShellCommands, ReadingACommandFile) {
    TempDir dir;
    const std::string f = dir.file("cmds.sh");
    write_file(f, "# comment\n\n   \n  ifconfig eth0 up  \nroute\nlast");
    util_string_list_t list{};
    ASSERT_EQ(high()->readFileShellCmds_malloc(c(f), &list, 4), 0);
    ASSERT_EQ(list.size, 4);
    EXPECT_STREQ(list.strList[0].string, "ifconfig eth0 up");
    EXPECT_STREQ(list.strList[2].string, "last");
    EXPECT_EQ(std::vector<int>({list.strList[0].length, list.strList[1].length, list.strList[2].length, list.strList[3].length}),
              std::vector<int>({16, 5, 4, 0}));
    EXPECT_EQ(list.strList[3].string, nullptr);
    util_ops_pfun->common_base->strList_free(list);
    ASSERT_EQ(high()->readFileShellCmds_malloc(c(f), &list, 1), 0);
    EXPECT_STREQ(list.strList[0].string, "ifconfig eth0 up");
    util_ops_pfun->common_base->strList_free(list);

    CaptureStderr();
    EXPECT_EQ(high()->readFileShellCmds_malloc(c(dir.file("none")), &list, 2), -1);
    EXPECT_EQ(list.size, 2);  // the zeroed list stays for the caller to free
    util_ops_pfun->common_base->strList_free(list);
    EXPECT_EQ(high()->readFileShellCmds_malloc(c(f), &list, -1), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("Func_readFileShellCmds_malloc", "error: open file failed!!!") +
                                                  err("Func_readFileShellCmds_malloc",
                                                      "error: malloc faild!!! buffer:pbuf->strList, type:util_string_t, count:-1\n")));
    EXPECT_EQ(high()->readFileShellCmds_malloc(c(f), nullptr, 1), -1);
}

TEST(ShellCommands, PipesAndTheirOutput) {
    char result[64];
    std::memset(result, '@', sizeof result);
    EXPECT_EQ(high()->popen_cmd_result(c("echo hello"), result, 64), 6);
    EXPECT_EQ(std::string(result, 7), std::string("hello\n\0", 7));
    EXPECT_EQ(result[63], '\0');
    CaptureStderr();
    EXPECT_EQ(high()->popen_cmd_result(c("true"), result, 64), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err("Func_popen_cmd_result", "fread  failed\n")));
    EXPECT_EQ(high()->popen_cmd(c("true")), 0);
}

// A process with a name of our own; the name a lookup would inject a command
// through, and a signal text that would, are refused and kill nothing.
TEST(ShellCommands, FindingAndKillingAProcessByName) {
    TempDir dir;
    const std::string name = "qts" + std::to_string(getpid() % 100000), exe = dir.file(name), marker = dir.file("injected");
    ASSERT_EQ(std::system(("cp /bin/sleep " + exe).c_str()), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        execl(exe.c_str(), name.c_str(), "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    usleep(200000);
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(high()->find_pid(c("x\";touch " + marker + ";\"")), 0);
    EXPECT_EQ(high()->find_pid(c(std::string(200, 'n'))), 0);
    high()->kill_pid(c(name), c("9;touch " + marker));
    high()->kill_pid(c("qtnobody" + std::to_string(getpid())), c("9"));
    EXPECT_EQ(high()->find_pid(c(name)), pid);
    high()->kill_pid(c(name), c("9"));
    const std::string out = GetCapturedStdout(), errs = GetCapturedStderr();
    EXPECT_FALSE(exists(marker));
    EXPECT_THAT(errs, HasSubstr("error: not a signal: 9;touch"));
    EXPECT_THAT(errs, HasSubstr("error: name too long: nnnn"));
    EXPECT_THAT(errs, HasSubstr("not found qtnobody" + std::to_string(getpid()) + " pid\n"));
    EXPECT_THAT(out, HasSubstr("find pid: " + name + ":" + std::to_string(pid) + "\n"));
    EXPECT_THAT(out, HasSubstr("cmd:kill -9 " + std::to_string(pid) + "\nDBG_INFO"));
    EXPECT_THAT(out, HasSubstr("kill pid: " + std::to_string(pid) + " ret:0\n"));
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

}  // namespace
