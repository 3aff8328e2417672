// SPDX-License-Identifier: Apache-2.0

// What each strength leaves of the shake, held against the same smoothing of the true path.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "tests/strength/clip_stream.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;
constexpr int FRAMES = 120;
constexpr double FPS = 30;
constexpr double DEGREES = 180 / 3.14159265358979323846;

using Values = std::vector<double>;

// The Gaussian mean of the default options.
Values gaussian_mean(const Values& values) {
    constexpr int RADIUS = 10;
    Values means;
    const int count = static_cast<int>(values.size());
    for (int n = 0; n < count; ++n) {
        double sum = 0;
        double weights = 0;
        const int last = std::max(std::min(n + RADIUS, count - 1), 1);
        for (int j = std::max(n - RADIUS, 0); j < last; ++j) {
            const double weight = std::exp(-(j - n) * (j - n) / 10.0);
            sum += weight * values[static_cast<std::size_t>(j)];
            weights += weight;
        }
        means.push_back(sum / weights);
    }
    return means;
}

// Solves a positive definite system; `m` has the right side as its last column.
Values solve(std::vector<Values> m) {
    Values x(m.size());
    for (std::size_t i = 0; i < m.size(); ++i) {
        for (std::size_t j = 0; j < m.size(); ++j) {
            const double factor = j == i ? 0 : m[j][i] / m[i][i];
            for (std::size_t k = i; k < m[j].size(); ++k) {
                m[j][k] -= factor * m[i][k];
            }
        }
    }
    for (std::size_t i = 0; i < m.size(); ++i) {
        x[i] = m[i].back() / m[i][i];
    }
    return x;
}

// The planned path without edges, from its definition: a least-squares problem for every frame.
Values planned(const Values& values, int look_ahead, double sigma) {
    constexpr double FIXED = 1e12;  // weight of the frames that were sent
    const double speed_cost = sigma * sigma;
    const double change_cost = speed_cost * speed_cost / 8;
    Values path;
    const int count = static_cast<int>(values.size());
    for (int n = 0; n < count; ++n) {
        const int first = std::max(n - 2, 0);
        const auto size = static_cast<std::size_t>(std::min(n + look_ahead, count - 1) - first + 1);
        std::vector<Values> system(size, Values(size + 1));
        // Adds weight * (sum of factors * path - wanted)^2, for frames `newest`, `newest` - 1, ...
        const auto add = [&](double weight, int newest, const Values& factors, double wanted) {
            const auto row = static_cast<std::size_t>(newest - first);
            for (std::size_t f = 0; f < factors.size(); ++f) {
                for (std::size_t g = 0; g < factors.size(); ++g) {
                    system[row - f][row - g] += weight * factors[f] * factors[g];
                }
                system[row - f].back() += weight * factors[f] * wanted;
            }
        };
        for (int k = first; k < first + static_cast<int>(size); ++k) {
            const auto at = static_cast<std::size_t>(k);
            add(k < n ? FIXED : 1, k, {1}, k < n ? path[at] : values[at]);
            if (k >= n && k >= 1) {
                add(speed_cost, k, {1, -1}, 0);
            }
            if (k >= n && k >= 2) {
                add(change_cost, k, {1, -2, 1}, 0);
            }
        }
        path.push_back(solve(system)[static_cast<std::size_t>(n - first)]);
    }
    return path;
}

// What the options make of the true path.
Path exact(const Path& shaky, const VideoStabilizerOptions& options) {
    Path steady = shaky;
    for (double synthetic::PathPoint::*axis :
         {&synthetic::PathPoint::x, &synthetic::PathPoint::y, &synthetic::PathPoint::angle}) {
        Values values;
        for (const synthetic::PathPoint& point : shaky) {
            values.push_back(point.*axis);
        }
        const Values smooth = options.edge_guard != 0 ? planned(values, options.look_ahead,
                                                                static_cast<double>(options.sigma))
                                                      : gaussian_mean(values);
        const bool crop_shortens = options.whole_shift == 0 && axis != &synthetic::PathPoint::angle;
        const double share = crop_shortens ? static_cast<double>(options.crop_ratio) : 1;
        for (std::size_t i = 0; i < steady.size(); ++i) {
            steady[i].*axis = values[i] + share * (smooth[i] - values[i]);
        }
    }
    return steady;
}

// With noise a turn from one picture to the next is seen to a thousandth of a degree, and these
// errors add up; the strongest smoothing leaves hardly more. At the corners that is 0.03 pixels.
constexpr double FINEST_TURN = 0.002 / DEGREES;  // radians

TEST(Strength, TakesAsMuchShakeAwayAsTheSameSmoothingOfTheTruePath) {
    const struct {
        const char* name;
        int width, height;
        double shake, noise, foreground;
        int first, last;      // strength
        double tolerance_db;  // and, pixels, what may be left where nothing ought to be
        double finest;
    } cases[] = {
        {"clean", 1280, 720, 1, 0, 0, STABILIZER_GENTLE, STABILIZER_MAXIMUM, 0.5, 0},
        // Not for the gentle one: its affine estimate follows what moves in front.
        {"foreground", 1280, 720, 1, 5, 0.15, STABILIZER_MAXIMUM, STABILIZER_MAXIMUM, 1, 0},
        {"small", 640, 480, 1, 0, 0, STABILIZER_GENTLE, STABILIZER_GENTLE, 0.5, 0},
        {"noise", 640, 480, 1, 6, 0, STABILIZER_GENTLE, STABILIZER_GENTLE, 0.5, 0},
        {"steady", 640, 480, 0, 0, 0, STABILIZER_GENTLE, STABILIZER_GENTLE, 1.5, 0.1},
    };
    for (const auto& c : cases) {
        synthetic::ClipSettings settings = clip_settings(c.width, c.height);
        settings.camera.shake = c.shake;
        settings.noise = c.noise;
        settings.foreground = c.foreground;
        const synthetic::ShakyClip clip(settings);
        for (int strength = c.first; strength <= c.last; ++strength) {
            SCOPED_TRACE(testing::Message() << c.name << ", strength " << strength);
            const Stabilized result = stabilize(clip, FRAMES, options_for(strength));
            const Path wanted = exact(true_path(clip, FRAMES), result.options);
            const synthetic::Shake least = synthetic::shake_of(wanted, FPS);
            const double share = std::pow(10, c.tolerance_db / 20);
            for (const Path& path : {steady_path(clip, result), told_path(result)}) {
                const synthetic::Shake left = synthetic::shake_of(path, FPS);
                EXPECT_LT(left.jitter, share * least.jitter);
                EXPECT_LT(left.rotation,
                          std::hypot(share * least.rotation, FINEST_TURN, c.finest / c.width));
                EXPECT_LT(left.fast, share * least.fast);
                EXPECT_LT(left.shake, std::hypot(share * least.shake, c.finest));
            }
        }
    }
}

// Hard clips: whatever the camera does, the picture is taken from the source.
TEST(Strength, NeverShowsWhatIsBeyondTheEdge) {
    const struct {
        const char* name;
        double pan, shake, roll_degrees, zoom_swing, foreground;
        double least_db;  // by which the shake is less at least
    } cases[] = {{"strong shake", 1, 4, 0, 0, 0, 20},
                 {"fast pan", 4, 1, 0, 0, 0, 20},
                 {"roll", 1, 1, 18, 0, 0, 20},
                 {"zoom", 1, 1, 0, 0.3, 0, 20},
                 {"all of it, and a large foreground", 4, 2, 18, 0.3, 0.5, 3}};
    for (const auto& c : cases) {
        synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
        settings.camera.pan = c.pan;
        settings.camera.shake = c.shake;
        settings.camera.roll = c.roll_degrees / DEGREES;
        settings.camera.zoom_swing = c.zoom_swing;
        settings.foreground = c.foreground;
        const synthetic::ShakyClip clip(settings);
        for (const auto s : {STABILIZER_STANDARD, STABILIZER_MAXIMUM}) {
            SCOPED_TRACE(testing::Message() << c.name << ", strength " << s);
            const Stabilized result = stabilize(clip, 90, options_for(s));
            EXPECT_EQ(outside(result), 0);
            const synthetic::Shake shaky = synthetic::shake_of(true_path(clip, 90), FPS);
            const synthetic::Shake steady = synthetic::shake_of(steady_path(clip, result), FPS);
            const synthetic::Shake db = synthetic::reduction_db(shaky, steady);
            EXPECT_GT(db.shake, c.least_db) << "the guard must not shake in its turn";
        }
    }
}

// Frames with columns and rows behind the picture that were added to make up their size.
TEST(Strength, KeepsToThePictureWhereFramesHoldMore) {
    synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
    settings.camera.shake = 3;
    const synthetic::ShakyClip clip(settings);
    for (const bool told : {false, true}) {
        VideoStabilizerOptions options = options_for(STABILIZER_STANDARD);
        if (told) {
            options.picture_width = WIDTH - 40;
            options.picture_height = HEIGHT - 14;
        }
        Stabilized result = stabilize(clip, 60, options);
        result.width = WIDTH - 40;
        result.height = HEIGHT - 14;
        EXPECT_EQ(outside(result) == 0, told);
    }
}

}  // namespace
