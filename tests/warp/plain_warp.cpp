#include "tests/warp/plain_warp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

struct Position {
    double x;
    double y;
};

Position source_of(const WarpSix& wp, int x, int y) {
    return {static_cast<double>(wp[0]) * x + static_cast<double>(wp[1]) * y +
                static_cast<double>(wp[2]),
            static_cast<double>(wp[3]) * x + static_cast<double>(wp[4]) * y +
                static_cast<double>(wp[5])};
}

int bilinear(const Geometry& geometry, const Bytes& plane, Position position) {
    const double x = std::clamp(position.x, 0.0, geometry.width - 1.001);
    const double y = std::clamp(position.y, 0.0, geometry.height - 1.001);
    const int column = static_cast<int>(x);
    const int row = static_cast<int>(y);
    const auto at = [&](int dx, int dy) {
        return static_cast<double>(plane[index((row + dy) * geometry.luma_row() + column + dx)]);
    };
    const double top = at(0, 0) + (x - column) * (at(1, 0) - at(0, 0));
    const double bottom = at(0, 1) + (x - column) * (at(1, 1) - at(0, 1));
    return static_cast<int>(top + (y - row) * (bottom - top));
}

// The even position at or before the pixel nearest to `position`; EITHER if it is a close call.
int nearest_even(double position, int size) {
    const double shifted = std::clamp(position + 0.5, -1.0, size + 1.0);
    if (std::abs(shifted - std::round(shifted)) < 1e-3 && shifted > 0.5 && shifted < size - 0.5) {
        return EITHER;
    }
    return std::clamp(static_cast<int>(shifted), 0, size - 1) & ~1;
}

void warp_chroma(const Geometry& geometry, const Bytes& source, Position position, int x, int y,
                 std::vector<int>& out) {
    int column = nearest_even(position.x, geometry.width);
    const int row = nearest_even(position.y, geometry.height / 2 * 2);
    const int step = geometry.planar ? 1 : 2;  // bytes between neighbouring samples
    // An odd width ends in half a sample, which only a longer row holds.
    if (column != EITHER && column / 2 * step + step > geometry.chroma_row()) {
        column -= 2;
    }
    const int second = geometry.planar ? geometry.v_offset() : 1;
    const int to = y / 2 * geometry.chroma_row() + x / 2 * step;
    const int from = row / 2 * geometry.chroma_row() + column / 2 * step;
    for (const int offset : {0, second}) {
        out[index(to + offset)] =
            column == EITHER || row == EITHER ? EITHER : source[index(from + offset)];
    }
}

}  // namespace

Planes noise_planes(const Geometry& geometry, std::uint32_t seed) {
    Planes planes{Bytes(geometry.y_bytes()), Bytes(geometry.uv_bytes())};
    for (Bytes* plane : {&planes.y, &planes.uv}) {
        for (unsigned char& byte : *plane) {
            seed = seed * 1664525U + 1013904223U;
            byte = static_cast<unsigned char>(seed >> 24U);
        }
    }
    return planes;
}

PlainResult plain_warp(const Geometry& geometry, const Planes& source, const WarpSix& wp) {
    PlainResult result{std::vector<int>(source.y.size(), UNTOUCHED),
                       std::vector<int>(source.uv.size(), UNTOUCHED)};
    for (int y = 0; y < geometry.height; ++y) {
        for (int x = 0; x < geometry.width / 16 * 16; ++x) {
            const Position position = source_of(wp, x, y);
            result.y[index(y * geometry.luma_row() + x)] = bilinear(geometry, source.y, position);
            if (x % 2 == 0 && y % 2 == 0 && y / 2 < geometry.height / 2) {
                warp_chroma(geometry, source.uv, position, x, y, result.uv);
            }
        }
    }
    return result;
}

void expect_agreement(const PlainResult& expected, const Planes& actual, int untouched_y,
                      int untouched_uv) {
    std::size_t off_by_one = 0;
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < expected.y.size(); ++i) {
        const bool untouched = expected.y[i] == UNTOUCHED;
        const int difference = std::abs(actual.y[i] - (untouched ? untouched_y : expected.y[i]));
        wrong += difference > (untouched ? 0 : 1) ? 1U : 0U;
        off_by_one += difference == 1 ? 1U : 0U;
    }
    EXPECT_EQ(wrong, 0U) << "luma bytes";
    EXPECT_LE(off_by_one, expected.y.size() / 100) << "luma bytes a grey level off";
    wrong = 0;
    std::size_t left_open = 0;
    for (std::size_t i = 0; i < expected.uv.size(); ++i) {
        const int wanted = expected.uv[i] == UNTOUCHED ? untouched_uv : expected.uv[i];
        wrong += wanted != EITHER && actual.uv[i] != wanted ? 1U : 0U;
        left_open += wanted == EITHER ? 1U : 0U;
    }
    EXPECT_EQ(wrong, 0U) << "chroma bytes";
    EXPECT_LE(left_open, expected.uv.size() / 20) << "chroma bytes that the test can't tell";
}
