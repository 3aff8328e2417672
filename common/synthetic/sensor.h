// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "common/synthetic/camera_path.h"
#include "common/video_io/y4m.h"

namespace synthetic {

// What the light, the sensor and the encoder do to the pictures of a clip.
struct SensorSettings {
    double brightness = 1;     // of the light, factor; below 1: darker
    double contrast = 1;       // about a middle grey, factor
    double haze = 0;           // 0..1: share of a bright veil
    double exposure = 0;       // 0..1: exposure changes by this share, in waves and in steps
    double white_balance = 0;  // grey levels by which the colours change, likewise
    double flicker = 0;        // 0..1: share of the light that comes from lamps which flicker
    double lamp_hertz = 100;   // twice the frequency of the mains
    double shot_noise = 0;     // standard deviation at white, grey levels; goes with sqrt(light)
    double compression = 0;    // step of the quantiser of 8x8 blocks, grey levels
};

// When the lines of a picture are exposed.
struct ShutterSettings {
    double exposure =
        0;  // 0..1: share of the frame interval; the pictures blur by the motion in it
    // -1..1: share of the frame interval from the first row to the last; below 0 from the last to
    // the first. Frame n is at time n in the middle of the exposure of its middle row, half-way
    // between the first and the last.
    double readout = 0;
    bool by_columns = false;  // columns in place of rows, as in turned pictures

    // Time of line i of n (from 0, also between lines) relative to the frame, in frame intervals.
    double line_time(double i, int n) const { return readout * (i - 0.5 * (n - 1)) / n; }
};

// Threads: thread-safe.
class Sensor {
  public:
    // `noise` is the standard deviation of noise that is the same at every level, grey levels.
    Sensor(const SensorSettings& settings, const ShutterSettings& shutter,
           const CameraSettings& camera, double noise);

    // Light, colours.
    void expose(int frame, const video_io::Planes& planes) const;
    // Noise.
    void read(int frame, const video_io::Planes& planes) const;
    // Encoding and decoding.
    void compress(const video_io::Planes& planes) const;

  private:
    struct Gain {
        int factor, offset;  // 16 fractional bits
    };
    Gain gain_at(int frame, double offset) const;
    double lamp_light(double seconds) const;

    SensorSettings settings_;
    ShutterSettings shutter_;
    CameraSettings camera_;
    std::vector<std::int8_t> noise_;    // grey levels
    std::vector<std::int16_t> normal_;  // standard deviation 256
    std::vector<int> shot_;             // standard deviation by grey level, 8 fractional bits
};

}  // namespace synthetic
