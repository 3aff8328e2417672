// SPDX-License-Identifier: Apache-2.0

#pragma once

// The routines of stated_variants.h for the level that VS_LEVEL names. Nothing here is shared with
// other files, see block_filters.h.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "native_warp/stated_variants.h"

namespace videostabilizer::VS_LEVEL {

// Rows are computed in runs. All but the fetching of samples is done by loops over a run that
// compilers turn into vector instructions, with the bits of scalar ones.
constexpr int RUN = 256;

// The last position to sample along an axis of `size` samples, such that its right or lower neighbour
// exists; 0 where there is none.
inline float last_position(int size) {
    const auto end = static_cast<float>(size);
    // Beyond 32768 samples the margin would be lost to rounding.
    return end > 1.001F ? end - 1.001F : 0.0F;
}

// NaN, which no comparison is true for, becomes 0.
inline float within(float position, float last) {
    const float not_below = position > 0.0F ? position : 0.0F;
    return not_below < last ? not_below : last;
}

// Where row y of the output comes from: (x_step x + x_start, y_step x + y_start).
struct RowPositions {
    RowPositions(const float wp[6], float y)
        : x_step(wp[0]), x_start(wp[1] * y + wp[2]), y_step(wp[3]), y_start(wp[4] * y + wp[5]) {}

    float x_step;
    float x_start;
    float y_step;
    float y_start;
};

inline const unsigned char* row_of(const SourcePlane& source, std::int32_t row) {
    return source.data + row * source.stride;
}

template <typename Sample>
void luma_run(const PlaneShape& shape, const RowPositions& from, SourcePlane source, int x,
              int count, Sample* out) {
    std::int32_t column[RUN];
    std::int32_t row[RUN];
    float x_fraction[RUN];
    float y_fraction[RUN];
    const float last_x = last_position(shape.width);
    const float last_y = last_position(shape.height);
    for (int i = 0; i < count; ++i) {
        const auto at = static_cast<float>(x + i);
        const float from_x = within(from.x_step * at + from.x_start, last_x);
        const float from_y = within(from.y_step * at + from.y_start, last_y);
        column[i] = static_cast<std::int32_t>(from_x);
        row[i] = static_cast<std::int32_t>(from_y);
        x_fraction[i] = from_x - static_cast<float>(column[i]);
        y_fraction[i] = from_y - static_cast<float>(row[i]);
    }
    Sample upper[RUN][2];
    Sample lower[RUN][2];
    const std::ptrdiff_t below = shape.height > 1 ? source.stride : 0;
    for (int i = 0; i < count && shape.width > 1; ++i) {
        const unsigned char* const sample =
            row_of(source, row[i]) + column[i] * static_cast<std::ptrdiff_t>(sizeof(Sample));
        std::memcpy(upper[i], sample, sizeof upper[i]);
        std::memcpy(lower[i], sample + below, sizeof lower[i]);
    }
    for (int i = 0; i < count && shape.width == 1; ++i) {  // there is no right neighbour
        for (Sample& sample : upper[i]) {
            std::memcpy(&sample, row_of(source, row[i]), sizeof sample);
        }
        for (Sample& sample : lower[i]) {
            std::memcpy(&sample, row_of(source, row[i]) + below, sizeof sample);
        }
    }
    const int shift = shape.format.shift;
    const int largest = (1 << shape.format.depth) - 1;
    for (int i = 0; i < count; ++i) {
        const int p00 = upper[i][0] >> shift;
        const int p01 = upper[i][1] >> shift;
        const int p10 = lower[i][0] >> shift;
        const int p11 = lower[i][1] >> shift;
        const float top = static_cast<float>(p00) + x_fraction[i] * static_cast<float>(p01 - p00);
        const float bottom =
            static_cast<float>(p10) + x_fraction[i] * static_cast<float>(p11 - p10);
        const auto value = static_cast<int>(top + y_fraction[i] * (bottom - top));
        const int limited = sizeof(Sample) == 1 || value < largest ? value : largest;
        out[i] = static_cast<Sample>(limited << shift);
    }
}

template <typename Sample>
void luma_rows(const PlaneShape& shape, const float wp[6], SourcePlane source, TargetPlane target,
               int first, int last) {
    Sample out[RUN];
    for (int y = first; y < last; ++y) {
        const RowPositions from(wp, static_cast<float>(y));
        unsigned char* to = target.data + y * target.stride;
        for (int x = 0; x < shape.width; x += RUN) {
            const int count = shape.width - x < RUN ? shape.width - x : RUN;
            luma_run(shape, from, source, x, count, out);
            // Rows of two-byte samples may be at odd addresses.
            std::memcpy(to, out, static_cast<std::size_t>(count) * sizeof(Sample));
            to += static_cast<std::size_t>(count) * sizeof(Sample);
        }
    }
}

// The nearest chroma sample to a luma position, where 2^sharing luma samples share one. last: the last
// luma sample that has chroma.
inline std::int32_t nearest(float position, float last, int sharing) {
    return static_cast<std::int32_t>(within(position + 0.5F, last)) >> sharing;
}

// 1, 2 or 4 luma samples share a chroma sample.
inline int sharing_of(double step) {
    return step > 2 ? 2 : step > 1 ? 1 : 0;
}

// Clamps samples of two bytes at any address.
inline void limit_words(unsigned char* samples, std::size_t bytes, std::uint16_t largest) {
    for (std::size_t i = 0; i < bytes; i += sizeof(largest)) {
        std::uint16_t value = 0;
        std::memcpy(&value, samples + i, sizeof value);
        value = value < largest ? value : largest;
        std::memcpy(samples + i, &value, sizeof value);
    }
}

template <std::size_t PIXEL_BYTES>
void chroma_rows(const PlaneShape& shape, const PlaneGrid& grid, const float wp[6],
                 SourcePlane source, TargetPlane target, int first, int last) {
    const int across = sharing_of(grid.x_step);
    const int down = sharing_of(grid.y_step);
    const auto last_x = static_cast<float>((shape.width << across) - 1);
    const auto last_y = static_cast<float>((shape.height << down) - 1);
    const bool has_bits_to_spare =
        shape.format.bytes == 2 && shape.format.shift == 0 && shape.format.depth < 16;
    std::int32_t column[RUN];
    std::int32_t row[RUN];
    for (int y = first; y < last; ++y) {
        const RowPositions from(wp, static_cast<float>(y << down));
        unsigned char* to = target.data + y * target.stride;
        for (int x = 0; x < shape.width; x += RUN) {
            const int count = shape.width - x < RUN ? shape.width - x : RUN;
            for (int i = 0; i < count; ++i) {
                const auto at = static_cast<float>((x + i) << across);
                column[i] = nearest(from.x_step * at + from.x_start, last_x, across);
                row[i] = nearest(from.y_step * at + from.y_start, last_y, down);
            }
            unsigned char* const run = to;
            for (int i = 0; i < count; ++i, to += PIXEL_BYTES) {
                const std::ptrdiff_t offset = column[i] * static_cast<std::ptrdiff_t>(PIXEL_BYTES);
                std::memcpy(to, row_of(source, row[i]) + offset, PIXEL_BYTES);
            }
            if (has_bits_to_spare) {
                limit_words(run, static_cast<std::size_t>(count) * PIXEL_BYTES,
                            static_cast<std::uint16_t>((1 << shape.format.depth) - 1));
            }
        }
    }
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
void stated_luma(const PlaneShape& shape, const float wp[6], const SourcePlane& source,
                 const TargetPlane& target, int first, int last) {
    (shape.format.bytes == 1 ? luma_rows<std::uint8_t>
                             : luma_rows<std::uint16_t>)(shape, wp, source, target, first, last);
}

// NOLINTNEXTLINE(misc-definitions-in-headers): as above
void stated_chroma(const PlaneShape& shape, const PlaneGrid& grid, const float wp[6],
                   const SourcePlane& source, const TargetPlane& target, int first, int last) {
    const int pixel_bytes = shape.format.channels * shape.format.bytes;
    (pixel_bytes == 1   ? chroma_rows<1>
     : pixel_bytes == 2 ? chroma_rows<2>
                        : chroma_rows<4>)(shape, grid, wp, source, target, first, last);
}

}  // namespace videostabilizer::VS_LEVEL
