#pragma once

#include <cstdint>
#include <vector>

#include "apps/camera_path.h"
#include "apps/town.h"
#include "apps/y4m.h"

namespace apps {

struct ClipSettings {
    CameraSettings camera;
    double noise = 0;  // sensor noise, standard deviation in grey levels
    // Something that walks to and fro in front of the scene, as high as the picture: its share of
    // the picture's width, 0..1.
    double foreground = 0;
};

// A shaky clip of any length, made frame by frame, whose true camera motion is known. The same
// settings give the same bytes on every machine.
//
// Threads: render and the queries may be called by several threads at once.
class ShakyClip {
  public:
    // Largest settings that the arithmetic of render() is made for.
    static constexpr int LARGEST_SIDE = 8192;  // pixels
    static constexpr double STRONGEST_SHAKE = 10;
    static constexpr double WIDEST_PAN = 4;

    // Sizes from 1 up, odd ones too.
    explicit ShakyClip(const ClipSettings& settings);

    int width() const { return settings_.camera.width; }
    int height() const { return settings_.camera.height; }
    const CameraPath& path() const { return path_; }

    // Draws the picture of `frame` (from 0) into planes of width x height luma and rounded-up half
    // size chroma.
    void render(int frame, const Planes& planes) const;

    // The true motion that carries positions in frame `from` to frame `to`, in pixels.
    Affine motion(int from, int to) const;

  private:
    void draw(const Affine& view, const Planes& planes, int x, int columns) const;
    void draw_foreground(int frame, const Affine& view, const Planes& planes) const;
    void add_noise(int frame, const Planes& planes) const;

    ClipSettings settings_;
    CameraPath path_;
    Painting town_;
    std::vector<std::int8_t> noise_;
};

}  // namespace apps
