// File, setting-line, shell and process helpers on real files; the fuzz corpus checks what the readers return.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "core/util_shell.h"
#include "test_support.h"

using namespace qtest;

namespace {

util_ops_common_high_fun_t* high() { return util_ops_pfun->common_high; }
char* c(const std::string& s) { return const_cast<char*>(s.c_str()); }
std::string err(const std::string& fn, const std::string& text) {
    return console_error("util_common_high_function", fn, text);
}
long entries(const std::string& dir) {
    return std::distance(std::filesystem::directory_iterator(dir), std::filesystem::directory_iterator());
}

// Failures of the file readers, the command-file reader and the pipes; paths, sizes and deleting.
TEST(FileHelpers, ReadersPathsPipesDeletingAndFailures) {
    TempDir dir;
    const std::string f = dir.file("f.bin"), none = dir.file("none");
    write_file(f, std::string(1234, 'x'));
    EXPECT_EQ(high()->get_file_size(f.c_str()) + high()->get_file_size2(f.c_str()), 2468u);
    EXPECT_EQ(high()->get_file_size(none.c_str()) + high()->get_file_size2(none.c_str()), 0u);
    char dn[8], bn[8];
    for (auto [path, want] : {std::pair{"/x", "|x"}, {"x", "|x"}, {"a/b/", "a/b|"}})
        EXPECT_EQ(high()->parsePathName(path, dn, bn) == 0 ? std::string(dn) + "|" + bn : "", want) << path;
    int num = -7;
    EXPECT_EQ(high()->readTextNum(c(none), &num) + high()->readTextFirstLineStr(c(none), bn, 4) +
                  high()->compare_str_to_file(c(none), c("ab"), 2) + high()->parsePathName(nullptr, dn, bn) +
                  high()->parsePathName("a/b", nullptr, bn) + high()->readFileShellCmds_malloc(c(f), nullptr, 1), -5);
    EXPECT_EQ(num, -7);
    std::string result(64, '@');
    EXPECT_TRUE(high()->popen_cmd_result(c("echo hello"), result.data(), 64) == 6 &&
                result == "hello\n" + std::string(58, '\0'));
    // Through a real shell: a directory whose name would run a command if it reached the shell unquoted.
    const std::string hostile = dir.file("h;touch injected;x");
    ASSERT_EQ(mkdir(hostile.c_str(), 0755), 0);
    std::remove("injected");
    // Behind an unreadable page: a loop running backwards faults instead of removing what lies before.
    const long pg = sysconf(_SC_PAGESIZE);
    auto* page = static_cast<char*>(mmap(nullptr, 2 * pg, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(page, pg, PROT_NONE), 0);
    auto* names = reinterpret_cast<char(*)[256]>(page + pg);
    const std::string given[] = {none, "/dev/null", hostile};
    for (int i = 0; i < 3; ++i) std::snprintf(names[i], 256, "%s", given[i].c_str());
    std::memset(names[3], 'z', 256);  // no terminator in the slot
    FILE* fp = std::fopen(f.c_str(), "r");
    util_string_list_t list{};
    const std::string out = console([&] {
        EXPECT_EQ(high()->isTextExistStr(fp, c("x"), 0, -1) + high()->isTextExistStr(fp, c("x"), 1025, -1) +
                      high()->isTextExistStr(fp, c("x"), 2, -2) + high()->isTextExistStr(nullptr, c("ab"), 2, -1) +
                      high()->isTextExistStr(fp, c("x"), 1024, -1), -4);  // the widest key, 1024, is allowed
        EXPECT_TRUE(high()->readFileShellCmds_malloc(c(none), &list, 2) == -1 && list.size == 2);
        util_ops_pfun->common_base->strList_free(list);  // the zeroed list stays for the caller to free
        EXPECT_EQ(high()->readFileShellCmds_malloc(c(dir.path()), &list, -1), -1);
        EXPECT_EQ(high()->popen_cmd_result(c("true"), result.data(), 64) + high()->popen_cmd(c("true")) +
                      high()->popen_cmd(nullptr), -2);
        EXPECT_EQ(high()->deleteFileList(names, 4), 2);  // a missing name is no error
    });
    std::fclose(fp);
    const std::string is = "Func_isTextExistStr", rf = "Func_readFileShellCmds_malloc";
    EXPECT_THAT(out, FullyMatches("(" + err(is, "Range Error: size must \\[1,1024\\],and max_num must be equal or "
                "greater than  -1") + "){3}" + err(is, "fp or str is null") + err(rf, "error: open file failed!!!") +
                err(rf, "error: malloc faild!!! buffer:pbuf->strList, type:util_string_t, count:-1\n") +
                err("Func_popen_cmd_result", "fread  failed\n") + err("Func_popen_cmd", "Fail to peopn\n") +
                err("Func_deleteFileList", "error: file is not file or dir: /dev/null failed\n") +
                err("Func_deleteFileList", "error: index:3: file name is not terminated\n")));
    EXPECT_FALSE(exists(hostile) || exists("injected"));
}

// Rows through the three entries ('l' plain, 's' text, 'i' number): result, file after (empty:
// unchanged), all of stderr. Then failed writes, links, modes and read-only directories.
TEST(ConfigUpdate, ContractFailedWritesLinksModesAndReadOnlyDirectories) {
    TempDir dir;
    auto* const update = high()->update_line_conf;
    const std::string conf = dir.file("app.conf"), p = regex_escape(conf), I = "k=" + std::string(252, 'I');
    const std::string base = "a = \"1\"\nb = \"2\"\n# ab = \"3\"\nc=4", L(254, 'L');
    const std::string refused = err("update_conf", "error: line end in the keyword or the new line, " + p +
                                                   " left unchanged\n");
    const std::string too_long = err("update_conf", "error: " + p + ": a line or the new content is too long, "
                                     "file left unchanged\n");
    std::string eight;
    for (int i = 0; i < 8; ++i) eight += L + "\n";  // 2040 bytes of the 2048 a file may hold; 256 a line
    const struct { char fn; std::string content, key, value; const char* format; int rc;
                   std::string after, message; } rows[] = {
        {'l', base, "b", "b=9", "", 0, "a = \"1\"\nb=9\nb=9\nc=4", ""},  // comment lines match too
        {'s', base, "b", "9", "%s  = \"%s\"", -1, "", err("Func_update_line_conf_str", "error: format is wrong\n")},
        {'l', base, "", "a=3", "", -1, "", err("update_conf", "error: empty keyword, " + p + " left unchanged\n")},
        {'l', base, "a\n", "a=3", "", -1, "", refused}, {'l', base, "a", "a=3\r", "", -1, "", refused},
        {'l', "k=1\n" + L + "\n", "k=", "k=2", "", 0, "k=2\n" + L + "\n", ""},
        {'l', "k=1\n" + L + "L\n", "k=", "k=2", "", -1, "", too_long},
        {'l', "k=1\n", "k=", I, "", 0, I + "\n", ""}, {'l', "k=1\n", "k=", I + "I", "", -1, "", too_long},
        {'l', eight + "k=1\n", "k=", "k=2345", "", 0, eight + "k=2345\n", ""},
        {'l', eight + "k=1\n", "k=", "k=23456", "", -1, "", too_long},
        {'s', "k\n", "k", std::string(57, 'v'), "%s = \"%s\"", 0, "k = \"" + std::string(57, 'v') + "\"\n", ""},
        {'s', "k\n", "k", std::string(58, 'v'), "%s = \"%s\"", -1, "",
         err("Func_update_line_conf_str", "error: the line for k is too long\n")},
        {'i', "k\n", std::string(51, 'k'), "-2147483648", "%s=%d", 0, "", ""},
        {'i', "k\n", std::string(52, 'k'), "-2147483648", "%s=%d", -1, "",
         err("Func_update_line_conf_int", "error: the line for k{52} is too long\n")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.key + " " + std::to_string(row.value.size()));
        write_file(conf, row.content);
        EXPECT_THAT(console([&] {
            char *file = c(conf), *key = c(row.key), *value = c(row.value), *format = const_cast<char*>(row.format);
            EXPECT_EQ(row.fn == 'l'   ? update(file, key, value)
                      : row.fn == 's' ? high()->update_line_conf_str(file, key, value, format)
                                      : high()->update_line_conf_int(file, key, std::stoi(row.value), format), row.rc);
        }), FullyMatches(row.message));
        EXPECT_EQ(read_file(conf), row.after.empty() ? row.content : row.after);
    }
    // A missing file or text is refused quietly, and nothing is left behind.
    EXPECT_EQ(update(c(dir.file("missing.conf")), c("b"), c("b=1")) + update(nullptr, c("x"), c("x=2")) +
                  update(c(conf), nullptr, c("x=2")) + update(c(conf), c("x"), nullptr), -4);
    // A write cut short (by the file-size limit, as by a full disk) leaves the old file and no temporary one.
    write_file(conf, base);
    if (fork() == 0) {
        const rlimit small{20, 20};
        signal(SIGXFSZ, SIG_IGN);
        _exit(setrlimit(RLIMIT_FSIZE, &small) != 0 || update(c(conf), c("a"), c("a=123456789")) != -1);
    }
    int status = -1;
    EXPECT_TRUE(wait(&status) > 0 && status == 0);
    EXPECT_EQ(read_file(conf), base);
    EXPECT_EQ(entries(dir.path()), 1);
    ASSERT_EQ(chmod(conf.c_str(), 0640) | symlink("app.conf", dir.file("link.conf").c_str()), 0);
    EXPECT_EQ(update(c(dir.file("link.conf")), c("b"), c("b=3")), 0);
    EXPECT_EQ(read_file(conf), "a = \"1\"\nb=3\nb=3\nc=4");  // the link is followed, not replaced
    struct stat st {};
    EXPECT_TRUE(stat(conf.c_str(), &st) == 0 && (st.st_mode & 07777) == 0640);
    EXPECT_THAT(console([&] { EXPECT_EQ(update(c(dir.path()), c("b"), c("b=3")), -1); }),
                FullyMatches(err("update_conf", "error: " + regex_escape(dir.path()) + " is not a regular file\n")));
    // Four writers rewrite their own line 50 times each: every rewrite succeeds and none is lost.
    const std::string shared = dir.file("w.conf");
    write_file(shared, "w0=0\nw1=0\nw2=0\nw3=0\n");
    for (const std::string key : {"w0=", "w1=", "w2=", "w3="}) {
        if (fork() != 0) continue;
        int failed = 0;
        for (int v = 1; v <= 50; ++v) failed |= update(c(shared), c(key), c(key + std::to_string(v)));
        _exit(failed != 0);
    }
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(wait(&status) > 0 && status == 0);
    EXPECT_EQ(read_file(shared), "w0=50\nw1=50\nw2=50\nw3=50\n");
    // The owner may write the file but not its directory: rewritten in place. Root's rewrite keeps the owner.
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give up privileges";
    ASSERT_EQ(chmod(dir.path().c_str(), 0755) | chown(conf.c_str(), 65534, 65534), 0);
    if (fork() == 0) _exit(setgid(65534) | setuid(65534) | update(c(conf), c("c"), c("c=x")));
    EXPECT_TRUE(wait(&status) > 0 && status == 0);
    EXPECT_TRUE(update(c(conf), c("a"), c("a=y")) == 0 && stat(conf.c_str(), &st) == 0 && st.st_uid == 65534);
    EXPECT_EQ(read_file(conf), "a=y\nb=3\nb=3\nc=x\n");
}

// Plain names keep the command the library always ran, anything else is one quoted argument or refused;
// a process under a name of our own is found and killed, and a text that is no signal kills nothing.
TEST(ShellCommands, QuotedTextsAndFindingAndKillingAProcessByName) {
    const std::string name = "qts" + std::to_string(getpid() % 100000);
    const pid_t pid = fork();
    if (pid == 0) _exit(prctl(PR_SET_NAME, name.c_str()) | static_cast<int>(sleep(30)));
    const struct { std::string text; std::size_t size; const char* want; } rows[] = {
        {"azAZ09/._-+:@%,=", 64, "rm azAZ09/._-+:@%,= -rf"}, {"x;touch y", 64, "rm -rf -- 'x;touch y'"},
        {"it's", 64, "rm -rf -- 'it'\\''s'"}, {"-rf", 64, "rm -rf -- '-rf'"}, {"", 64, "rm -rf -- ''"},
        {"$(id) `id` \"x\"\n", 64, "rm -rf -- '$(id) `id` \"x\"\n'"}, {"abc", 11, "rm abc -rf"}, {"abc", 10, nullptr},
        {"ab c", 17, "rm -rf -- 'ab c'"}, {"ab c", 16, nullptr}, {"'", 17, "rm -rf -- ''\\'''"}, {"'", 16, nullptr}};
    for (const auto& row : rows) {
        char buf[64];
        const bool ok = quillane::command_with_text(buf, row.size, row.text, "rm ", " -rf", "rm -rf -- ");
        EXPECT_EQ(ok ? std::string(buf) : "(refused)", row.want != nullptr ? row.want : "(refused)") << row.text;
    }
    usleep(200000);  // for the child to take its name
    EXPECT_THAT(console([&] { high()->kill_pid(c(name), c("9;true")); }),
                FullyMatches(err("Func_kill_pid", "error: not a signal: 9;true\n")));
    EXPECT_EQ(high()->find_pid(c(name)), pid);
    high()->kill_pid(c(name), c("9"));
    int status = 0;
    EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

}  // namespace
