// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "apps/stabilize_video/pictures/ffmpeg.h"

namespace apps {

// Makes one continuous clock of that of a broadcast, which jumps where recordings were joined or the
// sender was started anew. Of other containers the time stamps stay what they are.
//
// At a jump the packets of different streams are mixed, so each stream goes over to the next clock by
// itself. Threads: owner only.
class StreamClock {
  public:
    explicit StreamClock(const AVFormatContext& container);

    // Moves the packet's time stamps.
    void correct(AVPacket& packet);

  private:
    struct Track {
        bool begun = false;
        std::size_t clock = 0;  // index into offsets_
        std::int64_t last = 0;  // latest time as the container has it, microseconds
    };
    std::size_t clock_of(const Track& track, std::int64_t time) const;

    const AVFormatContext& container_;
    bool jumps_;
    std::vector<std::int64_t> offsets_{0};  // of each clock since the start, microseconds
    std::vector<Track> tracks_;             // by stream
    std::int64_t end_ = 0;                  // of all packets so far, on the continuous clock
    bool begun_ = false;
};

}  // namespace apps
