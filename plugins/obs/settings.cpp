// SPDX-License-Identifier: Apache-2.0

#include "settings.h"

#include <algorithm>

#include "formats.h"

namespace obs_videostabilizer {

namespace {

constexpr int LEAST_CROP = 50;
constexpr int MOST_CROP = 100;

int integer(obs_data_t* data, const char* name, int least, int most) {
    return static_cast<int>(std::clamp<long long>(obs_data_get_int(data, name), least, most));
}

}  // namespace

bool Settings::is_same_stream(const Settings& other) const {
    return strength == other.strength && auto_crop == other.auto_crop &&
           (auto_crop || crop == other.crop) && shutter == other.shutter &&
           look_ahead == other.look_ahead && engine == other.engine;
}

bool Settings::is_within_change(const Settings& other) const {
    return auto_crop == other.auto_crop && shutter == other.shutter && engine == other.engine &&
           strength != VIDEOSTABILIZER_GENTLE && other.strength != VIDEOSTABILIZER_GENTLE &&
           look_ahead_of(*this) == look_ahead_of(other);
}

void set_defaults(obs_data_t* data) {
    const Settings defaults;
    obs_data_set_default_int(data, setting::STRENGTH, defaults.strength);
    obs_data_set_default_bool(data, setting::AUTO_CROP, defaults.auto_crop);
    obs_data_set_default_int(data, setting::CROP, defaults.crop);
    obs_data_set_default_bool(data, setting::SHUTTER, defaults.shutter);
    obs_data_set_default_int(data, setting::LOOK_AHEAD, defaults.look_ahead);
    obs_data_set_default_int(data, setting::ENGINE, defaults.engine);
    obs_data_set_default_bool(data, setting::HALVES, defaults.halves);
}

Settings read_settings(obs_data_t* data) {
    Settings settings;
    settings.strength =
        integer(data, setting::STRENGTH, VIDEOSTABILIZER_GENTLE, VIDEOSTABILIZER_MAXIMUM);
    // Gentle guards no edges, which both of these need.
    const bool guards = settings.strength != VIDEOSTABILIZER_GENTLE;
    settings.auto_crop = guards && obs_data_get_bool(data, setting::AUTO_CROP);
    settings.crop = integer(data, setting::CROP, LEAST_CROP, MOST_CROP);
    settings.shutter = guards && obs_data_get_bool(data, setting::SHUTTER);
    settings.look_ahead = integer(data, setting::LOOK_AHEAD, 0, MOST_LOOK_AHEAD);
    settings.engine =
        integer(data, setting::ENGINE, VIDEOSTABILIZER_ENGINE_OPENCL, VIDEOSTABILIZER_ENGINE_AUTO);
    settings.halves = obs_data_get_bool(data, setting::HALVES);
    return settings;
}

VideoStabilizerStreamOptions stream_options(const Settings& settings, const obs_source_frame& frame,
                                            double frame_rate) {
    VideoStabilizerStreamOptions options;
    videostabilizer_stream_options_init(&options, sizeof options, settings.strength);
    options.width = static_cast<int>(frame.width);
    options.height = static_cast<int>(frame.height);
    options.format = stream_format(frame.format);
    options.frame_rate = frame_rate;
    options.look_ahead = look_ahead_of(settings);
    if (settings.auto_crop) {
        options.auto_crop = 1;
    } else {
        options.crop_ratio = static_cast<float>(settings.crop) / 100.0F;
    }
    options.shutter = settings.shutter ? VIDEOSTABILIZER_SHUTTER_AUTO : VIDEOSTABILIZER_SHUTTER_OFF;
    options.engine = settings.engine;
    return options;
}

int look_ahead_of(const Settings& settings) {
    if (settings.look_ahead > 0) return settings.look_ahead;
    VideoStabilizerStreamOptions options;
    videostabilizer_stream_options_init(&options, sizeof options, settings.strength);
    return options.look_ahead;
}

}  // namespace obs_videostabilizer
