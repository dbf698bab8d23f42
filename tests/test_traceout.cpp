// The trace function and its log-file writer on real files.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <regex>
#include <thread>

#include "test_support.h"

using namespace qtest;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

class TraceTest : public DebugRecordTest {};

TEST_F(TraceTest, AccessorsChangeOnlyWhatTheyName) {
    util_dbgout_t mine{};
    mine.enType = UTIL_DBGOUT_ENUM_TYPE_SYSLOG;
    std::snprintf(mine.dbglogAttr.log_path, sizeof mine.dbglogAttr.log_path, "%s", "/tmp/other.log");
    mine.dbglogAttr.log_max_size = 777;
    mine.dbglogAttr.enable = UTIL_DBGOUT_DBGLOG_BACKUP | UTIL_DBGOUT_DBGLOG_ENABLE;
    mine.syslogAttr.priority = 5;
    mine.extraInfo.timestamp_bits = 9;
    attr()->set(&mine);
    EXPECT_EQ(dbg()->enType, 1u);  // enType is not copied
    EXPECT_STREQ(attr()->get_dbglog_logPath(), "/tmp/other.log");
    EXPECT_EQ(attr()->get_dbglog_logPath(), dbg()->dbglogAttr.log_path);
    EXPECT_EQ(attr()->get_dbglog_logMaxSize(), 777u);
    EXPECT_EQ(attr()->get_dbglog_enable(), 3u);
    EXPECT_EQ(dbg()->syslogAttr.priority, 0);
    EXPECT_EQ(dbg()->extraInfo.timestamp_bits, 0u);

    const std::string p63(63, 'a');
    attr()->set_dbglog_logPath(p63.c_str());
    EXPECT_EQ(std::string(attr()->get_dbglog_logPath()), p63);
    attr()->set_dbglog_logPath(std::string(64, 'b').c_str());
    attr()->set_dbglog_logPath(nullptr);
    EXPECT_EQ(std::string(attr()->get_dbglog_logPath()), p63);
    // A shorter path leaves no tail of the longer one behind.
    attr()->set_dbglog_logPath("/x");
    for (size_t i = 2; i < sizeof dbg()->dbglogAttr.log_path; ++i) ASSERT_EQ(dbg()->dbglogAttr.log_path[i], 0);

    attr()->set_dbglog_attr(0x5, "/tmp/short.log", 4096);
    EXPECT_STREQ(attr()->get_dbglog_logPath(), "/tmp/short.log");
    EXPECT_EQ(attr()->get_dbglog_logMaxSize(), 4096u);
    EXPECT_EQ(attr()->get_dbglog_enable(), UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_TIMESTAMP);

    attr()->set_syslog_attr(14, 1);
    EXPECT_EQ(dbg()->syslogAttr.priority, 14);
    EXPECT_EQ(dbg()->syslogAttr.timestamp_enable, 1u);
    attr()->set_extraInfo_attr(-28800, 1, 255);
    time_t tz = 0;
    UTIL_S32 dst = 0;
    UTIL_U32 bits = 0;
    attr()->get_extraInfo_attr(&tz, &dst, &bits);
    EXPECT_EQ(tz, -28800);
    EXPECT_EQ(dst, 1);
    EXPECT_EQ(bits, 255u);
    attr()->set(nullptr);  // refused, no crash
    EXPECT_STREQ(attr()->get_dbglog_logPath(), "/tmp/short.log");
}

TEST_F(TraceTest, OutputSelectorAndMessageBuffer) {
    const std::string log = use_log("t.log");
    EXPECT_EQ(util_ops_pfun->dbgout->traceout(nullptr, "x\n"), -1);

    dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    EXPECT_EQ(trace("nothing %d\n", 1), 0);
    EXPECT_FALSE(exists(log));
    dbg()->enType = 4;  // no known output bit
    EXPECT_EQ(trace("nothing\n"), 0);
    EXPECT_FALSE(exists(log));

    dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_DBGLOG;
    EXPECT_EQ(util_ops_pfun->dbgout->traceout(dbg(), nullptr), -1);
    EXPECT_EQ(trace("plain %s %d\n", "text", 42), 0);
    EXPECT_EQ(read_file(log), "plain text 42\n");  // no prefix, no added line end

    const std::string long_text(300, 'z');
    EXPECT_EQ(trace("%s", long_text.c_str()), 0);
    EXPECT_EQ(read_file(log), "plain text 42\n" + std::string(223, 'z'));
}

TEST_F(TraceTest, OpenModesFollowTheFileOnDisk) {
    const std::string log = use_log("m.log", UTIL_DBGOUT_DBGLOG_ENABLE, 100);
    write_file(log, "old\n");
    trace("new\n");
    ASSERT_NE(dbg()->dbglogAttr.log_fp, nullptr);
    EXPECT_NE(fcntl(fileno(dbg()->dbglogAttr.log_fp), F_GETFD) & FD_CLOEXEC, 0);
    attr()->fclose_dbglog_fp();
    EXPECT_EQ(read_file(log), "old\nnew\n");  // under the limit: appended

    // Already over the limit when opened: written from its start, over the
    // old content, without truncating it.
    const std::string big(150, '#');
    write_file(log, big);
    trace("head\n");
    EXPECT_EQ(read_file(log), "head\n" + big.substr(5));
}

TEST_F(TraceTest, TimestampFormats) {
    const std::string log = use_log("ts.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_TIMESTAMP);
    struct Case {
        UTIL_U32 bits;
        const char* pattern;  // groups: fields in format order, then ms (and us)
    };
    const Case cases[] = {
        {255, R"(^(\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3})\.(\d{3}) msg\n$)"},
        {254, R"(^(\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) msg\n$)"},
        {126, R"(^(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) msg\n$)"},
        {63, R"(^(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) msg\n$)"},
        {0, R"(^(\d\d):(\d\d):(\d\d)\.(\d{3}) msg\n$)"},
        {127, R"(^(\d\d):(\d\d):(\d\d)\.(\d{3}) msg\n$)"},  // compared for equality, not as a mask
    };
    const time_t zones[] = {0, -28800};
    for (time_t zone : zones) {
        for (UTIL_S32 dst : {0, 1}) {
            for (const Case& c : cases) {
                std::string line;
                struct tm expect {};
                for (int attempt = 0; attempt < 5; ++attempt) {
                    attr()->fclose_dbglog_fp();
                    std::remove(log.c_str());
                    attr()->set_extraInfo_attr(zone, dst, c.bits);
                    const time_t before = wall_seconds();
                    trace("msg\n");
                    const time_t after = wall_seconds();
                    line = read_file(log);
                    if (before == after) {
                        const time_t shifted = before - zone + dst * 3600;
                        gmtime_r(&shifted, &expect);
                        break;
                    }
                }
                std::smatch m;
                ASSERT_TRUE(std::regex_match(line, m, std::regex(c.pattern))) << c.bits << ": " << line;
                std::vector<int> want;
                if (c.bits >= 254) want.push_back(expect.tm_year + 1900);
                if (c.bits >= 126 && c.bits != 127) want.push_back(expect.tm_mon + 1);
                if (c.bits >= 63 && c.bits != 127) want.push_back(expect.tm_mday);
                want.insert(want.end(), {expect.tm_hour, expect.tm_min, expect.tm_sec});
                for (size_t i = 0; i < want.size(); ++i) {
                    EXPECT_EQ(std::stoi(m[i + 1]), want[i]) << "bits " << c.bits << " field " << i << ": " << line;
                }
            }
        }
    }
}

TEST_F(TraceTest, RotationWithBackup) {
    const std::string log =
        use_log("r.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP, 100);
    const std::string bak = log + "_bak";
    write_file(bak, "an older generation\n");
    const std::string line(40, 'a');
    EXPECT_EQ(trace("%s\n", line.c_str()), 0);
    EXPECT_EQ(trace("%s\n", line.c_str()), 0);
    CaptureStderr();
    EXPECT_EQ(trace("%s\n", line.c_str()), 0);  // 123 bytes: passes the limit
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(
                                       "DBG_ERR:util_dbgout_function.cpp Func_dbgout_dbglog\\[[0-9]{4}\\] update " + bak +
                                       " success\n"));
    EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr);
    EXPECT_FALSE(exists(log));
    EXPECT_EQ(read_file(bak), line + "\n" + line + "\n" + line + "\n");  // the old backup is replaced
    EXPECT_EQ(dbg()->dbglogAttr.enable, UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP);
    EXPECT_EQ(trace("fresh\n"), 0);
    EXPECT_EQ(read_file(log), "fresh\n");
}

TEST_F(TraceTest, FailedBackupRenameKeepsTheFileAndOverwritesIt) {
    const std::string log =
        use_log("f.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP, 10);
    const std::string bak = log + "_bak";
    ASSERT_EQ(mkdir(bak.c_str(), 0755), 0);  // a non-empty directory cannot be replaced by a file
    write_file(bak + "/keep", "x");
    CaptureStderr();
    EXPECT_EQ(trace("0123456789abcdef\n"), 0);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(".*update " + bak + " error\n"));
    EXPECT_EQ(read_file(log), "0123456789abcdef\n");
    EXPECT_EQ(trace("XY"), 0);  // reopened over the limit: from the start
    EXPECT_EQ(read_file(log), "XY23456789abcdef\n");
}

TEST_F(TraceTest, WithoutBackupTheFileSwitchesOff) {
    const std::string log = use_log("o.log", UTIL_DBGOUT_DBGLOG_ENABLE, 20);
    EXPECT_EQ(trace("0123456789\n"), 0);
    EXPECT_EQ(trace("0123456789\n"), 0);  // 22 bytes: still written, then off
    EXPECT_EQ(dbg()->dbglogAttr.enable & UTIL_DBGOUT_DBGLOG_ENABLE, 0u);
    EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr);
    EXPECT_EQ(trace("lost\n"), 0);
    EXPECT_EQ(read_file(log), "0123456789\n0123456789\n");
    attr()->set_dbglog_enable(UTIL_DBGOUT_DBGLOG_ENABLE);
    EXPECT_EQ(trace("back\n"), 0);  // reopened over the limit: from its start
    EXPECT_EQ(read_file(log), "back\n56789\n0123456789\n");
}

TEST_F(TraceTest, DeletedFileIsCreatedAgain) {
    const std::string log = use_log("d.log");
    EXPECT_EQ(trace("first\n"), 0);
    ASSERT_EQ(std::remove(log.c_str()), 0);
    CaptureStderr();
    EXPECT_EQ(trace("lost with the old file\n"), 0);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(
                                       "DBG_ERR:util_dbgout_function.cpp Func_dbgout_dbglog\\[[0-9]{4}\\] stat ERR\n"));
    EXPECT_TRUE(exists(log));
    EXPECT_EQ(read_file(log), "");
    EXPECT_EQ(trace("second\n"), 0);
    EXPECT_EQ(read_file(log), "second\n");
}

TEST_F(TraceTest, EnableAndBusyBits) {
    const std::string log = use_log("b.log");
    EXPECT_EQ(trace("one\n"), 0);
    ASSERT_NE(dbg()->dbglogAttr.log_fp, nullptr);
    attr()->set_dbglog_enable(UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BUSY);
    EXPECT_EQ(trace("dropped while busy\n"), 1);
    attr()->set_dbglog_enable(0);
    EXPECT_EQ(trace("closes\n"), 0);
    EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr);
    EXPECT_EQ(read_file(log), "one\n");

    // With both outputs the result is the last writer's: syslog's 0.
    attr()->set_dbglog_enable(UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BUSY);
    dbg()->enType = 3;
    EXPECT_EQ(trace("busy file, syslog still\n"), 0);
}

// A log path that is no regular file, or a file that cannot be opened or
// written, drops the message with status 1 and leaves the record usable.
TEST_F(TraceTest, UnusableLogFilesDropMessages) {
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // With a reader the FIFO opens at once: only the file-type check refuses it.
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    for (const std::string& path : {dir_.file("missing-dir/x.log"), dir_.path(), std::string("/dev/null"),
                                    std::string("/dev/full"), fifo}) {
        attr()->set_dbglog_logPath(path.c_str());
        EXPECT_EQ(trace("nowhere\n"), 1) << path;
        EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr) << path;
    }
    char byte;
    EXPECT_LE(read(reader, &byte, 1), 0);  // nothing reached the FIFO
    close(reader);

    // A regular file that stops taking writes (here the file-size limit):
    // each message is dropped, and writing resumes when the file takes more.
    const std::string log = use_log("limited.log");
    EXPECT_EQ(trace("ok\n"), 0);
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct rlimit tight = saved;
    tight.rlim_cur = 3;
    const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
    const int refused = trace("refused\n");
    const int refused_again = trace("again\n");
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, old_handler);
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(refused_again, 1);
    EXPECT_EQ(trace("back\n"), 0);
    EXPECT_EQ(read_file(log), "ok\nback\n");
    attr()->fclose_dbglog_fp();

    // A path written straight into the record without a terminator.
    std::memset(dbg()->dbglogAttr.log_path, 'p', sizeof dbg()->dbglogAttr.log_path);
    EXPECT_EQ(trace("unterminated\n"), 1);
}

// A FIFO without a reader at one record's path: opening it for writing would
// wait for a reader. Neither that record's trace nor another thread's traces
// to another record and file may wait with it.
TEST_F(TraceTest, FifoAtTheLogPathStallsNoTrace) {
    const std::string log = use_log("other.log");
    util_dbgout_t fifo_record = *dbg();
    const std::string fifo = dir_.file("fifo.log");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::snprintf(fifo_record.dbglogAttr.log_path, sizeof fifo_record.dbglogAttr.log_path, "%s", fifo.c_str());

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    std::atomic<int> fifo_rc{-2};
    std::atomic<bool> others_done{false};
    std::thread into_fifo([&] { fifo_rc = util_ops_pfun->dbgout->traceout(&fifo_record, "into the fifo\n"); });
    std::thread others([&] {
        for (int i = 0; i < 20; ++i) trace("other %02d\n", i);
        others_done = true;
    });
    while ((fifo_rc == -2 || !others_done) && Clock::now() - start < std::chrono::seconds(1)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    const bool in_time = fifo_rc != -2 && others_done;
    // Should the open be waiting after all, a reader lets it go so the
    // threads can be joined.
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    into_fifo.join();
    others.join();
    EXPECT_TRUE(in_time) << "still waiting after " << elapsed.count() << " ms";
    EXPECT_EQ(fifo_rc, 1);  // dropped
    EXPECT_EQ(fifo_record.dbglogAttr.log_fp, nullptr);
    if (fifo_record.dbglogAttr.log_fp != nullptr) std::fclose(fifo_record.dbglogAttr.log_fp);
    char byte;
    EXPECT_LE(read(reader, &byte, 1), 0);
    close(reader);
    attr()->fclose_dbglog_fp();
    const std::string text = read_file(log);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 20);
}

// Several threads trace while the file rotates many times and another keeps
// closing the stream; with the sanitizers on this also proves no stream is
// used after it was closed. All messages have one length, so even a file
// reopened over its limit (and rewritten from its start) holds whole lines.
TEST_F(TraceTest, ConcurrentTracingDuringRotation) {
    const std::string log =
        use_log("mt.log", UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP, 2048);
    constexpr int kThreads = 4;
    constexpr int kMessages = 1500;
    std::atomic<int> written{0};
    std::atomic<int> dropped{0};
    std::atomic<bool> stop{false};
    CaptureStderr();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kMessages; ++i) {
                const int rc = trace("thread %d message %05d\n", t, i);
                (rc == 0 ? written : dropped)++;
            }
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
    const std::string reports = GetCapturedStderr();
    EXPECT_EQ(written + dropped, kThreads * kMessages);
    EXPECT_GT(written.load(), 0);
    EXPECT_NE(reports.find("success"), std::string::npos) << reports;
    attr()->fclose_dbglog_fp();
    // Whatever survived is whole lines, each a complete message.
    const std::regex whole(R"(thread [0-3] message \d{5})");
    for (const std::string& path : {log, log + "_bak"}) {
        std::istringstream in(read_file(path));
        std::string line;
        while (std::getline(in, line)) {
            ASSERT_TRUE(std::regex_match(line, whole)) << path << ": " << line;
        }
    }
}

}  // namespace
