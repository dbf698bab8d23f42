// String lists and the range validator's contract: every result code and
// message, and the pattern screen's bounds. The readings of enumeration and
// min/max rules are held against a plain model by the range_check corpus.
#include <regex.h>

#include <cstring>

#include "test_support.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

util_ops_common_base_fun_t& cb() { return *util_ops_pfun->common_base; }
using Result = std::pair<int, std::string>;

// Runs the validator on copies of both texts, checks neither was changed,
// and returns the result code and the message after its prefix.
Result judge(const char* value, const char* list) {
    std::string v = value ? value : "", l = list ? list : "";
    CaptureStderr();
    const int rc = cb().judgeSubStrWithinRange(value ? v.data() : nullptr, list ? l.data() : nullptr);
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(v + '|' + l, std::string(value ? value : "") + '|' + (list ? list : ""));
    if (err.empty()) return {rc, ""};
    EXPECT_EQ(err.rfind("DBG_ERR:util_common_base_function.cpp Func_judgeSubStrWithinRange[", 0), 0u) << err;
    return {rc, err.substr(err.find("] ") + 2)};
}

std::string regex_text(int code, const char* pattern = nullptr) {
    regex_t re{};
    const int rc = pattern ? regcomp(&re, pattern, REG_EXTENDED | REG_NOSUB) : code;
    char text[256];
    regerror(rc, &re, text, sizeof text);
    if (pattern && rc == 0) regfree(&re);
    return text;
}

TEST(RangeValidator, ResultsAndMessages) {
    const std::string out = "error: outRange##########warn", not_digital = "error: listStr is not digital!!!!\n",
                      format = "error: listStr format is wrong(NULL)", size = "error: listStr_size less  than 4!!!\n",
                      no_match = "error: regexec failed " + regex_text(REG_NOMATCH) + "\n",
                      stacked = "error: regcomp failed " + regex_text(REG_BADRPT) + "\n";
    const struct {
        const char *value, *list;
        Result want;
    } rows[] = {
        {"on", "0#on#off#", {0, ""}},
        {"of", "0#on#off#", {1, out}},
        {"5", "1#0#10", {0, ""}},
        {"7x", "1#0#10", {2, "error: subStr is not digital!!!!\n"}},
        {"", "1#0#10", {-1, "error: subStr_size is 0!!!!\n"}},
        {"5", "1#10#0", {-1, "error: listStr value: min is greater than max!!!!\n"}},
        {"x", "1#a#5", {-1, not_digital}},  // the rule is checked before the value
        {"50", "1#50", {-1, "error: listStr has no max value!!!!\n"}},
        {"3", "1#0#2147483648", {-1, "error: listStr value is beyond 32 bits!!!!\n"}},
        {"4294967301", "1#0#10", {1, out}},  // no wrap-around into the range
        {"anything", "2", {0, ""}},
        {nullptr, nullptr, {3, "###########error: the subStr is NULL!!!!\n"}},
        {"a", nullptr, {-1, "error: listStr is NULL!!!\n"}},
        {"a", "0#a", {-1, size}},
        {"a", "3##", {-1, size}},
        {"a", "7#a#b#", {-1, "error: no support compare_type:7!!!!\n"}},
        {"a", "/#a#", {-1, "error: no support compare_type:-1!!!!\n"}},
        {"a", "", {-1, "error: no support compare_type:-48!!!!\n"}},
        {"a", "\xB0#a#", {-1, "error: no support compare_type:128!!!!\n"}},  // 0..255 whatever char's sign
        {"12", "3#^[0-9]+$#", {0, ""}},
        {"ab", "3#^[0-9]+$#", {2, no_match}},
        {"a", "3#a(#", {2, "error: regcomp failed " + regex_text(0, "a(") + "\n"}},
        {"a", "3###", {-1, format}},
        {"a", "3#abc", {-1, format}},
        {"a", "3#a##b", {-1, format}},
        {"abc", "3#abc#def#", {-1, format}},  // stray text after a closing separator
        // Constructs whose cost can explode: stacked repetitions, back-references.
        {"a", "3#a???????+++++#", {2, stacked}},
        {"a", "3#a{1,2}*#", {2, stacked}},
        {"a", "3#a{,2}*#", {2, stacked}},
        {"aa", "3#(a)\\1#", {2, "error: regcomp failed " + regex_text(REG_ESUBREG) + "\n"}},
    };
    for (const auto& row : rows) EXPECT_EQ(judge(row.value, row.list), row.want) << (row.list ? row.list : "null");

    // Patterns of up to 125 characters; the limit holds for later ones too.
    for (int len : {124, 125, 126, 127}) {
        const std::string p(len, 'a');
        const Result want = len <= 125 ? Result(0, "") : Result(-1, "error: listStr must be less than 127(reg_str_size - 1)");
        EXPECT_EQ(judge(p.c_str(), ("3#" + p + "#").c_str()), want) << len;
        EXPECT_EQ(judge(p.c_str(), ("3#a##" + p + "#").c_str()), want) << len;
    }
    // Values of up to 1024 bytes are searched, on the worst pattern the
    // screen admits too; longer ones are refused unread.
    const std::string espace = "error: regexec failed " + regex_text(REG_ESPACE) + "\n";
    std::string value(1024, 'a');
    for (std::size_t i = 0; i < value.size(); i += 1 + i % 3) value[i] = 'b';
    EXPECT_EQ(judge(value.c_str(), "3#(a|b)*a(a|b){126}c#"), Result(2, no_match));
    EXPECT_EQ(judge((value + "a").c_str(), "3#a#"), Result(2, espace));
}

// The compiled size of a pattern: every interval form counts as the C
// library reads it ("{,n}" is "{0,n}"), nested ones multiply, and the edges
// of the bound (512 nodes, an operand and its choice node per copy, and 32
// ways to match the empty text) fall exactly here. Also the search itself:
// across line feeds, and with a ")" that closes nothing as a plain character.
TEST(RangeValidator, RegexSizeBoundAndSearch) {
    enum Want { kMatch, kNoMatch, kTooBig };
    const Result want[] = {{0, ""},
                           {2, "error: regexec failed " + regex_text(REG_NOMATCH) + "\n"},
                           {2, "error: regcomp failed " + regex_text(REG_ESIZE) + "\n"}};
    const std::string plus7 = "(((((((a)+)+)+)+)+)+)+";
    const struct {
        std::string value, pattern;
        Want want;
    } rows[] = {
        {"a", "a{,32767}", kTooBig},  {"a", "(((a{,20}){,20}){,20}){,20}", kTooBig},
        {"a", "a{,256}", kMatch},     {"a", "a{,257}", kTooBig},
        {"a", "a{255,}", kNoMatch},   {"a", "a{256,}", kTooBig},
        {"a", "a{256}", kNoMatch},    {"a", "a{257}", kTooBig},
        {"a", "a{1,256}", kMatch},    {"a", "a{1,257}", kTooBig},
        {".", "\\.{,256}", kMatch},  {".", "\\.{,257}", kTooBig},
        {"b", "^a{,}b$", kMatch},     {"aa", "^a{,2}$", kMatch},
        {"aaa", "^a{,2}$", kNoMatch}, {"a{,300}", "^a\\{,300}$", kMatch},
        {"a", "((ab{,6}){,6}){,6}", kMatch}, {"a", "((ab{,6}){,6}){,7}", kTooBig},
        // At most 32 ways to match nothing: optional operands inside optional
        // intervals compile in seconds long before 512 nodes.
        {"a", "(a?){,31}", kMatch},   {"a", "(a?){,32}", kTooBig},
        {"a", "(a?|b?){,4}", kMatch}, {"a", "(a?|b?){,5}", kTooBig},
        {"a", "(a?){2,32}(b|c?)", kMatch}, {"a", "(a?){2,32}(b?|c?)", kTooBig},
        {"a", "((a?){,3}){10,}", kTooBig}, {"a", "((a{,6}){,3}){7,}", kTooBig},
        {"a", "((a?)?){,120}", kTooBig}, {"a", "(^|x)(\\<|$){,16}", kTooBig},
        {"a", plus7, kMatch},         {"a", "(" + plus7 + ")+", kTooBig},
        {"aaa", "((a|b){32}){32}|aaa", kTooBig}, {"12", "^[0-9]{1,127}$", kMatch},
        {"12", "^[0-9]{1,128}$", kTooBig}, {"a", "(a|b)*a(a|b){126}c", kNoMatch},
        {"a", "(a|b)*a(a|b){127}c", kTooBig}, {"x\ny", "y", kMatch},
        {"x\ny", "^x.y$", kMatch},    {"x\ny", "^y", kNoMatch},
        {"x\ny", "x$", kNoMatch},     {"x\ny", "a|^y", kNoMatch},
        {"y\nx", "a|^y", kMatch},     {"x\ny", "[^x]y", kMatch},
        {"b)", "a|b)", kMatch},       {"b", "a|b)", kNoMatch},
        // A ")" inside a bracket, also behind a class name, is a member.
        {")", "[[:alpha:])]", kMatch}, {"\\", "[[:alpha:])]", kNoMatch},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(judge(row.value.c_str(), ("3#" + row.pattern + "#").c_str()), want[row.want]) << row.pattern;
    }
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
    // The smallest shape taken: one text of one byte.
    ASSERT_EQ(cb().strList_malloc(&list, 1, 1), 0);
    EXPECT_EQ(list.size, 1);
    EXPECT_EQ(cb().strList_free(list), 0);

    // Zero or negative shapes are refused, and the record is left empty so
    // that a release afterwards is harmless.
    const std::string prefix = "DBG_ERR:util_common_base_function.cpp Func_strList_malloc[";
    for (auto [count, size] : {std::pair{0, 16}, {3, 0}, {-1, 16}, {3, -8}, {1, 1}}) {
        util_string_t junk{};
        list = {&junk, 99};
        CaptureStderr();
        EXPECT_EQ(cb().strList_malloc(count == 1 ? nullptr : &list, count, size), -1);
        const std::string err = GetCapturedStderr();
        EXPECT_EQ(err.rfind(prefix, 0), 0u) << err;
        EXPECT_EQ(err.substr(err.find("] ") + 2),
                  count == 1 ? "error: pbuf is NULL!!!\n"
                             : "error: count:" + std::to_string(count) + " and size:" + std::to_string(size) +
                                   " must be positive!!!\n");
        if (count == 1) continue;
        EXPECT_EQ(list.strList, nullptr);
        EXPECT_EQ(list.size, 0);
        EXPECT_EQ(cb().strList_free(list), -1);
    }
}

}  // namespace
