// Puts the pictures of an H.264/H.265 stream in display order, as a
// decoder's output does: parameter sets kept by id, the picture order count
// of each picture from its slice header, and pictures held until the
// stream's reorder window says which one is shown next. The stamper and the
// time-code reader share it, so both see the same order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "annexb.h"
#include "h26x_syntax.h"

namespace tcstamp {

// One access unit as the ordering sees it; users derive their own record.
struct OrderedUnit {
    std::vector<std::uint8_t> au;
    std::vector<Nal> nals;        // up to the first slice of the picture
    bool has_picture = false;
    std::size_t picture = 0;      // index of the first slice in nals
    bool readable = false;        // its slice header and parameter sets were read
    bool shown = false;           // takes a place in display order
    bool intra = false;           // an I picture (H.264) or a random-access picture (H.265)
    bool random_access_units = false;  // carries parameter sets or is an IDR picture
    char picture_type = '?';      // 'I', 'P' or 'B' of its first slice
    std::int64_t poc = 0;
    const H264Sps* h264 = nullptr;  // the SPS its slices refer to
    const H265Sps* h265 = nullptr;
};

class PictureOrder {
public:
    // The units of `au` are split as `codec`'s, detected from the first
    // access unit when not given.
    explicit PictureOrder(std::optional<Codec> codec) : codec_(codec) {}

    // Reads one access unit, in decode order. Pictures whose place on screen
    // became known (all those held, when this one starts a new picture order
    // count) are appended to `shown`, in display order. False when the stream
    // cannot be ordered; error() says why.
    bool analyse(OrderedUnit& u, std::vector<OrderedUnit*>& shown);
    // Holds a shown picture; appends to `shown` those whose turn came.
    bool place(OrderedUnit& u, std::vector<OrderedUnit*>& shown);
    // The end of the stream: everything held, in display order.
    bool flush(std::vector<OrderedUnit*>& shown);

    const std::string& error() const { return error_; }
    std::optional<Codec> codec() const { return codec_; }
    // Pictures held at most before the first is shown; known once the first
    // readable picture was analysed.
    std::optional<int> reorder_window() const { return window_; }
    std::size_t held() const { return waiting_.size(); }

private:
    bool fail(std::string why);
    void learn_parameter_sets(OrderedUnit& u);
    bool order_h264(OrderedUnit& u, bool& new_sequence);
    bool order_h265(OrderedUnit& u, bool& new_sequence);
    bool show_next(std::vector<OrderedUnit*>& shown);
    std::int64_t poc_msb(std::int64_t lsb, int log2_max_lsb) const;

    std::optional<Codec> codec_;
    std::string error_;
    bool failed_ = false;
    std::optional<int> window_;

    std::array<std::optional<H264Sps>, 32> h264_sps_;
    std::array<std::optional<H264Pps>, 256> h264_pps_;
    std::array<std::optional<H265Sps>, 16> h265_sps_;
    std::array<std::optional<H265Pps>, 64> h265_pps_;

    // Picture order count state, as a decoder keeps it.
    std::int64_t prev_poc_msb_ = 0;
    std::int64_t prev_poc_lsb_ = 0;
    std::int64_t decode_count_ = 0;  // H.264 pic_order_cnt_type 2: display order is decode order
    bool first_picture_ = true;
    bool after_end_of_sequence_ = false;
    bool skip_rasl_ = false;
    std::vector<OrderedUnit*> waiting_;  // shown pictures not yet given their display place
    std::optional<std::int64_t> last_shown_poc_;
};

}  // namespace tcstamp
