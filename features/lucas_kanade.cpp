#include "videostabilizer/lucas_kanade.h"

#include <sys/time.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "platform/log.h"

namespace videostabilizer {
namespace {

constexpr char LOG_TAG[] = "lk_pyradmid";

constexpr int MAX_SAMPLED_LEVEL = 30;  // the last one whose spacing, 2^level, is an int

// Mean absolute difference per window sample, in grey levels, up to which a point counts as found.
constexpr int MAX_MEAN_DIFFERENCE = 25;

int sample_spacing(int level) {
    return level >= 0 && level <= MAX_SAMPLED_LEVEL ? 1 << level : 0;
}

// The positions first, first + spacing, ..., last of the window samples along one axis.
struct Samples {
    int first;
    int last;  // before `first` if there are none

    bool empty() const { return last < first; }
};

// Of the samples centre - r, centre - r + spacing, ..., centre + r with r = win_radius * spacing,
// those whose neighbours one spacing away on either side lie in 0 .. size - 1. So the window loops
// need no test of their own, and their gradients are never read outside the image.
Samples usable_samples(float centre, int win_radius, int spacing, int size) {
    constexpr Samples none = {0, -1};
    // Written so that NaN fails as well. What lies beyond the range of int is far from any image.
    if (!(std::fabs(centre) < 0x1p31F) || spacing == 0) {
        return none;
    }
    const std::int64_t whole = static_cast<int>(centre);
    const std::int64_t radius = std::int64_t{win_radius} * spacing;
    std::int64_t first = whole - radius;
    if (first < spacing) {
        first += (spacing - first + spacing - 1) / spacing * spacing;
    }
    std::int64_t last = std::min(whole + radius, std::int64_t{size} - 1 - spacing);
    if (last < first) {
        return none;
    }
    last -= (last - first) % spacing;
    return {static_cast<int>(first), static_cast<int>(last)};
}

const unsigned char* row_of(const unsigned char* image, int width, int row) {
    return image + static_cast<std::ptrdiff_t>(row) * width;
}

// The doubled central differences at column x; all four neighbours must be in the image.
struct Gradient {
    int x;
    int y;
};

Gradient gradient_at(const unsigned char* row, std::ptrdiff_t row_step, int spacing, int x) {
    const unsigned char* const sample = row + x;
    return {sample[spacing] - sample[-spacing], sample[row_step] - sample[-row_step]};
}

// False for NaN.
bool is_inside(float position, int size) {
    return position >= 0.0F && position < static_cast<float>(size);
}

// The pixel nearest to a position that is_inside; the last one where that would be one past the
// end.
int nearest_pixel(float position, int size) {
    // Half up, as the positions are never negative.
    const float shifted = position + 0.5F;
    return std::min(static_cast<int>(shifted), size - 1);
}

// The largest sum of absolute differences of a window that counts as found.
std::int64_t residual_limit(int win_radius) {
    // With sides from 2^16 on the limit is above every int; the cap only keeps the product in
    // range.
    const std::int64_t side =
        std::clamp<std::int64_t>(2 * std::int64_t{win_radius} + 1, 0, 1 << 16);
    return MAX_MEAN_DIFFERENCE * side * side;
}

bool is_trackable(const KeyPoint& pt, int width, int height, const LK_Params& params) {
    const auto within = [](float position, std::int64_t size, std::int64_t border) {
        return position >= static_cast<float>(border) &&
               position <= static_cast<float>(size - border - 1);
    };
    return within(pt.x, width, params.border_x) && within(pt.y, height, params.border_y);
}

int lose(KeyPoint& pt_next, unsigned char& status) {
    pt_next.y = 0.0F;
    status = 0;
    return -1;
}

}  // namespace

int lk_pyramid_image(const unsigned char* prev, const unsigned char* next, int width, int height,
                     const LK_Params* params, std::vector<KeyPoint>& prev_pts,
                     std::vector<KeyPoint>& next_pts, std::vector<unsigned char>& status) {
    const std::size_t count = std::min({prev_pts.size(), next_pts.size(), status.size()});
    for (std::size_t i = 0; i < count; ++i) {
        if (is_trackable(prev_pts[i], width, height, *params)) {
            lkPyramid(prev, next, width, height, params, prev_pts[i], &next_pts[i], &status[i]);
        } else {
            lose(next_pts[i], status[i]);
        }
    }
    return 0;
}

int lkPyramid(const unsigned char* prev, const unsigned char* next, int width, int height,
              const LK_Params* params, KeyPoint pt, KeyPoint* pt_next, unsigned char* status) {
    // In samples of the level: the guess g from the coarser levels, the displacement v found at
    // this one and the mismatch b. After level 0, d = g + v is the displacement in pixels.
    float g[2] = {0.0F, 0.0F};
    float v[2] = {0.0F, 0.0F};
    float b[2] = {0.0F, 0.0F};
    int sad = 0;  // of the last mismatch evaluation

    for (int level = params->max_level; level >= 0; --level) {
        float g_inverse[2][2];
        getSpatialGradientMatrix(prev, width, height, params->win_radius, level, pt, g_inverse);
        if (inverse2x2(g_inverse) != 0) {
            __android_log_print(LOG_ERROR, LOG_TAG, "Gradient matrix not inversable!");
            return lose(*pt_next, *status);
        }

        v[0] = 0.0F;
        v[1] = 0.0F;
        // The last update: not below epsilon at first, so that the first iteration runs.
        float e[2] = {params->epsilon_x, params->epsilon_y};
        for (int iteration = 0; iteration < params->max_iterations; ++iteration) {
            if (std::fabs(e[0]) < params->epsilon_x && std::fabs(e[1]) < params->epsilon_y) {
                break;
            }
            sad = getMismatchVector(prev, next, width, height, params->win_radius, level, pt, g, v,
                                    b);
            if (sad < 0) {
                return lose(*pt_next, *status);
            }
            e[0] = g_inverse[0][0] * b[0] + g_inverse[0][1] * b[1];
            e[1] = g_inverse[1][0] * b[0] + g_inverse[1][1] * b[1];
            v[0] += e[0];
            v[1] += e[1];
        }
        if (level > 0) {
            g[0] = 2.0F * (g[0] + v[0]);
            g[1] = 2.0F * (g[1] + v[1]);
        }
    }

    const float d[2] = {g[0] + v[0], g[1] + v[1]};
    pt_next->x = pt.x + d[0];
    pt_next->y = pt.y + d[1];
    *status = 1;

    if (sad > residual_limit(params->win_radius)) {
        return lose(*pt_next, *status);
    }
    if (std::fabs(d[0]) >= params->max_disp_x || std::fabs(d[1]) >= params->max_disp_y) {
        __android_log_print(
            LOG_WARN, LOG_TAG,
            "pt_next displacement too large!!:dV: {%f, %f}, p0(%f, %f) --> p1(%f, %f)\n",
            static_cast<double>(d[0]), static_cast<double>(d[1]), static_cast<double>(pt.x),
            static_cast<double>(pt.y), static_cast<double>(pt_next->x),
            static_cast<double>(pt_next->y));
        return lose(*pt_next, *status);
    }
    // Also the end of an update that was no number: every comparison above let it pass.
    if (!is_inside(pt_next->x, width) || !is_inside(pt_next->y, height)) {
        __android_log_print(LOG_WARN, LOG_TAG, "pt_next bad point (out border): (%f, %f)",
                            static_cast<double>(pt_next->x), static_cast<double>(pt_next->y));
        return lose(*pt_next, *status);
    }
    return 0;
}

void getSpatialGradientMatrix(const unsigned char* img, int width, int height, int win_radius,
                              int level, KeyPoint pt, float G[2][2]) {
    const int spacing = sample_spacing(level);
    const Samples xs = usable_samples(pt.x, win_radius, spacing, width);
    const Samples ys = usable_samples(pt.y, win_radius, spacing, height);
    const std::ptrdiff_t row_step = static_cast<std::ptrdiff_t>(spacing) * width;

    // Wide, for windows of any size: 2^15 samples at full contrast fill an int.
    std::int64_t sum_xx = 0;
    std::int64_t sum_xy = 0;
    std::int64_t sum_yy = 0;
    for (int y = ys.first; y <= ys.last; y += spacing) {
        const unsigned char* const row = row_of(img, width, y);
        for (int x = xs.first; x <= xs.last; x += spacing) {
            const Gradient gradient = gradient_at(row, row_step, spacing, x);
            sum_xx += gradient.x * gradient.x;
            sum_xy += gradient.x * gradient.y;
            sum_yy += gradient.y * gradient.y;
        }
    }
    // The differences are doubled derivatives, so their products are four times too large.
    G[0][0] = 0.25F * static_cast<float>(sum_xx);
    G[0][1] = 0.25F * static_cast<float>(sum_xy);
    G[1][0] = G[0][1];
    G[1][1] = 0.25F * static_cast<float>(sum_yy);
}

int getMismatchVector(const unsigned char* prev, const unsigned char* next, int width, int height,
                      int win_radius, int level, KeyPoint pt, float* g, float* v, float* b) {
    const int spacing = sample_spacing(level);
    const Samples xs = usable_samples(pt.x, win_radius, spacing, width);
    const Samples ys = usable_samples(pt.y, win_radius, spacing, height);
    const std::ptrdiff_t row_step = static_cast<std::ptrdiff_t>(spacing) * width;

    const float dx = static_cast<float>(spacing) * (g[0] + v[0]);
    const float dy = static_cast<float>(spacing) * (g[1] + v[1]);
    const auto displaced_x = [dx](int x) { return static_cast<float>(x) + dx; };
    const auto displaced_y = [dy](int y) { return static_cast<float>(y) + dy; };
    if (xs.empty() || ys.empty()) {
        b[0] = 0.0F;
        b[1] = 0.0F;
        return 0;
    }
    // Rounded sums grow with their terms, so the outermost samples speak for all.
    if (!is_inside(displaced_x(xs.first), width) || !is_inside(displaced_x(xs.last), width) ||
        !is_inside(displaced_y(ys.first), height) || !is_inside(displaced_y(ys.last), height)) {
        return -1;
    }

    std::int64_t sad = 0;
    std::int64_t sum_x = 0;
    std::int64_t sum_y = 0;
    for (int y = ys.first; y <= ys.last; y += spacing) {
        const unsigned char* const row = row_of(prev, width, y);
        const unsigned char* const next_row =
            row_of(next, width, nearest_pixel(displaced_y(y), height));
        for (int x = xs.first; x <= xs.last; x += spacing) {
            const Gradient gradient = gradient_at(row, row_step, spacing, x);
            const int difference = row[x] - next_row[nearest_pixel(displaced_x(x), width)];
            sad += std::abs(difference);
            sum_x += gradient.x * difference;
            sum_y += gradient.y * difference;
        }
    }
    b[0] = 0.5F * static_cast<float>(sum_x);
    b[1] = 0.5F * static_cast<float>(sum_y);
    return static_cast<int>(std::min<std::int64_t>(sad, INT_MAX));
}

int inverse2x2(float m[2][2]) {
    const float determinant = m[0][0] * m[1][1] - m[0][1] * m[1][0];
    if (determinant == 0.0F) {
        return -1;
    }
    const float scale = 1.0F / determinant;
    const float m00 = m[0][0];
    m[0][0] = scale * m[1][1];
    m[0][1] = scale * -m[0][1];
    m[1][0] = scale * -m[1][0];
    m[1][1] = scale * m00;
    return 0;
}

std::int64_t time_us() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return std::int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

}  // namespace videostabilizer
