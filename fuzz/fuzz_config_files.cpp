// The configuration and command file readers against plain references. Three bytes pick the list size
// and line cap, the first-line buffer size and the key length; the rest is the file.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "util_function.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const int mblock = data[0] % 17, max_num = data[0] / 17 % 4 - 1;
    const unsigned line_size = 1u + data[1] % 64;
    const std::size_t key_len = data[2] % 24, text_len = size - 3;
    const std::uint8_t* text = data + 3;
    fuzz::write_scratch(text, text_len);
    auto* high = util_ops_pfun->common_high;
    std::string path = fuzz::scratch_path();

    // The pieces a 1024-byte fgets hands out, as C strings; the flag marks a last piece cut short by the end.
    std::vector<std::pair<std::string, bool>> all;
    for (std::size_t pos = 0, end = 0; pos < text_len; pos = end) {
        for (end = pos; end < text_len && end - pos < 1023 && text[end++] != '\n';) {}
        all.emplace_back(std::string(reinterpret_cast<const char*>(text + pos), end - pos).c_str(),
                         end == text_len && text[end - 1] != '\n' && end - pos < 1023);
    }
    // Commands: the first mblock pieces of two bytes or more, trimmed, neither empty nor comments.
    std::vector<std::string> commands;
    for (const auto& [piece, cut_short] : all) {
        const std::size_t from = piece.find_first_not_of(" \t\n\v\f\r"), to = piece.find_last_not_of(" \t\n\v\f\r");
        if (piece.size() < 2 || from == std::string::npos || piece[from] == '#') continue;
        commands.push_back(piece.substr(from, to + 1 - from));
    }
    commands.resize(static_cast<std::size_t>(mblock));  // an empty one stands for a slot left zeroed
    util_string_list_t list = {nullptr, 0};
    CHECK(high->readFileShellCmds_malloc(path.data(), &list, mblock) == 0 && list.size == mblock);
    for (std::size_t i = 0; i < commands.size(); ++i) {
        const char* got = list.strList[i].string;
        CHECK(std::string(got != nullptr ? got : "") == commands[i] && (got == nullptr) == commands[i].empty() &&
              list.strList[i].length == static_cast<int>(commands[i].size()));
    }
    util_ops_pfun->common_base->strList_free(list);

    // The first line_size bytes up to a line feed, zeros past the end of the file.
    fuzz::Block first(line_size + 1);
    const int first_len = high->readTextFirstLineStr(path.data(), first.get(), line_size);
    const void* feed = std::memchr(text, '\n', std::min<std::size_t>(line_size, text_len));
    const std::size_t want = feed != nullptr ? static_cast<const std::uint8_t*>(feed) - text : line_size;
    CHECK(first_len >= 0 && static_cast<std::size_t>(first_len) == want && first.get()[want] == '\0');
    for (std::size_t i = 0; i < want; ++i) CHECK(first.get()[i] == (i < text_len ? static_cast<char>(text[i]) : 0));

    // The number leading the first 100 bytes, as strtoll reads it, pinned to an int.
    int num = 0x5A5A5A5A;
    const std::string head(reinterpret_cast<const char*>(text), std::min<std::size_t>(100, text_len));
    CHECK(high->readTextNum(path.data(), &num) == 0 &&
          num == std::clamp<long long>(std::strtoll(head.c_str(), nullptr, 10), INT_MIN, INT_MAX));

    // Lines starting with the file's own first bytes; a last line cut short by the end is not looked at.
    if (key_len > 0 && key_len <= text_len) {
        fuzz::Block key(text, key_len, true);
        const int matches = static_cast<int>(std::count_if(all.begin(), all.end(), [&](const auto& piece) {
            return !piece.second && std::strncmp(piece.first.c_str(), key.get(), key_len) == 0;
        }));
        CHECK(high->compare_str_to_file(path.data(), key.get(), static_cast<int>(key_len)) == matches);
        FILE* fp = std::fopen(path.c_str(), "rb");
        if (fp == nullptr) std::abort();
        const int capped = high->isTextExistStr(fp, key.get(), static_cast<int>(key_len), max_num);
        std::fclose(fp);
        CHECK(capped == (max_num < 0 ? matches : std::min(matches, max_num)));
    }
    return 0;
}
