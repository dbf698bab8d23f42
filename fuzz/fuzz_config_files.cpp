// Fuzzes the readers of configuration and command files on arbitrary file
// contents: the command-file reader with its list, the line counters and the
// first-line and number readers. The first three bytes pick the list size,
// the first-line buffer size and the length of the key to count; the rest is
// the file. Output buffers are exactly sized heap blocks.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "util_function.h"

namespace {

bool trimmed_command(const char* s, std::size_t len) {
    if (len == 0 || s[0] == '#') return false;
    return std::isspace(static_cast<unsigned char>(s[0])) == 0 &&
           std::isspace(static_cast<unsigned char>(s[len - 1])) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const int mblock = data[0] % 17;
    const unsigned line_size = 1u + data[1] % 64;
    const std::size_t key_len = data[2] % 24;
    const std::uint8_t* text = data + 3;
    const std::size_t text_len = size - 3;
    fuzz::write_scratch(text, text_len);
    auto* high = util_ops_pfun->common_high;
    std::string path = fuzz::scratch_path();

    util_string_list_t list = {nullptr, 0};
    const int read = high->readFileShellCmds_malloc(path.data(), &list, mblock);
    CHECK(read == 0);
    CHECK(list.size == mblock);
    for (int i = 0; i < list.size && list.strList[i].string != nullptr; ++i) {
        const char* s = list.strList[i].string;
        CHECK(static_cast<std::size_t>(list.strList[i].length) == std::strlen(s));
        CHECK(list.strList[i].length < 1024);
        CHECK(trimmed_command(s, std::strlen(s)));
    }
    util_ops_pfun->common_base->strList_free(list);

    fuzz::Block first(line_size + 1);
    const int first_len = high->readTextFirstLineStr(path.data(), first.get(), line_size);
    CHECK(first_len >= 0 && static_cast<unsigned>(first_len) <= line_size);
    CHECK(first.get()[first_len] == '\0');
    CHECK(std::memchr(first.get(), '\n', static_cast<std::size_t>(first_len)) == nullptr);

    int num = 0x5A5A5A5A;
    CHECK(high->readTextNum(path.data(), &num) == 0);

    // Count the lines starting with the file's own first bytes.
    if (key_len > 0 && key_len <= text_len) {
        fuzz::Block key(text, key_len, true);
        const int lines = high->compare_str_to_file(path.data(), key.get(), static_cast<int>(key_len));
        CHECK(lines >= 0);
        FILE* fp = std::fopen(path.c_str(), "rb");
        if (fp == nullptr) std::abort();
        const int capped = high->isTextExistStr(fp, key.get(), static_cast<int>(key_len), 1);
        std::fclose(fp);
        CHECK(capped == (lines > 0 ? 1 : 0));
    }
    return 0;
}
