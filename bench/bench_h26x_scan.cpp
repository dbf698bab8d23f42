// Listing every NAL unit of a large Annex B frame with V2_init_list (on the
// search path QUILLANE_SCAN_ISA names, or the widest), against what the same
// job costs elsewhere: a byte-by-byte loop, one memchr pass
// (the memory bandwidth a single read of the frame can reach) and, when it is
// installed, GStreamer's H.264 NAL unit parser.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "util_function.h"

#ifdef QUILLANE_BENCH_HAVE_GST
// The header warns that the parser API may change; only the NAL unit
// identification is used here.
#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>
#include <gst/gst.h>
#endif

namespace {

constexpr std::size_t kFrameSize = 8u << 20;
constexpr std::size_t kUnits = 256;
// Payload bytes are drawn from 00..FE, so memchr for FF reads the whole frame.
constexpr int kAbsentByte = 0xFF;

struct Frame {
    std::vector<UTIL_UCHAR> bytes;
    std::vector<std::size_t> starts;  // offset of each 00 00 00 01
};

// An access unit's worth of header bytes: delimiter, parameter sets, SEI, an
// IDR slice, then reference and non-reference P slices.
UTIL_UCHAR header_byte(std::size_t unit) {
    static const UTIL_UCHAR lead[] = {0x09, 0x67, 0x68, 0x06, 0x65};
    if (unit < sizeof lead) return lead[unit];
    return unit % 4 == 3 ? 0x01 : 0x41;
}

// Whether the 00 00 at i is part of one of the start codes.
bool inside_start_code(const Frame& f, std::size_t i) {
    for (std::size_t s : f.starts) {
        if (i == s || i == s + 1) return true;
        if (s > i) break;
    }
    return false;
}

Frame make_frame() {
    std::mt19937_64 rng(0x5eed);
    // Unit sizes between 1/4 and 7/4 of the mean, scaled to fill the frame;
    // the last unit takes what rounding leaves.
    std::vector<double> weight(kUnits);
    double sum = 0;
    for (double& w : weight) {
        w = std::uniform_real_distribution<double>(0.25, 1.75)(rng);
        sum += w;
    }
    std::vector<std::size_t> sizes(kUnits);
    std::size_t used = 0;
    for (std::size_t k = 0; k + 1 < kUnits; ++k) {
        sizes[k] = static_cast<std::size_t>(weight[k] / sum * kFrameSize);
        used += sizes[k];
    }
    sizes[kUnits - 1] = kFrameSize - used;

    Frame f;
    f.bytes.reserve(kFrameSize);
    std::uniform_int_distribution<int> payload(0, 0xFE);
    for (std::size_t k = 0; k < kUnits; ++k) {
        f.starts.push_back(f.bytes.size());
        const std::size_t end = f.bytes.size() + sizes[k];
        for (UTIL_UCHAR b : {0, 0, 0, 1}) f.bytes.push_back(b);
        f.bytes.push_back(header_byte(k));
        // Leave one byte for the closing 80 (the RBSP stop bit), which also
        // keeps a unit from ending in zeros that would run into the next
        // start code.
        int zeros = 0;
        int b = payload(rng);
        while (f.bytes.size() + 1 < end) {
            if (zeros >= 2 && b <= 3) {
                // The escaped byte must fit too, or a decoder would drop
                // an 03 that escapes nothing; draw another byte instead.
                if (f.bytes.size() + 2 >= end) {
                    b = payload(rng);
                    continue;
                }
                f.bytes.push_back(0x03);
                zeros = 0;
                continue;
            }
            f.bytes.push_back(static_cast<UTIL_UCHAR>(b));
            zeros = b == 0 ? zeros + 1 : 0;
            b = payload(rng);
        }
        f.bytes.push_back(0x80);
    }
    // Outside the start codes, 00 00 is only ever followed by the 03 that
    // escapes a byte of 00..03.
    for (std::size_t i = 0; i + 3 < f.bytes.size(); ++i) {
        const UTIL_UCHAR* q = &f.bytes[i];
        if (q[0] != 0 || q[1] != 0 || inside_start_code(f, i)) continue;
        if (q[2] < 3 || (q[2] == 3 && q[3] > 3)) {
            std::fprintf(stderr, "bench frame: unescaped 00 00 %02x at %zu\n", q[2], i);
            std::abort();
        }
    }
    if (f.bytes.size() != kFrameSize) std::abort();
    return f;
}

// Not const: the V2 record takes a writable frame pointer, though nothing
// writes through it.
Frame& frame() {
    static Frame f = make_frame();
    return f;
}

bool same_starts(const std::vector<std::size_t>& found, std::size_t count) {
    const Frame& f = frame();
    if (count != f.starts.size()) return false;
    for (std::size_t k = 0; k < count; ++k) {
        if (found[k] != f.starts[k]) return false;
    }
    return true;
}

// Scans with the same loop the benchmark times; returns the number of units
// and leaves their offsets in pos (as many as fit).
std::size_t naive_scan(const UTIL_UCHAR* p, std::size_t size, std::size_t* pos, std::size_t cap) {
    std::size_t n = 0;
    std::size_t i = 0;
    while (i + 4 < size) {
        if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 0 && p[i + 3] == 1) {
            if (n < cap) pos[n] = i;
            ++n;
            i += 4;
        } else {
            ++i;
        }
    }
    return n;
}

void BM_V2_init_list(benchmark::State& state) {
    const util_ops_h26x_base_fun_t* ops = util_ops_pfun->h26x_base;
    Frame& f = frame();
    util_list_h26x_frame_buf_info_t rec{};
    rec.frame_addr = f.bytes.data();
    rec.frame_size = static_cast<UTIL_S32>(f.bytes.size());

    if (ops->V2_init_list(&rec, 1) != 0) {
        state.SkipWithError("V2_init_list failed");
        return;
    }
    std::vector<std::size_t> found;
    bool headers_ok = true;
    for (int k = 0; k < rec.hfbiMax; ++k) {
        found.push_back(static_cast<std::size_t>(rec.phfbi[k].position));
        headers_ok = headers_ok && rec.phfbi[k].nalu == header_byte(static_cast<std::size_t>(k));
    }
    ops->V2_exit_list(&rec);
    if (!same_starts(found, found.size()) || !headers_ok) {
        state.SkipWithError("V2_init_list did not list the 256 units");
        return;
    }

    // The search path this run was told to take (QUILLANE_SCAN_ISA, see the
    // guide's H.26x section); without it the library takes the widest one
    // the CPU has. Runs with each path beside memchr give the ratios.
    const char* isa = std::getenv("QUILLANE_SCAN_ISA");
    state.SetLabel(isa != nullptr ? std::string("QUILLANE_SCAN_ISA=") + isa : std::string("widest path"));
    for (auto _ : state) {
        if (ops->V2_init_list(&rec, 1) != 0) {
            state.SkipWithError("V2_init_list failed");
            break;
        }
        benchmark::DoNotOptimize(rec.phfbi);
        ops->V2_exit_list(&rec);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(f.bytes.size()));
}

void BM_naive_loop(benchmark::State& state) {
    const Frame& f = frame();
    const UTIL_UCHAR* p = f.bytes.data();
    const std::size_t size = f.bytes.size();
    std::vector<std::size_t> pos(kUnits);

    if (!same_starts(pos, naive_scan(p, size, pos.data(), pos.size()))) {
        state.SkipWithError("naive loop did not find the 256 units");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(naive_scan(p, size, pos.data(), pos.size()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

void BM_memchr(benchmark::State& state) {
    const Frame& f = frame();
    const UTIL_UCHAR* p = f.bytes.data();
    const std::size_t size = f.bytes.size();

    // A hit would end the pass early and flatter the figure.
    if (std::memchr(p, kAbsentByte, size) != nullptr) {
        state.SkipWithError("the byte memchr looks for occurs in the frame");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(std::memchr(p, kAbsentByte, size));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

BENCHMARK(BM_V2_init_list);
BENCHMARK(BM_naive_loop);
BENCHMARK(BM_memchr);

#ifdef QUILLANE_BENCH_HAVE_GST
// Unit by unit, each call resuming just past the previous start code: the
// parser finds the next start code and reads the header, but does not look
// for the end of the unit.
std::size_t gst_scan(GstH264NalParser* parser, const guint8* p, std::size_t size, std::size_t* pos,
                     std::size_t cap) {
    std::size_t n = 0;
    guint offset = 0;
    GstH264NalUnit nalu;
    while (gst_h264_parser_identify_nalu_unchecked(parser, p, offset, size, &nalu) == GST_H264_PARSER_OK) {
        if (n < cap) pos[n] = nalu.sc_offset;
        ++n;
        offset = nalu.offset;
    }
    return n;
}

void BM_gst_h264_parser(benchmark::State& state) {
    const Frame& f = frame();
    const guint8* p = f.bytes.data();
    const std::size_t size = f.bytes.size();
    std::vector<std::size_t> pos(kUnits);
    GstH264NalParser* parser = gst_h264_nal_parser_new();

    if (!same_starts(pos, gst_scan(parser, p, size, pos.data(), pos.size()))) {
        state.SkipWithError("GStreamer did not find the 256 units");
    } else {
        for (auto _ : state) {
            benchmark::DoNotOptimize(p);
            benchmark::DoNotOptimize(gst_scan(parser, p, size, pos.data(), pos.size()));
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
    }
    gst_h264_nal_parser_free(parser);
}

BENCHMARK(BM_gst_h264_parser);
#endif

}  // namespace

int main(int argc, char** argv) {
#ifdef QUILLANE_BENCH_HAVE_GST
    gst_init(nullptr, nullptr);
#endif
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
