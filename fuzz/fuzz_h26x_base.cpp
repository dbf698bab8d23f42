// The scanners and every start-code search this CPU runs against the tests' plain scan. Input: the flag
// (any non-zero value, negative ones included, means the whole frame), where a search starts, five bytes
// kept for the seeds' layout, then the frame, as an exact heap block.
#include "fuzz_check.h"
#include "h26x_reference.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 8) return 0;
    const auto frame_size = static_cast<std::int32_t>(size - 8);
    const fuzz::Block copy(data + 8, size - 8, false);
    auto* frame = reinterpret_cast<UTIL_UCHAR*>(copy.get());
    const UTIL_S32 flag_on = data[0] == 0 ? 1 : static_cast<UTIL_S32>(data[0] * 0x01010101u);
    CHECK(qtest::check_scanners(frame, frame_size, flag_on).empty());
    CHECK(qtest::check_searches(frame, frame_size, (data[1] | data[2] << 8) % (frame_size + 2) - 1).empty());
    return 0;
}
