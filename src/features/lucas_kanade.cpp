// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/lucas_kanade.h"

#include <sys/time.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "features/lucas_kanade_variants.h"
#include "platform/log.h"

namespace videostabilizer {
namespace {

constexpr char LOG_TAG[] = "lk_pyradmid";

constexpr int MAX_SAMPLED_LEVEL = 30;  // the last one whose spacing, 2^level, is an int

// Grey levels per window sample up to which a residual counts as a match.
constexpr int MAX_MEAN_DIFFERENCE = 25;

int sample_spacing(int level) {
    return level >= 0 && level <= MAX_SAMPLED_LEVEL ? 1 << level : 0;
}

// Of the samples centre - r, centre - r + spacing, ..., centre + r with r = win_radius * spacing,
// those whose neighbours one spacing away on either side are in 0 .. size - 1. So the loops over a
// window need no bounds checks for samples and gradients.
Samples usable_samples(float centre, int win_radius, int level, int size) {
    constexpr Samples NONE = {0, 0, 0};
    const int spacing = sample_spacing(level);
    // Also catches NaN. Beyond the range of int no window reaches an image.
    if (!(std::fabs(centre) < 0x1p31F) || spacing == 0) {
        return NONE;
    }
    const std::int64_t whole = static_cast<int>(centre);
    const std::int64_t radius = std::int64_t{win_radius} * spacing;
    std::int64_t first = whole - radius;
    if (first < spacing) {
        first += ((spacing - first + spacing - 1) >> level) * spacing;
    }
    const std::int64_t last = std::min(whole + radius, std::int64_t{size} - 1 - spacing);
    if (last < first) {
        return NONE;
    }
    const std::int64_t steps = (last - first) >> level;
    return {static_cast<int>(first), static_cast<int>(first + steps * spacing),
            static_cast<int>(steps + 1)};
}

Window usable_window(const KeyPoint& pt, int win_radius, int level, const GreyImage& image) {
    return {usable_samples(pt.x, win_radius, level, image.width),
            usable_samples(pt.y, win_radius, level, image.height), sample_spacing(level)};
}

bool is_empty(const Window& window) {
    return window.xs.count == 0 || window.ys.count == 0;
}

const unsigned char* row_of(const GreyImage& image, int row) {
    return image.pixels + static_cast<std::ptrdiff_t>(row) * image.width;
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

// Whether all displaced samples of a window are in the image.
bool is_inside(const Window& window, float dx, float dy, const GreyImage& image) {
    // Rounding keeps the order of sums, so the outermost samples decide.
    return is_inside(static_cast<float>(window.xs.first) + dx, image.width) &&
           is_inside(static_cast<float>(window.xs.last) + dx, image.width) &&
           is_inside(static_cast<float>(window.ys.first) + dy, image.height) &&
           is_inside(static_cast<float>(window.ys.last) + dy, image.height);
}

// The largest sum of absolute differences that counts as a match.
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

// The gradient matrix G of one level. The quarter is for products of doubled derivatives.
void gradient_matrix(const TrackVariant& variant, const GreyImage& image, const Window& window,
                     WindowCache& cache, float G[2][2]) {
    const GradientSums sums =
        is_empty(window) ? GradientSums{0, 0, 0} : variant.read_gradients(image, window, cache);
    G[0][0] = 0.25F * static_cast<float>(sums.xx);
    G[0][1] = 0.25F * static_cast<float>(sums.xy);
    G[1][0] = G[0][1];
    G[1][1] = 0.25F * static_cast<float>(sums.yy);
}

// The mismatch vector b of one level. Returns the sum of absolute differences, or -1, with b as it
// was, if the displaced window leaves the image.
int mismatch_vector(const TrackVariant& variant, const GreyImage& prev, const GreyImage& next,
                    const Window& window, const float g[2], const float v[2], WindowCache& cache,
                    float b[2]) {
    MismatchSums sums{0, 0, 0};
    if (!is_empty(window)) {
        const float dx = static_cast<float>(window.spacing) * (g[0] + v[0]);
        const float dy = static_cast<float>(window.spacing) * (g[1] + v[1]);
        if (!is_inside(window, dx, dy, next)) {
            return -1;
        }
        sums = variant.compare_windows(prev, next, window, dx, dy, cache);
    }
    b[0] = 0.5F * static_cast<float>(sums.x);
    b[1] = 0.5F * static_cast<float>(sums.y);
    return static_cast<int>(std::min<std::int64_t>(sums.sad, INT_MAX));
}

// Whether every window fits the cache of the vector variants, and the positions of their spare
// lanes fit an int.
bool fits_vectors(const GreyImage& image, const LK_Params& params) {
    constexpr int LARGEST_SIDE = 1 << 30;
    return 2LL * params.win_radius + 1 <= WindowCache::ROWS && params.max_level <= 4 &&
           image.width <= LARGEST_SIDE && image.height <= LARGEST_SIDE;
}

// State of the search for one point, in samples of the current level.
struct Search {
    float g[2] = {0.0F, 0.0F};  // guess from the coarser levels
    float v[2] = {0.0F, 0.0F};  // displacement found at this level, to be added to the guess
    int sad = 0;                // of the last comparison

    void descend() {
        g[0] = 2.0F * (g[0] + v[0]);
        g[1] = 2.0F * (g[1] + v[1]);
    }
};

// The iterations of one level. compare(b) is mismatch_vector for the window and the displacement of
// the search. False if the displaced window leaves the image.
template <typename Compare>
bool search_level(Compare compare, const float (&g_inverse)[2][2], const LK_Params& params,
                  Search& search) {
    search.v[0] = 0.0F;
    search.v[1] = 0.0F;
    float b[2] = {0.0F, 0.0F};
    // The last update. Its initial value is not below epsilon, so that the first iteration runs.
    float e[2] = {params.epsilon_x, params.epsilon_y};
    for (int iteration = 0; iteration < params.max_iterations; ++iteration) {
        if (std::fabs(e[0]) < params.epsilon_x && std::fabs(e[1]) < params.epsilon_y) {
            break;
        }
        search.sad = compare(b);
        if (search.sad < 0) {
            return false;
        }
        e[0] = g_inverse[0][0] * b[0] + g_inverse[0][1] * b[1];
        e[1] = g_inverse[1][0] * b[0] + g_inverse[1][1] * b[1];
        search.v[0] += e[0];
        search.v[1] += e[1];
    }
    return true;
}

// Whether a point found at displacement d, in pixels, counts as tracked.
bool is_accepted(int sad, const float (&d)[2], const KeyPoint& pt, const KeyPoint& pt_next,
                 const GreyImage& next, const LK_Params& params) {
    if (sad > residual_limit(params.win_radius)) {
        return false;
    }
    if (std::fabs(d[0]) >= params.max_disp_x || std::fabs(d[1]) >= params.max_disp_y) {
        __android_log_print(
            LOG_WARN, LOG_TAG,
            "pt_next displacement too large!!:dV: {%f, %f}, p0(%f, %f) --> p1(%f, %f)\n",
            static_cast<double>(d[0]), static_cast<double>(d[1]), static_cast<double>(pt.x),
            static_cast<double>(pt.y), static_cast<double>(pt_next.x),
            static_cast<double>(pt_next.y));
        return false;
    }
    // Also catches NaN, which the comparisons above let pass.
    if (!is_inside(pt_next.x, next.width) || !is_inside(pt_next.y, next.height)) {
        __android_log_print(LOG_WARN, LOG_TAG, "pt_next bad point (out border): (%f, %f)",
                            static_cast<double>(pt_next.x), static_cast<double>(pt_next.y));
        return false;
    }
    return true;
}

const TrackVariant& fastest_track_variant() {
    static const TrackVariant& fastest = fastest_variant(track_variants);
    return fastest;
}

}  // namespace

GradientSums read_gradients_plain(const GreyImage& prev, const Window& window,
                                  WindowCache& /*cache*/) {
    const std::ptrdiff_t row_step = static_cast<std::ptrdiff_t>(window.spacing) * prev.width;
    // 64 bits, since 2^15 samples at full contrast exceed an int.
    GradientSums sums{0, 0, 0};
    for (int y = window.ys.first; y <= window.ys.last; y += window.spacing) {
        const unsigned char* const row = row_of(prev, y);
        for (int x = window.xs.first; x <= window.xs.last; x += window.spacing) {
            const Gradient gradient = gradient_at(row, row_step, window.spacing, x);
            sums.xx += gradient.x * gradient.x;
            sums.xy += gradient.x * gradient.y;
            sums.yy += gradient.y * gradient.y;
        }
    }
    return sums;
}

MismatchSums compare_windows_plain(const GreyImage& prev, const GreyImage& next,
                                   const Window& window, float dx, float dy,
                                   WindowCache& /*cache*/) {
    const std::ptrdiff_t row_step = static_cast<std::ptrdiff_t>(window.spacing) * prev.width;
    MismatchSums sums{0, 0, 0};
    for (int y = window.ys.first; y <= window.ys.last; y += window.spacing) {
        const unsigned char* const row = row_of(prev, y);
        const unsigned char* const next_row =
            row_of(next, nearest_pixel(static_cast<float>(y) + dy, next.height));
        for (int x = window.xs.first; x <= window.xs.last; x += window.spacing) {
            const Gradient gradient = gradient_at(row, row_step, window.spacing, x);
            const int difference =
                row[x] - next_row[nearest_pixel(static_cast<float>(x) + dx, next.width)];
            sums.sad += std::abs(difference);
            sums.x += gradient.x * difference;
            sums.y += gradient.y * difference;
        }
    }
    return sums;
}

int track_point(const TrackVariant& variant, const GreyImage& prev, const GreyImage& next,
                const LK_Params& params, KeyPoint pt, KeyPoint& pt_next, unsigned char& status) {
    const TrackVariant& sums_by = fits_vectors(prev, params) ? variant : track_variants[0];
    WindowCache cache;
    Search search;
    for (int level = params.max_level; level >= 0; --level) {
        const Window window = usable_window(pt, params.win_radius, level, prev);
        float g_inverse[2][2];
        gradient_matrix(sums_by, prev, window, cache, g_inverse);
        if (inverse2x2(g_inverse) != 0) {
            __android_log_print(LOG_ERROR, LOG_TAG, "Gradient matrix not inversable!");
            return lose(pt_next, status);
        }
        const auto compare = [&](float b[2]) {
            return mismatch_vector(sums_by, prev, next, window, search.g, search.v, cache, b);
        };
        if (!search_level(compare, g_inverse, params, search)) {
            return lose(pt_next, status);
        }
        if (level > 0) {
            search.descend();
        }
    }
    const float d[2] = {search.g[0] + search.v[0], search.g[1] + search.v[1]};
    pt_next.x = pt.x + d[0];
    pt_next.y = pt.y + d[1];
    status = 1;
    return is_accepted(search.sad, d, pt, pt_next, next, params) ? 0 : lose(pt_next, status);
}

int lk_pyramid_image(const unsigned char* prev, const unsigned char* next, int width, int height,
                     const LK_Params* params, std::vector<KeyPoint>& prev_pts,
                     std::vector<KeyPoint>& next_pts, std::vector<unsigned char>& status) {
    const TrackVariant& variant = fastest_track_variant();
    const GreyImage prev_image = {prev, width, height};
    const GreyImage next_image = {next, width, height};
    const std::size_t count = std::min({prev_pts.size(), next_pts.size(), status.size()});
    for (std::size_t i = 0; i < count; ++i) {
        if (is_trackable(prev_pts[i], width, height, *params)) {
            track_point(variant, prev_image, next_image, *params, prev_pts[i], next_pts[i],
                        status[i]);
        } else {
            lose(next_pts[i], status[i]);
        }
    }
    return 0;
}

int lkPyramid(const unsigned char* prev, const unsigned char* next, int width, int height,
              const LK_Params* params, KeyPoint pt, KeyPoint* pt_next, unsigned char* status) {
    return track_point(fastest_track_variant(), {prev, width, height}, {next, width, height},
                       *params, pt, *pt_next, *status);
}

void getSpatialGradientMatrix(const unsigned char* img, int width, int height, int win_radius,
                              int level, KeyPoint pt, float G[2][2]) {
    const GreyImage image = {img, width, height};
    WindowCache cache;
    gradient_matrix(track_variants[0], image, usable_window(pt, win_radius, level, image), cache,
                    G);
}

int getMismatchVector(const unsigned char* prev, const unsigned char* next, int width, int height,
                      int win_radius, int level, KeyPoint pt, float* g, float* v, float* b) {
    const GreyImage image = {prev, width, height};
    WindowCache cache;
    return mismatch_vector(track_variants[0], image, {next, width, height},
                           usable_window(pt, win_radius, level, image), g, v, cache, b);
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
