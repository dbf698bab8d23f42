// What quillanetcstamp costs a pipeline, on a 1080p stream of 8 Mbit/s
// encoded at start-up (noise, so that the access units have a camera's
// size rather than a test pattern's):
// - BM_pipeline: frames per second through
//   filesrc ! h264parse ! [quillanetcstamp !] fakesink, with and without the
//   element, taken in turn;
// - BM_element_beyond_copy: one access unit through the element in
//   GStreamer's test harness, against the harness with identity and the
//   allocation and copy the element makes.
// The library's trace output is switched off, as on a camera that logs
// nothing; with a log file, frames whose SEI widths do not fill whole bytes
// add the library's two trace messages.
#include <benchmark/benchmark.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "annexb.h"
#include "util_function.h"

namespace {

constexpr int kFrames = 300;
constexpr const char* kCaps = "video/x-h264, stream-format=byte-stream, alignment=au, framerate=30/1";

// Runs a launch line to its end; the error text when it fails.
std::string run(const std::string& launch) {
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(launch.c_str(), &error);
    if (pipeline == nullptr) {
        std::string text = error != nullptr ? error->message : "cannot build the pipeline";
        if (error != nullptr) g_error_free(error);
        return text;
    }
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* m = gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE,
                                               static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    std::string text;
    if (m != nullptr && GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR) {
        GError* e = nullptr;
        gst_message_parse_error(m, &e, nullptr);
        text = e->message;
        g_error_free(e);
    }
    if (m != nullptr) gst_message_unref(m);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return text;
}

struct Clip {
    std::string dir;
    std::string path;
    std::vector<std::vector<std::uint8_t>> aus;
    std::size_t bytes = 0;
    std::string error;

    Clip() {
        char pattern[] = "/tmp/quillane_bench_gst_XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            error = "mkdtemp failed";
            return;
        }
        dir = pattern;
        path = dir + "/clip.h264";
        error = run("videotestsrc pattern=snow num-buffers=" + std::to_string(kFrames) +
                    " ! video/x-raw,width=1920,height=1080,framerate=30/1"
                    " ! x264enc speed-preset=ultrafast bitrate=8000 key-int-max=30 vbv-buf-capacity=1000"
                    " option-string=nal-hrd=vbr:pic-struct=1 ! h264parse"
                    " ! video/x-h264,stream-format=byte-stream,alignment=au ! filesink location=" +
                    path);
        if (!error.empty()) return;
        std::ifstream in(path, std::ios::binary);
        const std::vector<std::uint8_t> s((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const std::vector<tcstamp::Nal> nals = tcstamp::split_nal_units(s, tcstamp::Codec::h264);
        for (const tcstamp::AccessUnit& a : tcstamp::group_access_units(nals, tcstamp::Codec::h264)) {
            const std::size_t begin = nals[a.begin].sc_begin;
            const std::size_t end = a.end < nals.size() ? nals[a.end].sc_begin : s.size();
            aus.emplace_back(s.begin() + static_cast<std::ptrdiff_t>(begin), s.begin() + static_cast<std::ptrdiff_t>(end));
            bytes += end - begin;
        }
        if (aus.size() != kFrames) error = "the clip holds " + std::to_string(aus.size()) + " access units";
    }
    ~Clip() {
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
};

const Clip& clip() {
    static const Clip c;
    return c;
}

bool usable(benchmark::State& state) {
    if (clip().error.empty()) return true;
    state.SkipWithError(("no clip: " + clip().error).c_str());
    return false;
}

void per_frame(benchmark::State& state, std::int64_t frames) {
    state.SetItemsProcessed(frames);
    state.counters["avg_au_bytes"] = static_cast<double>(clip().bytes) / static_cast<double>(clip().aus.size());
}

double median(std::vector<double>& v) {
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
    return v[v.size() / 2];
}

// Both pipelines in every iteration, in alternating order, so that both see
// the same load; medians drop the runs another process interrupted.
void BM_pipeline(benchmark::State& state) {
    if (!usable(state)) return;
    const std::string head = "filesrc location=" + clip().path + " ! h264parse ! ";
    const std::string launch[2] = {head + "fakesink sync=false", head + "quillanetcstamp ! fakesink sync=false"};
    std::vector<double> ms[2];
    bool flip = false;
    for (auto _ : state) {
        for (int n = 0; n < 2; ++n) {
            const int which = flip ? 1 - n : n;
            const auto t0 = std::chrono::steady_clock::now();
            const std::string error = run(launch[which]);
            ms[which].push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
            if (!error.empty()) {
                state.SkipWithError(error.c_str());
                return;
            }
        }
        flip = !flip;
    }
    const double without = median(ms[0]);
    const double with = median(ms[1]);
    state.counters["fps_without"] = kFrames * 1000.0 / without;
    state.counters["fps_with"] = kFrames * 1000.0 / with;
    state.counters["element_us_per_frame"] = (with - without) * 1000.0 / kFrames;
    per_frame(state, static_cast<std::int64_t>(state.iterations()) * 2 * kFrames);
}
BENCHMARK(BM_pipeline)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(5.0);

// Pushes an access unit through a harnessed element and takes the result,
// the input wrapping (not copying) the bytes as a parser's output would.
GstBuffer* wrap(const std::vector<std::uint8_t>& au) {
    return gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, const_cast<std::uint8_t*>(au.data()), au.size(), 0,
                                       au.size(), nullptr, nullptr);
}

bool through(GstHarness* h, GstBuffer* in) {
    if (gst_harness_push(h, in) != GST_FLOW_OK) return false;
    gst_buffer_unref(gst_harness_pull(h));
    return true;
}

// The element's one copy: a new buffer of the access unit's size (plus an
// SEI unit's) and the bytes copied into it.
void copy(const std::vector<std::uint8_t>& au) {
    GstBuffer* out = gst_buffer_new_allocate(nullptr, au.size() + 20, nullptr);
    GstMapInfo map;
    gst_buffer_map(out, &map, GST_MAP_WRITE);
    std::memcpy(map.data, au.data(), au.size());
    benchmark::ClobberMemory();
    gst_buffer_unmap(out, &map);
    gst_buffer_unref(out);
}

// Per access unit, in turn: the element, identity (the harness's own cost
// and a buffer handed on untouched), the copy alone, and an empty interval
// (the clock's own cost, in each of the other three). Taking them in turn
// puts them under the same load; medians drop the frames another process
// interrupted. beyond_copy_ns = element - identity - copy + clock.
void BM_element_beyond_copy(benchmark::State& state) {
    if (!usable(state)) return;
    GstHarness* element = gst_harness_new("quillanetcstamp");
    GstHarness* identity = gst_harness_new("identity");
    gst_harness_set_src_caps_str(element, kCaps);
    gst_harness_set_src_caps_str(identity, kCaps);
    std::vector<double> e, i, c, z;
    // The thread's own CPU time: the harness runs everything on this thread,
    // and time other processes take from it is left out.
    auto now = [] {
        timespec t;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
    };
    // The copy reads an access unit the element read a third of the clip
    // earlier, long gone from the core's own caches, as the element's is.
    const std::size_t n = clip().aus.size();
    std::size_t k = 0;
    for (auto _ : state) {
        const std::vector<std::uint8_t>& au = clip().aus[k];
        GstBuffer* a = wrap(au);
        GstBuffer* b = wrap(au);
        const double t0 = now();
        const bool ok = through(element, a);
        const double t1 = now();
        const bool ok2 = through(identity, b);
        const double t2 = now();
        copy(clip().aus[(k + n - n / 3) % n]);
        k = (k + 1) % n;
        const double t3 = now();
        const double t4 = now();
        if (!ok || !ok2) {
            state.SkipWithError("push failed");
            break;
        }
        e.push_back(t1 - t0);
        i.push_back(t2 - t1);
        c.push_back(t3 - t2);
        z.push_back(t4 - t3);
    }
    gst_harness_teardown(element);
    gst_harness_teardown(identity);
    if (e.empty()) return;
    const double me = median(e), mi = median(i), mc = median(c), mz = median(z);
    state.counters["element_ns"] = me;
    state.counters["identity_ns"] = mi;
    state.counters["copy_ns"] = mc;
    state.counters["beyond_copy_ns"] = me - mi - mc + mz;
    per_frame(state, static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_element_beyond_copy)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
    // The plugin from this build, a registry of the bench's own; either can
    // be overridden from the environment.
    setenv("GST_PLUGIN_PATH", QUILLANE_GST_PLUGIN_DIR, 0);
    setenv("GST_REGISTRY", QUILLANE_GST_REGISTRY, 0);
    gst_init(&argc, &argv);
    util_ops_pfun->dbgout->pstDebugAttr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
