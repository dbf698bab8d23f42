// The range validator (enumeration and min/max rules) and the trims against
// straightforward std::string versions of the same C interfaces, as a
// camera application calls them while parsing control commands.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "util_function.h"

namespace {

util_ops_common_base_fun_t& cb() { return *util_ops_pfun->common_base; }

constexpr const char* kEnumRule = "0#auto#manual#shutter#iris#bright#gain#spotlight#backlight#";
constexpr const char* kMinMaxRule = "1#-10000#10000";

// ---- std::string versions ----

int enum_std(const char* value, const char* list) {
    const std::string v(value);
    const std::string l(list);
    const char sep = l[1];
    std::size_t start = 1;
    for (std::size_t next; (next = l.find(sep, start + 1)) != std::string::npos; start = next) {
        if (l.substr(start + 1, next - start - 1) == v) return 0;
    }
    return 1;
}

bool read_std(const std::string& s, bool star_allowed, bool& open, long long& out) {
    open = star_allowed && !s.empty() && s[0] == '*';
    if (open) return true;
    if (s.empty() || s == "-") return false;
    const std::size_t from = s[0] == '-' ? 1 : 0;
    if (!std::all_of(s.begin() + from, s.end(), [](char c) { return c >= '0' && c <= '9'; })) return false;
    out = std::stoll(s);
    return true;
}

int min_max_std(const char* value, const char* list) {
    const std::string v(value);
    const std::string l(list);
    if (v.empty()) return -1;
    const char sep = l[1];
    const std::size_t min_end = l.find(sep, 3);
    if (min_end == std::string::npos) return -1;
    const std::size_t max_end = l.find(sep, min_end + 2);
    bool min_open = false, max_open = false, unused = false;
    long long min = 0, max = 0, n = 0;
    if (!read_std(l.substr(2, min_end - 2), true, min_open, min)) return -1;
    if (!read_std(l.substr(min_end + 1, max_end == std::string::npos ? max_end : max_end - min_end - 1), true,
                  max_open, max)) {
        return -1;
    }
    if (!read_std(v, false, unused, n)) return 2;
    if (!min_open && !max_open && min > max) return -1;
    return (!min_open && n < min) || (!max_open && n > max) ? 1 : 0;
}

constexpr const char* kSpace = " \t\n\v\f\r";

char* trim_right_std(char* p) {
    std::string s(p);
    if (s.empty()) return nullptr;
    s.erase(s.find_last_not_of(kSpace) + 1);
    std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

char* trim_left_std(char* p) {
    std::string s(p);
    if (s.empty()) return nullptr;
    s.erase(0, s.find_first_not_of(kSpace));
    std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

char* trim_std(char* p) {
    std::string s(p);
    const std::size_t first = s.find_first_not_of(kSpace);
    if (first == std::string::npos) {
        p[0] = '\0';
        return nullptr;
    }
    s = s.substr(first, s.find_last_not_of(kSpace) - first + 1);
    std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

// ---- benchmarks ----

template <typename Judge>
void run_judge(benchmark::State& state, Judge judge, const char* rule, const char* const* values, int count) {
    char buf[32];
    int i = 0;
    for (auto _ : state) {
        std::strcpy(buf, values[i]);
        i = (i + 1) % count;
        benchmark::DoNotOptimize(judge(buf, rule));
    }
    state.SetItemsProcessed(state.iterations());
}

// Admissible values only: a refusal prints its report, which would swamp
// what is measured.
const char* const kEnumValues[] = {"auto", "iris", "backlight", "spotlight"};
const char* const kNumbers[] = {"0", "-9999", "42", "10000"};

void BM_judge_enum_quillane(benchmark::State& s) { run_judge(s, cb().judgeSubStrWithinRange, kEnumRule, kEnumValues, 4); }
void BM_judge_enum_std(benchmark::State& s) { run_judge(s, enum_std, kEnumRule, kEnumValues, 4); }
void BM_judge_min_max_quillane(benchmark::State& s) { run_judge(s, cb().judgeSubStrWithinRange, kMinMaxRule, kNumbers, 4); }
void BM_judge_min_max_std(benchmark::State& s) { run_judge(s, min_max_std, kMinMaxRule, kNumbers, 4); }

// A command line as read from a file or socket: blanks on both sides.
constexpr const char kLine[] = "  \t echo 1 > /sys/class/gpio/gpio48/value \r\n";

template <typename Trim>
void run_trim(benchmark::State& state, Trim trim) {
    char buf[sizeof kLine];
    for (auto _ : state) {
        std::memcpy(buf, kLine, sizeof kLine);
        benchmark::DoNotOptimize(trim(buf));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_trim_quillane(benchmark::State& s) { run_trim(s, cb().strTrim); }
void BM_trim_std(benchmark::State& s) { run_trim(s, trim_std); }
void BM_trim_left_quillane(benchmark::State& s) { run_trim(s, cb().strTrimLeft); }
void BM_trim_left_std(benchmark::State& s) { run_trim(s, trim_left_std); }
void BM_trim_right_quillane(benchmark::State& s) { run_trim(s, cb().strTrimRight); }
void BM_trim_right_std(benchmark::State& s) { run_trim(s, trim_right_std); }

BENCHMARK(BM_judge_enum_quillane);
BENCHMARK(BM_judge_enum_std);
BENCHMARK(BM_judge_min_max_quillane);
BENCHMARK(BM_judge_min_max_std);
BENCHMARK(BM_trim_quillane);
BENCHMARK(BM_trim_std);
BENCHMARK(BM_trim_left_quillane);
BENCHMARK(BM_trim_left_std);
BENCHMARK(BM_trim_right_quillane);
BENCHMARK(BM_trim_right_std);

}  // namespace

BENCHMARK_MAIN();
