#pragma once

#include <cstdint>
#include <vector>

// A made-up hand-held camera whose true movement is known.

namespace apps {

// Where a camera looks. A picture position p (pixels, x right, y down, (0, 0) the centre of the
// top-left pixel) shows the scene position
//
//     (x, y) + R(angle) * (p - centre) / zoom        R(angle) = [[cos, -sin], [sin, cos]]
//
// with the picture centre (width / 2, height / 2), which is also the fixed point of the
// stabilizer's crop.
struct Pose {
    double x = 0;      // scene position at the picture centre, pixels at zoom 1
    double y = 0;      //
    double angle = 0;  // radians; positive turns the camera clockwise, its picture the other way
    double zoom = 1;   // above 1: closer
};

// (x, y) -> (a x + b y + c, d x + e y + f), in pixels.
struct Affine {
    double a = 1, b = 0, c = 0;
    double d = 0, e = 1, f = 0;

    double map_x(double x, double y) const { return a * x + b * y + c; }
    double map_y(double x, double y) const { return d * x + e * y + f; }
};

// From picture positions to scene positions.
Affine picture_to_scene(const Pose& pose, int width, int height);

// The motion that carries positions in the picture seen from `from` to the picture seen from `to`:
// what a motion estimator ought to find between the two pictures.
Affine true_motion(const Pose& from, const Pose& to, int width, int height);

struct CameraSettings {
    int width = 1280;         // picture size, pixels: amplitudes grow with it
    int height = 720;         //
    double fps = 30;          // frames per second, above 0
    double pan = 1;           // strength of the intended movement; 0: the camera is to stand still
    double shake = 1;         // strength of the hand's shake; 0: a perfectly steady pan
    double hold_seconds = 0;  // the camera stands quite still for so long before it sets off
    double roll = 0;          // intended turning to and fro: amplitude, radians
    double zoom_swing = 0;    // intended zooming in and out: amplitude, share of the zoom, below 1
    std::uint64_t seed = 1;   // another seed, another shake
};

// A slow pan to and fro, which never leaves a known area however long the clip is, if wished also
// turning and zooming, and on top the shake of a hand: sinusoids between 1 and 12 Hz in position, angle and zoom, whose amplitude falls
// as the frequency rises.
class CameraPath {
  public:
    explicit CameraPath(const CameraSettings& settings);

    Pose steady(int frame) const;  // the intended path, without shake
    Pose shaky(int frame) const;   // what the camera really does

    // Half the size of the area of scene positions that any picture of this path can show.
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

}  // namespace apps
