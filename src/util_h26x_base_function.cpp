// H.26x stream base: the bit reader, the three NAL unit scanners and the
// stream-to-file writers.
#include "util_h26x_base_function.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "util_alloc.h"
#include "util_h26x_base_internal.h"
#include "util_msg.h"

namespace quillane {

namespace {

// Lanes j where byte j is 01 and byte j-1 is 00: the tail of any start code.
inline Mask16 tail_mask(const UTIL_UCHAR* p) noexcept {
    const Bytes16 cur = load16(p);
    const Bytes16 prev = load16(p - 1);
    return (cur == 1) & (prev == 0);
}

inline bool any_lane(Mask16 m, std::uint64_t& lo, std::uint64_t& hi) noexcept {
    std::memcpy(&lo, &m, 8);
    std::memcpy(&hi, reinterpret_cast<const char*>(&m) + 8, 8);
    return (lo | hi) != 0;
}

inline bool zeros_before(const UTIL_UCHAR* buf, std::int64_t j) noexcept {
    return buf[j - 3] == 0 && buf[j - 2] == 0 && buf[j - 1] == 0;
}

// Checks the candidate lanes of one block in order; the first one with three
// zero bytes before its 01 is a start code.
std::int64_t first_in_block(const UTIL_UCHAR* buf, std::int64_t base, Mask16 m) noexcept {
    std::uint64_t half[2];
    any_lane(m, half[0], half[1]);
    for (int h = 0; h < 2; ++h) {
        std::uint64_t bits = half[h];
        while (bits != 0) {
            const int lane = __builtin_ctzll(bits) / 8;
            const std::int64_t j = base + h * 8 + lane;
            if (zeros_before(buf, j)) return j - 3;
            bits &= ~(0xFFull << (lane * 8));
        }
    }
    return -1;
}

// The search from the 01 byte's position j on, up to last_j: whole 64-byte
// stretches, four blocks tested at once, then byte by byte. Kept out of line
// so that a hit in the first block returns without its set-up.
__attribute__((noinline)) std::int64_t find_from(const UTIL_UCHAR* buf, std::int64_t j,
                                                 std::int64_t last_j) noexcept {
    while (j + 64 <= last_j + 1) {
        const UTIL_UCHAR* p = buf + j;
        const Mask16 m0 = tail_mask(p);
        const Mask16 m1 = tail_mask(p + 16);
        const Mask16 m2 = tail_mask(p + 32);
        const Mask16 m3 = tail_mask(p + 48);
        std::uint64_t lo;
        std::uint64_t hi;
        if (any_lane(m0 | m1 | m2 | m3, lo, hi)) {
            const Mask16 blocks[4] = {m0, m1, m2, m3};
            for (int b = 0; b < 4; ++b) {
                if (!any_lane(blocks[b], lo, hi)) continue;
                const std::int64_t i = first_in_block(buf, j + 16 * b, blocks[b]);
                if (i >= 0) return i;
            }
        }
        j += 64;
    }
    for (; j <= last_j; ++j) {
        if (buf[j] == 1 && zeros_before(buf, j)) return j - 3;
    }
    return -1;
}

}  // namespace

std::int64_t find_start_code(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept {
    // A start code at i needs i < size - 4; its 01 byte sits at j = i + 3,
    // so j runs from from + 3 up to size - 2.
    if (from < 0) from = 0;
    std::int64_t j = from + 3;
    const std::int64_t last_j = size - 2;
    // Delimiters and parameter sets are a few bytes long: one block alone
    // first answers for them without setting up the wide stride.
    if (j + 16 <= last_j + 1) {
        const Mask16 m = tail_mask(buf + j);
        std::uint64_t lo;
        std::uint64_t hi;
        if (any_lane(m, lo, hi)) {
            const std::int64_t i = first_in_block(buf, j, m);
            if (i >= 0) return i;
        }
        j += 16;
    }
    return find_from(buf, j, last_j);
}

}  // namespace quillane

using quillane::find_start_code;

namespace {

bool is_picture_h264(UTIL_S32 b) noexcept {
    const int type = b & 0x1F;
    return type == ENUM_UTIL_H264_FRAME_NALU_TYPE_P || type == ENUM_UTIL_H264_FRAME_NALU_TYPE_IDR;
}

bool is_picture_h265(UTIL_S32 b) noexcept {
    const int type = (b >> 1) & 0x3F;
    return type == ENUM_UTIL_H265_FRAME_NALU_TYPE_P || type == ENUM_UTIL_H265_FRAME_NALU_TYPE_IDR;
}

// V1 knows its codec; V2 and V3 do not and accept a picture of either.
bool is_picture_for(UTIL_H26X_STREAM_TYPE_ENUM type, UTIL_S32 b) noexcept {
    switch (type) {
        case ENUM_UTIL_H264_STREAM_TYPE:
            return is_picture_h264(b);
        case ENUM_UTIL_H265_STREAM_TYPE:
            return is_picture_h265(b);
        default:
            return false;
    }
}

bool is_picture_any(UTIL_S32 b) noexcept { return is_picture_h264(b) || is_picture_h265(b); }

// Whether a scan that was to stop at a picture failed to: it ran out of
// start codes, or the picture's start code lies so close to the end that the
// scan position had already reached the last four bytes.
bool missed_picture(UTIL_S32 analyzeAllFlag, bool stopped, std::int64_t pos, std::int64_t frame_size) noexcept {
    return analyzeAllFlag == 0 && (!stopped || pos >= frame_size - 4);
}

UTIL_S32 Func_h26x_base_readBitsToU32(const UTIL_UCHAR* pdata, UTIL_S32 startByteIndex, UTIL_S8 startBitIndex,
                                      UTIL_S32 endByteIndex, UTIL_U8 readBits, UTIL_U32* result) noexcept {
    if (startBitIndex < 0 || startBitIndex > 7 || readBits > 32) {
        return -1;
    }
    const std::int64_t available =
        (static_cast<std::int64_t>(endByteIndex) - startByteIndex) * 8 - (7 - startBitIndex);
    if (available < readBits) {
        UTIL_DBG_ERR("error: readBits outrange data array");
        return -1;
    }
    // Nothing to read from or nowhere to put it: refused like a bad bit index.
    if (result == nullptr || startByteIndex < 0 || (pdata == nullptr && readBits > 0)) {
        return -1;
    }
    UTIL_U32 value = 0;
    for (int n = 0; n < readBits; ++n) {
        const std::int64_t byte = startByteIndex + (7 - startBitIndex + n) / 8;
        if (byte >= endByteIndex) {
            UTIL_DBG_ERR("error: outrange data array, curI=%d, endI=%d", static_cast<int>(byte), endByteIndex);
            break;
        }
        const int bit = ((startBitIndex - n) % 8 + 8) % 8;
        value = (value << 1) | ((pdata[byte] >> bit) & 1u);
    }
    *result = value;
    return 0;
}

UTIL_S32 Func_V1_get_h26x_frame_buf_info_function(util_h26x_frame_buf_info_t* phfbi, UTIL_UCHAR* frame_buf,
                                                  UTIL_S32 frame_size, UTIL_H26X_STREAM_TYPE_ENUM frame_type,
                                                  UTIL_S32 analyzeAllFlag) noexcept {
    if (phfbi == nullptr || frame_buf == nullptr) {
        UTIL_DBG_ERR("error: phfbi or frame_buf is NULL, frame_size:%d!!!", frame_size);
        return -1;
    }
    constexpr int kMax = 8;
    int count = 0;
    std::int64_t last = 0;
    std::int64_t pos = 0;
    bool stopped = false;
    for (std::int64_t i; (i = find_start_code(frame_buf, pos, frame_size)) >= 0;) {
        util_h26x_frame_buf_info_one_t& unit = phfbi->list[count];
        unit.position = static_cast<UTIL_U64>(i);
        if (count > 0) phfbi->list[count - 1].length = static_cast<UTIL_U64>(i - last);
        unit.nalu = frame_buf[i + 4];
        last = i;
        if (++count >= kMax) {
            UTIL_DBG_ERR("error: max is out of range!!! max=%d", kMax);
            return -1;
        }
        pos = i + 4;
        if (analyzeAllFlag == 0 && is_picture_for(frame_type, unit.nalu)) {
            stopped = true;
            break;
        }
    }
    if (missed_picture(analyzeAllFlag, stopped, pos, frame_size) || count == 0) {
        UTIL_DBG_ERR("error: no IDR or P frame nalu type!!!");
        return -1;
    }
    phfbi->list[count - 1].length = static_cast<UTIL_U64>(frame_size - last);
    phfbi->list[count].position = static_cast<UTIL_U64>(frame_size);
    phfbi->list[count].length = 0;
    phfbi->count = count;
    return 0;
}

UTIL_S32 Func_V2_exit_list_h26x_frame_buf_info_function(util_list_h26x_frame_buf_info_t* phfbiList) noexcept {
    if (phfbiList == nullptr) {
        UTIL_DBG_ERR("error: phfbiList is NULL!");
        return -1;
    }
    quillane::mem_free(phfbiList->phfbi);
    phfbiList->phfbi = nullptr;
    phfbiList->hfbiMax = 0;
    return 0;
}

UTIL_S32 Func_V2_init_list_h26x_frame_buf_info_function(util_list_h26x_frame_buf_info_t* phfbiList,
                                                        UTIL_S32 analyzeAllFlag) noexcept {
    if (phfbiList == nullptr || phfbiList->frame_addr == nullptr || phfbiList->frame_size <= 0) {
        // Without a record there is no size to show; 0 stands in.
        UTIL_DBG_ERR("error: phfbiList or frame_buf is NULL, frame_size:%d!!!",
                     phfbiList != nullptr ? phfbiList->frame_size : 0);
        return -1;
    }
    const UTIL_UCHAR* buf = phfbiList->frame_addr;
    const std::int64_t size = phfbiList->frame_size;

    // First pass: every unit counted, the first kLocal of them remembered on
    // the stack, so that a frame of up to kLocal units is read only once and
    // the array is still allocated once, at its exact size, after counting.
    constexpr int kLocal = 512;
    std::uint32_t local_pos[kLocal];
    UTIL_UCHAR local_nalu[kLocal];
    int total = 0;
    std::int64_t pos = 0;
    bool stopped = false;
    for (std::int64_t i; (i = find_start_code(buf, pos, size)) >= 0;) {
        const UTIL_UCHAR nalu = buf[i + 4];
        if (total < kLocal) {
            local_pos[total] = static_cast<std::uint32_t>(i);
            local_nalu[total] = nalu;
        }
        ++total;
        pos = i + 4;
        if (analyzeAllFlag == 0 && is_picture_any(nalu)) {
            stopped = true;
            break;
        }
    }
    if (missed_picture(analyzeAllFlag, stopped, pos, size) || total == 0) {
        UTIL_DBG_ERR("error: no IDR or P frame nalu type!!!");
        return -1;
    }

    if (phfbiList->phfbi != nullptr) {
        Func_V2_exit_list_h26x_frame_buf_info_function(phfbiList);
    }
    auto* units = static_cast<util_h26x_frame_buf_info_one_t*>(
        quillane::mem_malloc(sizeof(util_h26x_frame_buf_info_one_t) * static_cast<std::size_t>(total)));
    if (units == nullptr) {
        UTIL_DBG_ERR("error: malloc failed!!!!!");
        return -1;
    }
    phfbiList->phfbi = units;
    phfbiList->hfbiMax = total;
    const int remembered = total < kLocal ? total : kLocal;
    for (int n = 0; n < remembered; ++n) {
        units[n].position = local_pos[n];
        units[n].nalu = local_nalu[n];
        if (n > 0) units[n - 1].length = local_pos[n] - local_pos[n - 1];
    }

    // Second pass, only for frames of more units than were remembered.
    if (total > kLocal) {
        std::int64_t last = local_pos[kLocal - 1];
        int n = kLocal;
        pos = last + 4;
        for (std::int64_t i; n < total && (i = find_start_code(buf, pos, size)) >= 0;) {
            units[n].position = static_cast<UTIL_U64>(i);
            units[n - 1].length = static_cast<UTIL_U64>(i - last);
            units[n].nalu = buf[i + 4];
            last = i;
            ++n;
            pos = i + 4;
        }
    }
    units[total - 1].length = static_cast<UTIL_U64>(size) - units[total - 1].position;
    return 0;
}

UTIL_S32 Func_V3_exit_link_h26x_frame_buf_info_function(util_link_h26x_frame_buf_info_t* phfbiLink) noexcept {
    if (phfbiLink == nullptr) {
        UTIL_DBG_ERR("error: phfbiLink is NULL!");
        return -1;
    }
    util_h26x_frame_buf_info_one_node_t* node = phfbiLink->head;
    while (node != nullptr) {
        util_h26x_frame_buf_info_one_node_t* next = node->next;
        quillane::mem_free(node);
        node = next;
    }
    phfbiLink->head = nullptr;
    phfbiLink->count = 0;
    return 0;
}

UTIL_S32 Func_V3_init_link_h26x_frame_buf_info_function(util_link_h26x_frame_buf_info_t* phfbiLink,
                                                        UTIL_S32 analyzeAllFlag) noexcept {
    if (phfbiLink == nullptr || phfbiLink->frame_addr == nullptr || phfbiLink->frame_size < 1) {
        UTIL_DBG_ERR("error: phfbiLink or frame_buf is NULL, frame_size:%d!!!",
                     phfbiLink != nullptr ? phfbiLink->frame_size : 0);
        return -1;
    }
    if (phfbiLink->head != nullptr || phfbiLink->count != 0) {
        UTIL_DBG_ERR("warning: phfbiLink head is not NULL or count is not 0!");
        Func_V3_exit_link_h26x_frame_buf_info_function(phfbiLink);
    }
    using Node = util_h26x_frame_buf_info_one_node_t;
    phfbiLink->head = static_cast<Node*>(quillane::mem_calloc(1, sizeof(Node)));
    if (phfbiLink->head == nullptr) {
        UTIL_DBG_ERR("error: link head malloc failed!!!!!");
        return -1;
    }
    const UTIL_UCHAR* buf = phfbiLink->frame_addr;
    const std::int64_t size = phfbiLink->frame_size;
    Node* cur = phfbiLink->head;
    Node* prev = nullptr;
    std::int64_t pos = 0;
    bool stopped = false;
    for (std::int64_t i; (i = find_start_code(buf, pos, size)) >= 0;) {
        cur->hfbi.position = static_cast<UTIL_U64>(i);
        if (prev != nullptr) prev->hfbi.length = static_cast<UTIL_U64>(i) - prev->hfbi.position;
        cur->hfbi.nalu = buf[i + 4];
        ++phfbiLink->count;
        cur->next = static_cast<Node*>(quillane::mem_calloc(1, sizeof(Node)));
        if (cur->next == nullptr) {
            UTIL_DBG_ERR("error: link next malloc failed!!!!!");
            return -1;
        }
        prev = cur;
        cur = cur->next;
        pos = i + 4;
        if (analyzeAllFlag == 0 && is_picture_any(prev->hfbi.nalu)) {
            stopped = true;
            break;
        }
    }
    if (missed_picture(analyzeAllFlag, stopped, pos, size) || phfbiLink->count == 0) {
        UTIL_DBG_ERR("error: no IDR or P frame nalu type!!!");
        return -1;
    }
    prev->hfbi.length = static_cast<UTIL_U64>(size) - prev->hfbi.position;
    cur->hfbi.position = static_cast<UTIL_U64>(size);
    cur->hfbi.length = 0;
    return 0;
}

// ---- stream-to-file writers ----

UTIL_S32 Func_SAMPLE_COMM_VENC_SaveH264(FILE* fpH264File, const UTIL_CHAR* pData, UTIL_S32 nLength) noexcept {
    if (fpH264File == nullptr) {
        return -1;
    }
    return static_cast<UTIL_S32>(std::fwrite(pData, 1, static_cast<std::size_t>(nLength), fpH264File));
}

// A chunk the writers can take: bytes to read, a size that is not negative.
bool chunk_ok(const UTIL_CHAR* pstStream, UTIL_S32 frame_size) noexcept {
    return frame_size >= 0 && (pstStream != nullptr || frame_size == 0);
}

void Func_h26x_base_fw_save_stream_bySize(UTIL_CHAR* pstStream, UTIL_S32 frame_size,
                                          util_h26xBaseSaveStreamToFile_t* pst) noexcept {
    if (pst == nullptr || !chunk_ok(pstStream, frame_size)) {
        return;
    }
    if (pst->write_size >= pst->max_size) {
        if (pst->fp != nullptr) {
            std::fclose(pst->fp);
            pst->fp = nullptr;
        }
        return;
    }
    if (pst->fp == nullptr) {
        pst->fp = pst->file_name != nullptr ? std::fopen(pst->file_name, "wb+e") : nullptr;
        if (pst->fp == nullptr) {
            UTIL_DBG_ERR("error: fopen failed");
            return;
        }
    }
    Func_SAMPLE_COMM_VENC_SaveH264(pst->fp, pstStream, frame_size);
    pst->write_size += static_cast<UTIL_U64>(frame_size);
}

void Func_h26x_base_w_save_stream_bySize(UTIL_CHAR* pstStream, UTIL_S32 frame_size,
                                         util_h26xBaseSaveStreamToFile_t* pst) noexcept {
    if (pst == nullptr || !chunk_ok(pstStream, frame_size)) {
        return;
    }
    if (pst->write_size >= pst->max_size) {
        if (pst->fd > 2) {
            close(pst->fd);
            pst->fd = -1;
        }
        return;
    }
    if (pst->fd <= 2) {
        // Created like the buffered writers' files: 0666 less the umask.
        pst->fd = pst->file_name != nullptr
                      ? open(pst->file_name, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666)
                      : -1;
        if (pst->fd < 0) {
            UTIL_DBG_ERR("error: open failed");
            return;
        }
    }
    // A short or failed write still counts against the budget.
    [[maybe_unused]] const ssize_t written = write(pst->fd, pstStream, static_cast<std::size_t>(frame_size));
    pst->write_size += static_cast<UTIL_U64>(frame_size);
}

bool file_exists(const UTIL_CHAR* path) noexcept { return path != nullptr && access(path, F_OK) == 0; }

void Func_h26x_base_fw_save_stream_byFlag(UTIL_CHAR* pstStream, UTIL_S32 frame_size,
                                          util_h26xBaseSaveStreamToFileByFlag_t* pst) noexcept {
    if (pst == nullptr) {
        return;
    }
    const bool started = file_exists(pst->startFileFlag);
    if (file_exists(pst->endFileFlag)) {
        // The stop flag ends a recording and consumes both flags.
        std::remove(pst->endFileFlag);
        if (started) std::remove(pst->startFileFlag);
        if (pst->save.fp != nullptr) {
            std::fclose(pst->save.fp);
            pst->save.fp = nullptr;
        }
        return;
    }
    if (started) {
        Func_h26x_base_fw_save_stream_bySize(pstStream, frame_size, &pst->save);
    }
}

}  // namespace

util_ops_h26x_base_fun_t util_ops_h26x_base_fun = {
    Func_h26x_base_readBitsToU32,
    Func_V1_get_h26x_frame_buf_info_function,
    Func_V2_init_list_h26x_frame_buf_info_function,
    Func_V2_exit_list_h26x_frame_buf_info_function,
    Func_V3_init_link_h26x_frame_buf_info_function,
    Func_V3_exit_link_h26x_frame_buf_info_function,
    Func_h26x_base_fw_save_stream_bySize,
    Func_h26x_base_w_save_stream_bySize,
    Func_h26x_base_fw_save_stream_byFlag,
};
