// What each strength leaves of the shake, held against the same smoothing of the true path.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "tests/strength/clip_stream.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;
constexpr int FRAMES = 150;
constexpr double FPS = 30;
constexpr double DEGREES = 180 / 3.14159265358979323846;

using Path = std::vector<apps::PathPoint>;
using Values = std::vector<double>;

apps::ClipSettings sample_clip() {
    apps::ClipSettings settings;
    settings.camera.width = WIDTH;
    settings.camera.height = HEIGHT;
    return settings;
}

Path smooth(const Path& path, const std::function<Values(const Values&)>& smoothing) {
    Values x, y, angle;
    for (const apps::PathPoint& point : path) {
        x.push_back(point.x);
        y.push_back(point.y);
        angle.push_back(point.angle);
    }
    x = smoothing(x);
    y = smoothing(y);
    angle = smoothing(angle);
    Path steady;
    for (std::size_t i = 0; i < path.size(); ++i) {
        steady.push_back({x[i], y[i], angle[i]});
    }
    return steady;
}

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
    const std::size_t n = m.size();
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = i + 1; j < n; ++j) {
            const double factor = m[j][i] / m[i][i];
            for (std::size_t k = i; k <= n; ++k) {
                m[j][k] -= factor * m[i][k];
            }
        }
    }
    Values x(n);
    for (std::size_t i = n; i-- > 0;) {
        double sum = m[i][n];
        for (std::size_t k = i + 1; k < n; ++k) {
            sum -= m[i][k] * x[k];
        }
        x[i] = sum / m[i][i];
    }
    return x;
}

// The planned path without edges, from its definition: a least-squares problem for every frame.
Values planned(const Values& values, int look_ahead, double sigma) {
    const double speed_cost = sigma * sigma;
    const double change_cost = speed_cost * speed_cost / 8;
    Values path;
    const int count = static_cast<int>(values.size());
    for (int n = 0; n < count; ++n) {
        const int size = std::min(look_ahead, count - 1 - n) + 1;
        std::vector<Values> system(static_cast<std::size_t>(size),
                                   Values(static_cast<std::size_t>(size) + 1));
        // Adds weight * (sum of factors * path - wanted)^2, for frames `newest`, `newest` - 1, ...
        const auto add = [&](double weight, int newest, const Values& factors, double wanted) {
            for (std::size_t f = 0; f < factors.size(); ++f) {
                const int k = newest - static_cast<int>(f);
                if (k < n) wanted -= factors[f] * path[static_cast<std::size_t>(k)];
            }
            for (std::size_t f = 0; f < factors.size(); ++f) {
                const int row = newest - static_cast<int>(f) - n;
                if (row < 0) continue;
                for (std::size_t g = 0; g < factors.size(); ++g) {
                    const int column = newest - static_cast<int>(g) - n;
                    if (column < 0) continue;
                    system[static_cast<std::size_t>(row)][static_cast<std::size_t>(column)] +=
                        weight * factors[f] * factors[g];
                }
                system[static_cast<std::size_t>(row)].back() += weight * factors[f] * wanted;
            }
        };
        for (int k = n; k < n + size; ++k) {
            add(1, k, {1}, values[static_cast<std::size_t>(k)]);
            if (k >= 1) add(speed_cost, k, {1, -1}, 0);
            if (k >= 2) add(change_cost, k, {1, -2, 1}, 0);
        }
        path.push_back(solve(system).front());
    }
    return path;
}

Path exact(const Path& shaky, const VideoStabilizerOptions& options) {
    if (options.edge_guard != 0) {
        return smooth(shaky, [&](const Values& values) {
            return planned(values, options.look_ahead, static_cast<double>(options.sigma));
        });
    }
    Path steady = smooth(shaky, gaussian_mean);
    const double shift = static_cast<double>(options.crop_ratio);
    for (std::size_t i = 0; i < steady.size(); ++i) {
        steady[i].x = shaky[i].x + shift * (steady[i].x - shaky[i].x);
        steady[i].y = shaky[i].y + shift * (steady[i].y - shaky[i].y);
    }
    return steady;
}

// With noise a turn from one picture to the next is seen to a thousandth of a degree, and these
// errors add up; the strongest smoothing leaves hardly more. At the corners that is 0.03 pixels.
constexpr double FINEST_TURN = 0.002 / DEGREES;  // radians

TEST(Strength, TakesAsMuchShakeAwayAsTheSameSmoothingOfTheTruePath) {
    const struct {
        const char* name;
        double noise, foreground, tolerance_db;
        VideoStabilizerStrength first;
    } clips[] = {{"clean", 0, 0, 0.5, STABILIZER_GENTLE},
                 // The affine estimate, which the gentle one uses as it is, is drawn along by what
                 // moves in front.
                 {"noise and a moving foreground", 5, 0.15, 1.0, STABILIZER_STANDARD}};
    for (const auto& c : clips) {
        // Of full size: the smaller the picture, the less of the shake that is left is smoothing.
        apps::ClipSettings settings;
        settings.noise = c.noise;
        settings.foreground = c.foreground;
        const apps::ShakyClip clip(settings);
        const Path shaky = true_path(clip, FRAMES);
        for (int s = c.first; s <= STABILIZER_MAXIMUM; ++s) {
            SCOPED_TRACE(std::string(c.name) + ", strength " + std::to_string(s));
            const VideoStabilizerOptions options =
                strength(static_cast<VideoStabilizerStrength>(s));
            const Stabilized result = stabilize(clip, FRAMES, options);
            const apps::Shake left = apps::shake_of(steady_path(clip, result), FPS);
            const apps::Shake least = apps::shake_of(exact(shaky, options), FPS);
            const double share = std::pow(10, c.tolerance_db / 20);
            EXPECT_LT(left.jitter, share * least.jitter);
            EXPECT_LT(left.rotation, std::hypot(share * least.rotation, FINEST_TURN));
            EXPECT_LT(left.fast, share * least.fast);
            EXPECT_LT(left.shake, share * least.shake);
        }
    }
}

// Hard clips: whatever the camera does, the picture is taken from the source.
TEST(Strength, NeverShowsWhatIsBeyondTheEdge) {
    struct Case {
        const char* name;
        double pan, shake, roll_degrees, zoom_swing, foreground;
        double least_db;  // by which the shake is less at least
    };
    const Case cases[] = {{"strong shake", 1, 4, 0, 0, 0, 20},
                          {"fast pan", 4, 1, 0, 0, 0, 20},
                          {"roll", 1, 1, 18, 0, 0, 20},
                          {"zoom", 1, 1, 0, 0.3, 0, 20},
                          {"all of it, and a large foreground", 4, 2, 18, 0.3, 0.5, 3}};
    for (const Case& c : cases) {
        apps::ClipSettings settings = sample_clip();
        settings.camera.pan = c.pan;
        settings.camera.shake = c.shake;
        settings.camera.roll = c.roll_degrees / DEGREES;
        settings.camera.zoom_swing = c.zoom_swing;
        settings.foreground = c.foreground;
        const apps::ShakyClip clip(settings);
        for (const auto s : {STABILIZER_STANDARD, STABILIZER_MAXIMUM}) {
            SCOPED_TRACE(std::string(c.name) + ", strength " + std::to_string(s));
            const Stabilized result = stabilize(clip, 90, strength(s));
            EXPECT_EQ(outside(result), 0);
            const apps::Shake shaky = apps::shake_of(true_path(clip, 90), FPS);
            const apps::Shake steady = apps::shake_of(steady_path(clip, result), FPS);
            const apps::Shake db = apps::reduction_db(shaky, steady);
            EXPECT_GT(db.shake, c.least_db) << "the guard must not shake in its turn";
        }
    }
}

// Frames with columns and rows behind the picture that were added to make up their size.
TEST(Strength, KeepsToThePictureWhereFramesHoldMore) {
    apps::ClipSettings settings = sample_clip();
    settings.camera.shake = 3;
    const apps::ShakyClip clip(settings);
    for (const bool told : {false, true}) {
        VideoStabilizerOptions options = strength(STABILIZER_STANDARD);
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
