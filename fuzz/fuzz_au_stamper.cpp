// Fuzzes the access-unit stamping that the tool and the GStreamer element
// share: arbitrary bytes split into access units and stamped one after the
// other on one stream, as a pipeline would hand them over.
//
// Input layout: one control byte (bit 0: H.265, bit 1: a fixed start time
// code, bit 2: drift check, bits 3-7: the H.264 widths from the SPS or fixed
// ones), then the stream. Each access unit is stamped from a heap block of
// exactly its size, so AddressSanitizer reports any read past it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "annexb.h"
#include "au_stamper.h"
#include "util_function.h"

// stderr is closed by the runner; a broken invariant says which on stdout.
#define CHECK(cond)                                                                                        \
    ((cond) ? (void)0                                                                                      \
            : (std::printf("fuzz_au_stamper.cpp:%d: invariant broken: %s\n", __LINE__, #cond), std::fflush(stdout), \
               __builtin_trap()))

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The library's traces would otherwise go to the device log.
    util_ops_pfun->dbgout->pstDebugAttr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::uint8_t control = data[0];
    const std::span<const std::uint8_t> stream(data + 1, size - 1);

    tcstamp::StamperConfig config;
    config.codec = (control & 1) != 0 ? tcstamp::Codec::h265 : tcstamp::Codec::h264;
    config.fps_x100 = 2997;
    if ((control & 2) != 0) config.start = tcstamp::TimeCode{23, 59, 59, 28};
    config.drift_check = (control & 4) != 0;
    config.frames_before_first_check = 3;
    if ((control >> 3) != 0) {
        config.cpb_removal_delay_length = control >> 3;
        config.dpb_output_delay_length = 31 - (control >> 3);
        config.time_offset_length = (control >> 3) / 2;
    }
    tcstamp::AccessUnitStamper stamper;
    CHECK(stamper.start(config));

    const std::vector<tcstamp::Nal> nals = tcstamp::split_nal_units(stream, config.codec);
    for (const tcstamp::AccessUnit& a : tcstamp::group_access_units(nals, config.codec)) {
        const std::size_t begin = nals[a.begin].sc_begin;
        const std::size_t end = a.end < nals.size() ? nals[a.end].sc_begin : stream.size();
        const std::vector<std::uint8_t> au(stream.begin() + static_cast<std::ptrdiff_t>(begin),
                                           stream.begin() + static_cast<std::ptrdiff_t>(end));
        const tcstamp::StampPlan plan = stamper.stamp(au);
        if (!plan.picture) continue;
        // The unit goes in front of a start code, and is a whole SEI unit.
        CHECK(plan.insert_at + 3 < au.size());
        CHECK(au[plan.insert_at] == 0 && au[plan.insert_at + 1] == 0);
        CHECK(plan.sei.size() >= 10 && plan.sei.size() <= 64);
        CHECK(plan.sei[0] == 0 && plan.sei[1] == 0 && plan.sei[2] == 0 && plan.sei[3] == 1);
        CHECK(plan.sei.back() == 0x80);
        CHECK(stamper.time_code_text().size() == 11);
    }
    return 0;
}
