// A plain, byte-by-byte NAL unit scanner written straight from the scanning
// rules, used to judge the library's scanners on random frames.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <vector>

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

inline bool ref_picture_h264(int b) { return (b & 0x1F) == 1 || (b & 0x1F) == 5; }
inline bool ref_picture_h265(int b) { return ((b >> 1) & 0x3F) == 1 || ((b >> 1) & 0x3F) == 19; }
inline bool ref_picture_any(int b) { return ref_picture_h264(b) || ref_picture_h265(b); }

// max_units: the scan fails once this many units are found (8 for V1).
inline RefScan reference_scan(const std::vector<std::uint8_t>& f, bool analyze_all,
                              const std::function<bool(int)>& picture, std::size_t max_units = SIZE_MAX) {
    RefScan r;
    const std::int64_t n = static_cast<std::int64_t>(f.size());
    std::int64_t i = 0;
    for (; i < n - 4; ++i) {
        if (f[i] == 0 && f[i + 1] == 0 && f[i + 2] == 0 && f[i + 3] == 1) {
            if (!r.units.empty()) r.units.back().length = static_cast<std::uint64_t>(i) - r.units.back().position;
            r.units.push_back({static_cast<std::uint64_t>(i), f[i + 4], 0});
            if (r.units.size() >= max_units) {
                r.too_many = true;
                return r;
            }
            i += 3;  // the loop's step makes it i + 4
            if (!analyze_all && picture(f[i + 1])) {
                ++i;
                break;
            }
        }
    }
    if ((!analyze_all && i >= n - 4) || r.units.empty()) return r;
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
