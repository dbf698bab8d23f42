// Fuzzes the UTF-8 checks on arbitrary bytes up to the first zero byte,
// handed over as an exactly sized terminated heap block: no read may pass
// the terminator. The structural check and the counting walk are each held
// against a plain reading of the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_check.h"
#include "util_function.h"

namespace {

const util_ops_common_base_fun_t& ops() { return *util_ops_pfun->common_base; }

// Sequence length from the lead byte's run of leading ones: 0 ones is
// ASCII, 1 is a continuation byte, 7 or 8 never start anything.
int lead_length(std::uint8_t c) {
    const int ones = c == 0xFF ? 8 : __builtin_clz(static_cast<unsigned>(static_cast<std::uint8_t>(~c)) << 24);
    if (ones == 0) return 1;
    if (ones == 1 || ones > 6) return 0;
    return ones;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The replay hands an empty input over as a null pointer.
    const std::size_t len = size == 0 ? 0 : strnlen(reinterpret_cast<const char*>(data), size);
    const fuzz::Block block(data, len, true);
    char* text = block.get();
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text);
    for (std::size_t i = 0; i < len; ++i) CHECK(ops().getUtf8CharByteNum(bytes[i]) == lead_length(bytes[i]));

    // Valid: every lead byte is followed by exactly its continuation bytes.
    // The count steps from lead byte to lead byte without looking at what it
    // steps over, and gives up on a bad lead or a sequence cut short; the
    // per-length counters are added to up to that point.
    bool valid = true, walked = true;
    UTIL_S32 leads = 0, ascii = 0, three = 0;
    for (std::size_t i = 0; i < len;) {
        const int n = lead_length(bytes[i]);
        if (n == 0 || i + n > len) {
            valid = walked = false;
            break;
        }
        for (int k = 1; k < n; ++k) valid = valid && (bytes[i + k] & 0xC0) == 0x80;
        ++leads;
        ascii += n == 1;
        three += n == 3;
        i += n;
    }
    CHECK(ops().isUtf8Format(text) == (valid ? 1 : 0));

    UTIL_S32 cnt[3] = {-7, 10, 20};
    const UTIL_S32 count = ops().getUtf8Length(text, cnt);
    CHECK(count == (walked ? leads : 0));
    CHECK(cnt[0] == (walked ? leads : -7));
    CHECK(cnt[1] == 10 + ascii && cnt[2] == 20 + three);
    CHECK(ops().getUtf8Length(text, nullptr) == count);
    CHECK(len == 0 || std::memcmp(text, data, len) == 0);
    return 0;
}
