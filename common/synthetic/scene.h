// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "common/synthetic/actors.h"
#include "common/synthetic/camera_path.h"
#include "common/synthetic/sampling.h"
#include "common/synthetic/sensor.h"
#include "common/synthetic/town.h"
#include "common/video_io/y4m.h"

namespace synthetic {

struct ClipSettings {
    CameraSettings camera;
    double noise = 0;  // sensor noise, standard deviation in grey levels
    // Width of an object that moves to and fro in the foreground, as high as the picture; share of
    // the picture's width, 0..1.
    double foreground = 0;
    Scenery scenery = Scenery::TOWN;
    double scene_contrast = 1;  // of the scenery, not of what stands before it; factor, 0..1
    ShutterSettings shutter;
    ActorSettings actors;
    SensorSettings sensor;
};

// A shaky clip of any length, rendered frame by frame, whose true camera motion is known. The same
// settings give the same bytes on every machine.
//
// With a rolling shutter or motion blur every line shows the scene, and what stands in it, at the
// moments of its own exposure along the continuous path.
//
// Threads: thread-safe.
class ShakyClip {
  public:
    // Upper limits of the settings.
    static constexpr int LARGEST_SIDE = 8192;  // pixels
    static constexpr double STRONGEST_SHAKE = 30;
    static constexpr double WIDEST_PAN = 4;
    static constexpr double WIDEST_WHIP = 2;
    static constexpr double STRONGEST_ROLL = 0.8;  // radians

    // Any size from 1 up, also odd.
    explicit ShakyClip(const ClipSettings& settings);

    int width() const { return settings_.camera.width; }
    int height() const { return settings_.camera.height; }
    const CameraPath& path() const { return path_; }

    // Draws picture `frame` (from 0): width x height luma, half size (rounded up) chroma.
    void render(int frame, const video_io::Planes& planes) const;

    // The true pose of a frame: that of its middle line, the mean over the exposure, which is where
    // a blurred picture seems to be taken from. Line i of n is taken at the pose of
    // frame + ShutterSettings::line_time(i, n).
    Pose pose(double frame) const;

    // The true motion between these poses, maps positions in frame `from` to frame `to`, in pixels.
    Affine motion(int from, int to) const;

  private:
    // What a line of the picture sees.
    struct Moment {
        Affine view;              // from the picture to the painting
        int left = 0, right = 0;  // columns of the object in the foreground
        Affine moved;             // from these columns to the painting
        Actors::Moment actors;
    };

    Moment moment_at(double frame) const;
    int sub_frames(int frame) const;
    void draw_at(double frame, const video_io::Planes& planes) const;
    void draw_line(int plane, const Moment& moment, const video_io::Planes& planes, int i) const;

    ClipSettings settings_;
    CameraPath path_;
    Painting painting_;
    Actors actors_;
    Sensor sensor_;
};

}  // namespace synthetic
