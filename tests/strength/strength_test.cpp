// SPDX-License-Identifier: Apache-2.0

// What each strength leaves of the shake, held against the same smoothing of the true path. Scene
// cuts: found where there are any, and as far as the smoothing reaches. Frames in which nothing can
// be tracked.

#include <algorithm>
#include <cmath>
#include <functional>
#include <tuple>
#include <vector>

#include "tests/strength/clip_stream.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;
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
    constexpr int FRAMES = 120;
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
                 {"rolling shutter", 2, 4, 0, 0, 0, 12},
                 {"all of it, and a large foreground", 4, 2, 18, 0.3, 0.5, 3}};
    for (const auto& c : cases) {
        synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
        settings.camera.pan = c.pan;
        settings.camera.shake = c.shake;
        settings.camera.roll = c.roll_degrees / DEGREES;
        settings.camera.zoom_swing = c.zoom_swing;
        settings.foreground = c.foreground;
        settings.shutter.readout = std::string(c.name) == "rolling shutter" ? 0.9 : 0;
        const synthetic::ShakyClip clip(settings);
        VideoStabilizerOptions adaptive = options_for(STABILIZER_STRONG);
        adaptive.auto_crop = 1;
        for (const auto& options :
             {options_for(STABILIZER_STANDARD), options_for(STABILIZER_MAXIMUM), adaptive}) {
            SCOPED_TRACE(testing::Message() << c.name << ", look-ahead " << options.look_ahead);
            const Stabilized result = stabilize(clip, 90, options);
            EXPECT_EQ(outside(result), 0);
            const synthetic::Shake shaky = synthetic::shake_of(true_path(clip, 90), FPS);
            const synthetic::Shake steady = synthetic::shake_of(steady_path(clip, result), FPS);
            const synthetic::Shake db = synthetic::reduction_db(shaky, steady);
            EXPECT_GT(db.shake, c.least_db) << "the guard must not shake in its turn";
        }
    }
}

TEST(Strength, CropsCalmClipsLittle) {
    synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
    settings.camera.pan = 0.2;
    settings.camera.shake = 0.3;
    VideoStabilizerOptions options = options_for(STABILIZER_STRONG);
    options.auto_crop = 1;
    const Stabilized calm = stabilize(synthetic::ShakyClip(settings), 90, options);
    settings.camera.shake = 4;
    const Stabilized shaken = stabilize(synthetic::ShakyClip(settings), 90, options);
    for (std::size_t frame = 0; frame < 90; ++frame) {
        EXPECT_GT(calm.reports.at(frame).crop, 0.9F);
        EXPECT_LT(shaken.reports.at(frame).crop, 0.85F);
    }
}

// Read line by line, and shown as if the picture had been taken at once: like one that was, put where the
// correction says.
TEST(RollingShutter, IsTakenOut) {
    constexpr int FRAMES = 80;
    const std::tuple<double, bool, int, VideoStabilizerShutter, int> cases[] = {
        {0.7, false, STABILIZER_STANDARD, STABILIZER_SHUTTER_AUTO, 10},
        {0.7, false, STABILIZER_STANDARD, STABILIZER_SHUTTER_AUTO, 1},
        {-0.5, true, STABILIZER_STRONG, STABILIZER_SHUTTER_AUTO, 20},
        {0.7, false, STABILIZER_STANDARD, STABILIZER_SHUTTER_ROWS, 10},
        {0, false, STABILIZER_STANDARD, STABILIZER_SHUTTER_AUTO, 10},
    };
    for (const auto& [readout, columns, strength, shutter, look_ahead] : cases) {
        SCOPED_TRACE(testing::Message() << readout << ", shutter " << shutter);
        synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
        settings.camera.shake = 2;
        const synthetic::ShakyClip at_once(settings);
        settings.shutter.readout = readout;
        settings.shutter.by_columns = columns;
        const synthetic::ShakyClip clip(settings);
        double differences[2] = {};
        for (const bool corrected : {false, true}) {
            VideoStabilizerOptions options = options_for(strength);
            options.look_ahead = look_ahead;
            options.shutter = corrected ? shutter : STABILIZER_SHUTTER_OFF;
            options.readout = 0.7F;  // matters to rows only
            std::vector<std::vector<unsigned char>> steady;
            const Stabilized result = stabilize(
                WIDTH, HEIGHT, FRAMES, options,
                [&](int frame, const video_io::Planes& planes) { clip.render(frame, planes); },
                [&](Frame* frame) {
                    steady.emplace_back(frame->plane_y, frame->plane_y + WIDTH * HEIGHT);
                });
            const VideoStabilizerReport& report = result.reports.back();
            EXPECT_NEAR(report.readout, corrected ? readout : 0, 0.02);
            EXPECT_EQ(report.columns != 0, corrected && columns);
            std::vector<unsigned char> planes(WIDTH * HEIGHT * 3 / 2);
            unsigned char* const u = planes.data() + WIDTH * HEIGHT;
            for (int frame = FRAMES - 30; frame < FRAMES; frame += 3) {
                at_once.render(frame, {planes.data(), u, u + WIDTH * HEIGHT / 4, WIDTH, WIDTH / 2});
                const auto at = static_cast<std::size_t>(frame);
                const synthetic::Affine& back = result.origins[at];
                const auto shown = static_cast<double>(result.reports[at].crop);
                for (int y = 4; y < HEIGHT; y += 3) {
                    for (int x = 4; x < WIDTH; x += 3) {
                        const double in_x = 0.5 * (WIDTH - 1) + shown * (x - 0.5 * (WIDTH - 1));
                        const double in_y = 0.5 * (HEIGHT - 1) + shown * (y - 0.5 * (HEIGHT - 1));
                        const double from_x = back.map_x(in_x, in_y);
                        const double from_y = back.map_y(in_x, in_y);
                        const int column = std::clamp(static_cast<int>(from_x), 0, WIDTH - 2);
                        const int row = std::clamp(static_cast<int>(from_y), 0, HEIGHT - 2);
                        const unsigned char* const p = planes.data() + row * WIDTH + column;
                        const double u_share = from_x - column;
                        const double v_share = from_y - row;
                        const double expected =
                            (1 - v_share) * ((1 - u_share) * p[0] + u_share * p[1]) +
                            v_share * ((1 - u_share) * p[WIDTH] + u_share * p[WIDTH + 1]);
                        const auto place =
                            static_cast<std::size_t>(y) * WIDTH + static_cast<std::size_t>(x);
                        differences[corrected ? 1 : 0] += std::abs(steady[at][place] - expected);
                    }
                }
            }
        }
        EXPECT_LT(differences[1], (readout != 0 ? 0.5 : 1.001) * differences[0]);
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

// A clip of which some pictures are of one grey level.
Stabilized with_grey(const synthetic::ShakyClip& clip, int frames,
                     const VideoStabilizerOptions& options, int level,
                     const std::function<bool(int frame)>& is_grey) {
    return stabilize(WIDTH, HEIGHT, frames, options,
                     [&](int frame, const video_io::Planes& planes) {
                         clip.render(frame, planes);
                         if (is_grey(frame)) {
                             std::fill_n(planes.y, WIDTH * HEIGHT, level);
                         }
                     });
}

// How far two corrections move the picture's corners apart at most, pixels.
double difference(const synthetic::Affine& a, const synthetic::Affine& b) {
    double most = 0;
    for (const double x : {0.0, WIDTH - 1.0}) {
        for (const double y : {0.0, HEIGHT - 1.0}) {
            most = std::max({most, std::abs(a.map_x(x, y) - b.map_x(x, y)),
                             std::abs(a.map_y(x, y) - b.map_y(x, y))});
        }
    }
    return most;
}

TEST(SceneCut, SeparatesWhatIsBeforeFromWhatIsBehind) {
    constexpr int LENGTH = 40;  // frames of a scene
    synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
    const synthetic::ShakyClip first(settings);
    settings.camera.seed = 2;
    const synthetic::ShakyClip second(settings);
    VideoStabilizerOptions only_cuts = options_for(STABILIZER_GENTLE);
    only_cuts.scene_cuts = 1;
    for (const VideoStabilizerOptions& options : {only_cuts, options_for(STABILIZER_STANDARD)}) {
        SCOPED_TRACE(options.edge_guard != 0 ? "planned path" : "filter");
        const Stabilized joined = stabilize(
            WIDTH, HEIGHT, 2 * LENGTH, options, [&](int frame, const video_io::Planes& planes) {
                (frame < LENGTH ? first : second).render(frame % LENGTH, planes);
            });
        // Each scene comes out as it does by itself, up to what the estimates differ by from one
        // run to the next, and that the filter leaves out the newest frame of a stream. The cut
        // itself is known one frame late.
        const Stabilized alone[] = {stabilize(first, LENGTH, options),
                                    stabilize(second, LENGTH, options)};
        for (int frame = 0; frame < 2 * LENGTH; ++frame) {
            SCOPED_TRACE(frame);
            const auto at = static_cast<std::size_t>(frame);
            EXPECT_EQ(joined.reports.at(at).scene_start, frame == LENGTH ? 1 : 0);
            if (frame != LENGTH - options.look_ahead) {
                EXPECT_LT(
                    difference(joined.origins.at(at), alone[at / LENGTH].origins.at(at % LENGTH)),
                    2.0);
            }
        }
    }
}

// What spoils single estimates without being a cut.
TEST(SceneCut, IsNotSeenInFlashesBlursAndThingsThatPassBy) {
    const struct {
        const char* name;
        double shake, foreground;
        int grey, first, last, period;  // the pictures that are grey
    } cases[] = {
        {"flash", 1, 0, 250, 13, 13, 20},
        {"covered lens", 1, 0, 16, 20, 22, 30},
        {"strong shake", 4, 0, 0, 1, 0, 1},
        {"something large passes", 1, 0.7, 0, 1, 0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
        settings.camera.pan = settings.camera.shake = c.shake;
        settings.foreground = c.foreground;
        const Stabilized result = with_grey(
            synthetic::ShakyClip(settings), 90, options_for(STABILIZER_STANDARD), c.grey,
            [&](int frame) { return frame % c.period >= c.first && frame % c.period <= c.last; });
        EXPECT_EQ(result.count(&VideoStabilizerReport::scene_start), 0);
    }
}

constexpr int GAP = 40;  // the first frame without features

// How far the picture is displaced, pixels: the true steady path behind the gap, held against the
// straight line on from before it.
double jump(const Path& path, int length) {
    constexpr int BASE = 5;  // frames that tell the speed
    const auto at = [&path](int frame) { return path[static_cast<std::size_t>(frame)]; };
    const int before = GAP - 1;
    const int after = GAP + length;
    const auto miss = [&](double synthetic::PathPoint::*axis) {
        const double speed_before = (at(before).*axis - at(before - BASE).*axis) / BASE;
        const double speed_after = (at(after + BASE).*axis - at(after).*axis) / BASE;
        return at(after).*axis - at(before).*axis -
               0.5 * (speed_before + speed_after) * (after - before);
    };
    return std::hypot(miss(&synthetic::PathPoint::x), miss(&synthetic::PathPoint::y));
}

TEST(Repair, LetsThePictureNeitherJumpNorDrift) {
    constexpr int FRAMES = 80;
    synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
    settings.camera.pan = 3;
    settings.camera.shake = 0.2;
    const synthetic::ShakyClip clip(settings);
    VideoStabilizerOptions options = options_for(STABILIZER_STANDARD);
    const synthetic::PathPoint wanted = steady_path(clip, stabilize(clip, FRAMES, options)).back();
    for (const int length : {1, 2, 5}) {
        SCOPED_TRACE(length);
        double jumps[2];
        for (const int repairs : {0, 1}) {
            options.repair_motions = repairs;
            const Stabilized result = with_grey(clip, FRAMES, options, 128, [&](int frame) {
                return frame >= GAP && frame < GAP + length;
            });
            // The steps into the gap, through it and out of it.
            EXPECT_EQ(result.count(&VideoStabilizerReport::repaired), repairs * (length + 1));
            const Path path = steady_path(clip, result);
            jumps[repairs] = jump(path, length);
            if (repairs != 0) {
                EXPECT_EQ(result.count(&VideoStabilizerReport::scene_start), 0);
                // Once the gap is out of reach, the picture is where it would be without it.
                EXPECT_NEAR(path.back().x, wanted.x, 1);
                EXPECT_NEAR(path.back().y, wanted.y, 1);
                EXPECT_EQ(outside(result), 0);
            }
        }
        EXPECT_LT(jumps[1], 3.5);
        EXPECT_LT(jumps[1], 0.4 * jumps[0]);
    }
}

}  // namespace
