// The range validator's results with their exact messages, and the bounds of its pattern screen.
#include <regex.h>

#include "test_support.h"

namespace {

using Result = std::pair<int, std::string>;

// Runs the validator on copies of both texts, which must not change; returns the code and message.
Result judge(const char* value, const char* list) {
    std::string v = value ? value : "", l = list ? list : "";
    testing::internal::CaptureStderr();
    const auto validate = util_ops_pfun->common_base->judgeSubStrWithinRange;
    const int rc = validate(value ? v.data() : nullptr, list ? l.data() : nullptr);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(v + '|' + l, std::string(value ? value : "") + '|' + (list ? list : ""));
    if (err.empty()) return {rc, ""};
    EXPECT_EQ(err.rfind("DBG_ERR:util_common_base_function.cpp Func_judgeSubStrWithinRange[", 0), 0u) << err;
    return {rc, err.substr(err.find("] ") + 2)};
}

Result refused(int code, const char* step = "regcomp") {
    char text[256];
    regerror(code, nullptr, text, sizeof text);
    return {2, std::string("error: ") + step + " failed " + text + "\n"};
}

TEST(RangeValidator, ResultsAndMessages) {
    const auto e = [](int rc, const char* message) { return Result(rc, std::string("error: ") + message); };
    const Result stacked = refused(REG_BADRPT), not_digital = e(-1, "listStr is not digital!!!!\n");
    const std::tuple<const char*, const char*, Result> rows[] = {
        {"on", "0#on#off#", {0, ""}}, {"of", "0#on#off#", e(1, "outRange##########warn")},
        {"", "1#0#10", e(-1, "subStr_size is 0!!!!\n")}, {"a", nullptr, e(-1, "listStr is NULL!!!\n")},
        {"7x", "1#0#10", e(2, "subStr is not digital!!!!\n")},
        {"a", "3###", e(-1, "listStr format is wrong(NULL)")}, {"a", "3#a(#", refused(REG_EPAREN)},
        {"5", "1#10#0", e(-1, "listStr value: min is greater than max!!!!\n")},
        {"x", "1#a#5", not_digital}, {"5", "1#5#b", not_digital},  // the rule is checked before the value
        {"50", "1#50", e(-1, "listStr has no max value!!!!\n")},
        {"a", "0#a", e(-1, "listStr_size less  than 4!!!\n")},
        {"3", "1#0#2147483648", e(-1, "listStr value is beyond 32 bits!!!!\n")},
        {nullptr, nullptr, {3, "###########error: the subStr is NULL!!!!\n"}},
        {"a", "", e(-1, "no support compare_type:-48!!!!\n")},
        {"a", "\xB0#a#", e(-1, "no support compare_type:128!!!!\n")},  // 0..255 whatever char's sign
        // Constructs whose cost can explode: stacked repetitions, back-references.
        {"a", "3#a???????+++++#", stacked}, {"a", "3#a{1,2}*#", stacked}, {"a", "3#a{,2}*#", stacked},
        {"aa", "3#(a)\\1#", refused(REG_ESUBREG)}, {"aaa", "3#(a)(a)\\2#", refused(REG_ESUBREG)},
    };
    for (const auto& [value, list, want] : rows) {
        EXPECT_EQ(judge(value, list), want) << (list ? list : "null");
    }

    // Patterns of up to 125 characters, for later ones too.
    const std::string too_long = "3#a##" + std::string(126, 'a') + "#";
    EXPECT_EQ(judge("a", too_long.c_str()), e(-1, "listStr must be less than 127(reg_str_size - 1)"));
    // Values of up to 1024 bytes are searched, even on the worst pattern admitted; longer ones are not.
    std::string value(1024, 'a');
    for (std::size_t i = 0; i < value.size(); i += 1 + i % 3) value[i] = 'b';
    EXPECT_EQ(judge(value.c_str(), "3#(a|b)*a(a|b){126}c#"), refused(REG_NOMATCH, "regexec"));
    EXPECT_EQ(judge((value + "a").c_str(), "3#a#"), refused(REG_ESPACE, "regexec"));
}

// The edges of the compiled-size screen (512 nodes, 32 ways to match nothing); searches over line feeds.
TEST(RangeValidator, RegexSizeBoundAndSearch) {
    const Result match{0, ""}, no = refused(REG_NOMATCH, "regexec"), big = refused(REG_ESIZE);
    const std::tuple<std::string, std::string, Result> rows[] = {
        {"a", "a{,32767}", big}, {"a", "(((a{,20}){,20}){,20}){,20}", big}, {"a", "a{,256}", match},
        {"a", "a{,257}", big}, {"a", "a{255,}", no}, {"a", "a{256,}", big}, {"a", "a{256}", no},
        {"a", "a{257}", big}, {"a", "a{1,256}", match}, {"a", "a{1,257}", big}, {".", "\\.{,256}", match},
        {".", "\\.{,257}", big}, {"b", "^a{,}b$", match}, {"aa", "^a{,2}$", match}, {"aaa", "^a{,2}$", no},
        {"a{,300}", "^a\\{,300}$", match}, {"a", "((ab{,6}){,6}){,6}", match},
        {"a", "((ab{,6}){,6}){,7}", big}, {"a", "(a?){,31}", match}, {"a", "(a?){,32}", big},
        {"a", "(a?|b?){,4}", match}, {"a", "(a?|b?){,5}", big}, {"a", "(a?){2,32}(b|c?)", match},
        {"a", "(a?){2,32}(b?|c?)", big}, {"a", "((a?){,3}){10,}", big}, {"a", "((a{,6}){,3}){7,}", big},
        {"a", "((a?)?){,120}", big}, {"a", "(^|x)(\\<|$){,16}", big}, {"a", "(((((((a)+)+)+)+)+)+)+", match},
        {"a", "((((((((a)+)+)+)+)+)+)+)+", big}, {"aaa", "((a|b){32}){32}|aaa", big},
        {"12", "^[0-9]{1,127}$", match}, {"12", "^[0-9]{1,128}$", big}, {"a", "(a|b)*a(a|b){126}c", no},
        {"a", "(a|b)*a(a|b){127}c", big}, {"x\ny", "y", match}, {"x\ny", "^x.y$", match}, {"x\ny", "^y", no},
        {"x\ny", "x$", no}, {"x\ny", "a|^y", no}, {"y\nx", "a|^y", match}, {"x\ny", "[^x]y", match},
        {"b)", "a|b)", match}, {"b", "a|b)", no}, {")", "[[:alpha:])]", match}, {"\\", "[[:alpha:])]", no},
    };
    for (const auto& [value, pattern, want] : rows) {
        EXPECT_EQ(judge(value.c_str(), ("3#" + pattern + "#").c_str()), want) << pattern;
    }
}

}  // namespace
