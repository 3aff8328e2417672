// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gst/video/video.h>

#include "videostabilizer/stream.h"

namespace gst_videostabilizer {

constexpr int OF_STRENGTH = -1;  // what the strength says

// The element's properties.
struct Settings {
    int strength = VIDEOSTABILIZER_STANDARD;
    int look_ahead = 0;  // 0: that of the strength
    double crop = 0.9;   // 0: adapts to the shake
    int shutter = OF_STRENGTH;
    double readout = 0;
    int sampling = OF_STRENGTH;
    int engine = VIDEOSTABILIZER_ENGINE_AUTO;
    int threads = 0;
    bool enabled = true;

    bool operator==(const Settings& other) const;
};

// The first is 1; `stats`, which is no setting, comes after them.
enum : guint {
    PROPERTY_STRENGTH = 1,
    PROPERTY_LOOK_AHEAD,
    PROPERTY_CROP,
    PROPERTY_SHUTTER,
    PROPERTY_READOUT,
    PROPERTY_SAMPLING,
    PROPERTY_ENGINE,
    PROPERTY_THREADS,
    PROPERTY_ENABLED,
    PROPERTY_STATS
};

void install_settings(GObjectClass* object_class);
// False for a property that is no setting.
bool write_setting(Settings& settings, guint property, const GValue* value);
bool read_setting(const Settings& settings, guint property, GValue* value);

// Options of a stream of these pictures, but for callbacks.
VideoStabilizerStreamOptions stream_options(const Settings& settings, const GstVideoInfo& info);

}  // namespace gst_videostabilizer
