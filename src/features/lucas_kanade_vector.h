// SPDX-License-Identifier: Apache-2.0

#pragma once

// The sums over a tracking window, a row at a time, for the level that VS_LEVEL names. They are
// integers, so their order does not matter.

#include <cstddef>
#include <cstdint>

#include "features/lucas_kanade_variants.h"
#include "platform/vector_words.h"

namespace videostabilizer::VS_LEVEL {

constexpr int LANES = WindowCache::LANES;
constexpr int BORDERED = WindowCache::ROWS + 2;  // with a neighbour on either side

// Copies the samples of one row, at least the first BORDERED. Reads up to REACH<SPACING> bytes.
template <int SPACING>
constexpr std::ptrdiff_t REACH = SPACING <= 4 ? LANES* SPACING : (BORDERED - 1) * SPACING + 1;

template <int SPACING>
void copy_samples(const unsigned char* from, unsigned char* to) {
    if constexpr (SPACING <= 4) {
        copy_strided<SPACING>(from, to);
    } else {
        for (int i = 0; i < BORDERED; ++i) {
            to[i] = from[i * SPACING];
        }
    }
}

template <int SPACING>
void gather_evenly(const GreyImage& image, const std::int32_t* rows, int row_count,
                   int first_column, int column_count, unsigned char* out) {
    const unsigned char* const end =
        image.pixels + static_cast<std::ptrdiff_t>(image.width) * image.height;
    for (int r = 0; r < row_count; ++r) {
        const unsigned char* const from =
            image.pixels + static_cast<std::ptrdiff_t>(rows[r]) * image.width + first_column;
        unsigned char* const to = out + static_cast<std::ptrdiff_t>(r) * LANES;
        if (end - from >= REACH<SPACING>) {
            copy_samples<SPACING>(from, to);
        } else {
            for (int i = 0; i < column_count; ++i) {
                to[i] = from[i * SPACING];
            }
        }
    }
}

// Copies the pixels at the given rows and columns to `out`, LANES bytes a row, of which those from
// column_count on are undefined.
inline void gather(const GreyImage& image, const std::int32_t* rows, int row_count,
                   const std::int32_t* columns, int column_count, int spacing, unsigned char* out) {
    // Displaced columns are evenly spaced unless rounding differs between them.
    std::int32_t uneven = 0;
    for (int i = 0; i < LANES; ++i) {
        uneven |= i < column_count ? columns[i] ^ (columns[0] + i * spacing) : 0;
    }
    switch (uneven == 0 ? spacing : 0) {
        case 1:
            return gather_evenly<1>(image, rows, row_count, columns[0], column_count, out);
        case 2:
            return gather_evenly<2>(image, rows, row_count, columns[0], column_count, out);
        case 4:
            return gather_evenly<4>(image, rows, row_count, columns[0], column_count, out);
        case 8:
            return gather_evenly<8>(image, rows, row_count, columns[0], column_count, out);
        case 16:
            return gather_evenly<16>(image, rows, row_count, columns[0], column_count, out);
        default:
            for (int r = 0; r < row_count; ++r) {
                for (int i = 0; i < column_count; ++i) {
                    out[r * LANES + i] =
                        image.pixels[static_cast<std::ptrdiff_t>(rows[r]) * image.width +
                                     columns[i]];
                }
            }
    }
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
GradientSums read_gradients(const GreyImage& prev, const Window& window, WindowCache& cache) {
    const int spacing = window.spacing;
    const int row_count = window.ys.count;
    const int column_count = window.xs.count;
    std::int32_t rows[LANES];
    std::int32_t columns[LANES];
    for (int i = 0; i < LANES; ++i) {
        rows[i] = window.ys.first + (i - 1) * spacing;
        columns[i] = window.xs.first + (i - 1) * spacing;
        cache.inside[i] = static_cast<std::int16_t>(i < column_count ? -1 : 0);
    }
    cache.compared = false;

    unsigned char bordered[(BORDERED + 1) * LANES] = {};
    gather(prev, rows, row_count + 2, columns, column_count + 2, spacing, bordered);

    const Words inside = load_words(cache.inside);
    Sums xx = zero_sums();
    Sums xy = zero_sums();
    Sums yy = zero_sums();
    for (int r = 0; r < row_count; ++r) {
        const unsigned char* const above = bordered + static_cast<std::ptrdiff_t>(r) * LANES;
        const unsigned char* const row = above + LANES;
        const unsigned char* const below = row + LANES;
        const Words x = both(subtract(widen_bytes(row + 2), widen_bytes(row)), inside);
        const Words y = both(subtract(widen_bytes(below + 1), widen_bytes(above + 1)), inside);
        add_products(xx, x, x);
        add_products(xy, x, y);
        add_products(yy, y, y);
        store_words(cache.gradient_x + static_cast<std::ptrdiff_t>(r) * LANES, x);
        store_words(cache.gradient_y + static_cast<std::ptrdiff_t>(r) * LANES, y);
        store_words(cache.level + static_cast<std::ptrdiff_t>(r) * LANES,
                    both(widen_bytes(row + 1), inside));
    }
    return {total(xx), total(xy), total(yy)};
}

// The pixels nearest to displaced samples. Lanes beyond the window continue the row of samples,
// even outside the image.
inline void displace(const Samples& samples, int spacing, float by, int size,
                     std::int32_t* pixels) {
    for (int i = 0; i < LANES; ++i) {
        pixels[i] = nearest_pixel(static_cast<float>(samples.first + i * spacing) + by, size);
    }
}

inline bool are_equal(const std::int32_t* a, const std::int32_t* b) {
    std::int32_t different = 0;
    for (int i = 0; i < LANES; ++i) {
        different |= a[i] ^ b[i];
    }
    return different == 0;
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
MismatchSums compare_windows(const GreyImage& /*prev*/, const GreyImage& next, const Window& window,
                             float dx, float dy, WindowCache& cache) {
    const int spacing = window.spacing;
    const int row_count = window.ys.count;
    const int column_count = window.xs.count;
    std::int32_t columns[LANES];
    std::int32_t rows[LANES];
    displace(window.xs, spacing, dx, next.width, columns);
    displace(window.ys, spacing, dy, next.height, rows);
    if (cache.compared && are_equal(columns, cache.columns) && are_equal(rows, cache.rows)) {
        return cache.sums;
    }

    unsigned char pixels[WindowCache::ROWS * LANES] = {};
    gather(next, rows, row_count, columns, column_count, spacing, pixels);

    const Words inside = load_words(cache.inside);
    Words sad = zero_words();  // at most 255 per row and lane
    Sums x = zero_sums();
    Sums y = zero_sums();
    for (int r = 0; r < row_count; ++r) {
        const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(r) * LANES;
        const Words difference =
            both(subtract(load_words(cache.level + row), widen_bytes(pixels + row)), inside);
        sad = add(sad, absolute(difference));
        add_products(x, load_words(cache.gradient_x + row), difference);
        add_products(y, load_words(cache.gradient_y + row), difference);
    }
    cache.compared = true;
    for (int i = 0; i < LANES; ++i) {
        cache.columns[i] = columns[i];
        cache.rows[i] = rows[i];
    }
    cache.sums = {total(sad), total(x), total(y)};
    return cache.sums;
}

}  // namespace videostabilizer::VS_LEVEL
