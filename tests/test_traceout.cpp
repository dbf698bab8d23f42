// The trace function, its log-file and syslog writers, the record's accessors and the command dumps.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "fake_clock.h"
#include "test_support.h"

using namespace qtest;

namespace {

class TraceTest : public DebugRecordTest {};

// One console report of the log-file writer, as a regular expression.
std::string report(const std::string& text) {
    return console_error("util_dbgout_function", "Func_dbgout_dbglog", regex_escape(text) + "\n");
}

// The output bits choose the writers, and with both the result is syslog's; the message
// is cut to the trace buffer.
TEST_F(TraceTest, AccessorsOutputBitsAndArguments) {
    attr()->set(nullptr);
    attr()->get_extraInfo_attr(nullptr, nullptr, nullptr);
    const std::string log = use_log("t.log");
    EXPECT_EQ(util_ops_pfun->dbgout->traceout(nullptr, "x\n"), -1);
    dbg()->enType = 4;  // no writer's bit
    EXPECT_EQ(trace("nothing %d\n", 1), 0);
    EXPECT_FALSE(exists(log));
    dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_DBGLOG;
    EXPECT_EQ(util_ops_pfun->dbgout->traceout(dbg(), nullptr), -1);
    EXPECT_EQ(trace("plain %s %d\n", "text", 42) + trace("%s", std::string(300, 'z').c_str()), 0);
    attr()->set_dbglog_enable(UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BUSY);
    dbg()->enType = 3;
    EXPECT_EQ(trace("busy file, syslog still\n"), 0);
    EXPECT_EQ(read_file(log), "plain text 42\n" + std::string(223, 'z'));
}

// Size limit and backup (a non-empty directory "/" cannot replace it), a deleted file made
// again, busy and disabled records. Steps trace a message, or ~rm, ~close, ~busy, ~off.
TEST_F(TraceTest, LogFileScenarios) {
    const std::string log = dir_.file("s.log"), a94(94, 'a');
    constexpr UTIL_U32 kOn = UTIL_DBGOUT_DBGLOG_ENABLE, kBak = kOn | UTIL_DBGOUT_DBGLOG_BACKUP;
    const struct {
        UTIL_U32 enable, max;
        std::string before, backup;
        std::vector<std::string> steps;
        std::string rcs, after, backup_after, reports;
        UTIL_U32 enable_after;
    } rows[] = {
        {kOn, 100, std::string(99, '#'), "", {"\n", "~close", "new\n", "lost\n"}, "000",
         std::string(99, '#') + "\nnew\n", "", "", 0},
        // A file over the limit when opened is written from its start.
        {kBak, 100, std::string(150, '#'), "older\n", {"head\n", a94 + "\n", "!", "fresh\n"}, "0000", "fresh\n",
         "head\n" + a94 + "\n!" + std::string(49, '#'), report("update " + log + "_bak success"), kBak},
        {kBak, 10, "", "/", {"0123456789abcdef\n", "XY"}, "00", "XY23456789abcdef\n", "",
         report("update " + log + "_bak error"), kBak},
        {kOn, 0x100000, "", "", {"first\n", "~rm", "lost\n", "second\n", "~busy", "dropped\n", "~off", "x\n"},
         "00010", "second\n", "", report("stat ERR"), 0},
    };
    for (const auto& r : rows) {
        std::filesystem::remove_all(log + "_bak");
        std::remove(log.c_str());
        if (!r.before.empty()) write_file(log, r.before);
        if (r.backup == "/") ASSERT_TRUE(std::filesystem::create_directories(log + "_bak/keep"));
        else if (!r.backup.empty()) write_file(log + "_bak", r.backup);
        attr()->set_dbglog_attr(r.enable, log.c_str(), r.max);
        std::string rcs;
        const std::string reports = console([&] {
            for (const std::string& step : r.steps) {
                if (step == "~rm") std::remove(log.c_str());
                else if (step == "~close") attr()->fclose_dbglog_fp();
                else if (step == "~busy") attr()->set_dbglog_enable(r.enable | UTIL_DBGOUT_DBGLOG_BUSY);
                else if (step == "~off") attr()->set_dbglog_enable(0);
                else rcs += std::to_string(trace("%s", step.c_str()));
            }
        });
        const util_dbgout_dbglog_t& now = dbg()->dbglogAttr;  // the stream is closed exactly when switched off
        EXPECT_EQ(std::make_tuple(rcs, now.enable, now.log_fp == nullptr),
                  std::make_tuple(r.rcs, r.enable_after, r.enable_after == 0)) << r.steps[0];
        EXPECT_THAT(reports, FullyMatches(r.reports)) << r.steps[0];
        attr()->fclose_dbglog_fp();
        EXPECT_EQ(read_file(log), r.after) << r.steps[0];
        if (r.backup != "/") {
            EXPECT_EQ(read_file(log + "_bak"), r.backup_after) << r.steps[0];
        }
    }
}

// Every stamp form on both outputs, east (with daylight saving, into March) and west;
// a message is never a format. Syslog is seen through its LOG_PERROR copy on stderr.
TEST_F(TraceTest, TimestampFormsOfBothOutputs) {
    const std::string log = use_log("ts.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_TIMESTAMP);
    fake_clock::set_utc(2024, 2, 29, 23, 59, 59, 7250);
    fake_clock::enabled = true;
    const struct { UTIL_U32 type, bits; time_t zone; const char* want; } cases[] = {
                 {1, 255, -28800, "2024-03-01 08:59:59.007.250 m %d\n"},
                 {1, 254, -28800, "2024-03-01 08:59:59.007 m %d\n"},
                 {1, 126, -28800, "03-01 08:59:59.007 m %d\n"},
                 {1, 63, -28800, "01 08:59:59.007 m %d\n"},
                 {1, 127, -28800, "08:59:59.007 m %d\n"},
                 {2, 31, -28800, "qtest: 08:59:59.007.250 m %d\n"},
                 {2, 31, 18000, "qtest: 18:59:59.007.250 m %d\n"},
                 {2, 3, 0, "qtest: 007.250 m %d\n"},
                 {2, 255, 0, "qtest: 007 m %d\n"},
                 {2, 0, 0, "qtest: m %d\n"}};
    openlog("qtest", LOG_PERROR, LOG_USER);
    for (const auto& c : cases) {
        dbg()->enType = c.type;
        attr()->set_syslog_attr(LOG_USER | LOG_INFO, c.bits != 0);
        attr()->set_extraInfo_attr(c.zone, c.zone < 0, c.bits);
        std::remove(log.c_str());
        attr()->fclose_dbglog_fp();
        const std::string err = console([] { EXPECT_EQ(trace("%s", "m %d\n"), 0); });
        EXPECT_EQ(c.type == 1 ? read_file(log) : err, c.want) << c.bits;
    }
    closelog();
    fake_clock::enabled = false;
}

// Unusable paths, and a file that stops taking writes, drop messages with 1;
// the record stays usable.
TEST_F(TraceTest, UnusableLogFilesDropMessages) {
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    attr()->set_dbglog_logPath(fifo.c_str());
    EXPECT_EQ(trace("no reader: must not stall\n"), 1);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);  // now only the file type refuses it
    for (const std::string& path : {dir_.file("missing-dir/x.log"), dir_.path(), std::string("/dev/null"), fifo}) {
        attr()->set_dbglog_logPath(path.c_str());
        EXPECT_EQ(trace("nowhere\n"), 1) << path;
        EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr) << path;
    }
    close(reader);
    const std::string p63(63, 'a'), p64(64, 'b');  // the longer has no room for its terminator
    for (const char* path : {p63.c_str(), p64.c_str(), static_cast<const char*>(nullptr)}) {
        attr()->set_dbglog_logPath(path);
    }
    EXPECT_EQ(attr()->get_dbglog_logPath(), p63);
    const std::string log = use_log("limited.log");  // a file that stops taking writes
    EXPECT_EQ(trace("ok\n"), 0);
    EXPECT_NE(fcntl(fileno(dbg()->dbglogAttr.log_fp), F_GETFD) & FD_CLOEXEC, 0);
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    const struct rlimit tight = {3, saved.rlim_max};
    const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
    const int refused = trace("refused\n") * 10 + trace("again\n");
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, old_handler);
    EXPECT_EQ(refused, 11);
    EXPECT_EQ(trace("back\n"), 0);
    EXPECT_EQ(read_file(log), "ok\nback\n");
    attr()->fclose_dbglog_fp();
    std::memset(dbg()->dbglogAttr.log_path, 'p', sizeof dbg()->dbglogAttr.log_path);  // no terminator
    EXPECT_EQ(trace("unterminated\n"), 1);
}

// Threads trace through many rotations while another keeps closing the stream;
// messages of one length leave only whole lines.
TEST_F(TraceTest, ConcurrentTracingDuringRotation) {
    const std::string log = use_log("mt.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP, 2048);
    std::atomic<int> written{0};
    const std::string reports = console([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 1500; ++i) {
                    written += trace("thread %d message %05d\n", t, i) == 0;
                    if (t == 0 && i % 200 == 0) attr()->fclose_dbglog_fp();
                }
            });
        }
        for (auto& th : threads) th.join();
    });
    EXPECT_GT(written.load(), 0);
    EXPECT_NE(reports.find("success"), std::string::npos) << reports;
    attr()->fclose_dbglog_fp();
    for (const std::string& path : {log, log + "_bak"}) {
        EXPECT_THAT(read_file(path), FullyMatches(R"((thread [01] message \d{5}\n)*)")) << path;
    }
}

class CmdDumpTest : public DebugRecordTest {};

// Six characters a byte and a terminator, nothing past it; short commands are refused
// before the buffer is touched; cmdPrint traces the dump (empty when refused).
TEST_F(CmdDumpTest, DumpsRefusalsAndPrint) {
    auto* out = util_ops_pfun->dbgout;
    const std::string log = use_log("cmd.log");
    std::vector<UTIL_U8> all(255);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<UTIL_U8>(i * 0x11 + 0x0A);
    std::vector<char> buf(6 * 255 + 8, '@');
    EXPECT_EQ(out->cmdToStr(all.data(), 255, buf.data()), 0);
    EXPECT_EQ(std::string(buf.data() + 6 * 253 - 1), ", 0xD7, 0xE8}");
    EXPECT_EQ(buf[6 * 255 + 1], '@');

    buf[0] = '@';
    errno = ENOENT;
    EXPECT_EQ(console([&] { EXPECT_EQ(out->cmdToStr(all.data(), 2, buf.data()), -1); }),
              "the cmd length is less than 3: No such file or directory\n");
    EXPECT_EQ(out->cmdToStr(nullptr, 3, buf.data()) + out->cmdToStr(all.data(), 3, nullptr), -2);
    EXPECT_EQ(buf[0], '@');
    EXPECT_EQ(out->cmdPrint(all.data(), 3), 0);
    console([&] { EXPECT_EQ(out->cmdPrint(all.data(), 2), 0); });
    const std::string messages = std::regex_replace(read_file(log), std::regex(R"(\[\S+ \+\d+ +\w+\] )"), "");
    EXPECT_EQ(messages, "error: the cmd length:2 is less than 3\nerror: arr or buf is NULL\n"
                        "error: arr or buf is NULL\ncmd[3]:{0x0A, 0x1B, 0x2C}\n\n"
                        "error: the cmd length:2 is less than 3\ncmd[2]:\n\n");
}

}  // namespace
