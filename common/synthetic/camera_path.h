// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

// A synthetic hand-held camera whose true motion is known.

namespace synthetic {

// Where a camera looks. A picture position p (pixels, x right, y down, (0, 0) the centre of the
// top-left pixel) shows the scene position
//
//     (x, y) + R(angle) * (p - centre) / zoom        R(angle) = [[cos, -sin], [sin, cos]]
//
// with the point (width / 2, height / 2) as centre, half a pixel from the middle between the
// outermost pixels. This is part of the definition of the clips; motions do not depend on it.
struct Pose {
    double x = 0;      // scene position at the picture centre, pixels at zoom 1
    double y = 0;      //
    double angle = 0;  // radians; positive: camera clockwise, picture counterclockwise
    double zoom = 1;   // above 1: closer
};

// (x, y) -> (a x + b y + c, d x + e y + f), in pixels.
struct Affine {
    double a = 1, b = 0, c = 0;
    double d = 0, e = 1, f = 0;

    double map_x(double x, double y) const { return a * x + b * y + c; }
    double map_y(double x, double y) const { return d * x + e * y + f; }
};

// Maps picture positions to scene positions.
Affine picture_to_scene(const Pose& pose, int width, int height);

// The motion of the picture between two poses, which a motion estimator should find: maps positions
// in the picture of `from` to the picture of `to`.
Affine true_motion(const Pose& from, const Pose& to, int width, int height);

struct CameraSettings {
    int width = 1280;         // picture size, pixels; amplitudes are proportional to it
    int height = 720;         //
    double fps = 30;          // frames per second, above 0
    double pan = 1;           // strength of the intended movement; 0: none
    double shake = 1;         // strength of the shake; 0: none
    double hold_seconds = 0;  // the camera stands still for this long before it moves
    double roll = 0;          // amplitude of an intended rotation, radians
    double zoom_swing = 0;    // amplitude of an intended zoom, relative, below 1
    std::uint64_t seed = 1;   // of the shake
    double shake_roll = 1;    // strength of the shake's rotation, relative to that of the rest
    double pan_speed = 1;     // of the intended movement, relative; above 0
    // Every two seconds the camera is whipped round by this many picture widths within 0.3 seconds,
    // to the right and back in turn; part of the intended movement. 0: never.
    double whip = 0;
};

// A slow periodic pan, which stays within a known area however long the clip is, optionally with
// rotation and zoom; and hand shake: sinusoids between 1 and 12 Hz in position, angle and zoom, with
// amplitudes inversely proportional to the frequency.
// Threads: thread-safe.
class CameraPath {
  public:
    explicit CameraPath(const CameraSettings& settings);

    // Between frames, too: both paths are continuous.
    Pose steady(double frame) const;  // the intended path, without shake
    Pose shaky(double frame) const;   // the actual path

    // Half the size of the scene area that pictures of this path can show, pixels.
    double reach_x() const;
    double reach_y() const;

  private:
    struct Wave {
        double hertz;
        double turns;  // phase at time 0
        double amplitude;
    };
    using Waves = std::vector<Wave>;

    static Waves make_waves(double rms, std::uint64_t seed);
    static double sum_at(const Waves& waves, double seconds);
    static double bound(const Waves& waves);

    CameraSettings settings_;
    Waves x_, y_, angle_, zoom_;
};

}  // namespace synthetic
