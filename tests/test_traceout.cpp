// The trace function, its log-file writer on real files, its syslog writer
// and the command dumps.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "test_support.h"

using namespace qtest;
using ::testing::MatchesRegex;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

class TraceTest : public DebugRecordTest {};

std::string captured(const std::function<void()>& call) {
    CaptureStderr();
    call();
    return GetCapturedStderr();
}

TEST_F(TraceTest, AccessorsChangeOnlyWhatTheyName) {
    util_dbgout_t mine{};
    mine.enType = UTIL_DBGOUT_ENUM_TYPE_SYSLOG;
    mine.dbglogAttr = {UTIL_DBGOUT_DBGLOG_BACKUP | UTIL_DBGOUT_DBGLOG_ENABLE, nullptr, "/tmp/other.log", 777};
    mine.syslogAttr.priority = 5;
    mine.extraInfo.timestamp_bits = 9;
    attr()->set(&mine);
    EXPECT_EQ(dbg()->enType, 1u);  // only the log-file record is copied
    EXPECT_EQ(attr()->get_dbglog_logPath(), dbg()->dbglogAttr.log_path);
    EXPECT_STREQ(attr()->get_dbglog_logPath(), "/tmp/other.log");
    EXPECT_EQ(attr()->get_dbglog_logMaxSize(), 777u);
    EXPECT_EQ(attr()->get_dbglog_enable(), 3u);
    EXPECT_EQ(dbg()->syslogAttr.priority + dbg()->extraInfo.timestamp_bits, 0u);
    attr()->set(nullptr);  // refused, no crash

    const std::string p63(63, 'a');
    attr()->set_dbglog_logPath(p63.c_str());
    attr()->set_dbglog_logPath(std::string(64, 'b').c_str());  // no room for its terminator: refused
    attr()->set_dbglog_logPath(nullptr);
    EXPECT_EQ(std::string(attr()->get_dbglog_logPath()), p63);
    attr()->set_dbglog_logPath("/x");  // a shorter path leaves no tail of the longer one behind
    for (size_t i = 2; i < sizeof dbg()->dbglogAttr.log_path; ++i) ASSERT_EQ(dbg()->dbglogAttr.log_path[i], 0);

    attr()->set_dbglog_attr(0x5, "/tmp/short.log", 4096);
    EXPECT_STREQ(attr()->get_dbglog_logPath(), "/tmp/short.log");
    EXPECT_EQ(attr()->get_dbglog_logMaxSize(), 4096u);
    EXPECT_EQ(attr()->get_dbglog_enable(), 5u);
    attr()->set_syslog_attr(14, 1);
    EXPECT_EQ(dbg()->syslogAttr.priority, 14);
    EXPECT_EQ(dbg()->syslogAttr.timestamp_enable, 1u);
    attr()->set_extraInfo_attr(-28800, 1, 255);
    time_t tz = 0;
    UTIL_S32 dst = 0;
    UTIL_U32 bits = 0;
    attr()->get_extraInfo_attr(&tz, &dst, &bits);
    attr()->get_extraInfo_attr(nullptr, nullptr, nullptr);
    EXPECT_EQ(tz * 1000 + dst * 100 + bits, -28800 * 1000 + 100 + 255);
}

// The output bits choose the writers; the message is cut to the trace buffer
// and written as given, without prefix or added line end.
TEST_F(TraceTest, OutputSelectorAndMessageBuffer) {
    const std::string log = use_log("t.log");
    EXPECT_EQ(util_ops_pfun->dbgout->traceout(nullptr, "x\n"), -1);
    for (UTIL_U32 none : {static_cast<UTIL_U32>(UTIL_DBGOUT_ENUM_TYPE_NOLOG), 4u}) {
        dbg()->enType = none;
        EXPECT_EQ(trace("nothing %d\n", 1), 0);
    }
    EXPECT_FALSE(exists(log));
    dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_DBGLOG;
    EXPECT_EQ(util_ops_pfun->dbgout->traceout(dbg(), nullptr), -1);
    EXPECT_EQ(trace("plain %s %d\n", "text", 42), 0);
    EXPECT_EQ(trace("%s", std::string(300, 'z').c_str()), 0);
    EXPECT_EQ(read_file(log), "plain text 42\n" + std::string(223, 'z'));
}

// Under the limit a file is appended to; already over it when opened, it is
// written from its start, over the old content, without truncating it.
TEST_F(TraceTest, OpenModesFollowTheFileOnDisk) {
    const std::string log = use_log("m.log", UTIL_DBGOUT_DBGLOG_ENABLE, 100);
    write_file(log, "old\n");
    trace("new\n");
    ASSERT_NE(dbg()->dbglogAttr.log_fp, nullptr);
    EXPECT_NE(fcntl(fileno(dbg()->dbglogAttr.log_fp), F_GETFD) & FD_CLOEXEC, 0);
    attr()->fclose_dbglog_fp();
    EXPECT_EQ(read_file(log), "old\nnew\n");
    write_file(log, std::string(150, '#'));
    trace("head\n");
    EXPECT_EQ(read_file(log), "head\n" + std::string(145, '#'));
}

// Every form of the stamp, in a zone eight hours east with daylight saving:
// the fields the form names, from the shifted wall clock.
TEST_F(TraceTest, TimestampFormats) {
    const std::string log = use_log("ts.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_TIMESTAMP);
    const struct {
        UTIL_U32 bits;
        const char *fields, *fraction;
    } cases[] = {{255, "%Y-%m-%d %H:%M:%S", R"(\.\d{3}\.\d{3})"}, {254, "%Y-%m-%d %H:%M:%S", R"(\.\d{3})"},
                 {126, "%m-%d %H:%M:%S", R"(\.\d{3})"},         {63, "%d %H:%M:%S", R"(\.\d{3})"},
                 {0, "%H:%M:%S", R"(\.\d{3})"},                 {127, "%H:%M:%S", R"(\.\d{3})"}};
    for (const auto& c : cases) {
        std::string line, want;
        for (int attempt = 0; attempt < 5; ++attempt) {  // the second must not change during the call
            attr()->fclose_dbglog_fp();
            std::remove(log.c_str());
            attr()->set_extraInfo_attr(-28800, 1, c.bits);
            const time_t before = wall_seconds();
            trace("msg\n");
            line = read_file(log);
            const time_t shifted = before + 28800 + 3600;
            struct tm expect {};
            gmtime_r(&shifted, &expect);
            char text[64];
            strftime(text, sizeof text, c.fields, &expect);
            want = regex_escape(text) + c.fraction + " msg\n";
            if (before == wall_seconds()) break;
        }
        EXPECT_THAT(line, FullyMatches(want)) << c.bits;
    }
}

// Past the size limit the file goes to its backup (replacing an older one) or,
// without backup, the file output switches off after the message. A backup
// that cannot be made leaves the file, then written over from its start.
TEST_F(TraceTest, RotationWithAndWithoutBackup) {
    std::string log = use_log("r.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP, 100);
    write_file(log + "_bak", "an older generation\n");
    const std::string line(40, 'a');
    EXPECT_EQ(trace("%s\n", line.c_str()) + trace("%s\n", line.c_str()), 0);
    EXPECT_THAT(captured([&] { EXPECT_EQ(trace("%s\n", line.c_str()), 0); }),  // 123 bytes
                FullyMatches(R"(DBG_ERR:util_dbgout_function\.cpp Func_dbgout_dbglog\[\d{4}\] update )" +
                             regex_escape(log) + "_bak success\n"));
    EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr);
    EXPECT_FALSE(exists(log));
    EXPECT_EQ(read_file(log + "_bak"), line + "\n" + line + "\n" + line + "\n");
    EXPECT_EQ(dbg()->dbglogAttr.enable, UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP);
    EXPECT_EQ(trace("fresh\n"), 0);
    EXPECT_EQ(read_file(log), "fresh\n");

    attr()->fclose_dbglog_fp();
    log = use_log("f.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP, 10);
    ASSERT_EQ(mkdir((log + "_bak").c_str(), 0755), 0);  // a non-empty directory cannot be replaced by a file
    write_file(log + "_bak/keep", "x");
    EXPECT_THAT(captured([&] { EXPECT_EQ(trace("0123456789abcdef\n"), 0); }), MatchesRegex(".*_bak error\n"));
    EXPECT_EQ(trace("XY"), 0);
    EXPECT_EQ(read_file(log), "XY23456789abcdef\n");

    attr()->fclose_dbglog_fp();
    log = use_log("o.log", UTIL_DBGOUT_DBGLOG_ENABLE, 20);
    EXPECT_EQ(trace("0123456789\n") + trace("0123456789\n"), 0);  // 22 bytes: still written, then off
    EXPECT_EQ(dbg()->dbglogAttr.enable, 0u);
    EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr);
    EXPECT_EQ(trace("lost\n"), 0);
    attr()->set_dbglog_enable(UTIL_DBGOUT_DBGLOG_ENABLE);
    EXPECT_EQ(trace("back\n"), 0);
    EXPECT_EQ(read_file(log), "back\n56789\n0123456789\n");
}

// A file deleted under the open stream is created again, empty; a busy record
// drops messages with 1 and a disabled one closes its stream. With both
// outputs the result is the last writer's: syslog's 0.
TEST_F(TraceTest, DeletedFileAndEnableBits) {
    const std::string log = use_log("d.log");
    EXPECT_EQ(trace("first\n"), 0);
    ASSERT_EQ(std::remove(log.c_str()), 0);
    EXPECT_THAT(captured([&] { EXPECT_EQ(trace("lost with the old file\n"), 0); }),
                FullyMatches(R"(DBG_ERR:util_dbgout_function\.cpp Func_dbgout_dbglog\[\d{4}\] stat ERR\n)"));
    EXPECT_EQ(read_file(log), "");
    EXPECT_EQ(trace("second\n"), 0);
    attr()->set_dbglog_enable(UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BUSY);
    EXPECT_EQ(trace("dropped while busy\n"), 1);
    attr()->set_dbglog_enable(0);
    EXPECT_EQ(trace("closes\n"), 0);
    EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr);
    EXPECT_EQ(read_file(log), "second\n");
    attr()->set_dbglog_enable(UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BUSY);
    dbg()->enType = 3;
    EXPECT_EQ(trace("busy file, syslog still\n"), 0);
}

// A log path that is no regular file, or a file that cannot be opened or
// written, drops the message with status 1 and leaves the record usable.
TEST_F(TraceTest, UnusableLogFilesDropMessages) {
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);  // so that only the file type refuses it
    for (const std::string& path : {dir_.file("missing-dir/x.log"), dir_.path(), std::string("/dev/null"), fifo}) {
        attr()->set_dbglog_logPath(path.c_str());
        EXPECT_EQ(trace("nowhere\n"), 1) << path;
        EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr) << path;
    }
    char byte;
    EXPECT_LE(read(reader, &byte, 1), 0);
    close(reader);

    const std::string log = use_log("limited.log");  // a file that stops taking writes
    EXPECT_EQ(trace("ok\n"), 0);
    struct rlimit saved, tight;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    tight = saved;
    tight.rlim_cur = 3;
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

// A FIFO without a reader at the log path: opening it for writing must not
// wait for one. Should it wait after all, a reader lets the thread go.
TEST_F(TraceTest, FifoAtTheLogPathStallsNoTrace) {
    util_dbgout_t fifo_record = *dbg();
    const std::string fifo = dir_.file("fifo.log");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::snprintf(fifo_record.dbglogAttr.log_path, sizeof fifo_record.dbglogAttr.log_path, "%s", fifo.c_str());
    std::atomic<int> rc{-2};
    std::thread writer([&] { rc = util_ops_pfun->dbgout->traceout(&fifo_record, "into the fifo\n"); });
    for (int ms = 0; rc == -2 && ms < 1000; ++ms) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const bool in_time = rc != -2;
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    writer.join();
    close(reader);
    EXPECT_TRUE(in_time);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(fifo_record.dbglogAttr.log_fp, nullptr);
}

// Several threads trace while the file rotates many times and another keeps
// closing the stream (the sanitizers see any stream used after its close).
// All messages have one length, so the files hold only whole lines.
TEST_F(TraceTest, ConcurrentTracingDuringRotation) {
    const std::string log = use_log("mt.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP, 2048);
    std::atomic<int> written{0}, dropped{0};
    std::atomic<bool> stop{false};
    const std::string reports = captured([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 1500; ++i) (trace("thread %d message %05d\n", t, i) == 0 ? written : dropped)++;
            });
        }
        std::thread closer([&] {
            while (!stop) {
                attr()->fclose_dbglog_fp();
                std::this_thread::sleep_for(std::chrono::milliseconds(25));
            }
        });
        for (auto& th : threads) th.join();
        stop = true;
        closer.join();
    });
    EXPECT_EQ(written + dropped, 6000);
    EXPECT_GT(written.load(), 0);
    EXPECT_NE(reports.find("success"), std::string::npos) << reports;
    attr()->fclose_dbglog_fp();
    for (const std::string& path : {log, log + "_bak"}) {
        EXPECT_THAT(read_file(path), FullyMatches(R"((thread [0-3] message \d{5}\n)*)")) << path;
    }
}

// The syslog writer, observed through the platform's own copy of every
// message on stderr (LOG_PERROR), which the host process chooses as it would.
class SyslogTest : public DebugRecordTest {
protected:
    void SetUp() override {
        DebugRecordTest::SetUp();
        openlog("qtest", LOG_PERROR, LOG_USER);
        dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_SYSLOG;
    }
    void TearDown() override {
        closelog();
        DebugRecordTest::TearDown();
    }
    std::string traced(const char* msg) {
        return captured([&] { EXPECT_EQ(trace("%s", msg), 0); });
    }
};

// 31 is the full form in the shifted zone, 3 milliseconds and microseconds,
// anything else milliseconds; a message is never a format.
TEST_F(SyslogTest, TimestampFormsAndBothOutputs) {
    EXPECT_EQ(traced("plain %d\n"), "qtest: plain %d\n");
    attr()->set_syslog_attr(LOG_USER | LOG_INFO, 1);
    attr()->set_extraInfo_attr(0, 0, 3);
    EXPECT_THAT(traced("m\n"), FullyMatches(R"(qtest: \d{3}\.\d{3} m\n)"));
    for (UTIL_U32 bits : {0u, 15u, 255u}) {
        attr()->set_extraInfo_attr(0, 0, bits);
        EXPECT_THAT(traced("m\n"), FullyMatches(R"(qtest: \d{3} m\n)")) << bits;
    }
    for (time_t zone : {-28800L, 3600L}) {  // east and west of the clock, with daylight saving
        attr()->set_extraInfo_attr(zone, 1, 31);
        std::string out, want;
        for (int attempt = 0; attempt < 5; ++attempt) {
            const time_t before = wall_seconds(), local = before - zone + 3600;
            out = traced("full\n");
            struct tm tm {};
            gmtime_r(&local, &tm);
            char text[16];
            strftime(text, sizeof text, "%H:%M:%S", &tm);
            want = std::string("qtest: ") + text + R"(\.\d{3}\.\d{3} full\n)";
            if (before == wall_seconds()) break;
        }
        EXPECT_THAT(out, FullyMatches(want)) << zone;
    }
    const std::string log = use_log("both.log");
    dbg()->enType = 3;
    attr()->set_syslog_attr(LOG_USER | LOG_INFO, 0);
    EXPECT_EQ(traced("twice %d\n"), "qtest: twice %d\n");
    EXPECT_EQ(read_file(log), "twice %d\n");
}

class CmdDumpTest : public DebugRecordTest {};

// Six characters a byte and a terminator, nothing past it; short commands
// are refused with the platform's error text and a trace, before the buffer
// is touched; cmdPrint traces the dump (empty when refused), cut to the buffer.
TEST_F(CmdDumpTest, DumpsRefusalsAndPrint) {
    auto* out = util_ops_pfun->dbgout;
    const std::string log = use_log("cmd.log");
    std::vector<UTIL_U8> all(255);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<UTIL_U8>(i * 0x11 + 0x0A);
    std::vector<char> buf(6 * 255 + 8, '@');
    EXPECT_EQ(out->cmdToStr(all.data(), 3, buf.data()), 0);
    EXPECT_EQ(std::string(buf.data(), 20), std::string("{0x0A, 0x1B, 0x2C}\0@", 20));
    EXPECT_EQ(out->cmdToStr(all.data(), 255, buf.data()), 0);
    EXPECT_EQ(std::strlen(buf.data()), 6u * 255);
    EXPECT_EQ(std::string(buf.data() + 6 * 253 - 1), ", 0xD7, 0xE8}");
    EXPECT_EQ(buf[6 * 255 + 1], '@');

    buf[0] = '@';
    errno = ENOENT;
    EXPECT_EQ(captured([&] { EXPECT_EQ(out->cmdToStr(all.data(), 2, buf.data()), -1); }),
              "the cmd length is less than 3: No such file or directory\n");
    EXPECT_EQ(out->cmdToStr(nullptr, 3, buf.data()) + out->cmdToStr(all.data(), 3, nullptr), -2);
    EXPECT_EQ(buf[0], '@');
    EXPECT_EQ(out->cmdPrint(all.data(), 3), 0);
    captured([&] { EXPECT_EQ(out->cmdPrint(all.data(), 2), 0); });
    const std::string p = R"(\[util_dbgout_function\.cpp \+\d+ +Func_dbgout_cmd)";
    EXPECT_THAT(read_file(log), FullyMatches(p + R"(ToStr\] error: the cmd length:2 is less than 3\n)" +
                                             "(" + p + R"(ToStr\] error: arr or buf is NULL\n){2})" + p +
                                             R"(Print\] cmd\[3\]:\{0x0A, 0x1B, 0x2C\}\n\n)" + p +
                                             R"(ToStr\] error: the cmd length:2 is less than 3\n)" + p +
                                             R"(Print\] cmd\[2\]:\n\n)"));
    std::remove(log.c_str());
    attr()->fclose_dbglog_fp();
    EXPECT_EQ(out->cmdPrint(all.data(), 255), 0);
    EXPECT_EQ(read_file(log).size(), 223u);
}

}  // namespace
