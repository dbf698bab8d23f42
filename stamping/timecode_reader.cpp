#include "timecode_reader.h"

#include <algorithm>
#include <cstdlib>

#include "h26x/nal.h"
#include "picture_order.h"
#include "stream_stamper.h"

namespace tcstamp {

namespace {

constexpr int kH264PicTiming = 1;
constexpr int kH265TimeCode = 136;

int drop_count(int fps_x100) { return fps_x100 == 2997 ? 2 : fps_x100 == 5994 ? 4 : 0; }
int whole_rate(int fps_x100) { return (fps_x100 + 50) / 100; }

std::int64_t frames_per_day(int fps_x100) {
    const std::int64_t whole = whole_rate(fps_x100);
    return 24 * (whole * 3600 - drop_count(fps_x100) * 54);
}

// Frames since midnight of a label counted at the rate, less the counts
// drop-frame counting skips (every minute but each tenth).
std::int64_t frame_number(const TimeCode& t, int fps_x100) {
    const std::int64_t minutes = std::int64_t{t.hours} * 60 + t.minutes;
    return (minutes * 60 + t.seconds) * whole_rate(fps_x100) + t.frames -
           std::int64_t{drop_count(fps_x100)} * (minutes - minutes / 10);
}

TimeCode label_of(std::int64_t n, int fps_x100) {
    const std::int64_t whole = whole_rate(fps_x100);
    const std::int64_t d = drop_count(fps_x100);
    n %= frames_per_day(fps_x100);
    if (n < 0) n += frames_per_day(fps_x100);
    if (d > 0) {
        // Put the skipped counts back: 9 in every ten minutes, one set per
        // minute after the first of each ten.
        const std::int64_t per_ten = whole * 600 - 9 * d;
        const std::int64_t per_minute = whole * 60 - d;
        const std::int64_t tens = n / per_ten;
        const std::int64_t rest = n % per_ten;
        n += 9 * d * tens + (rest > d ? d * ((rest - d) / per_minute) : 0);
    }
    TimeCode t;
    t.frames = static_cast<int>(n % whole);
    t.seconds = static_cast<int>((n / whole) % 60);
    t.minutes = static_cast<int>((n / whole / 60) % 60);
    t.hours = static_cast<int>((n / whole / 3600) % 24);
    return t;
}

std::string rate_text(int fps_x100) {
    return std::to_string(fps_x100 / 100) + "." + (fps_x100 % 100 < 10 ? "0" : "") + std::to_string(fps_x100 % 100) +
           " fps";
}

}  // namespace

struct TimeCodeReader::Impl {
    struct Unit : OrderedUnit {
        int messages = 0;
        std::optional<ClockTimestamp> clock;
    };

    PictureOrder order;
    std::vector<std::unique_ptr<Unit>> live;  // pictures waiting for their place on screen
    std::vector<OrderedUnit*> shown;
    std::deque<FrameTimeCode> out;
    std::optional<int> fps;
    std::string error;
    std::uint64_t next_index = 0;
    std::uint64_t findings = 0;
    // The last picture with a label, and where the drift is counted from.
    std::optional<std::pair<TimeCode, std::uint64_t>> last;
    std::optional<std::pair<std::int64_t, std::uint64_t>> drift_base;
    bool drift_reported = false;
    std::optional<ClockTimestamp> previous_clock;  // for short-form timestamps

    explicit Impl(std::optional<Codec> codec) : order(codec) {}

    void read_sei(Unit& u);
    void emit(Unit& u);
    void check(FrameTimeCode& f, bool discontinuity);
    bool show() {
        for (OrderedUnit* p : shown) {
            emit(static_cast<Unit&>(*p));
            const auto it = std::ranges::find_if(live, [&](const auto& l) { return l.get() == p; });
            if (it != live.end()) live.erase(it);
        }
        shown.clear();
        return true;
    }
};

// Counts the picture's time-code messages and reads the first one's clock.
void TimeCodeReader::Impl::read_sei(Unit& u) {
    const Codec codec = *order.codec();
    const int sei_type = codec == Codec::h264 ? quillane::nal::h264::kSei : quillane::nal::h265::kPrefixSei;
    const int target = codec == Codec::h264 ? kH264PicTiming : kH265TimeCode;
    const std::size_t header = codec == Codec::h264 ? 1 : 2;
    for (std::size_t k = 0; k < u.picture; ++k) {
        const Nal& n = u.nals[k];
        if (n.type != sei_type || n.size <= header) continue;
        const std::vector<std::uint8_t> rbsp = unescape(std::span(u.au).subspan(n.offset + header, n.size - header));
        const std::optional<std::vector<SeiMessage>> messages = parse_sei_messages(rbsp);
        if (!messages) continue;
        for (const SeiMessage& m : *messages) {
            if (m.payload_type != target) continue;
            ++u.messages;
            if (u.messages > 1) continue;
            const std::span<const std::uint8_t> payload = std::span(rbsp).subspan(m.payload, m.end - m.payload);
            if (codec == Codec::h264) {
                if (const auto t = parse_h264_pic_timing(payload, *u.h264)) u.clock = t->clock;
            } else {
                u.clock = parse_h265_time_code(payload);
            }
        }
    }
}

void TimeCodeReader::Impl::emit(Unit& u) {
    FrameTimeCode f;
    f.index = next_index++;
    f.type = u.picture_type;
    f.messages = u.messages;
    f.clock = u.clock;
    if (u.clock) {
        // The short form leaves out what did not change.
        ClockTimestamp c = *u.clock;
        if (previous_clock) {
            if (!c.seconds) c.seconds = previous_clock->seconds;
            if (!c.minutes) c.minutes = previous_clock->minutes;
            if (!c.hours) c.hours = previous_clock->hours;
        }
        previous_clock = c;
        f.label = TimeCode{c.hours.value_or(0), c.minutes.value_or(0), c.seconds.value_or(0), c.n_frames};
    }
    check(f, u.clock && u.clock->discontinuity);
    findings += f.findings.size();
    out.push_back(std::move(f));
}

void TimeCodeReader::Impl::check(FrameTimeCode& f, bool discontinuity) {
    if (!f.label) {
        f.findings.push_back(f.messages == 0 ? "no time code" : "a time-code message without a clock timestamp");
        return;
    }
    if (f.messages > 1) f.findings.push_back(std::to_string(f.messages) + " time-code messages");
    if (!fps) return;  // without the stream's rate, labels cannot be checked
    const bool drop = drop_count(*fps) != 0;
    const std::string text = time_code_text(*f.label, drop);
    if (f.label->frames >= whole_rate(*fps)) {
        f.findings.push_back("frame count " + std::to_string(f.label->frames) + " beyond the rate of " +
                             rate_text(*fps));
    } else if (!label_exists(*f.label, *fps)) {
        f.findings.push_back(text + " cannot exist with drop-frame counting at " + rate_text(*fps));
    }
    const std::int64_t n = frame_number(*f.label, *fps);
    if (last) {
        const TimeCode expected =
            label_of(frame_number(last->first, *fps) + static_cast<std::int64_t>(f.index - last->second), *fps);
        if (!(*f.label == expected) && !discontinuity) {
            // A few counts ahead: labels were skipped that exist at this
            // rate (drop-frame counting where the rate does not drop, or in
            // a tenth minute). Anything else is a jump.
            const std::int64_t gap = n - frame_number(expected, *fps);
            if (gap > 0 && gap <= 4) {
                f.findings.push_back("skips " + time_code_text(expected, drop) +
                                     (gap > 1 ? " and " + std::to_string(gap - 1) + " more" : "") +
                                     ", labels that exist at " + rate_text(*fps));
            } else {
                f.findings.push_back(text + " does not follow " + time_code_text(last->first, drop) + " (expected " +
                                     time_code_text(expected, drop) + "): a discontinuity without discontinuity_flag");
            }
        }
    }
    if (!drift_base || discontinuity) {
        drift_base = {n, f.index};
        drift_reported = false;
    } else if (!drift_reported) {
        std::int64_t drift = (n - drift_base->first) - static_cast<std::int64_t>(f.index - drift_base->second);
        const std::int64_t day = frames_per_day(*fps);
        drift = ((drift % day) + day + day / 2) % day - day / 2;  // the shorter way round midnight
        if (std::llabs(drift) > 1) {
            f.findings.push_back("the time code has drifted " + std::to_string(drift) +
                                 " frames from the pictures shown since frame " + std::to_string(drift_base->second));
            drift_reported = true;
        }
    }
    last = {*f.label, f.index};
}

TimeCodeReader::TimeCodeReader(std::optional<Codec> codec) : impl_(std::make_unique<Impl>(codec)) {}
TimeCodeReader::~TimeCodeReader() = default;

bool TimeCodeReader::push(std::span<const std::uint8_t> au) {
    Impl& m = *impl_;
    auto u = std::make_unique<Impl::Unit>();
    u->au.assign(au.begin(), au.end());
    if (!m.order.analyse(*u, m.shown)) {
        m.error = m.order.error();
        return false;
    }
    m.show();
    if (!u->has_picture || !u->readable || !u->shown) return true;
    if (!m.fps) {
        const VuiTiming& t = u->h264 ? u->h264->timing : u->h265->timing;
        if (t.present && t.num_units_in_tick > 0 && t.time_scale > 0) {
            // H.264 counts ticks in fields: a frame lasts two of them.
            const std::uint64_t per = std::uint64_t{t.num_units_in_tick} * (u->h264 ? 2 : 1);
            const std::uint64_t x100 = (std::uint64_t{t.time_scale} * 100 + per / 2) / per;
            if (x100 >= 50 && x100 <= 51100) m.fps = static_cast<int>(x100);
        }
    }
    m.read_sei(*u);
    u->au = {};  // only the picture's place and time code are kept
    Impl::Unit& held = *u;
    m.live.push_back(std::move(u));
    if (!m.order.place(held, m.shown)) {
        m.error = m.order.error();
        return false;
    }
    return m.show();
}

bool TimeCodeReader::finish() {
    Impl& m = *impl_;
    if (!m.order.flush(m.shown)) {
        m.error = m.order.error();
        return false;
    }
    return m.show();
}

std::optional<FrameTimeCode> TimeCodeReader::pop() {
    if (impl_->out.empty()) return std::nullopt;
    FrameTimeCode f = std::move(impl_->out.front());
    impl_->out.pop_front();
    return f;
}

const std::string& TimeCodeReader::error() const { return impl_->error; }
std::optional<Codec> TimeCodeReader::codec() const { return impl_->order.codec(); }
std::optional<int> TimeCodeReader::fps_x100() const { return impl_->fps; }
std::uint64_t TimeCodeReader::findings() const { return impl_->findings; }

}  // namespace tcstamp
