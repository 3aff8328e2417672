#pragma once

#include <vector>

namespace apps {

// Where the camera of one picture looks.
struct PathPoint {
    double x = 0;      // pixels, right
    double y = 0;      // pixels, down
    double angle = 0;  // radians
};

// How much a path shakes, root mean squares over its frames. Half a second at either end is left
// out: there the smoothing has neighbours on one side only, and the high passes have none.
struct Shake {
    double jitter = 0;    // of the position above 0.6 Hz, pixels
    double rotation = 0;  // of the angle above 0.6 Hz, radians
    double fast = 0;      // of the position above 1.9 Hz, pixels
    double shake = 0;     // of the change of the position's speed from frame to frame, pixels
};

// The high passes take away what a Gaussian lets through that halves the amplitude at the stated
// frequency; beyond the ends the path is continued by its reflection in its end point. Paths of
// less than a second and a half have no values: all are NaN.
Shake shake_of(const std::vector<PathPoint>& path, double frames_per_second);

// By how much less `steady` shakes, each value in decibels: 20 is a tenth. Infinite where nothing is
// left.
Shake reduction_db(const Shake& shaky, const Shake& steady);

}  // namespace apps
