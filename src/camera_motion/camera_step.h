// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "motion/camera_pose.h"

namespace videostabilizer {

// A step of the camera from one picture to the next.
struct CameraStep {
    CameraPose pose;  // the default one if it was not found
    bool found = false;
    // The earlier picture has enough that can be followed, and hardly any of it is in the later one.
    bool strange = false;
    int sites = 0;     // places that could be followed
    int followed = 0;  // those seen in the later picture
    int agreeing = 0;  // those that moved with the camera
};

}  // namespace videostabilizer
