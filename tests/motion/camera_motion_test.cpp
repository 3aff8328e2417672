// SPDX-License-Identifier: Apache-2.0

#include "camera_motion/camera_motion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

// Smooth noise, without a pixel grid, of structures of this size: a cubic spline with random knots.
double noise(double x, double y, double size) {
    const auto knot = [](double column, double row) {
        const auto bits = [](double n) {
            return static_cast<std::uint32_t>(static_cast<std::int32_t>(n));
        };
        std::uint32_t h = bits(column) * 73856093U ^ bits(row) * 19349663U;
        h = (h ^ (h >> 13U)) * 1274126177U;
        return static_cast<double>((h ^ (h >> 16U)) & 0xFFFFU) / 65535 - 0.5;
    };
    const auto weight = [](double distance) {
        const double d = std::abs(distance);
        return d < 1 ? (4 - 6 * d * d + 3 * d * d * d) / 6
                     : (d < 2 ? (2 - d) * (2 - d) * (2 - d) / 6 : 0);
    };
    double sum = 0;
    for (int down = -1; down <= 2; ++down) {
        for (int along = -1; along <= 2; ++along) {
            const double column = std::floor(x / size) + along;
            const double row = std::floor(y / size) + down;
            sum += knot(column, row) * weight(x / size - column) * weight(y / size - row);
        }
    }
    return sum;
}

double scene(double x, double y) {
    return 128 + 90 * noise(x, y, 4) + 110 * noise(x, y, 23) + 110 * noise(x, y, 110);
}

struct View {
    int width = 320;
    int height = 240;
    CameraPose camera = {};
    double gain = 1;
    double offset = 0;
    double object = 0;      // part of the width and height in the middle that shows another scene,
    CameraPose moved = {};  // moved like this relative to the picture
    bool overlay = false;
};

struct Picture {
    int pitch;
    std::vector<unsigned char> luma;
};

// With columns behind the picture that do not belong to it.
Picture taken(const View& v) {
    const PictureCentre centre = picture_centre(v.width, v.height);
    Picture picture{v.width + 8, {}};
    picture.luma.assign(packed_index(picture.pitch, 0, v.height), 255);
    for (int row = 0; row < v.height; ++row) {
        for (int column = 0; column < v.width; ++column) {
            const CameraPose here = {column - centre.x, row - centre.y, 0, 0};
            const bool is_object = std::abs(here.x) < 0.5 * v.object * v.width &&
                                   std::abs(here.y) < 0.5 * v.object * v.height;
            const CameraPose at = pose_after(is_object ? v.moved : v.camera, here);
            double grey = is_object ? scene(at.y + 900, at.x - 700) : scene(at.x, at.y);
            if (v.overlay && column < v.width / 2 && row < v.height / 2) {
                grey = scene(2 * column, 2 * row);
            }
            picture.luma[packed_index(picture.pitch, column, row)] =
                static_cast<unsigned char>(std::lround(v.gain * grey + v.offset));
        }
    }
    return picture;
}

CameraStep step_between(const View& earlier, const View& later) {
    CameraMotion motion(earlier.width, earlier.height);
    const Picture first = taken(earlier);
    const Picture second = taken(later);
    EXPECT_FALSE(motion.add(first.luma.data(), first.pitch).found);
    return motion.add(second.luma.data(), second.pitch);
}

TEST(CameraMotion, FindsStepsInPicturesOfAnyKind) {
    struct Case {
        const char* name;
        View later;
        double pixels;
        View earlier = {};
    };
    const CameraPose usual = {7.3, -4.8, 0.02, -0.015};
    std::vector<Case> cases = {
        {"none", {}, 0.003},
        {"half a pixel", {320, 240, {0.5, -0.5, 0, 0}}, 0.003},
        {"turn and zoom", {320, 240, usual}, 0.005},
        {"darker, with less contrast", {320, 240, {3.1, 1.7, 0.004, 0.002}, 0.8, -12}, 0.004},
        {"hardly any contrast", {320, 240, usual, 0.04, 100}, 0.3, {320, 240, {}, 0.04, 100}},
        {"a fifth of the width", {320, 240, {62, -11, 0.04, 0.01}}, 0.01},
        {"portrait", {180, 320, usual}, 0.01, {180, 320}},
        {"larger than the finest level", {1602, 302, {22.5, 9, 0.01, 0}}, 0.02, {1602, 302}},
        {"object in the middle",
         {320, 240, usual, 1, 0, 0.6, {-3, 5, 0, 0}},
         0.03,
         {320, 240, {}, 1, 0, 0.6}},
    };
    Case overlay = {"overlay", {320, 240, usual}, 0.01};
    overlay.later.overlay = overlay.earlier.overlay = true;
    cases.push_back(overlay);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const CameraStep step = step_between(c.earlier, c.later);
        EXPECT_TRUE(step.found);
        EXPECT_FALSE(step.strange);
        expect_pose(step.pose, c.later.camera, c.pixels, c.pixels / 100);
    }
}

TEST(CameraMotion, TellsWhatIsNotThere) {
    const View textured;
    View even;
    even.gain = 0;
    even.offset = 90;
    View elsewhere;
    elsewhere.camera = {4000, 2500, 1, 0};
    const struct {
        const char* name;
        View earlier, later;
        bool strange;
    } cases[] = {{"even", even, even, false},
                 {"covered", textured, even, true},
                 {"uncovered", even, textured, false},
                 {"elsewhere", textured, elsewhere, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CameraStep step = step_between(c.earlier, c.later);
        EXPECT_FALSE(step.found);
        EXPECT_EQ(step.strange, c.strange);
        expect_pose(step.pose, {}, 0, 0);
    }
}

// Sizes for which some or all of the levels are too small, and narrow ones, in which a search that is
// not bounded would take minutes.
TEST(CameraMotion, TakesPicturesOfAnyShape) {
    const int sizes[][2] = {{1, 1}, {2, 40}, {16, 16}, {17, 33}, {40, 40}, {6000, 31}, {20, 5000}};
    for (const auto& size : sizes) {
        CameraMotion motion(size[0], size[1]);
        std::vector<unsigned char> white(packed_index(size[0], 0, size[1]), 255);
        std::vector<unsigned char> noisy = white;
        std::minstd_rand random(1);
        for (unsigned char& grey : noisy) {
            grey = static_cast<unsigned char>(random() >> 8U);
        }
        for (const auto* picture : {&white, &noisy, &white, &white}) {
            EXPECT_FALSE(motion.add(picture->data(), size[0]).found) << size[0] << " x " << size[1];
        }
    }
}

// A logo over half of the texture, and a camera that rests at times, does not hold the picture still.
TEST(CameraMotion, RemembersWhatIsFixed) {
    CameraMotion motion(320, 240);
    Picture pictures[2];
    View view;
    view.overlay = true;
    for (int n = 0; n < 40; ++n) {
        const bool rests = n >= 15 && n < 30;
        if (!rests) {
            view.camera.x += 2;
            view.camera.y += n % 2 == 0 ? 1 : -1;
        }
        Picture& picture = pictures[n % 2];
        picture = taken(view);
        const CameraStep step = motion.add(picture.luma.data(), picture.pitch);
        if (n > 0) {
            EXPECT_TRUE(step.found);
            const double dy = n % 2 == 0 ? 1 : -1;
            expect_pose(step.pose, {rests ? 0.0 : 2, rests ? 0.0 : dy, 0, 0}, 0.02, 2e-4);
        }
    }
}

}  // namespace
}  // namespace videostabilizer
