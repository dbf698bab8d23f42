// A plain start-code search and unit scan, and checks holding the library to them ("" or what differed).
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "h26x/util_h26x_base_internal.h"
#include "util_function.h"

namespace qtest {

struct RefUnit {
    std::uint64_t position, nalu, length;
    bool operator==(const RefUnit&) const = default;
};

// The pictures the scanners stop at: a slice or IDR slice of H.264, TRAIL_R or IDR_W_RADL of H.265.
inline bool ref_picture_h264(int b) { return (b & 0x1F) == 1 || (b & 0x1F) == 5; }
inline bool ref_picture_h265(int b) { return ((b >> 1) & 0x3F) == 1 || ((b >> 1) & 0x3F) == 19; }
inline bool ref_picture_any(int b) { return ref_picture_h264(b) || ref_picture_h265(b); }

// The first 00 00 00 01 at or after `from` with its header byte inside the frame, or -1.
inline std::int64_t ref_find_start_code(const std::uint8_t* b, std::int64_t from, std::int64_t size) {
    std::int64_t i = from < 0 ? 0 : from;
    while (i < size - 4 && !(b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 0 && b[i + 3] == 1)) ++i;
    return i < size - 4 ? i : -1;
}

// Closed by {frame size, 0, 0}; fails at the max_units-th unit, or with no picture clear of the frame's end.
inline bool reference_scan(const std::uint8_t* f, std::int64_t n, bool all, bool (*picture)(int),
                           std::vector<RefUnit>& units, std::size_t max_units = SIZE_MAX) {
    std::int64_t next = 0;
    bool found = false;
    for (std::int64_t i; !found && (i = ref_find_start_code(f, next, n)) >= 0;) {
        if (!units.empty()) units.back().length = static_cast<std::uint64_t>(i) - units.back().position;
        units.push_back({static_cast<std::uint64_t>(i), f[i + 4], 0});
        if (units.size() >= max_units) return false;
        next = i + 4;
        found = !all && picture(f[i + 4]);
    }
    if ((!all && (!found || next >= n - 4)) || units.empty()) return false;
    units.back().length = static_cast<std::uint64_t>(n) - units.back().position;
    units.push_back({static_cast<std::uint64_t>(n), 0, 0});
    return true;
}

// Every search this CPU runs, started at `from` (out of range too) and resumed behind each start code.
inline std::string check_searches(const std::uint8_t* b, std::int64_t size, std::int64_t from) {
    for (const quillane::ScanIsa isa : quillane::kAllScanIsas) {
        const quillane::StartCodeSearch search = quillane::start_code_search_for(isa);
        const std::string bad = std::string(quillane::scan_isa_name(isa)) + " size " + std::to_string(size);
        for (std::int64_t at = from, want = 0; search != nullptr && want >= 0; at = want + 4) {
            want = ref_find_start_code(b, at, size);
            if (search(b, at, size) != want) return bad + " from " + std::to_string(at);
        }
    }
    return "";
}

template <class Unit>
RefUnit as_ref(const Unit& u) { return {u.position, static_cast<std::uint64_t>(u.nalu), u.length}; }

// V1 (both codecs), V2 and V3, flag off and on, each twice into one record (for the leak checker).
inline std::string check_scanners(std::uint8_t* buf, std::int32_t size, std::int32_t flag_on) {
    const util_ops_h26x_base_fun_t& ops = *util_ops_pfun->h26x_base;
    for (const std::int32_t flag : {0, flag_on}) {
        const std::string at = " flag " + std::to_string(flag);
        const std::pair<UTIL_H26X_STREAM_TYPE_ENUM, bool (*)(int)> codecs[] = {
            {ENUM_UTIL_H264_STREAM_TYPE, ref_picture_h264}, {ENUM_UTIL_H265_STREAM_TYPE, ref_picture_h265}};
        for (const auto& [type, picture] : codecs) {
            std::vector<RefUnit> want, got;
            const bool ok = reference_scan(buf, size, flag != 0, picture, want, 8);
            util_h26x_frame_buf_info_t v1;
            std::memset(&v1, 0xA5, sizeof v1);  // a record's stale entries must not show through
            const int rc = ops.V1_get_hfbi(&v1, buf, size, type, flag);
            if (rc != 0 ? v1.count != static_cast<int>(0xA5A5A5A5u) : v1.count > 7) return "V1 count" + at;
            for (int k = 0; rc == 0 && k <= v1.count; ++k) got.push_back(as_ref(v1.list[k]));
            if (!got.empty()) got.back().nalu = 0;  // the closing entry has no header byte
            if (rc != (ok ? 0 : -1) || (ok && got != want)) return "V1" + at + "/" + std::to_string(type);
        }
        std::vector<RefUnit> want;
        const bool ok = reference_scan(buf, size, flag != 0, ref_picture_any, want);
        util_list_h26x_frame_buf_info_t v2{nullptr, 0, buf, size};
        util_link_h26x_frame_buf_info_t v3{nullptr, 0, buf, size};
        for (int pass = 0; pass < 2; ++pass) {
            int rc = ops.V2_init_list(&v2, flag);
            std::vector<RefUnit> got;
            for (int k = 0; v2.phfbi != nullptr && k < v2.hfbiMax; ++k) got.push_back(as_ref(v2.phfbi[k]));
            if (rc == 0) got.push_back({static_cast<std::uint64_t>(size), 0, 0});
            if (rc != (ok ? 0 : -1) || got != (ok ? want : std::vector<RefUnit>{})) return "V2" + at;

            rc = ops.V3_init_list(&v3, flag);
            got.clear();
            for (auto* n = v3.head; n != nullptr; n = n->next) got.push_back(as_ref(n->hfbi));
            // A failed walk leaves its units and the fresh, empty node behind them.
            if (rc != 0 && !got.empty() && got.back() == RefUnit{}) got.pop_back();
            if (static_cast<int>(got.size()) != v3.count + (rc == 0)) return "V3 count" + at;
            if (rc != (ok ? 0 : -1) || got != want) return "V3" + at;
        }
        if (ops.V2_exit_list(&v2) != 0 || v2.phfbi != nullptr || v2.hfbiMax != 0) return "V2_exit_list";
        if (ops.V3_exit_list(&v3) != 0 || v3.head != nullptr || v3.count != 0) return "V3_exit_list";
    }
    return "";
}

// Frames with the scanners' traps: zero runs, three-byte and cut-off start codes, both codecs' headers.
inline std::vector<std::uint8_t> random_frame(std::mt19937& rng) {
    static const std::uint8_t headers[] = {0x67, 0x68, 0x06, 0x65, 0x41, 0x01, 0x25, 0x26, 0x27, 0x02,
                                           0x40, 0x42, 0x44, 0x4E, 0x26, 0x02, 0x28, 0x09, 0x46, 0x00};
    auto upto = [&rng](int n) { return std::uniform_int_distribution<int>(0, n)(rng); };
    std::vector<std::uint8_t> f(upto(99) < 20 ? upto(6) : 0, 0);
    for (int u = upto(99) < 25 ? upto(60) : upto(14); u > 0; --u) {  // some long enough for the widest loops
        f.insert(f.end(), upto(99) < 12 ? 2 : 3, 0);
        f.push_back(1);
        if (upto(99) < 5) break;  // start code right at the end
        f.push_back(headers[upto(19)]);
        for (int k = upto(40); k > 0; --k) {
            const int p = upto(99);
            if (p < 6) f.insert(f.end(), 1 + upto(8), 0);
            else f.push_back(p < 9 ? 1 : static_cast<std::uint8_t>(upto(255)));
        }
    }
    f.insert(f.end(), upto(99) < 15 ? 1 + upto(4) : 0, 0);
    return f;
}

}  // namespace qtest
