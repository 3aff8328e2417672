// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <obs-module.h>

#include "steadier.h"

namespace obs_videostabilizer {

// What the dialog of the filter shows. `filter` is OBS's source of it; both stay as long as the dialog.
struct Shown {
    Steadier* steadier;
    obs_source_t* filter;
};
obs_properties_t* make_properties(Shown* shown);

}  // namespace obs_videostabilizer
