// A trace to the log file against the least any file logger must do per
// message: format, write, flush stdout and the file, look at the file.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "util_function.h"

namespace {

const std::string kLog = "/tmp/quillane_bench_trace.log";
constexpr const char* kFmt = "[%s +%-4d %s] frame %d encoded, %d bytes\n";

void BM_traceout(benchmark::State& state) {
    util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;
    attr->fclose_dbglog_fp();
    std::remove(kLog.c_str());
    attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE, kLog.c_str(), 1ULL << 40);
    util_dbgout_t* dbg = attr->get();
    int frame = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            util_ops_pfun->dbgout->traceout(dbg, kFmt, "bench_traceout.cpp", 42, "BM_traceout", frame++, 4096));
    }
    attr->fclose_dbglog_fp();
    state.SetItemsProcessed(state.iterations());
}

void BM_bare_loop(benchmark::State& state) {
    std::remove(kLog.c_str());
    FILE* fp = std::fopen(kLog.c_str(), "a");
    int frame = 0;
    struct stat st;
    for (auto _ : state) {
        char buf[224];
        const int n = std::snprintf(buf, sizeof buf, kFmt, "bench_traceout.cpp", 42, "BM_bare_loop", frame++, 4096);
        std::fwrite(buf, 1, static_cast<size_t>(n), fp);
        std::fflush(stdout);
        std::fflush(fp);
        benchmark::DoNotOptimize(stat(kLog.c_str(), &st));
    }
    std::fclose(fp);
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_bare_loop);
BENCHMARK(BM_traceout);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::remove(kLog.c_str());
    return 0;
}
