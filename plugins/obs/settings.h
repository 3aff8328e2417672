// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <obs-module.h>

#include "videostabilizer/stream.h"

namespace obs_videostabilizer {

// Names of the settings, as they are saved.
namespace setting {
constexpr auto STRENGTH = "strength";
constexpr auto AUTO_CROP = "auto_crop";
constexpr auto CROP = "crop";  // per cent
constexpr auto SHUTTER = "rolling_shutter";
constexpr auto LOOK_AHEAD = "look_ahead";
constexpr auto ENGINE = "engine";
constexpr auto HALVES = "halves";
constexpr auto SOUND = "sound";                // name of the source whose sound is delayed; "": own
constexpr auto OFFSET_SOUND = "offset_sound";  // as SOUND, of the source whose offset was set
constexpr auto OFFSET_SET = "offset_set";      // nanoseconds: what it was set to
constexpr auto OFFSET_BEFORE = "offset_before";  // nanoseconds: what it was before
}  // namespace setting

constexpr int MOST_LOOK_AHEAD = 60;

// What pictures depend on.
struct Settings {
    int strength = VIDEOSTABILIZER_STANDARD;
    bool auto_crop = false;
    int crop = 90;  // per cent of the width and height that are shown
    bool shutter = true;
    int look_ahead = 0;  // pictures; 0: that of the strength
    int engine = VIDEOSTABILIZER_ENGINE_NATIVE;
    bool halves = false;  // only the right half is steady

    // Whether a stream of the one is as good for the other.
    bool is_same_stream(const Settings& other) const;
    // Whether a stream of the one can become one of the other while it runs.
    bool is_within_change(const Settings& other) const;
};

void set_defaults(obs_data_t* data);
Settings read_settings(obs_data_t* data);

// Options of a stream of such frames, but for callbacks.
VideoStabilizerStreamOptions stream_options(const Settings& settings, const obs_source_frame& frame,
                                            double frame_rate);

// Pictures of look-ahead.
int look_ahead_of(const Settings& settings);

}  // namespace obs_videostabilizer
