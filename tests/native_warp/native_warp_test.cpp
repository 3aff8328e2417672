// SPDX-License-Identifier: Apache-2.0

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "native_warp/plane_warp.h"
#include "native_warp/stated_warp.h"

using namespace videostabilizer;

namespace {

constexpr SampleFormat FORMATS[] = {
    {1, 8, 0, 1},                  // every 8-bit plane
    {1, 8, 0, 2},                  // NV12
    {2, 10, 0, 1},                 // 10 bits, planar
    {2, 10, 6, 2},                 // P010
    {2, 12, 0, 1}, {2, 16, 0, 2},  // P016
};

// A plane with bytes between its rows.
struct Plane {
    Plane(int width, int height, const SampleFormat& samples)
        : shape{width, height, samples},
          stride(static_cast<std::ptrdiff_t>(width) * samples.channels * samples.bytes + 6),
          bytes(static_cast<std::size_t>(stride * height)) {}

    int get(int x, int y, int channel) const {
        const SampleFormat& f = shape.format;
        const unsigned char* const at = place(x, y, channel);
        return f.bytes == 1 ? *at : (at[0] + 256 * at[1]) >> f.shift;
    }
    void set(int x, int y, int channel, int value) {
        const int moved = value << shape.format.shift;
        auto* const at = const_cast<unsigned char*>(place(x, y, channel));
        at[0] = static_cast<unsigned char>(moved);
        if (shape.format.bytes == 2) {
            at[1] = static_cast<unsigned char>(moved >> 8);
        }
    }
    const unsigned char* place(int x, int y, int channel) const {
        const SampleFormat& f = shape.format;
        return bytes.data() + y * stride +
               static_cast<std::ptrdiff_t>(x * f.channels + channel) * f.bytes;
    }
    template <typename Value>
    void fill(Value value) {
        for (int y = 0; y < shape.height; ++y) {
            for (int x = 0; x < shape.width; ++x) {
                for (int c = 0; c < shape.format.channels; ++c) {
                    set(x, y, c, value(x, y, c));
                }
            }
        }
    }

    PlaneShape shape;
    std::ptrdiff_t stride;
    std::vector<unsigned char> bytes;
};

void warp(const WarpMap& map, const Plane& source, Plane& target) {
    ResamplingKernels kernels(Resampling::LANCZOS3);
    PlaneWarp plane_warp;
    plane_warp.prepare(source.shape, map, kernels);
    WarpScratch scratch;
    plane_warp.warp_rows(fastest_variant(warp_variants), {source.bytes.data(), source.stride},
                         {target.bytes.data(), target.stride}, 0, source.shape.height, scratch);
}

Affine2 turned(double degrees, double zoom, double x, double y) {
    const double angle = degrees * 3.14159265358979323846 / 180;
    const double c = zoom * std::cos(angle);
    const double s = zoom * std::sin(angle);
    return {c, -s, x, s, c, y};
}

double lanczos(double x) {
    constexpr double PI = 3.14159265358979323846;
    return x == 0
               ? 1
               : (std::abs(x) < 3 ? 3 * std::sin(PI * x) * std::sin(PI * x / 3) / (PI * PI * x * x)
                                  : 0);
}

// The sample at a position, by the definition of the kernel in two dimensions.
double defined(const Plane& source, double x, double y, int channel) {
    const int column = static_cast<int>(std::floor(x));
    const int row = static_cast<int>(std::floor(y));
    double sum = 0;
    double weights = 0;
    for (int i = row - 2; i <= row + 3; ++i) {
        for (int k = column - 2; k <= column + 3; ++k) {
            const double weight = lanczos(y - i) * lanczos(x - k);
            weights += weight;
            sum += weight * source.get(std::clamp(k, 0, source.shape.width - 1),
                                       std::clamp(i, 0, source.shape.height - 1), channel);
        }
    }
    return sum / weights;
}

TEST(NativeWarp, ShowsWhatTheDefinitionShows) {
    for (const SampleFormat& format : FORMATS) {
        Plane source(200, 90, format);
        const double unit = (1 << format.depth) / 256.0;
        source.fill([&](int x, int y, int c) {
            return static_cast<int>(unit * (128 + 60 * std::sin(0.5 * x + 0.3 * y + c) +
                                            50 * std::cos(0.2 * x - 0.6 * y)));
        });
        const WarpMap rolling_shutter{
            {turned(1, 0.9, 5, 4), turned(1.1, 0.9, 6, 3.5), turned(1.05, 0.9, 5.5, 4)}, 20, 0.25};
        for (const WarpMap& map : {WarpMap{{turned(0.7, 0.9, 9.3, 4.1)}},
                                   {{turned(-5, 0.85, 3, 12)}},
                                   {{turned(25, 0.8, 20, -9)}},
                                   rolling_shutter}) {
            Plane target(200, 90, format);
            warp(map, source, target);
            double squares = 0;
            double worst = 0;
            target.fill([&](int x, int y, int c) {
                const Affine2 t = map.at(y);
                const int value = target.get(x, y, c);
                const double error =
                    value - defined(source, t.a * x + t.b * y + t.c, t.d * x + t.e * y + t.f, c);
                squares += error * error;
                worst = std::max(worst, std::abs(error));
                return value;
            });
            const double mean = std::sqrt(squares / (200 * 90 * format.channels));
            EXPECT_LT(mean, 0.35 + 0.2 * unit) << format.depth << " bits";
            EXPECT_LT(worst, 0.5 + unit) << format.depth << " bits";
        }
    }
}

TEST(NativeWarp, LeavesWhatIsNotMovedAlone) {
    for (const SampleFormat& format : FORMATS) {
        Plane source(75, 33, format);
        std::mt19937 random(3);
        source.fill(
            [&](int, int, int) { return static_cast<int>(random() & ((1U << format.depth) - 1)); });
        Plane same(75, 33, format);
        warp({{{}}}, source, same);
        EXPECT_EQ(same.bytes, source.bytes) << format.depth << " bits";
    }
}

// A luma position that a plane's sample shows, and the same of its source, are one point of the
// scene: they go through the map of luma.
TEST(NativeWarp, PlanesMoveWithTheirLuma) {
    const WarpMap luma{{turned(2, 0.9, 8, 5), turned(2.5, 0.92, 9, 3)}, 40, 3};
    for (const PlaneGrid& grid : {PlaneGrid{2, 2, 0, 0.5}, {2, 1, 0.5, 0}, {1, 1, 0, 0}}) {
        WarpMap chroma;
        plane_map(luma, grid, chroma);
        for (const double row : {0.0, 7.0, 31.0}) {
            const double x = 11 * grid.x_step + grid.x_first;
            const double y = row * grid.y_step + grid.y_first;
            const Affine2 c = chroma.at(row);
            const Affine2 l = luma.at(y);
            EXPECT_NEAR((c.a * 11 + c.b * row + c.c) * grid.x_step + grid.x_first,
                        l.a * x + l.b * y + l.c, 1e-9);
            EXPECT_NEAR((c.d * 11 + c.e * row + c.f) * grid.y_step + grid.y_first,
                        l.d * x + l.e * y + l.f, 1e-9);
        }
    }
}

// Luma: bilinear, truncated; chroma: the sample of the nearest luma pixel, left and above.
TEST(StatedWarp, ShowsWhatTheDefinitionShows) {
    constexpr float WP[] = {0.90317F, -0.03137F, 4.33911F, 0.02713F, 0.91239F, -2.71713F};
    const auto position = [&](int k, double x, double y) {
        return static_cast<double>(WP[k]) * x + static_cast<double>(WP[k + 1]) * y +
               static_cast<double>(WP[k + 2]);
    };
    for (const SampleFormat& format : FORMATS) {
        for (const PlaneGrid& grid : {PlaneGrid{}, {2, 1, 0, 0}, {2, 2, 0, 0.5}, {4, 1, 0, 0}}) {
            SCOPED_TRACE(testing::Message() << format.depth << " bits, " << format.channels
                                            << " channels, step " << grid.y_step);
            Plane source(301, 33, format);
            std::mt19937 random(3);
            // Some samples are beyond the depth, where two bytes leave room for that.
            const int largest = (1 << format.depth) - 1;
            const bool has_room = format.bytes == 2 && format.depth + format.shift < 16;
            source.fill([&](int x, int, int) {
                return static_cast<int>(random() & static_cast<unsigned int>(largest)) +
                       (has_room && x % 7 == 0 ? largest : 0);
            });
            Plane target(301, 33, format);
            const SourcePlane from{source.bytes.data(), source.stride};
            const TargetPlane to{target.bytes.data(), target.stride};
            const auto near = [](double luma, double step, int size) {
                return std::clamp(static_cast<int>((luma + 0.5) / step), 0, size - 1);
            };
            stated_chroma_rows(source.shape, grid, WP, from, to, 0, 33);
            int other = 0;  // positions midway between two samples may go either way
            target.fill([&](int x, int y, int c) {
                const double luma_x = position(0, x * grid.x_step, y * grid.y_step);
                const double luma_y = position(3, x * grid.x_step, y * grid.y_step);
                const int value = target.get(x, y, c);
                const int nearest =
                    source.get(near(luma_x, grid.x_step, 301), near(luma_y, grid.y_step, 33), c);
                other += value != std::min(nearest, largest) ? 1 : 0;
                return value;
            });
            EXPECT_LT(other, 20);
            if (format.channels == 2) {
                continue;
            }
            stated_luma_rows(source.shape, WP, from, to, 0, 33);
            target.fill([&](int x, int y, int) {
                const double luma_x = std::clamp(position(0, x, y), 0.0, 299.999);
                const double luma_y = std::clamp(position(3, x, y), 0.0, 31.999);
                const int i = static_cast<int>(luma_x);
                const int k = static_cast<int>(luma_y);
                const auto across = [&](int row) {
                    return source.get(i, row, 0) +
                           (luma_x - i) * (source.get(i + 1, row, 0) - source.get(i, row, 0));
                };
                const int value = target.get(x, y, 0);
                const double unit = (1 << format.depth) / 256.0;
                const double exact = across(k) + (luma_y - k) * (across(k + 1) - across(k));
                EXPECT_NEAR(std::min(exact, largest + 1.0), value + 0.5, 0.5 + 0.02 * unit);
                return value;
            });
        }
    }
}

}  // namespace
