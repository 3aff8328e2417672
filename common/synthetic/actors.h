// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "common/synthetic/camera_path.h"
#include "common/synthetic/sampling.h"
#include "common/video_io/y4m.h"

namespace synthetic {

// What stands between the camera and the scene. Widths are shares of the picture's width; 0: absent.
struct ActorSettings {
    // Somebody who walks before the camera, in the middle of the intended picture, as high as it.
    double person = 0;
    // Somebody who crosses the picture to the right or to the left in turn, every four seconds.
    double passer_by = 0;
    // The face of somebody who carries the camera: it keeps four fifths of the camera's shake.
    double face = 0;
    // Share of the picture that a dark, blurred finger covers, from the lower left, for about half
    // of every three seconds.
    double finger = 0;
    // Width of a date and of a logo in corners of the picture, inserted after the picture was taken.
    double overlay = 0;
};

// Threads: thread-safe.
class Actors {
  public:
    Actors(const ActorSettings& settings, const CameraSettings& camera);

    // Where everything is at one moment.
    using Moment = std::vector<Affine>;  // from the picture to each sprite
    Moment at(double frame, const CameraPath& path) const;

    // Draws their parts of a line of luma, or of both chroma planes: `u` and `v` differ in `to` only.
    void draw_luma(const Moment& moment, const Line& line) const;
    void draw_chroma(const Moment& moment, const Line& u, const Line& v) const;

    // Draws what is inserted.
    void draw_overlay(const video_io::Planes& planes) const;

  private:
    // A painted cut-out; even size.
    struct Sprite {
        int width = 0, height = 0;
        std::vector<std::uint8_t> alpha, y, u, v;  // chroma of half the size, also half_alpha
        std::vector<std::uint8_t> half_alpha;
    };
    enum class Kind { PERSON, PASSER_BY, FACE, FINGER };
    struct Actor {
        Kind kind;
        Sprite sprite;
    };

    template <typename Colour>
    static Sprite paint(int width, int height, const Colour& colour);
    static Sprite paint_person(int width, int height, std::uint64_t seed);
    static Sprite paint_face(int width, int height, std::uint64_t seed);
    static Sprite paint_finger(int side);
    static Sprite paint_text(int width, int height, std::uint64_t seed);
    static void blend(const Line& line, const Affine& view, const SourcePlane& colour,
                      const SourcePlane& alpha);
    Affine placed(const Actor& actor, double frame, const CameraPath& path) const;

    ActorSettings settings_;
    CameraSettings camera_;
    std::vector<Actor> actors_;    // from back to front
    std::vector<Sprite> overlay_;  // the date, the logo
};

}  // namespace synthetic
