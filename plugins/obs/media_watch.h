// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <obs-module.h>

#include <cstdint>
#include <mutex>

#include "steadier.h"

namespace obs_videostabilizer {

// Notices what a media source does that its frames do not tell: jumps, whose times go on without a
// break, and pauses.
class MediaWatch {
  public:
    explicit MediaWatch(Steadier& steadier) : steadier_(steadier) {}

    // Once for each picture of OBS.
    void tick();
    // After the steadier is detached from it.
    void forget(obs_source_t* source);

  private:
    bool has_jumped(obs_source_t* source);

    Steadier& steadier_;
    std::mutex mutex_;  // guards the following; taken before OBS's locks
    obs_source_t* watched_ = nullptr;
    std::int64_t last_place_ = -1;  // milliseconds; negative: not known
    std::int64_t last_time_ = 0;    // nanoseconds
};

}  // namespace obs_videostabilizer
