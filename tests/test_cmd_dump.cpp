// Command byte dumps: exact text, buffer bounds, refused sizes.
#include <cstring>

#include "test_support.h"

using namespace qtest;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

class CmdDumpTest : public DebugRecordTest {};

TEST_F(CmdDumpTest, RendersSixCharactersPerByteAndNoMore) {
    auto* dbgout = util_ops_pfun->dbgout;
    UTIL_U8 cmd3[] = {0x81, 0x01, 0x04};
    char buf[64];
    std::memset(buf, '@', sizeof buf);
    EXPECT_EQ(dbgout->cmdToStr(cmd3, 3, buf), 0);
    EXPECT_STREQ(buf, "{0x81, 0x01, 0x04}");
    EXPECT_EQ(buf[19], '@');  // nothing past the terminator

    UTIL_U8 cmd4[] = {0x0A, 0xFF, 0x00, 0x0B};
    EXPECT_EQ(dbgout->cmdToStr(cmd4, 4, buf), 0);
    EXPECT_STREQ(buf, "{0x0A, 0xFF, 0x00, 0x0B}");

    // The longest command fills exactly 6 * 255 + 1 bytes.
    std::vector<UTIL_U8> all(255);
    for (size_t i = 0; i < all.size(); ++i) all[i] = static_cast<UTIL_U8>(i);
    std::vector<char> big(6 * 255 + 8, '@');
    EXPECT_EQ(dbgout->cmdToStr(all.data(), 255, big.data()), 0);
    EXPECT_EQ(std::strlen(big.data()), 6u * 255);
    EXPECT_EQ(std::string(big.data() + 6 * 254 - 1), ", 0xFE}");
    EXPECT_EQ(big[6 * 255 + 1], '@');
}

TEST_F(CmdDumpTest, ShortCommandsAreRefused) {
    const std::string log = use_log("cmd.log");
    UTIL_U8 cmd[] = {0x81, 0x01};
    char buf[16];
    std::memset(buf, '@', sizeof buf);
    errno = ENOENT;
    CaptureStderr();
    EXPECT_EQ(util_ops_pfun->dbgout->cmdToStr(cmd, 2, buf), -1);
    EXPECT_EQ(GetCapturedStderr(), "the cmd length is less than 3: No such file or directory\n");
    EXPECT_EQ(buf[0], '@');
    EXPECT_THAT(read_file(log),
              FullyMatches(
                  R"(\[util_dbgout_function\.cpp \+[0-9]+ +Func_dbgout_cmdToStr\] error: the cmd length:2 is less than 3\n)"));

    EXPECT_EQ(util_ops_pfun->dbgout->cmdToStr(nullptr, 3, buf), -1);
    EXPECT_EQ(util_ops_pfun->dbgout->cmdToStr(cmd, 3, nullptr), -1);
}

TEST_F(CmdDumpTest, PrintTracesTheDump) {
    const std::string log = use_log("print.log");
    UTIL_U8 cmd[] = {0x81, 0x01, 0x04};
    EXPECT_EQ(util_ops_pfun->dbgout->cmdPrint(cmd, 3), 0);
    EXPECT_THAT(read_file(log), FullyMatches(R"(\[util_dbgout_function\.cpp \+[0-9]{3} +Func_dbgout_cmdPrint\] )"
                                                      R"(cmd\[3\]:\{0x81, 0x01, 0x04\}\n\n)"));

    // A refused command traces its error and then an empty dump.
    std::remove(log.c_str());
    attr()->fclose_dbglog_fp();
    CaptureStderr();
    EXPECT_EQ(util_ops_pfun->dbgout->cmdPrint(cmd, 2), 0);
    GetCapturedStderr();
    const std::string text = read_file(log);
    EXPECT_NE(text.find("error: the cmd length:2 is less than 3\n"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 11), "] cmd[2]:\n\n");

    // A long dump reaches the file cut to the trace buffer.
    std::remove(log.c_str());
    attr()->fclose_dbglog_fp();
    std::vector<UTIL_U8> all(255, 0xAB);
    EXPECT_EQ(util_ops_pfun->dbgout->cmdPrint(all.data(), 255), 0);
    EXPECT_EQ(read_file(log).size(), 223u);
}

}  // namespace
