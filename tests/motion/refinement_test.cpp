// SPDX-License-Identifier: Apache-2.0

// The refinement of steps: by tracked pairs, and by the pictures.

#include "motion/direct_alignment.h"
#include "motion/similarity_fit.h"
#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

constexpr int WIDTH = 320;
constexpr int HEIGHT = 240;
constexpr int PITCH = WIDTH + 8;  // with columns that do not belong to the picture
const PictureCentre centre = picture_centre(WIDTH, HEIGHT);

using Luma = std::vector<unsigned char>;

// An unbounded scene without a pixel grid.
double scene(double x, double y) {
    return 128 + 30 * std::sin(0.31 * x + 0.23 * y) + 25 * std::sin(0.19 * x - 0.37 * y) +
           20 * std::sin(0.07 * x + 0.41 * y + 1) + 15 * std::sin(0.53 * x - 0.11 * y + 2);
}

Luma picture(const CameraPose& pose, double gain = 1, double offset = 0) {
    Luma luma(static_cast<std::size_t>(PITCH) * HEIGHT, 255);
    for (int row = 0; row < HEIGHT; ++row) {
        for (int column = 0; column < WIDTH; ++column) {
            const CameraPose at = pose_after(pose, {column - centre.x, row - centre.y, 0, 0});
            luma[static_cast<std::size_t>(row * PITCH + column)] =
                static_cast<unsigned char>(std::lround(gain * scene(at.x, at.y) + offset));
        }
    }
    return luma;
}

struct Pairs {
    std::vector<KeyPoint> from, to;
};

// Tracked pairs, with a tracker that is wrong by some tenths of a pixel.
Pairs track(const CameraPose& step) {
    Pairs pairs;
    for (int y = 2; y < HEIGHT; y += 24) {
        for (int x = 2; x < WIDTH; x += 24) {
            pairs.from.push_back({static_cast<float>(x), static_cast<float>(y), 0, 0});
            KeyPoint& to =
                pairs.to.emplace_back(move_point(affine_of(step, centre), pairs.from.back()));
            to.x += 0.3F;
            to.y -= 0.2F;
        }
    }
    return pairs;
}

bool refine(const Luma& earlier, const Luma& later, const Pairs& pairs, CameraPose& step) {
    DirectAlignment alignment(WIDTH, HEIGHT, 1);
    return alignment.refine({earlier.data(), later.data(), PITCH}, pairs.from, pairs.to, step);
}

TEST(DirectAlignment, FindsMotionsToAFewThousandthsOfAPixel) {
    const auto expect_found = [](const CameraPose& truth, double pixels, double gain = 1,
                                 double offset = 0) {
        SCOPED_TRACE(testing::Message() << truth.x << ", gain " << gain);
        CameraPose step = {truth.x - 0.3, truth.y + 0.2, truth.angle + 0.001, truth.zoom};
        EXPECT_TRUE(refine(picture({}), picture(truth, gain, offset), track(truth), step));
        expect_pose(step, truth, pixels, pixels / 100);
    };
    expect_found({0, 0, 0, 0}, 0.003);
    expect_found({0.5, -0.5, 0, 0}, 0.003);
    expect_found({7.3, -4.8, 0.02, -0.015}, 0.005);
    expect_found({3.1, 1.7, 0.004, 0.002}, 0.003, 0.8, -12);  // darker, with less contrast
}

// The affine estimate tolerates three pixels, so that slower objects are part of it.
TEST(SimilarityFit, FindsTheCameraAmongMovingObjects) {
    const CameraPose truth = {6, -4, 0.01, 0.005};
    const struct {
        const char* name;
        std::size_t share;  // of the pairs, percent
        float shift;        // pixels
    } objects[] = {{"none", 0, 0}, {"slow", 35, 5}, {"fast", 40, 30}};
    for (const auto& object : objects) {
        SCOPED_TRACE(object.name);
        Pairs pairs = track(truth);
        for (std::size_t i = 0; i < pairs.to.size(); ++i) {
            pairs.to[i].x += i * 61 % 100 < object.share ? object.shift : 0;
        }
        // An estimate between the two movements.
        CameraPose step = truth;
        step.x -= 0.01 * static_cast<double>(object.share) * static_cast<double>(object.shift);
        SimilarityFit(centre, 1).refine(pairs.from, pairs.to, step);
        expect_pose(step, {truth.x - 0.3, truth.y + 0.2, truth.angle, truth.zoom}, 0.02, 2e-4);
    }
}

TEST(Refinement, KeepsStepsThatAreNotDetermined) {
    const CameraPose before = {1.5, -0.5, 0.01, 0.002};
    const Luma earlier = picture({});
    const Luma later = picture(before);
    const Luma flat(earlier.size(), 90);
    const Pairs pairs = track(before);
    const std::vector<KeyPoint> few(pairs.from.begin(), pairs.from.begin() + 8);
    const std::vector<KeyPoint> same(40, KeyPoint{100, 100, 0, 0});
    CameraPose step = before;
    for (const Pairs& none : {Pairs{}, Pairs{few, few}, Pairs{same, same}}) {
        SimilarityFit(centre, 1).refine(none.from, none.to, step);
        EXPECT_FALSE(refine(earlier, later, none, step));
    }
    EXPECT_FALSE(refine(flat, flat, pairs, step));
    EXPECT_FALSE(refine(earlier, picture({60, 45, 0.5, 0.1}), pairs, step));
    expect_pose(step, before, 0, 0);
}

}  // namespace
}  // namespace videostabilizer
