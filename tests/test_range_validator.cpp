// The range validator's results with their exact messages, and the bounds of its pattern screen.
#include <regex.h>

#include "test_support.h"

using Result = std::pair<int, std::string>;

TEST(RangeValidator, ResultsMessagesAndPatternScreen) {
    // The validator's code and message for a value `s` and a rule `r`, passed as copies.
    const auto validate = util_ops_pfun->common_base->judgeSubStrWithinRange;
    const auto judge = [&](const char* s, const char* r) {
        std::string v = s ? s : "", l = r ? r : "";
        int rc = 0;
        const auto err = qtest::console([&] { rc = validate(s ? &v[0] : nullptr, r ? &l[0] : nullptr); });
        return Result(rc, err.empty() ? "" : err.substr(err.find("] ") + 2));
    };
    const auto refused = [](int code, const char* step = "regcomp") {
        char text[256];
        regerror(code, nullptr, text, sizeof text);
        return Result(2, std::string("error: ") + step + " failed " + text + "\n");
    };
    const auto e = [](int rc, const char* message) { return Result(rc, std::string("error: ") + message); };
    const Result match{0, ""}, no = refused(REG_NOMATCH, "regexec"), big = refused(REG_ESIZE);
    const Result stacked = refused(REG_BADRPT), not_digital = e(-1, "listStr is not digital!!!!\n");
    const std::string too_long = "3#a##" + std::string(126, 'a') + "#";  // later patterns are bounded too
    const std::tuple<const char*, const char*, Result> rows[] = {
        {"on", "0#on#off#", match}, {"of", "0#on#off#", e(1, "outRange##########warn")},
        {"", "1#0#10", e(-1, "subStr_size is 0!!!!\n")}, {"a", nullptr, e(-1, "listStr is NULL!!!\n")},
        {"7x", "1#0#10", e(2, "subStr is not digital!!!!\n")}, {"a", "3#a(#", refused(REG_EPAREN)},
        {"a", "3###", e(-1, "listStr format is wrong(NULL)")}, {"5", "1#5#5", match},
        {"5", "1#10#0", e(-1, "listStr value: min is greater than max!!!!\n")},
        {"x", "1#a#5", not_digital}, {"5", "1#5#b", not_digital},  // the rule is checked before the value
        {"50", "1#50", e(-1, "listStr has no max value!!!!\n")},
        {"a", "0#a", e(-1, "listStr_size less  than 4!!!\n")},
        {"3", "1#0#2147483648", e(-1, "listStr value is beyond 32 bits!!!!\n")},
        {nullptr, nullptr, {3, "###########error: the subStr is NULL!!!!\n"}},
        {"a", "", e(-1, "no support compare_type:-48!!!!\n")},
        {"a", "\xB0#a#", e(-1, "no support compare_type:128!!!!\n")},  // 0..255 whatever char's sign
        {"a", too_long.c_str(), e(-1, "listStr must be less than 127(reg_str_size - 1)")},
        // Constructs whose cost can explode: stacked repetitions, back-references.
        {"a", "3#a???????+++++#", stacked}, {"a", "3#a{1,2}*#", stacked}, {"a", "3#a{,2}*#", stacked},
        {"aa", "3#(a)\\1#", refused(REG_ESUBREG)}, {"aaa", "3#(a)(a)\\2#", refused(REG_ESUBREG)},
    };
    for (const auto& [value, list, want] : rows) {
        EXPECT_EQ(judge(value, list), want) << (list ? list : "null");
    }
    std::string worst(1024, 'a');  // searched even on the worst pattern admitted; a byte more is not
    for (std::size_t i = 0; i < worst.size(); i += 1 + i % 3) worst[i] = 'b';
    EXPECT_EQ(judge(worst.c_str(), "3#(a|b)*a(a|b){126}c#"), no);
    EXPECT_EQ(judge((worst + "a").c_str(), "3#a#"), refused(REG_ESPACE, "regexec"));

    // The edges of the compiled-size screen (512 nodes, 32 ways to match nothing); searches over line feeds.
    const std::tuple<std::string, Result, std::vector<std::string>> screen[] = {
        {"a", big, {"a{,32767}", "(((a{,20}){,20}){,20}){,20}", "a{,257}", "a{256,}", "a{257}", "a{1,257}",
            "\\.{,257}", "((ab{,6}){,6}){,7}", "(a?){,32}", "(a?|b?){,5}", "(a?){2,32}(b?|c?)",
            "((a?){,3}){10,}", "((a{,6}){,3}){7,}", "((a?)?){,120}", "(^|x)(\\<|$){,16}",
            "((((((((a)+)+)+)+)+)+)+)+", "((a|b){32}){32}|aaa", "^[0-9]{1,128}$", "(a|b)*a(a|b){127}c"}},
        {"a", match, {"a{,256}", "a{1,256}", "\\.{,256}", "((ab{,6}){,6}){,6}", "(a?){,31}", "(a?|b?){,4}",
            "(a?){2,32}(b|c?)", "(((((((a)+)+)+)+)+)+)+"}}, {"a:)b", match, {"[[:alpha:]]:)b"}},
        {"a", no, {"a{255,}", "a{256}", "(a|b)*a(a|b){126}c"}}, {"b", match, {"^a{,}b$"}},
        {"aa", match, {"^a{,2}$"}}, {"aaa", no, {"^a{,2}$"}}, {"a{,300}", match, {"^a\\{,300}$"}},
        {"12", match, {"^[0-9]{1,127}$"}}, {"x\ny", match, {"y", "^x.y$", "[^x]y"}},
        {"x\ny", no, {"^y", "x$", "a|^y"}}, {"y\nx", match, {"a|^y"}}, {"b)", match, {"a|b)"}},
        {"b", no, {"a|b)"}}, {")", match, {"[[:alpha:])]"}}, {"\\", no, {"[[:alpha:])]", "[])]"}},
    };
    for (const auto& [value, want, patterns] : screen) {
        for (const auto& p : patterns) EXPECT_EQ(judge(value.c_str(), ("3#" + p + "#").c_str()), want) << p;
    }
}
