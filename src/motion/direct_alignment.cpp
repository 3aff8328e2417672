// SPDX-License-Identifier: Apache-2.0

#include "motion/direct_alignment.h"

#include <algorithm>
#include <cmath>

namespace videostabilizer {

namespace {

// "Measured": the effect of half and twice the value is in docs/strength.md; "uncritical": it is less
// than 0.2 dB in every clip there.
constexpr std::size_t MOST_PATCHES = 100;   // the detector finds about as many corners; measured
constexpr std::size_t FEWEST_PATCHES = 12;  // six equations for each unknown; uncritical

// Pixels of the analysis image: pairs further from the step belong to moving objects; measured.
constexpr double NEAR = 2;
// Pixels: the gradient predicts no larger displacement of a patch; measured.
constexpr double LARGEST_DISPLACEMENT = 2;
// Pixels, at the picture's corners: a larger correction is an error; measured.
constexpr double LARGEST_CHANGE = 2;

// Rounds end when the correction is small: the next one would be a tenth of it. Uncritical.
constexpr int MOST_ROUNDS = 4;
constexpr double SMALL_CHANGE = 0.03;  // pixels at the picture's corners
constexpr int REWEIGHTINGS = 3;        // uncritical

// Contrast relative to the earlier picture: exposure changes by less than a stop between two frames.
// 0.25 to 4 gives the same; 0.8 to 1.25 costs 0.2 dB.
constexpr double WEAKEST_GAIN = 0.5;
constexpr double STRONGEST_GAIN = 2;
constexpr double LARGEST_MISFIT = 0.5;  // relative to the energy; measured
constexpr double FLATTEST =
    1e-3;  // ratio of the gradients' moments: an edge, not a corner; uncritical

// With depth in the scene, displacements differ by more than noise. Then the fit includes more
// patches, so that it does not select one layer in this frame and another in the next.
constexpr double SOFTNESS = 6;        // variances of an error with a weight of 1/4; measured
constexpr double FLAT_SCATTER = 0.1;  // pixels of the analysis image that double it; measured
constexpr double LEAST_SCATTER =
    0.001;  // pixels; below what a patch can tell; avoids division by 0

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

// The normal equations of a similarity, the right side as the last column.
struct Equations {
    double m[4][5] = {};

    // Adds a displacement of (dx, dy) at (x, y), with a symmetric weight matrix.
    void add(double x, double y, double dx, double dy, double wxx, double wxy, double wyy) {
        const double in_x[4] = {x, -y, 1, 0};
        const double in_y[4] = {y, x, 0, 1};
        for (int i = 0; i < 4; ++i) {
            const double to_x = in_x[i] * wxx + in_y[i] * wxy;
            const double to_y = in_x[i] * wxy + in_y[i] * wyy;
            for (int j = i; j < 4; ++j) {
                m[i][j] += to_x * in_x[j] + to_y * in_y[j];
            }
            m[i][4] += to_x * dx + to_y * dy;
        }
    }

    // Elimination without pivoting: the matrix is positive definite, or singular.
    bool solve(Similarity& s) {
        constexpr double SINGULAR =
            1e-9;  // of a diagonal element: rounding leaves some 1e-16 of it
        double x[4];
        for (int i = 0; i < 4; ++i) {
            for (int j = 0; j < i; ++j) {
                m[i][j] = m[j][i];
            }
        }
        for (int i = 0; i < 4; ++i) {
            const double least = SINGULAR * m[i][i];
            for (int k = 0; k < i; ++k) {
                const double factor = m[i][k] / m[k][k];
                for (int j = k; j < 5; ++j) {
                    m[i][j] -= factor * m[k][j];
                }
            }
            if (!(m[i][i] > least)) {
                return false;
            }
        }
        for (int i = 3; i >= 0; --i) {
            double sum = m[i][4];
            for (int j = i + 1; j < 4; ++j) {
                sum -= m[i][j] * x[j];
            }
            x[i] = sum / m[i][i];
        }
        s = {x[0], x[1], x[2], x[3]};
        return true;
    }
};

}  // namespace

DirectAlignment::DirectAlignment(int width, int height, double pixel)
    : width_(width),
      height_(height),
      centre_(picture_centre(width, height)),
      pixel_(pixel),
      patches_(MOST_PATCHES) {
    errors_.reserve(MOST_PATCHES);
}

// Whether a patch at (x, y) and its border are inside the picture.
bool DirectAlignment::has_room(int x, int y) const {
    return x >= 1 && y >= 1 && x - 1 + Window<SIDE>::COLUMNS <= width_ &&
           y - 1 + Window<SIDE>::ROWS <= height_;
}

void DirectAlignment::make_patch(const LumaPair& pictures, int x, int y, Patch& patch) const {
    Patch& p = patch;
    constexpr float MIDDLE = 0.5F * (SIDE - 1);
    p.x = x + static_cast<double>(MIDDLE) - centre_.x;
    p.y = y + static_cast<double>(MIDDLE) - centre_.y;
    Window<SIDE>(pictures.earlier, pictures.earlier_pitch, x, y).in_place(p.grey, p.along, p.down);
    float turn[AREA];
    float grow[AREA];
    for (int r = 0; r < SIDE; ++r) {
        for (int c = 0; c < SIDE; ++c) {
            const float from_x = static_cast<float>(c) - MIDDLE;
            const float from_y = static_cast<float>(r) - MIDDLE;
            const int i = r * SIDE + c;
            turn[i] = p.down[i] * from_x - p.along[i] * from_y;
            grow[i] = p.along[i] * from_x + p.down[i] * from_y;
        }
    }
    take_mean_away(p.grey);
    take_mean_away(p.along);
    take_mean_away(p.down);
    p.energy = std::max(1.0, product(p.grey, p.grey));
    take_part_away(p.along, p.grey, p.energy);
    take_part_away(p.down, p.grey, p.energy);
    p.xx = product(p.along, p.along);
    p.xy = product(p.along, p.down);
    p.yy = product(p.down, p.down);
    p.turn_x = product(p.along, turn);
    p.turn_y = product(p.down, turn);
    p.grow_x = product(p.along, grow);
    p.grow_y = product(p.down, grow);
}

// Takes patches evenly from the list, which is sorted by rows of the picture.
void DirectAlignment::choose_patches(const LumaPair& pictures, const std::vector<KeyPoint>& from,
                                     const std::vector<KeyPoint>& to, const Similarity& motion) {
    count_ = 0;
    const std::size_t wanted = std::min(from.size(), MOST_PATCHES);
    for (std::size_t k = 0; k < wanted; ++k) {
        const std::size_t i = k * from.size() / wanted;
        const double px = static_cast<double>(from[i].x) - centre_.x;
        const double py = static_cast<double>(from[i].y) - centre_.y;
        const double ex = motion.map_x(px, py) + centre_.x - static_cast<double>(to[i].x);
        const double ey = motion.map_y(px, py) + centre_.y - static_cast<double>(to[i].y);
        const int x = static_cast<int>(from[i].x) - SIDE / 2;
        const int y = static_cast<int>(from[i].y) - SIDE / 2;
        if (ex * ex + ey * ey <= NEAR * NEAR * pixel_ * pixel_ && has_room(x, y)) {
            make_patch(pictures, x, y, patches_[count_]);
            ++count_;
        }
    }
}

// Measures the displacement of a patch from where `motion` maps it.
void DirectAlignment::measure(const LumaPair& pictures, const Similarity& motion,
                              Patch& patch) const {
    Patch& p = patch;
    p.counts = false;
    p.misfit = 0;
    const double x = motion.map_x(p.x, p.y) + centre_.x - 0.5 * (SIDE - 1);
    const double y = motion.map_y(p.x, p.y) + centre_.y - 0.5 * (SIDE - 1);
    if (!(x >= 1 && x < width_ && y >= 1 && y < height_)) {
        return;
    }
    const int left = static_cast<int>(x);
    const int top = static_cast<int>(y);
    const double determinant = p.xx * p.yy - p.xy * p.xy;
    const double trace = p.xx + p.yy;
    if (!has_room(left, top) || !(determinant > FLATTEST * trace * trace)) {
        return;
    }
    float later[AREA];
    Window<SIDE>(pictures.later, pictures.later_pitch, left, top)
        .shifted(spline_at(static_cast<float>(x - left)), spline_at(static_cast<float>(y - top)),
                 later);
    take_mean_away(later);
    const double gain = product(later, p.grey) / p.energy;
    const double square = product(later, later);
    p.misfit = std::max(0.0, square - gain * gain * p.energy) / p.energy;
    if (!(gain > WEAKEST_GAIN && gain < STRONGEST_GAIN) ||
        !(p.misfit * p.energy < LARGEST_MISFIT * square)) {
        return;
    }
    // The window is shifted but not rotated and scaled. To first order this adds the gradient times
    // (inverse of the motion's linear part - 1) times the distance from the middle.
    const double linear = motion.a * motion.a + motion.b * motion.b;
    const double grown = motion.a / linear - 1;
    const double turned = -motion.b / linear;
    const double rx = product(later, p.along) / gain - grown * p.grow_x - turned * p.turn_x;
    const double ry = product(later, p.down) / gain - grown * p.grow_y - turned * p.turn_y;
    // The grey levels are those of a position further on by this; the displacement is its opposite.
    p.dx = -(p.yy * rx - p.xy * ry) / determinant;
    p.dy = -(p.xx * ry - p.xy * rx) / determinant;
    p.counts = p.dx * p.dx + p.dy * p.dy < LARGEST_DISPLACEMENT * LARGEST_DISPLACEMENT;
}

// The variance, square pixels, of the displacements minus `change`, from the median of their squared
// lengths (2 ln 2 variances, for Gaussian noise); negative when there are too few.
double DirectAlignment::scatter(const Similarity& change) {
    errors_.clear();
    for (std::size_t i = 0; i < count_; ++i) {
        const Patch& p = patches_[i];
        if (p.counts) {
            const double ex = p.dx - change.map_x(p.x, p.y);
            const double ey = p.dy - change.map_y(p.x, p.y);
            errors_.push_back(ex * ex + ey * ey);
        }
    }
    if (errors_.size() < FEWEST_PATCHES) {
        return -1;
    }
    const auto middle = errors_.begin() + static_cast<std::ptrdiff_t>(errors_.size() / 2);
    std::nth_element(errors_.begin(), middle, errors_.end());
    return std::max(LEAST_SCATTER * LEAST_SCATTER, *middle / (2 * std::log(2.0)));
}

// Fits a similarity to the displacements, to be added to the motion. False when there are too few.
bool DirectAlignment::fit_change(Similarity& change) {
    change = {};
    for (int k = 0; k < REWEIGHTINGS; ++k) {
        const double variance = scatter(change);
        if (variance < 0) {
            return false;
        }
        const double softness =
            SOFTNESS * (1 + variance / (FLAT_SCATTER * FLAT_SCATTER * pixel_ * pixel_));
        Equations equations;
        for (std::size_t i = 0; i < count_; ++i) {
            Patch& p = patches_[i];
            if (!p.counts) {
                continue;
            }
            // The weight is the inverse covariance: scatter, and noise of the grey levels, which
            // matters more the smaller the gradient.
            const double noise = p.misfit * p.energy / (AREA * (p.xx * p.yy - p.xy * p.xy));
            const double vxx = variance + noise * p.yy;
            const double vxy = -noise * p.xy;
            const double vyy = variance + noise * p.xx;
            const double determinant = vxx * vyy - vxy * vxy;
            const double ex = p.dx - change.map_x(p.x, p.y);
            const double ey = p.dy - change.map_y(p.x, p.y);
            const double error = (vyy * ex * ex - 2 * vxy * ex * ey + vxx * ey * ey) / determinant;
            const double part = 1 + error / softness;
            p.weight = 1 / (part * part);
            const double share = p.weight / determinant;
            equations.add(p.x, p.y, p.dx, p.dy, share * vyy, -share * vxy, share * vxx);
        }
        if (!equations.solve(change)) {
            return false;
        }
    }
    return true;
}

// The largest displacement of a corner of the picture, pixels.
double DirectAlignment::reach(const Similarity& field) const {
    double most = 0;
    for (const double x : {-centre_.x, centre_.x}) {
        for (const double y : {-centre_.y, centre_.y}) {
            most = std::max(most, std::hypot(field.map_x(x, y), field.map_y(x, y)));
        }
    }
    return most;
}

// Whether the patches match no worse than with the initial step.
bool DirectAlignment::agrees_better() const {
    double before = 0;
    double after = 0;
    for (std::size_t i = 0; i < count_; ++i) {
        const Patch& p = patches_[i];
        if (p.counts) {
            before += p.weight * p.first_misfit;
            after += p.weight * p.misfit;
        }
    }
    return after <= before;
}

bool DirectAlignment::refine(const LumaPair& pictures, const std::vector<KeyPoint>& from,
                             const std::vector<KeyPoint>& to, CameraPose& step) {
    const Similarity start = similarity_of_step(step);
    Similarity motion = start;
    choose_patches(pictures, from, to, motion);
    double changed = LARGEST_CHANGE;
    for (int round = 0; round < MOST_ROUNDS && changed > SMALL_CHANGE; ++round) {
        for (std::size_t i = 0; i < count_; ++i) {
            Patch& p = patches_[i];
            if (round == 0 || p.counts) {
                measure(pictures, motion, p);
            }
            if (round == 0) {
                p.first_misfit = p.misfit;
            }
        }
        Similarity change{};
        if (!fit_change(change)) {
            return false;
        }
        motion = {motion.a + change.a, motion.b + change.b, motion.c + change.c,
                  motion.d + change.d};
        changed = reach(change);
    }
    const Similarity all = {motion.a - start.a, motion.b - start.b, motion.c - start.c,
                            motion.d - start.d};
    if (!(reach(all) < LARGEST_CHANGE) || !agrees_better()) {
        return false;
    }
    step = step_of_similarity(motion);
    return true;
}

}  // namespace videostabilizer
