// SPDX-License-Identifier: Apache-2.0

#include "sound.h"

#include "settings.h"

namespace obs_videostabilizer {

namespace {

// The source whose offset is as it was set here, with a reference, or null.
obs_source_t* delayed_source(obs_data_t* settings) {
    const char* const name = obs_data_get_string(settings, setting::OFFSET_SOUND);
    obs_source_t* const source = *name != '\0' ? obs_get_source_by_name(name) : nullptr;
    if (source != nullptr &&
        obs_source_get_sync_offset(source) == obs_data_get_int(settings, setting::OFFSET_SET)) {
        return source;
    }
    obs_source_release(source);
    return nullptr;
}

}  // namespace

bool is_sound_delayed(obs_data_t* settings) {
    obs_source_t* const source = delayed_source(settings);
    obs_source_release(source);
    return source != nullptr;
}

void delay_sound(obs_data_t* settings, std::int64_t delay) {
    take_delay_back(settings);
    const char* const name = obs_data_get_string(settings, setting::SOUND);
    obs_source_t* const source = *name != '\0' ? obs_get_source_by_name(name) : nullptr;
    if (source == nullptr) return;
    const std::int64_t before = obs_source_get_sync_offset(source);
    obs_source_set_sync_offset(source, before + delay);
    obs_data_set_string(settings, setting::OFFSET_SOUND, name);
    obs_data_set_int(settings, setting::OFFSET_BEFORE, before);
    obs_data_set_int(settings, setting::OFFSET_SET, before + delay);
    obs_source_release(source);
}

void take_delay_back(obs_data_t* settings) {
    obs_source_t* const source = delayed_source(settings);
    if (source != nullptr) {
        obs_source_set_sync_offset(source, obs_data_get_int(settings, setting::OFFSET_BEFORE));
    }
    obs_source_release(source);
    obs_data_set_string(settings, setting::OFFSET_SOUND, "");
}

}  // namespace obs_videostabilizer
