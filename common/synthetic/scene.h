// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "common/synthetic/camera_path.h"
#include "common/synthetic/town.h"
#include "common/video_io/y4m.h"

namespace synthetic {

struct ClipSettings {
    CameraSettings camera;
    double noise = 0;  // sensor noise, standard deviation in grey levels
    // Width of an object that moves to and fro in the foreground, as high as the picture; share of
    // the picture's width, 0..1.
    double foreground = 0;
};

// A shaky clip of any length, rendered frame by frame, whose true camera motion is known. The same
// settings give the same bytes on every machine.
//
// Threads: thread-safe.
class ShakyClip {
  public:
    // Upper limits of the settings.
    static constexpr int LARGEST_SIDE = 8192;  // pixels
    static constexpr double STRONGEST_SHAKE = 10;
    static constexpr double WIDEST_PAN = 4;

    // Any size from 1 up, also odd.
    explicit ShakyClip(const ClipSettings& settings);

    int width() const { return settings_.camera.width; }
    int height() const { return settings_.camera.height; }
    const CameraPath& path() const { return path_; }

    // Draws picture `frame` (from 0): width x height luma, half size (rounded up) chroma.
    void render(int frame, const video_io::Planes& planes) const;

    // The true motion, maps positions in frame `from` to frame `to`, in pixels.
    Affine motion(int from, int to) const;

  private:
    void draw(const Affine& view, const video_io::Planes& planes, int x, int columns) const;
    void draw_foreground(int frame, const Affine& view, const video_io::Planes& planes) const;
    void add_noise(int frame, const video_io::Planes& planes) const;

    ClipSettings settings_;
    CameraPath path_;
    Painting town_;
    std::vector<std::int8_t> noise_;
};

}  // namespace synthetic
