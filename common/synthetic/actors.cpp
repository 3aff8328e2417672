// SPDX-License-Identifier: Apache-2.0

#include "common/synthetic/actors.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/synthetic/deterministic.h"

namespace synthetic {

namespace {

constexpr double PI = 3.14159265358979323846;

constexpr double STEP_HERTZ = 1.9;  // of somebody who walks; the body sways at half of it
constexpr double CROSSING_SECONDS = 4;
constexpr double FINGER_SECONDS = 3;
constexpr double SHAKE_OF_FACE = 0.2;  // against the picture

struct Paint {
    double alpha;  // 0..1
    double y;      // grey level
    int u, v;
};

// Value noise between -1 and 1: random values on a lattice, interpolated smoothly.
double noise_at(double x, double y, double period, std::uint64_t seed) {
    const double column = std::floor(x / period);
    const double row = std::floor(y / period);
    const auto lattice = [=](int dx, int dy) {
        const auto cell = mix(seed, static_cast<std::uint64_t>(std::llround(column) + dx),
                              static_cast<std::uint64_t>(std::llround(row) + dy));
        return static_cast<double>(cell >> 11U) * 0x1p-52 - 1;
    };
    double s = x / period - column;
    double t = y / period - row;
    s = s * s * (3 - 2 * s);
    t = t * t * (3 - 2 * t);
    const double above = lattice(0, 0) + s * (lattice(1, 0) - lattice(0, 0));
    const double below = lattice(0, 1) + s * (lattice(1, 1) - lattice(0, 1));
    return above + t * (below - above);
}

// Distance of a position from the middle of an ellipse, in its radii.
double ellipse(double x, double y, double middle_x, double middle_y, double radius_x,
               double radius_y) {
    const double dx = (x - middle_x) / radius_x;
    const double dy = (y - middle_y) / radius_y;
    return std::sqrt(dx * dx + dy * dy);
}

// 1 inside, 0 outside of an edge that is two pixels wide; `size` in pixels is the radius.
double inside(double distance, double size) {
    return std::clamp(0.5 + 0.5 * (1 - distance) * size, 0.0, 1.0);
}

std::uint8_t to_byte(double value) {
    return static_cast<std::uint8_t>(std::clamp(std::floor(value + 0.5), 0.0, 255.0));
}

int even(double size) {
    return std::max(4, 2 * static_cast<int>(std::floor(0.5 * size + 0.5)));
}

// The inverse of `map` with `then` before it: maps picture -> scene -> sprite.
Affine after(const Affine& then, const Affine& map) {
    return {then.a * map.a + then.b * map.d, then.a * map.b + then.b * map.e,
            then.map_x(map.c, map.f),        then.d * map.a + then.e * map.d,
            then.d * map.b + then.e * map.e, then.map_y(map.c, map.f)};
}

// Turns by `angle` about (x, y), which becomes (to_x, to_y).
Affine turned(double x, double y, double angle, double to_x, double to_y) {
    const double cosine = cos_turns(angle / (2 * PI));
    const double sine = sin_turns(angle / (2 * PI));
    return {cosine, -sine,  to_x - cosine * x + sine * y,
            sine,   cosine, to_y - sine * x - cosine * y};
}

}  // namespace

// Paints pixel by pixel; `colour(x, y)` is the Paint at a position.
template <typename Colour>
Actors::Sprite Actors::paint(int width, int height, const Colour& colour) {
    Sprite sprite;
    sprite.width = width;
    sprite.height = height;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const Paint paint = colour(x, y);
            sprite.alpha.push_back(to_byte(255 * paint.alpha));
            sprite.y.push_back(to_byte(paint.y));
        }
    }
    for (int y = 0; y < height; y += 2) {
        for (int x = 0; x < width; x += 2) {
            const Paint paint = colour(x + 0.5, y + 0.5);
            sprite.half_alpha.push_back(to_byte(255 * paint.alpha));
            sprite.u.push_back(to_byte(paint.u));
            sprite.v.push_back(to_byte(paint.v));
        }
    }
    return sprite;
}

// From the knees up, in a checked shirt; the head is a fifth of the height.
Actors::Sprite Actors::paint_person(int width, int height, std::uint64_t seed) {
    const double w = width;
    const double h = height;
    return paint(width, height, [=](double x, double y) -> Paint {
        const double fine = 16 * noise_at(x, y, std::max(2.0, 0.012 * h), mix(seed, 1)) +
                            14 * noise_at(x, y, 0.05 * h, mix(seed, 2));
        const double head = ellipse(x, y, 0.5 * w, 0.13 * h, 0.2 * w, 0.11 * h);
        if (head < 1) {
            const bool hair =
                y < 0.08 * h || ellipse(x, y, 0.5 * w, 0.15 * h, 0.17 * w, 0.1 * h) > 1;
            const bool eye = std::abs(y - 0.12 * h) < 0.012 * h &&
                             std::abs(std::abs(x - 0.5 * w) - 0.07 * w) < 0.03 * w;
            return {inside(head, 0.1 * h), (hair || eye ? 45 : 160) + 0.5 * fine, 118, 148};
        }
        const double shoulders = ellipse(x, y, 0.5 * w, 0.52 * h, 0.47 * w, 0.3 * h);
        const double legs = std::abs(x - 0.5 * w) / (0.32 * w);
        const bool trousers = y > 0.68 * h;
        if (trousers && legs < 1 && std::abs(x - 0.5 * w) > 0.015 * w) {
            return {inside(legs, 0.32 * w), 62 + fine, 140, 122};
        }
        const int square = static_cast<int>(8 * x / w) + static_cast<int>(8 * y / w);
        const double shirt = square % 2 == 0 ? 128 : 92;
        return {inside(shoulders, 0.3 * h), shirt + fine, 112, 150};
    });
}

Actors::Sprite Actors::paint_face(int width, int height, std::uint64_t seed) {
    const double w = width;
    const double h = height;
    return paint(width, height, [=](double x, double y) -> Paint {
        const double head = ellipse(x, y, 0.5 * w, 0.5 * h, 0.49 * w, 0.49 * h);
        const double across = std::abs(x - 0.5 * w);  // both halves are alike
        double level = 165 - 40 * std::abs(x - 0.4 * w) / w;
        level += 7 * noise_at(x, y, 0.08 * h, mix(seed, 1)) +
                 5 * noise_at(x, y, std::max(2.0, 0.012 * h), mix(seed, 2));
        if (ellipse(x, y, 0.5 * w, 0.62 * h, 0.46 * w, 0.46 * h) > 1) {  // hair
            level = 50 + 22 * noise_at(x, y, std::max(2.0, 0.015 * h), mix(seed, 3));
        } else if (ellipse(across, y, 0.19 * w, 0.45 * h, 0.08 * w, 0.025 * h) < 1) {
            level = ellipse(across, y, 0.19 * w, 0.45 * h, 0.03 * w, 0.025 * h) < 1 ? 30 : 215;
        } else if (ellipse(across, y, 0.19 * w, 0.39 * h, 0.11 * w, 0.018 * h) < 1) {
            level = 60;  // brows
        } else if (ellipse(x, y, 0.5 * w, 0.6 * h, 0.07 * w, 0.03 * h) < 1 && y > 0.6 * h) {
            level -= 45;  // below the nose
        } else if (ellipse(x, y, 0.5 * w, 0.74 * h, 0.17 * w, 0.03 * h) < 1) {
            level = std::abs(y - 0.74 * h) < 0.006 * h ? 60 : 120;
        }
        return {inside(head, 0.45 * w), level, 114, 152};
    });
}

// So near that nothing of it is sharp.
Actors::Sprite Actors::paint_finger(int side) {
    return paint(side, side, [side](double x, double y) -> Paint {
        const double distance = ellipse(x, y, 0.5 * side, 0.5 * side, 0.5 * side, 0.5 * side);
        const double t = std::clamp((1 - distance) / 0.4, 0.0, 1.0);
        return {t * t * (3 - 2 * t), 34 + 14 * t, 120, 150};
    });
}

// Rows of marks like glyphs, white on a dark plate.
Actors::Sprite Actors::paint_text(int width, int height, std::uint64_t seed) {
    const double cell = height / 9.0;
    return paint(width, height, [=](double x, double y) -> Paint {
        const int column = static_cast<int>(x / cell);
        const int row = static_cast<int>(y / cell) - 1;
        const bool blank = column % 6 == 5 || row < 0 || row > 6;
        const bool ink =
            !blank &&
            mix(seed, static_cast<std::uint64_t>(column), static_cast<std::uint64_t>(row)) % 2 == 0;
        return {1, ink ? 225.0 : 40.0, 128, 128};
    });
}

Actors::Actors(const ActorSettings& settings, const CameraSettings& camera)
    : settings_(settings), camera_(camera) {
    const double width = camera.width;
    const double height = camera.height;
    const auto add = [this](Kind kind, Sprite sprite) {
        actors_.push_back({kind, std::move(sprite)});
    };
    if (settings.passer_by > 0) {
        add(Kind::PASSER_BY, paint_person(even(settings.passer_by * width), even(1.1 * height),
                                          mix(camera.seed, 300)));
    }
    if (settings.person > 0) {
        add(Kind::PERSON,
            paint_person(even(settings.person * width), even(1.1 * height), mix(camera.seed, 301)));
    }
    if (settings.face > 0) {
        const double face = settings.face * width;
        add(Kind::FACE, paint_face(even(face), even(1.35 * face), mix(camera.seed, 302)));
    }
    if (settings.finger > 0) {
        // Half of the finger, which is a disc with soft edges, is outside.
        add(Kind::FINGER, paint_finger(even(2.6 * std::sqrt(settings.finger * width * height))));
    }
    if (settings.overlay > 0) {
        const double date = settings.overlay * width;
        overlay_.push_back(paint_text(even(date), even(0.12 * date), mix(camera.seed, 303)));
        overlay_.push_back(paint_text(even(0.4 * date), even(0.3 * date), mix(camera.seed, 304)));
    }
}

// From the picture to the sprite.
Affine Actors::placed(const Actor& actor, double frame, const CameraPath& path) const {
    const double seconds = frame / camera_.fps;
    const double width = camera_.width;
    const double height = camera_.height;
    const double middle_x = 0.5 * actor.sprite.width;
    const double middle_y = 0.5 * actor.sprite.height;
    const Pose shaky = path.shaky(frame);
    const Pose steady = path.steady(frame);
    const double sway = sin_turns(0.5 * STEP_HERTZ * seconds);
    const double bob = sin_turns(STEP_HERTZ * seconds + 0.1);
    switch (actor.kind) {
        case Kind::PERSON:
        case Kind::PASSER_BY: {
            double x = steady.x + 0.025 * width * sway;
            if (actor.kind == Kind::PASSER_BY) {
                const double turn = seconds / CROSSING_SECONDS;
                const double way = 1.2 * (2 * (turn - std::floor(turn)) - 1);
                const bool back = std::fmod(std::floor(turn), 2) != 0;
                x += 0.5 * (1 + settings_.passer_by) * width * (back ? -way : way);
            }
            const double y = steady.y + 0.08 * height + 0.03 * height * bob;
            const Affine view = picture_to_scene(shaky, camera_.width, camera_.height);
            return after(turned(x, y, 0.03 * sway, middle_x, middle_y), view);
        }
        case Kind::FACE: {
            const double x =
                0.55 * width + 0.02 * width * sway - SHAKE_OF_FACE * (shaky.x - steady.x);
            const double y =
                0.55 * height + 0.02 * height * bob - SHAKE_OF_FACE * (shaky.y - steady.y);
            const double angle = 0.04 * sway + SHAKE_OF_FACE * (shaky.angle - steady.angle);
            return turned(x, y, angle, middle_x, middle_y);
        }
        case Kind::FINGER: {
            const double turn = seconds / FINGER_SECONDS;
            const double phase = turn - std::floor(turn);
            // Comes and goes within a tenth of the period.
            const double in = std::clamp(10 * (phase - 0.3), 0.0, 1.0);
            const double out = std::clamp(10 * (phase - 0.8), 0.0, 1.0);
            const double away = 1 - in + out;
            return turned(0.12 * width - away * actor.sprite.width,
                          0.75 * height + 0.01 * height * bob, 0, middle_x, middle_y);
        }
    }
    return {};
}

Actors::Moment Actors::at(double frame, const CameraPath& path) const {
    Moment moment;
    for (const Actor& actor : actors_) {
        moment.push_back(placed(actor, frame, path));
    }
    return moment;
}

void Actors::blend(const Line& line, const Affine& view, const SourcePlane& colour,
                   const SourcePlane& alpha) {
    const std::int64_t last_x = colour.last_x();
    const std::int64_t last_y = colour.last_y();
    follow_line(line, view, [&](unsigned char& sample, std::int64_t x, std::int64_t y) {
        if (x < 0 || y < 0 || x > last_x || y > last_y) {
            return;
        }
        const int cover = alpha.at(x, y);
        sample = static_cast<unsigned char>(
            (sample * (255 - cover) + colour.at(x, y) * cover + 127) / 255);
    });
}

void Actors::draw_luma(const Moment& moment, const Line& line) const {
    for (std::size_t i = 0; i < actors_.size(); ++i) {
        const Sprite& sprite = actors_[i].sprite;
        blend(line, moment[i], {sprite.y, sprite.width, sprite.height},
              {sprite.alpha, sprite.width, sprite.height});
    }
}

void Actors::draw_chroma(const Moment& moment, const Line& u, const Line& v) const {
    for (std::size_t i = 0; i < actors_.size(); ++i) {
        const Sprite& sprite = actors_[i].sprite;
        const int width = sprite.width / 2;
        const int height = sprite.height / 2;
        const Affine view = chroma_view(moment[i]);
        const SourcePlane alpha(sprite.half_alpha, width, height);
        blend(u, view, {sprite.u, width, height}, alpha);
        blend(v, view, {sprite.v, width, height}, alpha);
    }
}

// The date at the lower left, the logo at the upper right, at even positions.
void Actors::draw_overlay(const video_io::Planes& planes) const {
    const int margin = even(0.03 * camera_.width);
    for (std::size_t i = 0; i < overlay_.size(); ++i) {
        const Sprite& sprite = overlay_[i];
        const bool date = i == 0;
        const int left = (date ? margin : std::max(0, camera_.width - margin - sprite.width)) & ~1;
        const int top = (date ? std::max(0, camera_.height - margin - sprite.height) : margin) & ~1;
        const int width = std::min(sprite.width, camera_.width - left);
        const int height = std::min(sprite.height, camera_.height - top);
        for (int y = 0; y < height; ++y) {
            std::copy_n(sprite.y.begin() + std::ptrdiff_t{y} * sprite.width, width,
                        planes.y + (top + y) * planes.stride_y + left);
        }
        for (int y = 0; y < height / 2; ++y) {
            const std::ptrdiff_t from = std::ptrdiff_t{y} * (sprite.width / 2);
            const std::ptrdiff_t to = (top / 2 + y) * planes.stride_uv + left / 2;
            std::copy_n(sprite.u.begin() + from, width / 2, planes.u + to);
            std::copy_n(sprite.v.begin() + from, width / 2, planes.v + to);
        }
    }
}

}  // namespace synthetic
