// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

namespace synthetic {

// Camera pose of one picture.
struct PathPoint {
    double x = 0;      // pixels, right
    double y = 0;      // pixels, down
    double angle = 0;  // radians
};

// Shake of a path: root mean squares over its frames without the first and last half second, where
// smoothing and high passes have neighbours on one side only.
struct Shake {
    double jitter = 0;    // position above 0.6 Hz, pixels
    double rotation = 0;  // angle above 0.6 Hz, radians
    double fast = 0;      // position above 1.9 Hz, pixels
    double shake = 0;     // second difference of the position, pixels
};

// The high passes subtract a Gaussian mean that halves the amplitude at the stated frequency; beyond
// its ends the path is continued by point reflection. All values are NaN for paths shorter than 1.5
// seconds.
Shake shake_of(const std::vector<PathPoint>& path, double frames_per_second);

// Reduction from `shaky` to `steady`, each value in decibels; infinite where nothing is left.
Shake reduction_db(const Shake& shaky, const Shake& steady);

}  // namespace synthetic
