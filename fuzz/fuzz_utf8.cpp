// Fuzzes the UTF-8 checks on arbitrary bytes up to the first zero byte,
// handed over as an exactly sized terminated heap block: no read may pass
// the terminator, and the count must agree with the structural check.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz_check.h"
#include "util_function.h"

namespace {

const util_ops_common_base_fun_t& ops() { return *util_ops_pfun->common_base; }

bool continuation(std::uint8_t c) { return (c & 0xC0) == 0x80; }

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
    const std::size_t len = strnlen(reinterpret_cast<const char*>(data), size);
    const fuzz::Block block(data, len, true);
    char* text = block.get();
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text);

    for (std::size_t i = 0; i < len; ++i) CHECK(ops().getUtf8CharByteNum(bytes[i]) == lead_length(bytes[i]));

    // Structurally valid: every lead byte is followed by exactly its
    // continuation bytes.
    bool valid = true;
    std::size_t leads = 0, ascii = 0, three = 0;
    for (std::size_t i = 0; i < len && valid;) {
        const int n = lead_length(bytes[i]);
        valid = n > 0 && i + n <= len;
        for (int k = 1; valid && k < n; ++k) valid = continuation(bytes[i + k]);
        ++leads;
        ascii += n == 1;
        three += n == 3;
        i += n > 0 ? n : 1;
    }
    CHECK(ops().isUtf8Format(text) == (valid ? 1 : 0));

    UTIL_S32 cnt[3] = {-7, 0, 0};
    const UTIL_S32 count = ops().getUtf8Length(text, cnt);
    if (valid) {
        CHECK(count == static_cast<UTIL_S32>(leads));
        CHECK(cnt[0] == count);
        CHECK(cnt[1] == static_cast<UTIL_S32>(ascii));
        CHECK(cnt[2] == static_cast<UTIL_S32>(three));
    } else if (count == 0 && len > 0) {
        CHECK(cnt[0] == -7);
    } else {
        CHECK(cnt[0] == count);
    }
    CHECK(ops().getUtf8Length(text, nullptr) == count);
    CHECK(std::memcmp(text, data, len) == 0);
    return 0;
}
