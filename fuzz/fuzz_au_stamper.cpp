// Fuzzes the stream stamping that the tool and the GStreamer element share:
// arbitrary bytes cut into access units piece by piece, as the tool reads a
// file, and stamped in display order on one stream.
//
// Input layout: one control byte (bit 0: H.265, bit 1: a fixed start time
// code, bit 2: drift check, bits 3-7: the size of the pieces fed to the
// splitter), then the stream. Each access unit is pushed from a heap block
// of exactly its size, so AddressSanitizer reports any read past it.
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

    tcstamp::StreamOptions options;
    options.codec = codec;
    options.fps_x100 = 2997;
    if ((control & 2) != 0) options.start = tcstamp::TimeCode{23, 59, 59, 28};
    options.drift_check = (control & 4) != 0;
    options.frames_before_first_check = 3;
    tcstamp::StreamStamper stamper(options);

    const std::size_t piece = (control >> 3) + 1u;
    tcstamp::AccessUnitSplitter splitter(codec);
    std::vector<std::vector<std::uint8_t>> pushed;
    bool ok = true;
    const auto take = [&] {
        while (ok) {
            const std::optional<std::span<const std::uint8_t>> au = splitter.next();
            if (!au) break;
            pushed.emplace_back(au->begin(), au->end());
            const std::vector<std::uint8_t> exact(au->begin(), au->end());
            ok = stamper.push(exact, pushed.size() - 1);
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

    // Units come out in the order they went in; those passed through are
    // unchanged, stamped ones carry one more SEI unit.
    std::size_t expected = 0;
    std::size_t total = 0;
    while (std::optional<tcstamp::StampedUnit> u = stamper.pop()) {
        CHECK(u->tag == expected);
        const std::vector<std::uint8_t>& in = pushed[expected++];
        total += in.size();
        if (!u->stamped) {
            CHECK(u->bytes == in);
            continue;
        }
        CHECK(u->bytes.size() >= 10);
        CHECK(tcstamp::time_code_text(u->label, u->drop_frame).size() == 11);
    }
    if (ok) CHECK(expected == pushed.size());
    // The splitter loses no byte.
    if (ok) CHECK(total == stream.size());
    return 0;
}
