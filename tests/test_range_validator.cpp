// String lists and the range validator: every kind, result code and message.
#include <fcntl.h>
#include <regex.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstring>

#include "test_support.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

util_ops_common_base_fun_t& cb() { return *util_ops_pfun->common_base; }

// Runs the validator on a copy of both texts, checks neither was changed,
// and returns the result code and the message without its prefix.
std::pair<int, std::string> judge(const char* value, const char* list) {
    std::string v = value ? value : "";
    std::string l = list ? list : "";
    CaptureStderr();
    const int rc = cb().judgeSubStrWithinRange(value ? v.data() : nullptr, list ? l.data() : nullptr);
    std::string err = GetCapturedStderr();
    EXPECT_EQ(v, value ? value : "");
    EXPECT_EQ(l, list ? list : "");
    if (err.empty()) return {rc, ""};
    std::smatch m;
    static const std::regex prefix(R"(^DBG_ERR:util_common_base_function\.cpp Func_judgeSubStrWithinRange\[\d{4}\] )");
    EXPECT_TRUE(std::regex_search(err, m, prefix)) << err;
    return {rc, m.suffix()};
}

using Result = std::pair<int, std::string>;
const std::string kOutRange = "error: outRange##########warn";
const std::string kListNotDigital = "error: listStr is not digital!!!!\n";
const std::string kFormat = "error: listStr format is wrong(NULL)";
const std::string kTooLong = "error: listStr must be less than 127(reg_str_size - 1)";

TEST(RangeValidator, EnumerationKind) {
    EXPECT_EQ(judge("on", "0#on#off#"), Result(0, ""));
    EXPECT_EQ(judge("of", "0#on#off#"), Result(1, kOutRange));
    EXPECT_EQ(judge("ON", "0#on#off#"), Result(1, kOutRange));
    EXPECT_EQ(judge("on#off", "0#on#off#"), Result(1, kOutRange));
    EXPECT_EQ(judge("", "0#on#off#"), Result(1, kOutRange));
    EXPECT_EQ(judge("", "0#a##"), Result(0, ""));
    EXPECT_EQ(judge("b", "0#a#b"), Result(1, kOutRange));
    // Any character separates, high bytes included.
    EXPECT_EQ(judge("off", "0,on,off,"), Result(0, ""));
    EXPECT_EQ(judge("off", "0 on off "), Result(0, ""));
    EXPECT_EQ(judge("\xE4\xB8\xAD", "0\xFF" "a\xFF\xE4\xB8\xAD\xFF"), Result(0, ""));
}

TEST(RangeValidator, MinMaxKind) {
    EXPECT_EQ(judge("5", "1#0#10"), Result(0, ""));
    EXPECT_EQ(judge("10", "1#0#10#anything"), Result(0, ""));
    EXPECT_EQ(judge("11", "1#0#10"), Result(1, kOutRange));
    EXPECT_EQ(judge("-1", "1#0#10"), Result(1, kOutRange));
    EXPECT_EQ(judge("7x", "1#0#10"), Result(2, "error: subStr is not digital!!!!\n"));
    EXPECT_EQ(judge("5-", "1#0#10"), Result(2, "error: subStr is not digital!!!!\n"));
    EXPECT_EQ(judge("*", "1#*#*"), Result(2, "error: subStr is not digital!!!!\n"));
    EXPECT_EQ(judge("", "1#0#10"), Result(-1, "error: subStr_size is 0!!!!\n"));
    EXPECT_EQ(judge("-3", "1#-5#*"), Result(0, ""));
    EXPECT_EQ(judge("-6", "1#-5#*"), Result(1, kOutRange));
    EXPECT_EQ(judge("99", "1#*#-5"), Result(1, kOutRange));
    EXPECT_EQ(judge("-1000", "1#*99#10"), Result(0, ""));
    EXPECT_EQ(judge("-", "1#-1#1"), Result(0, ""));
    EXPECT_EQ(judge("-123456", "1#*#*"), Result(0, ""));
    EXPECT_EQ(judge("5", "1#10#0"), Result(-1, "error: listStr value: min is greater than max!!!!\n"));
    // The list is checked before the value.
    EXPECT_EQ(judge("x", "1#a#5"), Result(-1, kListNotDigital));
    EXPECT_EQ(judge("5", "1#5#b"), Result(-1, kListNotDigital));
    EXPECT_EQ(judge("5", "1#5#"), Result(-1, kListNotDigital));
    // Separators that are signs elsewhere still separate after the first
    // position of a bound.
    EXPECT_EQ(judge("7", "1-5-10"), Result(0, ""));
    EXPECT_EQ(judge("-3", "1--5-10"), Result(0, ""));
    EXPECT_EQ(judge("3", "1*5*10"), Result(1, kOutRange));

    // No separator after the minimum: malformed, nothing read past the end.
    EXPECT_EQ(judge("50", "1#50"), Result(-1, "error: listStr has no max value!!!!\n"));
    // Only 32-bit values are admissible: no wrap-around into the range.
    EXPECT_EQ(judge("2147483647", "1#-2147483648#2147483647"), Result(0, ""));
    EXPECT_EQ(judge("-2147483648", "1#-2147483648#2147483647"), Result(0, ""));
    EXPECT_EQ(judge("4294967301", "1#0#10"), Result(1, kOutRange));
    EXPECT_EQ(judge("2147483648", "1#*#*"), Result(1, kOutRange));
    EXPECT_EQ(judge("-2147483649", "1#*#*"), Result(1, kOutRange));
    EXPECT_EQ(judge("99999999999999999999999999", "1#*#*"), Result(1, kOutRange));
    EXPECT_EQ(judge("3", "1#0#2147483648"), Result(-1, "error: listStr value is beyond 32 bits!!!!\n"));
    EXPECT_EQ(judge("3", "1#-4294967296#5"), Result(-1, "error: listStr value is beyond 32 bits!!!!\n"));
    EXPECT_EQ(judge("3", "1#*99999999999#5"), Result(0, ""));
}

TEST(RangeValidator, NoneKindAndRuleErrors) {
    EXPECT_EQ(judge("anything", "2"), Result(0, ""));
    EXPECT_EQ(judge("", "2#x"), Result(0, ""));
    EXPECT_EQ(judge(nullptr, nullptr), Result(3, "###########error: the subStr is NULL!!!!\n"));
    EXPECT_EQ(judge("a", nullptr), Result(-1, "error: listStr is NULL!!!\n"));
    EXPECT_EQ(judge("a", "0#a"), Result(-1, "error: listStr_size less  than 4!!!\n"));
    EXPECT_EQ(judge("a", "3##"), Result(-1, "error: listStr_size less  than 4!!!\n"));
    EXPECT_EQ(judge("a", "7#a#b#"), Result(-1, "error: no support compare_type:7!!!!\n"));
    EXPECT_EQ(judge("a", "/#a#"), Result(-1, "error: no support compare_type:-1!!!!\n"));
    EXPECT_EQ(judge("a", ""), Result(-1, "error: no support compare_type:-48!!!!\n"));
    // The kind byte counts as 0..255 whatever the sign of char.
    EXPECT_EQ(judge("a", "\xB0#a#"), Result(-1, "error: no support compare_type:128!!!!\n"));
}

std::string regex_error_text(int code, const char* pattern) {
    regex_t re{};
    const int rc = pattern ? regcomp(&re, pattern, REG_EXTENDED | REG_NOSUB) : code;
    char text[256];
    regerror(rc, &re, text, sizeof text);
    if (pattern && rc == 0) regfree(&re);
    return text;
}

TEST(RangeValidator, RegexKind) {
    const std::string no_match = "error: regexec failed " + regex_error_text(REG_NOMATCH, nullptr) + "\n";
    EXPECT_EQ(judge("12", "3#^[0-9]+$#"), Result(0, ""));
    EXPECT_EQ(judge("ab", "3#^[0-9]+$#"), Result(2, no_match));
    EXPECT_EQ(judge("abc", "3#a##c#"), Result(0, ""));
    EXPECT_EQ(judge("abc", "3#a##x#"), Result(2, no_match));
    EXPECT_EQ(judge("abc", "3#a##"), Result(0, ""));
    EXPECT_EQ(judge("abc", "3/^[a-z]+$/"), Result(0, ""));
    EXPECT_EQ(judge("a", "3#a(#"), Result(2, "error: regcomp failed " + regex_error_text(0, "a(") + "\n"));
    EXPECT_EQ(judge("a", "3###"), Result(-1, kFormat));
    EXPECT_EQ(judge("a", "3#abc"), Result(-1, kFormat));
    EXPECT_EQ(judge("a", "3#a##b"), Result(-1, kFormat));
    // Stray text after a closing separator is malformed, not an endless walk.
    EXPECT_EQ(judge("abc", "3#abc#def#"), Result(-1, kFormat));

    // Constructs whose cost can explode are refused: adjacent repetition
    // symbols and back-references.
    const std::string stacked = "error: regcomp failed " + regex_error_text(REG_BADRPT, nullptr) + "\n";
    EXPECT_EQ(judge("a", "3#a???????+++++#"), Result(2, stacked));
    EXPECT_EQ(judge("a", "3#a{1,2}*#"), Result(2, stacked));
    EXPECT_EQ(judge("a", "3#a{,2}*#"), Result(2, stacked));
    EXPECT_EQ(judge("a+", "3#^(a+)+[+]+$#"), Result(0, ""));
    EXPECT_EQ(judge("aa", "3#(a)\\1#"),
              Result(2, "error: regcomp failed " + regex_error_text(REG_ESUBREG, nullptr) + "\n"));
    EXPECT_EQ(judge("a{1,3", "3#^a[{]1,3$#"), Result(0, ""));

    // Patterns of up to 125 characters; the limit holds for later ones too.
    for (int len : {124, 125, 126, 127}) {
        const std::string pattern(len, 'a');
        const Result want = len <= 125 ? Result(0, "") : Result(-1, kTooLong);
        EXPECT_EQ(judge(pattern.c_str(), ("3#" + pattern + "#").c_str()), want) << len;
        EXPECT_EQ(judge(pattern.c_str(), ("3#a##" + pattern + "#").c_str()), want) << len;
    }
}

// The compiled size of a pattern: every interval form counts as the C
// library reads it ("{,n}" is "{0,n}"), nested ones multiply, and the edges
// of the bound (512 nodes, an operand and its choice node per copy, and 32
// ways to match the empty text) fall exactly here. Also the search itself: a match anywhere, across line feeds,
// and a ")" that closes nothing stays an ordinary character.
TEST(RangeValidator, RegexSizeBoundAndSearch) {
    enum Want { kMatch, kNoMatch, kTooBig };
    const Result want[] = {
        Result(0, ""),
        Result(2, "error: regexec failed " + regex_error_text(REG_NOMATCH, nullptr) + "\n"),
        Result(2, "error: regcomp failed " + regex_error_text(REG_ESIZE, nullptr) + "\n"),
    };
    const std::string plus7 = "(((((((a)+)+)+)+)+)+)+", plus8 = "(" + plus7 + ")+";
    const struct {
        std::string value, pattern;
        Want want;
    } rows[] = {
        {"a", "a{,32767}", kTooBig},
        {"a", "(((a{,20}){,20}){,20}){,20}", kTooBig},
        {"a", "a{,256}", kMatch},
        {"a", "a{,257}", kTooBig},
        {"a", "a{255,}", kNoMatch},
        {"a", "a{256,}", kTooBig},
        {"a", "a{256}", kNoMatch},
        {"a", "a{257}", kTooBig},
        {"a", "a{1,256}", kMatch},
        {"a", "a{1,257}", kTooBig},
        {"b", "^a{,}b$", kMatch},
        {"aa", "^a{,2}$", kMatch},
        {"aaa", "^a{,2}$", kNoMatch},
        {"a{,300}", "^a\\{,300}$", kMatch},
        {"a", "((ab{,6}){,6}){,6}", kMatch},
        {"a", "((ab{,6}){,6}){,7}", kTooBig},
        // Ways to match nothing, at most 32: optional operands inside
        // optional intervals compile in seconds long before 512 nodes.
        {"a", "(a?){,31}", kMatch},
        {"a", "(a?){,32}", kTooBig},
        {"a", "(a?|b?){,4}", kMatch},
        {"a", "(a?|b?){,5}", kTooBig},
        {"a", "(a?){2,32}(b|c?)", kMatch},
        {"a", "(a?){2,32}(b?|c?)", kTooBig},
        {"a", "((a?){,3}){10,}", kTooBig},
        {"a", "((a{,6}){,3}){7,}", kTooBig},
        {"a", "((a?)?){,120}", kTooBig},
        {"a", "(^|x)(\\<|$){,16}", kTooBig},
        {"a", plus7, kMatch},
        {"a", plus8, kTooBig},
        {"aaa", "((a|b){32}){32}|aaa", kTooBig},
        {"12", "^[0-9]{1,127}$", kMatch},
        {"12", "^[0-9]{1,128}$", kTooBig},
        {"a", "(a|b)*a(a|b){126}c", kNoMatch},
        {"a", "(a|b)*a(a|b){127}c", kTooBig},
        {"xbz", "b", kMatch},
        {"x\ny", "y", kMatch},
        {"x\ny", "^x.y$", kMatch},
        {"x\ny", "^y", kNoMatch},
        {"x\ny", "x$", kNoMatch},
        {"x\ny", "a|^y", kNoMatch},
        {"y\nx", "a|^y", kMatch},
        {"x\ny", "[^x]y", kMatch},
        {"a^b", "a\\^b", kMatch},
        {"a", "a|b)", kMatch},
        {"b)", "a|b)", kMatch},
        {"b", "a|b)", kNoMatch},
        {"b", "(a|b))", kNoMatch},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(judge(row.value.c_str(), ("3#" + row.pattern + "#").c_str()), want[row.want]) << row.pattern;
    }
}

#if defined(__SANITIZE_ADDRESS__)
constexpr long kSanitizerFactor = 8;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr long kSanitizerFactor = 8;
#else
constexpr long kSanitizerFactor = 1;
#endif
#else
constexpr long kSanitizerFactor = 1;
#endif

// The worst pattern the screen admits, one whose matcher adds an automaton
// state for nearly every byte of the value, on the longest value a pattern
// is tried on (1024 bytes; longer ones are refused unread): its peak memory
// and processor time, measured in a child so that nothing else counts.
TEST(RangeValidator, WorstAdmittedPatternStaysSmallAndQuick) {
    const char* rule = "3#(a|b)*a(a|b){126}c#";
    std::string value(1024, 'a');
    for (std::size_t i = 0; i < value.size(); i += 1 + i % 3) value[i] = 'b';
    const std::string no_match = "error: regexec failed " + regex_error_text(REG_NOMATCH, nullptr) + "\n";
    EXPECT_EQ(judge(value.c_str(), rule), Result(2, no_match));
    EXPECT_EQ(judge((value + "a").c_str(), "3#a#"),
              Result(2, "error: regexec failed " + regex_error_text(REG_ESPACE, nullptr) + "\n"));
    EXPECT_EQ(judge(std::string(4096, 'a').c_str(), rule),
              Result(2, "error: regexec failed " + regex_error_text(REG_ESPACE, nullptr) + "\n"));

    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        rusage before{}, after{};
        getrusage(RUSAGE_SELF, &before);
        cb().judgeSubStrWithinRange(value.data(), rule);
        getrusage(RUSAGE_SELF, &after);
        auto ms = [](const rusage& r) {
            return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000L + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1000L;
        };
        const long figures[2] = {after.ru_maxrss - before.ru_maxrss, ms(after) - ms(before)};
        _exit(write(out[1], figures, sizeof figures) == sizeof figures ? 0 : 1);
    }
    close(out[1]);
    long figures[2] = {-1, -1};
    EXPECT_EQ(read(out[0], figures, sizeof figures), static_cast<ssize_t>(sizeof figures));
    close(out[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_LT(figures[0], 16 * 1024 * kSanitizerFactor) << "peak growth in KB";
    EXPECT_LT(figures[1], 100 * kSanitizerFactor) << "processor time in ms";
}

TEST(StringList, BuildsZeroedBuffersAndRefusesBadShapes) {
    util_string_list_t list{};
    CaptureStderr();
    ASSERT_EQ(cb().strList_malloc(&list, 3, 16), 0);
    EXPECT_EQ(GetCapturedStderr(), "");
    ASSERT_EQ(list.size, 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(list.strList[i].length, 16);
        EXPECT_EQ(std::string(list.strList[i].string, 16), std::string(16, '\0'));
    }
    EXPECT_EQ(cb().strList_free(list), 0);
    EXPECT_EQ(cb().strList_free(util_string_list_t{nullptr, 5}), -1);

    // Zero or negative shapes are refused, and the record is left empty so
    // that a release afterwards is harmless.
    const std::regex prefix(R"(DBG_ERR:util_common_base_function\.cpp Func_strList_malloc\[\d{4}\] )");
    for (auto [count, size] : {std::pair{0, 16}, {3, 0}, {-1, 16}, {3, -8}}) {
        util_string_t junk{};
        list = {&junk, 99};
        CaptureStderr();
        EXPECT_EQ(cb().strList_malloc(&list, count, size), -1);
        const std::string err = GetCapturedStderr();
        EXPECT_EQ(std::regex_replace(err, prefix, ""),
                  "error: count:" + std::to_string(count) + " and size:" + std::to_string(size) + " must be positive!!!\n");
        EXPECT_EQ(list.strList, nullptr);
        EXPECT_EQ(list.size, 0);
        EXPECT_EQ(cb().strList_free(list), -1);
    }
    CaptureStderr();
    EXPECT_EQ(cb().strList_malloc(nullptr, 1, 1), -1);
    EXPECT_EQ(std::regex_replace(GetCapturedStderr(), prefix, ""), "error: pbuf is NULL!!!\n");
}

}  // namespace
