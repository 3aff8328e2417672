#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/apps/run_program.h"

// How much shake is left, measured against the true motion of made-up clips.

namespace {

// Columns of the program's CSV.
enum Column { X = 1, Y = 2, ANGLE = 3, STEADY_X = 5, STEADY_Y = 6, STEADY_ANGLE = 7, STATUS = 12 };

constexpr double DEGREES = 180 / 3.14159265358979323846;

double rms(const std::vector<double>& values) {
    double sum = 0;
    for (const double value : values) {
        sum += value * value;
    }
    return std::sqrt(sum / static_cast<double>(values.size()));
}

// What the eye takes for shake: the change of speed from frame to frame.
double jitter(const std::vector<double>& path) {
    std::vector<double> change;
    // Not the first and last frames: they have neighbours on one side only to be smoothed with.
    constexpr std::size_t ENDS = 10;
    for (std::size_t i = ENDS; i < path.size() - ENDS; ++i) {
        change.push_back(path[i + 1] - 2 * path[i] + path[i - 1]);
    }
    return rms(change);
}

struct Stabilized {
    std::vector<std::vector<unsigned char>> shaky;
    std::vector<std::vector<unsigned char>> steady;
    std::vector<std::vector<double>> path;
};

Stabilized stabilize(const apps::ShakyClip& clip, int frames) {
    const Folder folder;
    write_clip(folder.file("in.y4m"), clip, frames);
    const Outcome outcome =
        run_program(folder, {folder.file("in.y4m"), folder.file("out.y4m"), "--path",
                             folder.file("path.csv"), "--strength", "gentle", "-q"});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    return {read_luma(folder.file("in.y4m")), read_luma(folder.file("out.y4m")),
            read_csv(folder.file("path.csv"))};
}

apps::ClipSettings settings_of(int width, int height) {
    apps::ClipSettings settings;
    settings.camera.width = width;
    settings.camera.height = height;
    return settings;
}

// The true camera, moved by the program's corrections, must run smoothly. Where the program thinks
// the camera was does not help it here, only where it moves the pictures to.
TEST(ResidualShake, TheTruePathIsMuchSmootherAfterTheCorrection) {
    constexpr int FRAMES = 60;
    // What the smoothing itself lets through of this shake is about a sixth, mostly below 4 Hz, and
    // the crop leaves a tenth of every shift as it is. The estimator draws its samples anew each
    // second, which moves the share by a hundredth or two.
    constexpr double WORST_SHARE = 0.33;
    const struct {
        int width, height;
        double noise;
    } cases[] = {{640, 480, 0}, {1280, 720, 0}, {640, 480, 6}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height) + ", noise " +
                     std::to_string(c.noise));
        apps::ClipSettings settings = settings_of(c.width, c.height);
        settings.noise = c.noise;
        const apps::ShakyClip clip(settings);
        const Stabilized result = stabilize(clip, FRAMES);
        ASSERT_EQ(result.path.size(), static_cast<std::size_t>(FRAMES));

        std::vector<double> x, y, angle, steady_x, steady_y, steady_angle;
        std::vector<double> error_x, error_y;
        for (int frame = 0; frame < FRAMES; ++frame) {
            const std::vector<double>& row = result.path[static_cast<std::size_t>(frame)];
            const apps::Pose pose = clip.path().shaky(frame);
            x.push_back(pose.x);
            y.push_back(pose.y);
            angle.push_back(pose.angle * DEGREES);
            steady_x.push_back(x.back() + row[STEADY_X] - row[X]);
            steady_y.push_back(y.back() + row[STEADY_Y] - row[Y]);
            steady_angle.push_back(angle.back() + row[STEADY_ANGLE] - row[ANGLE]);
            if (frame == 0) continue;
            EXPECT_EQ(row[STATUS], 0) << "no motion found for frame " << frame;
            const std::vector<double>& before = result.path[static_cast<std::size_t>(frame - 1)];
            const apps::Pose last = clip.path().shaky(frame - 1);
            error_x.push_back(row[X] - before[X] - (pose.x - last.x));
            error_y.push_back(row[Y] - before[Y] - (pose.y - last.y));
        }
        EXPECT_LT(jitter(steady_x), WORST_SHARE * jitter(x));
        EXPECT_LT(jitter(steady_y), WORST_SHARE * jitter(y));
        EXPECT_LT(jitter(steady_angle), WORST_SHARE * jitter(angle));
        // Pixels, per frame: how well single motions are measured.
        const double largest_error = 0.1 * c.width / 640;
        EXPECT_LT(rms(error_x), largest_error);
        EXPECT_LT(rms(error_y), largest_error);
    }
}

// Mean difference between successive pictures, grey levels.
double restlessness(const std::vector<std::vector<unsigned char>>& frames) {
    double sum = 0;
    double count = 0;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        for (std::size_t pixel = 0; pixel < frames[i].size(); ++pixel) {
            sum += std::abs(frames[i][pixel] - frames[i - 1][pixel]);
        }
        count += static_cast<double>(frames[i].size());
    }
    return sum / count;
}

// A camera that is meant to stand still: the pictures themselves must come to rest, up to the slow
// sway that smoothing over 20 frames lets through.
TEST(ResidualShake, PicturesOfACameraThatShouldStandStillComeToRest) {
    apps::ClipSettings settings = settings_of(640, 480);
    settings.camera.pan = 0;
    const Stabilized result = stabilize(apps::ShakyClip(settings), 60);
    EXPECT_LT(restlessness(result.steady), 0.6 * restlessness(result.shaky));
}

TEST(ResidualShake, ASteadyClipStaysSteady) {
    apps::ClipSettings settings = settings_of(640, 480);
    settings.camera.shake = 0;
    const Stabilized result = stabilize(apps::ShakyClip(settings), 40);
    ASSERT_EQ(result.path.size(), 40U);
    for (std::size_t frame = 10; frame < 30; ++frame) {  // those with neighbours on both sides
        SCOPED_TRACE(frame);
        const std::vector<double>& row = result.path[frame];
        EXPECT_NEAR(row[STEADY_X], row[X], 0.5);
        EXPECT_NEAR(row[STEADY_Y], row[Y], 0.5);
        EXPECT_NEAR(row[STEADY_ANGLE], row[ANGLE], 0.05);
    }
}

}  // namespace
