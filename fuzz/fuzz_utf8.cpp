// Fuzzes the UTF-8 checks on an exactly sized terminated heap block against a plain reading.
#include <bit>
#include <cstdint>
#include <cstring>

#include "fuzz_check.h"
#include "util_function.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto& ops = *util_ops_pfun->common_base;
    // Leading ones of the lead byte: none is ASCII, one a continuation byte, seven or eight nothing.
    const auto lead_length = [](std::uint8_t c) {
        const int ones = std::countl_one(c);
        return ones == 0 ? 1 : ones == 1 || ones > 6 ? 0 : ones;
    };
    const std::size_t len = size == 0 ? 0 : strnlen(reinterpret_cast<const char*>(data), size);
    const fuzz::Block block(data, len, true);
    // The count skips what follows a lead; it stops at a bad lead or a cut sequence, counters kept.
    bool valid = true;
    UTIL_S32 leads = 0, ascii = 0, three = 0;
    std::size_t i = 0;
    for (std::size_t n; i < len && (n = lead_length(data[i])) != 0 && i + n <= len; i += n, ++leads) {
        for (std::size_t k = 1; k < n; ++k) valid = valid && (data[i + k] & 0xC0) == 0x80;
        ascii += n == 1;
        three += n == 3;
    }
    const bool walked = i == len;
    CHECK(ops.isUtf8Format(block.get()) == (valid && walked));
    UTIL_S32 cnt[3] = {-7, 10, 20};
    const UTIL_S32 count = ops.getUtf8Length(block.get(), cnt);
    CHECK(count == (walked ? leads : 0) && cnt[0] == (walked ? leads : -7));
    CHECK(cnt[1] == 10 + ascii && cnt[2] == 20 + three && ops.getUtf8Length(block.get(), nullptr) == count);
    for (std::size_t b = 0; b < len; ++b) CHECK(ops.getUtf8CharByteNum(data[b]) == lead_length(data[b]));
    CHECK(len == 0 || std::memcmp(block.get(), data, len) == 0);
    return 0;
}
