// A plain, byte-by-byte start-code search and NAL unit scanner written
// straight from the scanning rules, used to judge the library's searches and
// scanners on random frames (by the tests and the scanner fuzz target).
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "h26x/nal.h"

namespace qtest {

struct RefUnit {
    std::uint64_t position;
    int nalu;
    std::uint64_t length;
    bool operator==(const RefUnit&) const = default;
};

struct RefScan {
    bool ok = false;
    bool too_many = false;  // more than the allowed number of units
    std::vector<RefUnit> units;
};

inline bool ref_picture_h264(int b) { return quillane::nal::h264::is_picture(b); }
inline bool ref_picture_h265(int b) { return quillane::nal::h265::is_picture(b); }
inline bool ref_picture_any(int b) { return quillane::nal::is_picture_any(b); }

// The first start code at or after `from`: 00 00 00 01 with its header byte
// still inside the frame; -1 if there is none.
inline std::int64_t ref_find_start_code(const std::uint8_t* b, std::int64_t from, std::int64_t size) {
    for (std::int64_t i = from < 0 ? 0 : from; i < size - 4; ++i) {
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 0 && b[i + 3] == 1) return i;
    }
    return -1;
}

// Every start code of a frame; after one the search goes on behind it.
inline std::vector<std::int64_t> ref_start_codes(const std::uint8_t* b, std::int64_t size) {
    std::vector<std::int64_t> out;
    for (std::int64_t i = 0; (i = ref_find_start_code(b, i, size)) >= 0; i += 4) out.push_back(i);
    return out;
}

// max_units: the scan fails once this many units are found (8 for V1).
inline RefScan reference_scan(const std::vector<std::uint8_t>& f, bool analyze_all,
                              const std::function<bool(int)>& picture, std::size_t max_units = SIZE_MAX) {
    RefScan r;
    const std::int64_t n = static_cast<std::int64_t>(f.size());
    std::int64_t next = 0;  // where the search goes on
    bool found_picture = false;
    for (std::int64_t i; !found_picture && (i = ref_find_start_code(f.data(), next, n)) >= 0;) {
        if (!r.units.empty()) r.units.back().length = static_cast<std::uint64_t>(i) - r.units.back().position;
        r.units.push_back({static_cast<std::uint64_t>(i), f[i + 4], 0});
        if (r.units.size() >= max_units) {
            r.too_many = true;
            return r;
        }
        next = i + 4;
        found_picture = !analyze_all && picture(f[i + 4]);
    }
    // A picture whose start code leaves fewer than five bytes behind it
    // counts as not found.
    if ((!analyze_all && (!found_picture || next >= n - 4)) || r.units.empty()) return r;
    r.units.back().length = static_cast<std::uint64_t>(n) - r.units.back().position;
    r.ok = true;
    return r;
}

// Random frames shaped like encoder output, with the traps scanners fall
// into: runs of zeros, three-byte start codes, start codes cut off at the
// end, header bytes of both codecs' picture and non-picture types.
inline std::vector<std::uint8_t> random_frame(std::mt19937& rng) {
    static const int headers[] = {0x67, 0x68, 0x06, 0x65, 0x41, 0x01, 0x25, 0x26, 0x27, 0x02,
                                  0x40, 0x42, 0x44, 0x4E, 0x26, 0x02, 0x28, 0x09, 0x46, 0x00};
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> pick(0, 99);
    std::vector<std::uint8_t> f;
    const int units = std::uniform_int_distribution<int>(0, 14)(rng);
    if (pick(rng) < 20) f.insert(f.end(), std::uniform_int_distribution<int>(0, 6)(rng), 0);
    for (int u = 0; u < units; ++u) {
        if (pick(rng) < 12) {
            f.insert(f.end(), {0, 0, 1});  // three-byte start code: not a boundary
        } else {
            f.insert(f.end(), {0, 0, 0, 1});
        }
        if (pick(rng) < 5) break;  // start code right at the end
        f.push_back(static_cast<std::uint8_t>(headers[std::uniform_int_distribution<int>(0, 19)(rng)]));
        const int payload = std::uniform_int_distribution<int>(0, 40)(rng);
        for (int k = 0; k < payload; ++k) {
            const int p = pick(rng);
            if (p < 6) {
                f.insert(f.end(), std::uniform_int_distribution<int>(1, 9)(rng), 0);
            } else if (p < 9) {
                f.push_back(1);
            } else {
                f.push_back(static_cast<std::uint8_t>(byte(rng)));
            }
        }
    }
    if (pick(rng) < 15) f.insert(f.end(), std::uniform_int_distribution<int>(1, 5)(rng), 0);
    return f;
}

}  // namespace qtest
