// A plain, byte-by-byte start-code search and NAL unit scan written straight
// from the scanning rules, and the checks that hold the library's searches
// and scanners to it. Shared by the tests and the scanner fuzz target; each
// check returns "" or what differed.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "h26x/util_h26x_base_internal.h"
#include "util_function.h"

namespace qtest {

struct RefUnit {
    std::uint64_t position;
    int nalu;
    std::uint64_t length;
    bool operator==(const RefUnit&) const = default;
};

struct RefScan {
    bool ok = false;
    std::vector<RefUnit> units;  // on failure, those walked before it
};

// The pictures the scanners stop at, from the header layouts themselves: a
// slice or IDR slice of H.264, TRAIL_R or IDR_W_RADL of H.265.
inline bool ref_picture_h264(int b) { return (b & 0x1F) == 1 || (b & 0x1F) == 5; }
inline bool ref_picture_h265(int b) { return ((b >> 1) & 0x3F) == 1 || ((b >> 1) & 0x3F) == 19; }
inline bool ref_picture_any(int b) { return ref_picture_h264(b) || ref_picture_h265(b); }
inline bool ref_picture_none(int) { return false; }

// The first 00 00 00 01 at or after `from` with its header byte inside the frame, or -1.
inline std::int64_t ref_find_start_code(const std::uint8_t* b, std::int64_t from, std::int64_t size) {
    for (std::int64_t i = from < 0 ? 0 : from; i < size - 4; ++i) {
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 0 && b[i + 3] == 1) return i;
    }
    return -1;
}

// The scan fails once max_units units are found (8 for the fixed record), and
// when stopping at a picture whose start code leaves fewer than five bytes
// behind its header byte, or at none.
inline RefScan reference_scan(const std::uint8_t* f, std::int64_t n, bool all, bool (*picture)(int),
                              std::size_t max_units = SIZE_MAX) {
    RefScan r;
    std::int64_t next = 0;
    bool found = false;
    for (std::int64_t i; !found && (i = ref_find_start_code(f, next, n)) >= 0;) {
        if (!r.units.empty()) r.units.back().length = static_cast<std::uint64_t>(i) - r.units.back().position;
        r.units.push_back({static_cast<std::uint64_t>(i), f[i + 4], 0});
        if (r.units.size() >= max_units) return r;
        next = i + 4;
        found = !all && picture(f[i + 4]);
    }
    if ((!all && (!found || next >= n - 4)) || r.units.empty()) return r;
    r.units.back().length = static_cast<std::uint64_t>(n) - r.units.back().position;
    r.ok = true;
    return r;
}

// Every search this build has and this CPU runs, resumed behind each start
// code and started at `from`, finds the reference's start codes.
inline std::string check_searches(const std::uint8_t* b, std::int64_t size, std::int64_t from) {
    for (const quillane::ScanIsa isa : quillane::kAllScanIsas) {
        const quillane::StartCodeSearch search = quillane::start_code_search_for(isa);
        if (search == nullptr) continue;
        std::ostringstream bad;
        bad << quillane::scan_isa_name(isa) << " size " << size << " from ";
        for (std::int64_t at = 0, want = 0; want >= 0; at = want + 4) {
            want = ref_find_start_code(b, at, size);
            if (search(b, at, size) != want) return (bad << at, bad.str());
        }
        if (search(b, from, size) != ref_find_start_code(b, from, size)) return (bad << from, bad.str());
    }
    return "";
}

// V1 (for both codecs and a type of neither), V2 and V3 on one frame with the
// flag off and at `flag_on`, each against the reference: result, units, the
// closing entry, the state a failure leaves, and a second scan into the same
// record (whose old list must go, or the leak checker objects).
inline std::string check_scanners(std::uint8_t* buf, std::int32_t size, std::int32_t flag_on) {
    const util_ops_h26x_base_fun_t& ops = *util_ops_pfun->h26x_base;
    std::ostringstream bad;
    auto units_differ = [&](const char* who, int flag, const RefScan& want, int count, auto unit) {
        int k = 0;
        while (k < count && k < static_cast<int>(want.units.size()) && unit(k) == want.units[k]) ++k;
        if (count == static_cast<int>(want.units.size()) && k == count) return false;
        bad << who << " flag " << flag << ": count " << count << ", first difference at unit " << k;
        return true;
    };
    for (const std::int32_t flag : {0, flag_on}) {
        const bool all = flag != 0;
        const struct { UTIL_H26X_STREAM_TYPE_ENUM type; bool (*picture)(int); } codecs[] = {
            {ENUM_UTIL_H264_STREAM_TYPE, ref_picture_h264}, {ENUM_UTIL_H265_STREAM_TYPE, ref_picture_h265},
            {static_cast<UTIL_H26X_STREAM_TYPE_ENUM>(0), ref_picture_none}};
        for (const auto& c : codecs) {
            const RefScan want = reference_scan(buf, size, all, c.picture, 8);
            util_h26x_frame_buf_info_t v1;
            std::memset(&v1, 0xA5, sizeof v1);
            const int rc = ops.V1_get_hfbi(&v1, buf, size, c.type, flag);
            if (rc != (want.ok ? 0 : -1)) return (bad << "V1 type " << c.type << " flag " << flag << ": rc " << rc, bad.str());
            if (!want.ok && v1.count != static_cast<int>(0xA5A5A5A5u)) return (bad << "V1: count set on failure", bad.str());
            if (!want.ok) continue;
            if (units_differ("V1", flag, want, v1.count, [&](int k) {
                    return RefUnit{v1.list[k].position, v1.list[k].nalu, v1.list[k].length};
                }) || v1.list[v1.count].position != static_cast<UTIL_U64>(size) || v1.list[v1.count].length != 0) {
                return (bad << " (V1 type " << c.type << ")", bad.str());
            }
        }
        const RefScan want = reference_scan(buf, size, all, ref_picture_any);
        util_list_h26x_frame_buf_info_t v2{nullptr, 0, buf, size};
        for (int pass = 0; pass < 2; ++pass) {
            const int rc = ops.V2_init_list(&v2, flag);
            if (rc != (want.ok ? 0 : -1)) return (bad << "V2 flag " << flag << ": rc " << rc, bad.str());
            if (!want.ok && v2.phfbi != nullptr) return (bad << "V2: array left after failure", bad.str());
            if (want.ok && units_differ("V2", flag, want, v2.hfbiMax, [&](int k) {
                    return RefUnit{v2.phfbi[k].position, v2.phfbi[k].nalu, v2.phfbi[k].length};
                })) {
                return bad.str();
            }
        }
        if (ops.V2_exit_list(&v2) != 0 || v2.phfbi != nullptr || v2.hfbiMax != 0) return "V2_exit_list";
        util_link_h26x_frame_buf_info_t v3{nullptr, 0, buf, size};
        for (int pass = 0; pass < 2; ++pass) {
            const int rc = ops.V3_init_list(&v3, flag);
            if (rc != (want.ok ? 0 : -1)) return (bad << "V3 flag " << flag << ": rc " << rc, bad.str());
            // A failed scan leaves the units it walked on the record.
            std::vector<const util_h26x_frame_buf_info_one_node_t*> nodes;
            for (auto* n = v3.head; n != nullptr; n = n->next) nodes.push_back(n);
            if (units_differ("V3", flag, want, v3.count, [&](int k) {
                    return k < static_cast<int>(nodes.size())
                               ? RefUnit{nodes[k]->hfbi.position, nodes[k]->hfbi.nalu, nodes[k]->hfbi.length}
                               : RefUnit{};
                })) {
                return bad.str();
            }
            const bool closed = nodes.size() == want.units.size() + 1 &&
                                nodes.back()->hfbi.position == static_cast<UTIL_U64>(size) &&
                                nodes.back()->hfbi.length == 0 && nodes.back()->hfbi.nalu == 0;
            if (want.ok && !closed) return (bad << "V3 flag " << flag << ": no closing node", bad.str());
        }
        if (ops.V3_exit_list(&v3) != 0 || v3.head != nullptr || v3.count != 0) return "V3_exit_list";
    }
    return "";
}

// Random frames shaped like encoder output, with the traps scanners fall
// into: runs of zeros, three-byte start codes, start codes cut off at the
// end, header bytes of both codecs' picture and non-picture types.
inline std::vector<std::uint8_t> random_frame(std::mt19937& rng) {
    static const int headers[] = {0x67, 0x68, 0x06, 0x65, 0x41, 0x01, 0x25, 0x26, 0x27, 0x02,
                                  0x40, 0x42, 0x44, 0x4E, 0x26, 0x02, 0x28, 0x09, 0x46, 0x00};
    auto upto = [&rng](int n) { return std::uniform_int_distribution<int>(0, n)(rng); };
    std::vector<std::uint8_t> f;
    const int units = upto(14);
    if (upto(99) < 20) f.insert(f.end(), upto(6), 0);
    for (int u = 0; u < units; ++u) {
        f.insert(f.end(), upto(99) < 12 ? 2 : 3, 0);
        f.push_back(1);
        if (upto(99) < 5) break;  // start code right at the end
        f.push_back(static_cast<std::uint8_t>(headers[upto(19)]));
        for (int k = upto(40); k > 0; --k) {
            const int p = upto(99);
            if (p < 6) {
                f.insert(f.end(), 1 + upto(8), 0);
            } else {
                f.push_back(p < 9 ? 1 : static_cast<std::uint8_t>(upto(255)));
            }
        }
    }
    if (upto(99) < 15) f.insert(f.end(), 1 + upto(4), 0);
    return f;
}

}  // namespace qtest
