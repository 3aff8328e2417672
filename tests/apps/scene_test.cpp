#include "apps/scene.h"

#include <gtest/gtest.h>
#include <videostabilizer/fast16.h>

#include <cmath>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/apps/memory_io.h"

namespace {

apps::ClipSettings settings_of(int width, int height) {
    apps::ClipSettings settings;
    settings.camera.width = width;
    settings.camera.height = height;
    return settings;
}

std::vector<unsigned char> render(const apps::ShakyClip& clip, int frame) {
    PictureBuffer picture(clip.width(), clip.height());
    clip.render(frame, picture.planes());
    return picture.pixels();
}

// FNV-1a.
std::uint64_t checksum(const std::vector<unsigned char>& bytes) {
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const unsigned char byte : bytes) {
        hash = (hash ^ byte) * 0x100000001b3U;
    }
    return hash;
}

// Results elsewhere are compared with results here, so every machine must make the same clip. Other
// values mean another clip: then measurements before and after do not compare.
TEST(ShakyClip, IsTheSameEverywhere) {
    apps::ClipSettings settings = settings_of(97, 61);
    settings.noise = 3;
    const apps::ShakyClip clip(settings);
    EXPECT_EQ(checksum(render(clip, 0)), 15290658284535351764U);
    EXPECT_EQ(checksum(render(clip, 100)), 10219615497223829076U);
}

TEST(ShakyClip, StandsStillWhileHeldAndMovesAfterwards) {
    apps::ClipSettings settings = settings_of(64, 48);
    settings.camera.hold_seconds = 0.5;
    const apps::ShakyClip clip(settings);
    EXPECT_EQ(render(clip, 0), render(clip, 15));
    EXPECT_NE(render(clip, 0), render(clip, 20));
}

// Mean difference between the luma of frame `to` and that of frame `from` after `motion`, away from
// the edges.
double mismatch(const apps::ShakyClip& clip, int from, int to, const apps::Affine& motion) {
    const std::vector<unsigned char> source = render(clip, from);
    const std::vector<unsigned char> target = render(clip, to);
    const int width = clip.width();
    const int margin = clip.width() / 8;
    double sum = 0;
    int count = 0;
    for (int y = margin; y < clip.height() - margin; ++y) {
        for (int x = margin; x < width - margin; ++x) {
            const double tx = motion.map_x(x, y);
            const double ty = motion.map_y(x, y);
            const double fx = tx - std::floor(tx);
            const double fy = ty - std::floor(ty);
            const unsigned char* p = target.data() + static_cast<int>(std::floor(ty)) * width +
                                     static_cast<int>(std::floor(tx));
            const double value = (p[0] * (1 - fx) + p[1] * fx) * (1 - fy) +
                                 (p[width] * (1 - fx) + p[width + 1] * fx) * fy;
            sum += std::fabs(value - source.data()[y * width + x]);
            ++count;
        }
    }
    return sum / count;
}

TEST(ShakyClip, TheTrueMotionBringsPicturesIntoLine) {
    const struct {
        int width, height, from, to;
    } cases[] = {{320, 240, 3, 4}, {320, 240, 20, 16}, {321, 181, 0, 7}, {640, 480, 30, 31}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height) + ", frame " +
                     std::to_string(c.from) + " to " + std::to_string(c.to));
        const apps::ShakyClip clip(settings_of(c.width, c.height));
        const double moved = mismatch(clip, c.from, c.to, clip.motion(c.from, c.to));
        EXPECT_LT(moved, 2.5);  // grey levels: two interpolations differ that much at edges
        EXPECT_GT(mismatch(clip, c.from, c.to, apps::Affine()), 4 * moved);
    }
}

// The stabilizer finds at most one corner in each column cell of each band of rows. Nearly all of
// them must have one, at every decimation and wherever the camera looks.
TEST(ShakyClip, HasCornersAllOverAtEveryScale) {
    const struct {
        int width, height, scale, cell, border;
    } cases[] = {{640, 480, 1, 64, 32}, {1280, 720, 2, 64, 32}, {1920, 1080, 4, 32, 16}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.width);
        const apps::ShakyClip clip(settings_of(c.width, c.height));
        const int width = c.width / c.scale;
        const int height = c.height / c.scale;
        videostabilizer::FastParams params;
        ASSERT_EQ(videostabilizer::fast16_init(&params, 25, 1, c.cell, 0, c.border, c.border, width,
                                               height),
                  0);
        for (const int frame : {0, 100, 250}) {
            const std::vector<unsigned char> picture = render(clip, frame);
            std::vector<unsigned char> image;
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    image.push_back(picture.data()[(y * c.width + x) * c.scale]);
                }
            }
            std::vector<videostabilizer::KeyPoint> corners;
            videostabilizer::fast16(image.data(), corners, width, height, &params);
            const int cells =
                (width - 2 * c.border) / c.cell * ((height - 2 * c.border) / (c.cell / 2));
            EXPECT_GT(static_cast<int>(corners.size()), cells * 8 / 10) << "in frame " << frame;
        }
        videostabilizer::fast16_fini(&params);
    }
}

}  // namespace
