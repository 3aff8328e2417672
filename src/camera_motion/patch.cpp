// SPDX-License-Identifier: Apache-2.0

#include "camera_motion/patch.h"

#include <algorithm>
#include <cmath>

namespace videostabilizer {

namespace {

// Contrast relative to the earlier picture: exposure changes by less than a stop between two frames.
// 0.25 to 4 gives the same; 0.8 to 1.25 costs 0.2 dB.
constexpr double WEAKEST_GAIN = 0.5;
constexpr double STRONGEST_GAIN = 2;
// Of the squared grey levels: the part that is not like the patch; measured.
constexpr double LARGEST_MISFIT = 0.5;
// The same for a place that is not yet the right one.
constexpr double WEAKEST_LEAD = 0.2;
constexpr double LARGEST_LEAD = 0.9;
// Of both squared gradients, is added to each: along an edge nothing is known, and no displacement
// is found.
constexpr double FLATTEST = 1e-3;

// Pictures are interpolated with the cubic B-spline: at any fraction of a pixel it blurs by the same
// variance, a third of a square pixel, and shifts nothing, so that it has no bias towards whole
// pixels; and its blur is wide enough for the gradient.
constexpr int TAPS = 4;

struct Taps {
    float weights[TAPS];  // of the pixels at -1, 0, 1 and 2 from the position
};

// The spline and its derivative at whole pixels.
float value_of(float before, float at, float behind) {
    return (1.0F / 6) * (before + behind) + (4.0F / 6) * at;
}
float slope_of(float before, float behind) {
    return 0.5F * (behind - before);
}

Taps spline_at(float fraction) {
    const float f = fraction;
    const float g = 1 - f;
    return {{g * g * g / 6, (4 - 3 * f * f * (2 - f)) / 6, (4 - 3 * g * g * (2 - g)) / 6,
             f * f * f / 6}};
}

// A square of pixels with a border of one pixel before it and two after it, and one more column to
// fill registers.
template <int SIDE>
struct Window {
    static constexpr int ROWS = SIDE + TAPS - 1;
    static constexpr int COLUMNS = SIDE + TAPS;
    float pixels[ROWS][COLUMNS];

    // (x, y): the position of the square.
    Window(const unsigned char* luma, int pitch, int x, int y) {
        const unsigned char* row = luma + static_cast<std::ptrdiff_t>(y - 1) * pitch + (x - 1);
        for (auto& line : pixels) {
            for (int c = 0; c < COLUMNS; ++c) {
                line[c] = static_cast<float>(row[c]);
            }
            row += pitch;
        }
    }

    // The square shifted by fractions of a pixel.
    void shifted(const Taps& across, const Taps& down, float* __restrict out) const {
        const float* const a = across.weights;
        const float* const d = down.weights;
        for (int r = 0; r < SIDE; ++r) {
            float line[COLUMNS];
            for (int c = 0; c < COLUMNS; ++c) {
                line[c] = d[0] * pixels[r][c] + d[1] * pixels[r + 1][c] + d[2] * pixels[r + 2][c] +
                          d[3] * pixels[r + 3][c];
            }
            for (int c = 0; c < SIDE; ++c) {
                out[r * SIDE + c] =
                    a[0] * line[c] + a[1] * line[c + 1] + a[2] * line[c + 2] + a[3] * line[c + 3];
            }
        }
    }

    // The square unshifted, and its gradient.
    void in_place(float* __restrict grey, float* __restrict along, float* __restrict down) const {
        for (int r = 0; r < SIDE; ++r) {
            float value[COLUMNS];
            float slope[COLUMNS];
            for (int c = 0; c < COLUMNS; ++c) {
                value[c] = value_of(pixels[r][c], pixels[r + 1][c], pixels[r + 2][c]);
                slope[c] = slope_of(pixels[r][c], pixels[r + 2][c]);
            }
            for (int c = 0; c < SIDE; ++c) {
                grey[r * SIDE + c] = value_of(value[c], value[c + 1], value[c + 2]);
                along[r * SIDE + c] = slope_of(value[c], value[c + 2]);
                down[r * SIDE + c] = value_of(slope[c], slope[c + 1], slope[c + 2]);
            }
        }
    }
};

// Sums in parallel strands, for vector registers.
constexpr int STRANDS = 4;

float total(const float (&strands)[STRANDS]) {
    return (strands[0] + strands[1]) + (strands[2] + strands[3]);
}

template <int COUNT>
double product(const float (&a)[COUNT], const float (&b)[COUNT]) {
    float sums[STRANDS] = {};
    for (int i = 0; i < COUNT; i += STRANDS) {
        for (int k = 0; k < STRANDS; ++k) {
            sums[k] += a[i + k] * b[i + k];
        }
    }
    return static_cast<double>(total(sums));
}

template <int COUNT>
void take_mean_away(float (&values)[COUNT]) {
    float sums[STRANDS] = {};
    for (int i = 0; i < COUNT; i += STRANDS) {
        for (int k = 0; k < STRANDS; ++k) {
            sums[k] += values[i + k];
        }
    }
    const float mean = total(sums) / COUNT;
    for (float& value : values) {
        value -= mean;
    }
}

template <int COUNT>
void take_part_away(float (&values)[COUNT], const float (&direction)[COUNT], double square) {
    const auto share = static_cast<float>(product(values, direction) / square);
    for (int i = 0; i < COUNT; ++i) {
        values[i] -= share * direction[i];
    }
}

}  // namespace

bool Patch::has_room(const LumaView& picture, int x, int y) {
    return x >= 1 && y >= 1 && x - 1 + Window<SIDE>::COLUMNS <= picture.width &&
           y - 1 + Window<SIDE>::ROWS <= picture.height;
}

void Patch::take(const LumaView& picture, int x, int y) {
    Window<SIDE>(picture.data, picture.pitch, x, y).in_place(grey_, along_, down_);
    float turn[AREA];
    float grow[AREA];
    for (int r = 0; r < SIDE; ++r) {
        for (int c = 0; c < SIDE; ++c) {
            const float from_x = static_cast<float>(c) - static_cast<float>(MIDDLE);
            const float from_y = static_cast<float>(r) - static_cast<float>(MIDDLE);
            const int i = r * SIDE + c;
            turn[i] = down_[i] * from_x - along_[i] * from_y;
            grow[i] = along_[i] * from_x + down_[i] * from_y;
        }
    }
    take_mean_away(grey_);
    take_mean_away(along_);
    take_mean_away(down_);
    energy_ = std::max(1.0, product(grey_, grey_));
    take_part_away(along_, grey_, energy_);
    take_part_away(down_, grey_, energy_);
    xx_ = product(along_, along_);
    xy_ = product(along_, down_);
    yy_ = product(down_, down_);
    const double least = FLATTEST * (xx_ + yy_) + 1e-9;
    xx_ += least;
    yy_ += least;
    turn_x_ = product(along_, turn);
    turn_y_ = product(down_, turn);
    grow_x_ = product(along_, grow);
    grow_y_ = product(down_, grow);
}

Patch::Match Patch::match(const LumaView& later, double x, double y,
                          const Similarity& motion) const {
    Match m{};
    if (!(x >= 1 && x < later.width && y >= 1 && y < later.height)) {
        return m;
    }
    const int left = static_cast<int>(x);
    const int top = static_cast<int>(y);
    if (!has_room(later, left, top)) {
        return m;
    }
    float grey[AREA];
    Window<SIDE>(later.data, later.pitch, left, top)
        .shifted(spline_at(static_cast<float>(x - left)), spline_at(static_cast<float>(y - top)),
                 grey);
    take_mean_away(grey);
    const double gain = product(grey, grey_) / energy_;
    const double square = product(grey, grey);
    const double left_over = std::max(0.0, square - gain * gain * energy_);
    m.leads_on = gain > WEAKEST_LEAD && left_over < LARGEST_LEAD * square;
    if (!m.leads_on) {
        return m;
    }
    m.counts = gain > WEAKEST_GAIN && gain < STRONGEST_GAIN && left_over < LARGEST_MISFIT * square;
    // The window is shifted but not rotated and scaled. To first order this adds the gradient times
    // (inverse of the motion's linear part - 1) times the distance from the middle.
    const double linear = motion.a * motion.a + motion.b * motion.b;
    const double grown = motion.a / linear - 1;
    const double turned = -motion.b / linear;
    const double rx = product(grey, along_) / gain - grown * grow_x_ - turned * turn_x_;
    const double ry = product(grey, down_) / gain - grown * grow_y_ - turned * turn_y_;
    // The grey levels are those of a position further on by this; the displacement is its opposite.
    const double determinant = xx_ * yy_ - xy_ * xy_;
    m.dx = -(yy_ * rx - xy_ * ry) / determinant;
    m.dy = -(xx_ * ry - xy_ * rx) / determinant;
    const double noise = left_over / (AREA * determinant);
    m.vxx = noise * yy_;
    m.vxy = -noise * xy_;
    m.vyy = noise * xx_;
    m.likeness = 1 - left_over / (LARGEST_MISFIT * square);
    return m;
}

}  // namespace videostabilizer
