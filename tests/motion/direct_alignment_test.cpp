#include "motion/direct_alignment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace videostabilizer {
namespace {

constexpr int WIDTH = 320;
constexpr int HEIGHT = 240;
constexpr int PITCH = WIDTH + 8;  // columns behind the picture that are none of it

using Luma = std::vector<unsigned char>;

// A scene without an end and without a grid of its own.
double scene(double x, double y) {
    return 128 + 30 * std::sin(0.31 * x + 0.23 * y) + 25 * std::sin(0.19 * x - 0.37 * y) +
           20 * std::sin(0.07 * x + 0.41 * y + 1) + 15 * std::sin(0.53 * x - 0.11 * y + 2);
}

struct Exposure {
    double gain, offset, noise;
    int object;  // columns on the left that move by 1.2 pixels of their own
};

// The scene as `motion` carries it, from scene positions to those of the picture.
Luma picture(const Similarity& motion, const Exposure& exposure, unsigned seed) {
    const PictureCentre centre = picture_centre(WIDTH, HEIGHT);
    const double square = motion.a * motion.a + motion.b * motion.b;
    std::mt19937 generator(seed);
    Luma luma(static_cast<std::size_t>(PITCH) * HEIGHT, 255);
    for (int row = 0; row < HEIGHT; ++row) {
        unsigned char* out = luma.data() + static_cast<std::ptrdiff_t>(row) * PITCH;
        for (int column = 0; column < WIDTH; ++column) {
            const double x = column - centre.x - motion.c + (column < exposure.object ? 1.2 : 0);
            const double y = row - centre.y - motion.d;
            const double grey = scene((motion.a * x + motion.b * y) / square,
                                      (motion.a * y - motion.b * x) / square);
            // Uniform, with a standard deviation of 1.
            const double noise =
                std::sqrt(12.0) * (static_cast<double>(generator()) * 0x1p-32 - 0.5);
            const double level = exposure.gain * grey + exposure.offset + exposure.noise * noise;
            *out = static_cast<unsigned char>(std::lround(std::clamp(level, 0.0, 255.0)));
            ++out;
        }
    }
    return luma;
}

// Pairs as a tracker finds them that is wrong by some tenths of a pixel.
void track(const Similarity& motion, std::vector<KeyPoint>& from, std::vector<KeyPoint>& to) {
    const PictureCentre centre = picture_centre(WIDTH, HEIGHT);
    for (int y = 2; y < HEIGHT; y += 24) {
        for (int x = 2; x < WIDTH; x += 24) {
            const double px = x - centre.x;
            const double py = y - centre.y;
            from.push_back({static_cast<float>(x), static_cast<float>(y), 0, 0});
            to.push_back({static_cast<float>(motion.map_x(px, py) + centre.x + 0.3),
                          static_cast<float>(motion.map_y(px, py) + centre.y - 0.2), 0, 0});
        }
    }
}

TEST(DirectAlignment, FindsMotionsToAFewThousandthsOfAPixel) {
    const Exposure same = {1, 0, 0, 0};
    const struct {
        const char* name;
        CameraPose truth;
        Exposure later;
        double shift;  // tolerances: pixels
        double turn;   // radians, and logarithm
    } cases[] = {
        {"nothing moves", {0, 0, 0, 0}, same, 0.003, 3e-5},
        {"half a pixel", {0.5, -0.5, 0, 0}, same, 0.003, 3e-5},
        {"all of it", {7.3, -4.8, 0.02, -0.015}, same, 0.005, 5e-5},
        {"darker, with less contrast", {3.1, 1.7, 0.004, 0.002}, {0.8, -12, 0, 0}, 0.003, 3e-5},
        {"noise", {3.1, 1.7, 0.004, 0.002}, {1, 0, 5, 0}, 0.03, 3e-4},
        {"a slow object", {3.1, 1.7, 0.004, 0.002}, {1, 0, 0, WIDTH / 4}, 0.02, 3e-4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Similarity truth = similarity_of_step(c.truth);
        const Luma earlier = picture(similarity_of_step({}), {1, 0, c.later.noise, 0}, 1);
        const Luma later = picture(truth, c.later, 2);
        std::vector<KeyPoint> from, to;
        track(truth, from, to);
        CameraPose step = {c.truth.x - 0.3, c.truth.y + 0.2, c.truth.angle + 0.001, c.truth.zoom};
        DirectAlignment alignment(WIDTH, HEIGHT, 1);
        EXPECT_TRUE(alignment.refine({earlier.data(), later.data(), PITCH}, from, to, step));
        EXPECT_NEAR(step.x, c.truth.x, c.shift);
        EXPECT_NEAR(step.y, c.truth.y, c.shift);
        EXPECT_NEAR(step.angle, c.truth.angle, c.turn);
        EXPECT_NEAR(step.zoom, c.truth.zoom, c.turn);
    }
}

TEST(DirectAlignment, KeepsTheStepWhereThePicturesDoNotTellABetterOne) {
    const CameraPose before = {1.5, -0.5, 0.01, 0.002};
    const Similarity motion = similarity_of_step(before);
    const Luma earlier = picture(similarity_of_step({}), {1, 0, 0, 0}, 1);
    const Luma later = picture(motion, {1, 0, 0, 0}, 1);
    const Luma elsewhere = picture(similarity_of_step({60, 45, 0.5, 0.1}), {1, 0, 0, 0}, 1);
    const Luma flat(earlier.size(), 90);
    std::vector<KeyPoint> from, to;
    track(motion, from, to);
    const std::vector<KeyPoint> few(from.begin(), from.begin() + 8);
    const std::vector<KeyPoint> same(40, KeyPoint{100, 100, 0, 0});
    const struct {
        const char* name;
        const Luma& earlier;
        const Luma& later;
        const std::vector<KeyPoint>& from;
        const std::vector<KeyPoint>& to;
    } cases[] = {{"no pairs", earlier, later, {}, {}},
                 {"few pairs", earlier, later, few, few},
                 {"all in one place", earlier, later, same, same},
                 {"flat pictures", flat, flat, from, to},
                 {"another picture", earlier, elsewhere, from, to}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CameraPose step = before;
        DirectAlignment alignment(WIDTH, HEIGHT, 1);
        EXPECT_FALSE(
            alignment.refine({c.earlier.data(), c.later.data(), PITCH}, c.from, c.to, step));
        EXPECT_EQ(step.x, before.x);
        EXPECT_EQ(step.angle, before.angle);
    }
}

}  // namespace
}  // namespace videostabilizer
