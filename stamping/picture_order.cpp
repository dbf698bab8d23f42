#include "picture_order.h"

#include <algorithm>

#include "h26x/nal.h"

namespace tcstamp {

namespace nal = quillane::nal;

namespace {

// Without a reorder window in the stream, as many pictures as a decoded
// picture buffer can hold.
constexpr int kMaxReorder = 16;

bool h265_rasl(int type) { return type == 8 || type == 9; }
bool h265_radl_or_rasl(int type) { return type >= 6 && type <= 9; }
// Sub-layer non-reference pictures: the even types up to 14.
bool h265_sub_layer_non_reference(int type) { return type <= 14 && type % 2 == 0; }

bool random_access_type(Codec codec, int type) {
    return codec == Codec::h264 ? nal::h264::is_random_access_type(type) : nal::h265::is_random_access_type(type);
}

// An end of sequence or of stream closes its access unit, behind the
// picture: its last bytes show it without a walk through the slice data.
bool ends_with_end_of_sequence(std::span<const std::uint8_t> au, Codec codec) {
    std::size_t end = au.size();
    while (end > 0 && au[end - 1] == 0) --end;
    const std::size_t header = codec == Codec::h264 ? 1 : 2;
    if (end < 3 + header || au[end - header - 1] != 1 || au[end - header - 2] != 0 || au[end - header - 3] != 0) {
        return false;
    }
    const std::uint8_t b0 = au[end - header];
    return codec == Codec::h264 ? nal::h264::ends_sequence(nal::h264::type(b0))
                                : nal::h265::ends_sequence(nal::h265::type(b0));
}

template <typename T>
const T* stored(const std::optional<T>* slot) {
    return slot != nullptr && *slot ? &**slot : nullptr;
}

}  // namespace

bool PictureOrder::fail(std::string why) {
    if (!failed_) error_ = std::move(why);
    failed_ = true;
    return false;
}

void PictureOrder::learn_parameter_sets(OrderedUnit& u) {
    for (std::size_t k = 0; k < u.nals.size(); ++k) {
        const Nal& n = u.nals[k];
        const std::span<const std::uint8_t> nal(u.au.data() + n.offset, n.size);
        if (n.vcl) {
            u.has_picture = true;
            u.picture = k;
            return;
        }
        if (*codec_ == Codec::h264) {
            if (n.type == nal::h264::kSps) {
                if (auto s = parse_h264_sps(nal)) h264_sps_[static_cast<std::size_t>(s->seq_parameter_set_id)] = *s;
            } else if (n.type == nal::h264::kPps) {
                if (auto p = parse_h264_pps(nal)) h264_pps_[static_cast<std::size_t>(p->pic_parameter_set_id)] = *p;
            }
        } else if (n.type == nal::h265::kSps) {
            if (auto s = parse_h265_sps(nal)) h265_sps_[static_cast<std::size_t>(s->sps_seq_parameter_set_id)] = *s;
        } else if (n.type == nal::h265::kPps) {
            if (auto p = parse_h265_pps(nal)) h265_pps_[static_cast<std::size_t>(p->pps_pic_parameter_set_id)] = *p;
        }
    }
}

// PicOrderCntMsb from the previous reference picture's, as both standards
// derive it.
std::int64_t PictureOrder::poc_msb(std::int64_t lsb, int log2_max_lsb) const {
    const std::int64_t max = std::int64_t{1} << log2_max_lsb;
    if (lsb < prev_poc_lsb_ && prev_poc_lsb_ - lsb >= max / 2) return prev_poc_msb_ + max;
    if (lsb > prev_poc_lsb_ && lsb - prev_poc_lsb_ > max / 2) return prev_poc_msb_ - max;
    return prev_poc_msb_;
}

bool PictureOrder::order_h264(OrderedUnit& u, bool& new_sequence) {
    const Nal& pic = u.nals[u.picture];
    const std::span<const std::uint8_t> nal(u.au.data() + pic.offset, pic.size);
    const std::optional<int> pps_id = h264_slice_pps_id(nal);
    const H264Pps* pps = pps_id ? stored(&h264_pps_[static_cast<std::size_t>(*pps_id)]) : nullptr;
    const H264Sps* sps = pps ? stored(&h264_sps_[static_cast<std::size_t>(pps->seq_parameter_set_id)]) : nullptr;
    const std::optional<H264SliceHeader> h = sps ? parse_h264_slice_header(nal, *pps, *sps) : std::nullopt;
    if (!h) return true;  // cannot be decoded: not readable, not shown
    if (sps->pic_order_cnt_type == 1) {
        return fail("pictures with pic_order_cnt_type 1 cannot be put in display order; encode with "
                    "pic_order_cnt_type 0 or 2");
    }
    if (h->field_pic_flag) {
        return fail("the stream codes fields as separate pictures, which cannot be stamped; encode interlaced "
                    "video as frames (MBAFF, as x264 --tff/--bff does)");
    }
    u.readable = true;
    u.h264 = sps;
    u.intra = h->intra();
    u.picture_type = h->intra() ? 'I' : h->slice_type % 5 == 1 ? 'B' : 'P';
    new_sequence = h->idr;
    if (new_sequence || after_end_of_sequence_) {
        prev_poc_msb_ = 0;
        prev_poc_lsb_ = 0;
        decode_count_ = 0;
    }
    if (sps->pic_order_cnt_type == 0) {
        const std::int64_t lsb = h->pic_order_cnt_lsb;
        const std::int64_t msb = poc_msb(lsb, sps->log2_max_pic_order_cnt_lsb);
        const std::int64_t top = msb + lsb;
        u.poc = std::min(top, top + h->delta_pic_order_cnt_bottom);
        if (h->nal_ref_idc != 0) {
            prev_poc_msb_ = msb;
            prev_poc_lsb_ = lsb;
        }
    } else {
        u.poc = decode_count_++;
    }
    u.shown = true;
    if (!window_) {
        window_ = sps->pic_order_cnt_type == 2       ? 0
                  : sps->max_num_reorder_frames >= 0 ? sps->max_num_reorder_frames
                                                     : kMaxReorder;
    }
    return true;
}

bool PictureOrder::order_h265(OrderedUnit& u, bool& new_sequence) {
    const Nal& pic = u.nals[u.picture];
    const std::span<const std::uint8_t> nal(u.au.data() + pic.offset, pic.size);
    const std::optional<int> pps_id = h265_slice_pps_id(nal);
    const H265Pps* pps = pps_id ? stored(&h265_pps_[static_cast<std::size_t>(*pps_id)]) : nullptr;
    const H265Sps* sps = pps ? stored(&h265_sps_[static_cast<std::size_t>(pps->pps_seq_parameter_set_id)]) : nullptr;
    const std::optional<H265SliceHeader> h = sps ? parse_h265_slice_header(nal, *pps, *sps) : std::nullopt;
    if (!h) return true;
    if (sps->field_seq_flag) {
        return fail("the stream codes fields as separate pictures (field_seq_flag), which cannot be stamped");
    }
    u.readable = true;
    u.h265 = sps;
    const int type = h->nal_unit_type;
    const bool irap = nal::h265::is_irap(type);
    // An IDR or BLA picture, or a CRA that begins the stream or follows an
    // end of sequence, starts over: its leading RASL pictures refer to
    // pictures the decoder never had, and are not shown.
    const bool no_rasl_output = irap && (type <= 20 || first_picture_ || after_end_of_sequence_);
    new_sequence = no_rasl_output;
    u.intra = irap;
    u.picture_type = h->slice_type == 2 ? 'I' : h->slice_type == 1 ? 'P' : 'B';
    if (irap) skip_rasl_ = no_rasl_output;
    const std::int64_t lsb = h->slice_pic_order_cnt_lsb;
    const std::int64_t msb = no_rasl_output ? 0 : poc_msb(lsb, sps->log2_max_pic_order_cnt_lsb);
    u.poc = msb + lsb;
    if (h->temporal_id == 0 && !h265_radl_or_rasl(type) && !h265_sub_layer_non_reference(type)) {
        prev_poc_msb_ = msb;
        prev_poc_lsb_ = lsb;
    }
    u.shown = h->pic_output_flag && !(h265_rasl(type) && skip_rasl_);
    if (!window_) window_ = sps->sps_max_num_reorder_pics;
    return true;
}

bool PictureOrder::analyse(OrderedUnit& u, std::vector<OrderedUnit*>& shown) {
    if (failed_) return false;
    if (!codec_) {
        split_nal_units(u.au, Codec::h264, u.nals, true);
        codec_ = codec_of(u.au, u.nals);
        if (!codec_ && !u.nals.empty()) {
            return fail("the stream begins with no parameter set, delimiter or SEI unit that tells H.264 from "
                        "H.265: give the codec");
        }
        if (!codec_) return true;  // nothing but bytes before the first unit
    }
    // Slice data is never walked: what ordering needs comes before it.
    split_nal_units(u.au, *codec_, u.nals, true);
    learn_parameter_sets(u);
    const bool ends_sequence = ends_with_end_of_sequence(u.au, *codec_);
    if (u.has_picture) {
        bool new_sequence = false;
        if (!(*codec_ == Codec::h264 ? order_h264(u, new_sequence) : order_h265(u, new_sequence))) return false;
        if (u.readable) {
            first_picture_ = false;
            after_end_of_sequence_ = false;
            u.random_access_units =
                std::any_of(u.nals.begin(), u.nals.begin() + static_cast<std::ptrdiff_t>(u.picture) + 1,
                            [&](const Nal& n) { return random_access_type(*codec_, n.type); });
        }
        if (new_sequence) {
            // A new picture order count: everything before it is shown first.
            while (!waiting_.empty()) {
                if (!show_next(shown)) return false;
            }
            last_shown_poc_.reset();
        }
    }
    after_end_of_sequence_ = after_end_of_sequence_ || ends_sequence;
    return true;
}

bool PictureOrder::place(OrderedUnit& u, std::vector<OrderedUnit*>& shown) {
    if (failed_) return false;
    waiting_.push_back(&u);
    while (waiting_.size() > static_cast<std::size_t>(window_.value_or(0))) {
        if (!show_next(shown)) return false;
    }
    return true;
}

bool PictureOrder::flush(std::vector<OrderedUnit*>& shown) {
    while (!failed_ && !waiting_.empty()) {
        if (!show_next(shown)) return false;
    }
    return !failed_;
}

// Once more pictures wait than the window holds, the one with the lowest
// picture order count is next on screen.
bool PictureOrder::show_next(std::vector<OrderedUnit*>& shown) {
    const auto next = std::ranges::min_element(waiting_, {}, [](const OrderedUnit* w) { return w->poc; });
    OrderedUnit* u = *next;
    waiting_.erase(next);
    if (last_shown_poc_ && u->poc <= *last_shown_poc_) {
        return fail("the stream reorders pictures further than its reorder window of " +
                    std::to_string(window_.value_or(0)) + " pictures allows, so display order cannot be known");
    }
    last_shown_poc_ = u->poc;
    shown.push_back(u);
    return true;
}

}  // namespace tcstamp
