// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/stabilizer.h"

namespace videostabilizer {

// What may change in a running stream, and what its worker takes over between two frames.
struct LiveSettings {
    float sigma;        // frames, above 0
    float crop_ratio;   // with edge_guard only
    float crop_least;   // with auto_crop only
    float crop_most;    //
    double crop_speed;  // see PathChange
    float readout;      // with shutter rows or columns only
};

// Takes the place of what was offered before and not yet taken over. Throws std::bad_alloc.
// Threads: thread-safe.
inline void offer_settings(VideoStabilizer* stabilizer, const LiveSettings& settings) {
    delete stabilizer->next_settings.exchange(new LiveSettings(settings));
}

}  // namespace videostabilizer
