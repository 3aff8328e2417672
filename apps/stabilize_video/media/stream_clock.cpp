// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/media/stream_clock.h"

#include <algorithm>

namespace apps {

namespace {

// A gap as long as this is one: of a signal that was lost for a while.
constexpr std::int64_t LONGEST_GAP_US = 10 * std::int64_t{AV_TIME_BASE};
constexpr std::int64_t DISORDER_US = AV_TIME_BASE / 10;

bool follows(std::int64_t time, std::int64_t last) {
    return time > last - DISORDER_US && time < last + LONGEST_GAP_US;
}

}  // namespace

StreamClock::StreamClock(const AVFormatContext& container)
    : container_(container), jumps_((container.iformat->flags & AVFMT_TS_DISCONT) != 0) {}

// The clock by which `time` follows the packets so far; the number of clocks if there is none.
std::size_t StreamClock::clock_of(const Track& track, std::int64_t time) const {
    if (track.begun && follows(time, track.last)) {
        return track.clock;
    }
    const std::size_t next = track.begun ? track.clock + 1 : offsets_.size() - 1;
    const std::int64_t last = track.begun ? track.last + offsets_[track.clock] : end_;
    for (std::size_t clock = next; clock < offsets_.size(); ++clock) {
        const std::int64_t moved = time + offsets_[clock];
        // Streams of a recording need not begin at the same time.
        if (moved > last - LONGEST_GAP_US && moved < last + LONGEST_GAP_US) {
            return clock;
        }
    }
    return offsets_.size();
}

void StreamClock::correct(AVPacket& packet) {
    const std::int64_t ticks = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    if (!jumps_ || ticks == AV_NOPTS_VALUE) {
        return;
    }
    const auto index = static_cast<std::size_t>(packet.stream_index);
    const AVStream& stream = *container_.streams[index];
    if (tracks_.size() <= index) {
        tracks_.resize(index + 1);
    }
    Track& track = tracks_[index];
    const std::int64_t time = av_rescale_q(ticks, stream.time_base, MICROSECONDS);
    const std::int64_t shown = packet.pts == AV_NOPTS_VALUE
                                   ? time
                                   : av_rescale_q(packet.pts, stream.time_base, MICROSECONDS);
    const AVMediaType type = stream.codecpar->codec_type;
    // Others are sparse, so their own times tell nothing.
    if (type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO) {
        track.clock = offsets_.size() - 1;
    } else {
        track.clock = begun_ ? clock_of(track, time) : 0;
        if (track.clock == offsets_.size()) {
            offsets_.push_back(end_ - shown);
        }
        track.begun = begun_ = true;
        track.last = time;
    }
    const std::int64_t offset_us = offsets_[track.clock];
    const std::int64_t offset = av_rescale_q(offset_us, MICROSECONDS, stream.time_base);
    if (packet.pts != AV_NOPTS_VALUE) {
        packet.pts += offset;
    }
    if (packet.dts != AV_NOPTS_VALUE) {
        packet.dts += offset;
    }
    if (track.begun) {
        const std::int64_t duration = av_rescale_q(std::max<std::int64_t>(packet.duration, 0),
                                                   stream.time_base, MICROSECONDS);
        end_ = std::max(end_, shown + duration + offset_us);
    }
}

}  // namespace apps
