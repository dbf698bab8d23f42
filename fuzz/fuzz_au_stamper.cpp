// Bytes split piece by piece and stamped, each access unit pushed from a heap block of exactly its size.
// Control byte: bit 0 H.265, bit 1 a fixed start label, bit 2 drift check, bits 3-7 the piece size.
#include <vector>

#include "annexb.h"
#include "fuzz_check.h"
#include "stream_stamper.h"
#include "util_function.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The library's traces would otherwise go to the device log.
    util_ops_pfun->dbgout->pstDebugAttr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::uint8_t control = data[0];
    const std::span<const std::uint8_t> stream(data + 1, size - 1);
    const tcstamp::Codec codec = (control & 1) != 0 ? tcstamp::Codec::h265 : tcstamp::Codec::h264;

    std::optional<tcstamp::TimeCode> start;
    if ((control & 2) != 0) start = tcstamp::TimeCode{23, 59, 59, 28};
    tcstamp::StreamStamper stamper({.codec = codec, .fps_x100 = 2997, .start = start, .start_drop_frame = false,
                                    .drift_check = (control & 4) != 0, .frames_before_first_check = 3});

    const std::size_t piece = (control >> 3) + 1u;
    tcstamp::AccessUnitSplitter splitter(codec);
    std::vector<std::vector<std::uint8_t>> pushed;
    bool ok = true;
    const auto take = [&] {
        while (ok) {
            const auto au = splitter.next();
            if (!au) break;
            pushed.emplace_back(au->begin(), au->end());
            ok = stamper.push(pushed.back(), pushed.size() - 1);
        }
    };
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        splitter.feed(stream.subspan(at, std::min(piece, stream.size() - at)));
        take();
    }
    splitter.finish();
    take();
    if (ok) ok = stamper.finish();
    CHECK(ok || !stamper.error().empty());

    // Units come out in the order they went in; those passed through are unchanged.
    std::size_t expected = 0, total = 0;
    while (std::optional<tcstamp::StampedUnit> u = stamper.pop()) {
        CHECK(u->tag == expected);
        const std::vector<std::uint8_t>& in = pushed[expected++];
        total += in.size();
        CHECK(u->stamped ? tcstamp::time_code_text(u->label, u->drop_frame).size() == 11 : u->bytes == in);
    }
    // The splitter loses no byte.
    if (ok) CHECK(expected == pushed.size() && total == stream.size());
    return 0;
}
