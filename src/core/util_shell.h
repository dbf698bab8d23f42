// Putting caller texts into shell command lines without letting them run
// anything: plain texts stay as they are, anything else is single-quoted.
#pragma once

#include <cstddef>
#include <string_view>

namespace quillane {

// Letters, digits and a few punctuation marks that no shell treats specially.
inline bool shell_safe(std::string_view text) noexcept {
    if (text.empty() || text.front() == '-') return false;  // a leading dash would read as an option
    for (unsigned char c : text) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                        c == '.' || c == '_' || c == '-' || c == '+' || c == ':' || c == '@' || c == '%' ||
                        c == ',' || c == '=';
        if (!ok) return false;
    }
    return true;
}

// Appends `text` in single quotes (a quote inside becomes '\'') to the
// buffer at `pos`; false when it would not fit with its terminator.
inline bool append_quoted(char* buf, std::size_t size, std::size_t& pos, std::string_view text) noexcept {
    auto put = [&](char c) {
        if (pos + 1 >= size) return false;
        buf[pos++] = c;
        return true;
    };
    if (!put('\'')) return false;
    for (char c : text) {
        if (c == '\'') {
            if (!put('\'') || !put('\\') || !put('\'') || !put('\'')) return false;
        } else if (!put(c)) {
            return false;
        }
    }
    if (!put('\'')) return false;
    buf[pos] = '\0';
    return true;
}

inline bool append_text(char* buf, std::size_t size, std::size_t& pos, std::string_view text) noexcept {
    if (pos + text.size() >= size) return false;
    for (char c : text) buf[pos++] = c;
    buf[pos] = '\0';
    return true;
}

// Appends `text` as one shell word: unchanged when plain, quoted otherwise.
inline bool append_word(char* buf, std::size_t size, std::size_t& pos, std::string_view text) noexcept {
    return shell_safe(text) ? append_text(buf, size, pos, text) : append_quoted(buf, size, pos, text);
}

// Digits of a byte dump ("0x1F") and of numbers printed in bases up to 16.
inline constexpr char kHexDigitsUpper[] = "0123456789ABCDEF";

}  // namespace quillane
