// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <obs-module.h>

#include <cstdint>

namespace obs_videostabilizer {

// The sync offset of a source with sound, which is named in the filter's settings: delays its sound as
// the pictures are delayed, and remembers what the offset was. All on OBS's user-interface thread.

// Whether the offset is still as it was set here.
bool is_sound_delayed(obs_data_t* settings);
// Adds `delay` nanoseconds to the offset of the source that setting::SOUND names.
void delay_sound(obs_data_t* settings, std::int64_t delay);
// Sets the offset to what it was, if nobody has changed it since.
void take_delay_back(obs_data_t* settings);

}  // namespace obs_videostabilizer
