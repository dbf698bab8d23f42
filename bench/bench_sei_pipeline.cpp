// The per-frame time-code pipeline (scan the frame's headers, advance the
// time code, build the SEI unit) against GStreamer building the same SEI
// message, after identifying the same units and on its own.
#include <benchmark/benchmark.h>
// The parsers' headers warn that their API may change; only unit
// identification and SEI creation are used here.
#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>
#include <gst/codecparsers/gsth265parser.h>
#include <gst/gst.h>

#include <cstdint>
#include <vector>

#include "util_function.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void unit(Bytes& f, std::initializer_list<std::uint8_t> head, std::size_t payload) {
    f.insert(f.end(), {0, 0, 0, 1});
    f.insert(f.end(), head);
    for (std::size_t i = 0; i < payload; ++i) f.push_back(static_cast<std::uint8_t>(0x80 | (i * 37)));
}

// A 30-frame group of 1080p-sized access units: parameter sets and an IDR
// slice, then P slices.
std::vector<Bytes> gop(bool h265) {
    std::vector<Bytes> frames;
    for (int k = 0; k < 30; ++k) {
        Bytes f;
        if (h265) {
            unit(f, {0x46, 0x01, 0x50}, 0);  // AUD
            if (k == 0) {
                unit(f, {0x40, 0x01}, 20);
                unit(f, {0x42, 0x01}, 40);
                unit(f, {0x44, 0x01}, 8);
                unit(f, {0x26, 0x01, 0xAF}, 200000);
            } else {
                unit(f, {0x02, 0x01, 0xD0}, 60000);
            }
        } else {
            unit(f, {0x09, 0xF0}, 0);
            if (k == 0) {
                unit(f, {0x67, 0x64, 0x00, 0x28}, 20);
                unit(f, {0x68, 0xEE}, 4);
                unit(f, {0x65, 0x88, 0x84}, 200000);
            } else {
                unit(f, {0x41, 0x9A, 0x02}, 60000);
            }
        }
        frames.push_back(std::move(f));
    }
    return frames;
}

// One frame through the library, as an application drives it. Out of line so
// that callgrind can count its instructions alone (--toggle-collect, see
// bench/RESULTS.md): the collected total over its number of calls.
__attribute__((noinline)) UTIL_S32 quillane_frame(util_h26x_sei_tim_t* ctx, const Bytes& f,
                                                  UTIL_H26X_STREAM_TYPE_ENUM type) {
    util_h26x_frame_buf_info_t units;
    util_ops_pfun->h26x_base->V1_get_hfbi(&units, const_cast<UTIL_UCHAR*>(f.data()), static_cast<UTIL_S32>(f.size()),
                                          type, 0);
    util_ops_pfun->h26x_high_seiTimeCode->running(ctx, &units);
    return util_ops_pfun->h26x_high_seiTimeCode->get_data(ctx);
}

void BM_quillane_pipeline(benchmark::State& state) {
    const bool h265 = state.range(0) == 265;
    const auto frames = gop(h265);
    util_ops_pfun->dbgout->pstDebugAttr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    util_h26x_sei_tim_config_param_t c{};
    c.ntp_enable = UTIL_TRUE;
    c.max_fps_x100 = 2997;
    c.h26x_type = h265 ? ENUM_UTIL_H265_STREAM_TYPE : ENUM_UTIL_H264_STREAM_TYPE;
    // Field widths 24, 24 and 7: a byte-aligned message, as cameras configure it.
    c.h264_cpb_removal_delay_length = 23;
    c.h264_dpb_output_delay_length = 23;
    c.h264_time_offset_length = 6;
    util_list_h26x_sei_tim_t list{};
    util_ops_pfun->h26x_high_seiTimeCode->init_list(&list, &c, 1);
    util_h26x_sei_tim_t* ctx = &list.ph26xSeiTim[0];
    const auto type = h265 ? ENUM_UTIL_H265_STREAM_TYPE : ENUM_UTIL_H264_STREAM_TYPE;
    std::size_t k = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(quillane_frame(ctx, frames[k++ % frames.size()], type));
    }
    util_ops_pfun->h26x_high_seiTimeCode->exit_list(&list);
}

// With kIdentify, GStreamer first finds the frame's units up to the first
// slice, as the library's scanner does; without, only the message is built
// (create_sei_memory alone, the figure the library's whole frame is held to).
template <bool kIdentify>
void BM_gstreamer_sei(benchmark::State& state) {
    const bool h265 = state.range(0) == 265;
    const auto frames = gop(h265);
    gst_init(nullptr, nullptr);
    GstH264NalParser* p264 = gst_h264_nal_parser_new();
    GstH265Parser* p265 = gst_h265_parser_new();
    GArray* messages = g_array_new(FALSE, FALSE, h265 ? sizeof(GstH265SEIMessage) : sizeof(GstH264SEIMessage));
    unsigned frame_count = 0;
    std::size_t k = 0;
    for (auto _ : state) {
        const Bytes& f = frames[k++ % frames.size()];
        // Identify the units up to the first slice, as the scanner does.
        if constexpr (kIdentify) {
            guint offset = 0;
            if (h265) {
                GstH265NalUnit nalu;
                while (gst_h265_parser_identify_nalu_unchecked(p265, f.data(), offset, f.size(), &nalu) ==
                       GST_H265_PARSER_OK) {
                    if (nalu.type <= GST_H265_NAL_SLICE_CRA_NUT) break;
                    offset = nalu.offset + nalu.size;
                }
            } else {
                GstH264NalUnit nalu;
                while (gst_h264_parser_identify_nalu_unchecked(p264, f.data(), offset, f.size(), &nalu) ==
                       GST_H264_PARSER_OK) {
                    if (nalu.type == GST_H264_NAL_SLICE || nalu.type == GST_H264_NAL_SLICE_IDR) break;
                    offset = nalu.offset + nalu.size;
                }
            }
        }
        ++frame_count;
        const guint8 frames_in_second = frame_count % 30;
        g_array_set_size(messages, 0);
        GstMemory* mem;
        if (h265) {
            GstH265SEIMessage msg{};
            msg.payloadType = GST_H265_SEI_TIME_CODE;
            GstH265TimeCode& tc = msg.payload.time_code;
            tc.num_clock_ts = 1;
            tc.clock_timestamp_flag[0] = 1;
            tc.counting_type[0] = 4;
            tc.full_timestamp_flag[0] = 1;
            tc.n_frames[0] = frames_in_second;
            tc.seconds_value[0] = 56;
            tc.minutes_value[0] = 34;
            tc.hours_value[0] = 12;
            tc.time_offset_length[0] = 21;
            g_array_append_val(messages, msg);
            mem = gst_h265_create_sei_memory(0, 1, 4, messages);
        } else {
            GstH264SEIMessage msg{};
            msg.payloadType = GST_H264_SEI_PIC_TIMING;
            GstH264PicTiming& pt = msg.payload.pic_timing;
            pt.CpbDpbDelaysPresentFlag = 1;
            pt.cpb_removal_delay_length_minus1 = 23;
            pt.dpb_output_delay_length_minus1 = 23;
            pt.cpb_removal_delay = 2u * (frames_in_second + 1);
            pt.dpb_output_delay = 2;
            pt.pic_struct_present_flag = 1;
            pt.clock_timestamp_flag[0] = 1;
            GstH264ClockTimestamp& ct = pt.clock_timestamp[0];
            ct.counting_type = 4;
            ct.full_timestamp_flag = 1;
            ct.n_frames = frames_in_second;
            ct.seconds_value = 56;
            ct.minutes_value = 34;
            ct.hours_value = 12;
            ct.time_offset = 1;
            pt.time_offset_length = 7;
            g_array_append_val(messages, msg);
            mem = gst_h264_create_sei_memory(4, messages);
        }
        benchmark::DoNotOptimize(mem);
        gst_memory_unref(mem);
    }
    g_array_unref(messages);
    gst_h264_nal_parser_free(p264);
    gst_h265_parser_free(p265);
}

BENCHMARK(BM_quillane_pipeline)->Arg(264)->Arg(265);
BENCHMARK(BM_gstreamer_sei<true>)->Name("BM_gstreamer_sei")->Arg(264)->Arg(265);
BENCHMARK(BM_gstreamer_sei<false>)->Name("BM_gstreamer_create_sei_memory")->Arg(264)->Arg(265);

}  // namespace

BENCHMARK_MAIN();
