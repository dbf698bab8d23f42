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

// A command line around one caller text: `plain_head TEXT plain_tail` when
// the text is plain, so that ordinary names keep the command the library has
// always run, else `quoted_head 'TEXT'`, where the quoted text can only ever
// be one argument. False when it would not fit `buf` with its terminator.
inline bool command_with_text(char* buf, std::size_t size, std::string_view text, std::string_view plain_head,
                              std::string_view plain_tail, std::string_view quoted_head) noexcept {
    std::size_t pos = 0;
    if (shell_safe(text)) {
        return append_text(buf, size, pos, plain_head) && append_text(buf, size, pos, text) &&
               append_text(buf, size, pos, plain_tail);
    }
    return append_text(buf, size, pos, quoted_head) && append_quoted(buf, size, pos, text);
}

}  // namespace quillane
