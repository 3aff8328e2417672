// SPDX-License-Identifier: Apache-2.0

// The plain CPU warps, which define the results.
//
// A row is computed in blocks of columns, and a block in steps (positions, gather, blend), so that
// the compiler vectorises all but the gather. Steps do not branch: the clamps make every position
// of a block readable, also those past the end of the row, which are computed but not stored.

#include "videostabilizer/warp_affine.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cpu_warp/warp_semi_planar.h"
#include "simplela/affine_inverse.h"

namespace videostabilizer {
namespace {

constexpr int BLOCK = 16;

// One direction of the picture: `size` columns, or rows.
struct Axis {
    explicit Axis(int size)
        : edge(static_cast<float>(size) - 1.0F),
          inner(static_cast<float>(size) - 1.001F),
          last_cell(std::max(size - 2, 0)),
          chroma_samples(size / 2) {
        // Beyond 2^24 pixels the differences above may round up.
        while (static_cast<double>(edge) > static_cast<double>(size) - 1.0) {
            edge = std::nextafter(edge, 0.0F);
        }
        inner = std::max(std::min(inner, edge), 0.0F);
    }
    float edge;          // the last position
    float inner;         // replaces positions from the edge on
    int last_cell;       // the last position with a neighbour after it; 0 if none has
    int chroma_samples;  // of 4:2:0
};

struct Picture {
    Picture(int w, int h) : width(w), height(h), columns(w), rows(h) {}
    int width;
    int height;
    Axis columns;
    Axis rows;

    std::ptrdiff_t luma_bytes() const { return std::ptrdiff_t{width} * height; }
};

// Source positions of a block of destination columns, not clamped, possibly NaN.
struct Positions {
    float x[BLOCK];
    float y[BLOCK];
};

// The mapping of one destination row.
class Row {
  public:
    Row(const float* wp, int y)
        : wp_(wp), term_x_(wp[1] * static_cast<float>(y)), term_y_(wp[4] * static_cast<float>(y)) {}

    // The positions of columns x, x + STEP, x + 2 STEP, ... The order of the sums defines the
    // result.
    template <int STEP>
    void map(int x, Positions& to) const {
        for (int i = 0; i < BLOCK; ++i) {
            const auto column = static_cast<float>(x + i * STEP);
            to.x[i] = wp_[2] + (term_x_ + wp_[0] * column);
            to.y[i] = wp_[5] + (term_y_ + wp_[3] * column);
        }
    }

  private:
    const float* wp_;
    float term_x_;
    float term_y_;
};

// Each position split into the first of the four samples around it and the fraction beyond that,
// 0 to 1.
struct Cells {
    int x[BLOCK];
    int y[BLOCK];
    float fx[BLOCK];
    float fy[BLOCK];
};

void split(const float (&positions)[BLOCK], const Axis& axis, int (&cells)[BLOCK],
           float (&fractions)[BLOCK]) {
    const auto [edge, inner, last_cell, chroma_samples] = axis;
    for (int i = 0; i < BLOCK; ++i) {
        float position = positions[i] >= 0.0F ? positions[i] : 0.0F;  // also catches NaN
        position = position >= edge ? inner : position;
        const int cell = static_cast<int>(position);
        cells[i] = cell <= last_cell ? cell : last_cell;
        fractions[i] = position - static_cast<float>(cells[i]);
    }
}

void find_cells(const Row& row, int x, const Picture& picture, Cells& cells) {
    Positions positions;
    row.map<1>(x, positions);
    split(positions.x, picture.columns, cells.x, cells.fx);
    split(positions.y, picture.rows, cells.y, cells.fy);
}

// Bilinear, truncated. Needs no clamp: with fractions from 0 to 1, rounding leaves the range of the
// samples by less than truncation takes off.
inline int blend(int p00, int p01, int p10, int p11, float fx, float fy) {
    const float top = static_cast<float>(p00) + fx * static_cast<float>(p01 - p00);
    const float bottom = static_cast<float>(p10) + fx * static_cast<float>(p11 - p10);
    return static_cast<int>(top + fy * (bottom - top));
}

// Calls block(x, count) for columns x to x + count - 1 until `columns` of them are done.
template <typename Block>
void for_each_block(int columns, Block block) {
    int count = 0;
    for (int x = 0; x < columns; x += count) {
        count = std::min(columns - x, BLOCK);
        block(x, count);
    }
}

// Bytes are gathered in groups and separated by shifts, first byte lowest: one load instead of two
// to four, and the shifts vectorise.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "gathered bytes are in memory order");

template <typename Group>
inline Group load(const unsigned char* p) {
    Group group;
    std::memcpy(&group, p, sizeof group);
    return group;
}

inline int byte_of(std::uint32_t group, int index) {
    return static_cast<int>((group >> (8 * index)) & 0xFFU);
}

// A sample and its right neighbour. A single column is its own neighbour.
inline std::uint32_t load_pair(const unsigned char* p, int width) {
    return width > 1 ? load<std::uint16_t>(p) : *p * 0x101U;
}

// Writes the first `count` values of a block. For whole blocks, nearly all, the compiler knows the
// size.
template <typename Value>
inline void store(unsigned char* target, const Value (&values)[BLOCK], int count) {
    if (count == BLOCK) {
        std::memcpy(target, values, sizeof values);
    } else {
        std::memcpy(target, values, static_cast<std::size_t>(count) * sizeof(Value));
    }
}

void warp_luma_row(const unsigned char* source, unsigned char* target, const Row& row,
                   const Picture& picture) {
    const std::ptrdiff_t below = picture.height > 1 ? picture.width : 0;
    for_each_block(picture.width, [&](int x, int count) {
        Cells cells;
        find_cells(row, x, picture, cells);
        std::uint32_t top[BLOCK];
        std::uint32_t bottom[BLOCK];
        for (int i = 0; i < BLOCK; ++i) {
            const unsigned char* const p =
                source + std::ptrdiff_t{cells.y[i]} * picture.width + cells.x[i];
            top[i] = load_pair(p, picture.width);
            bottom[i] = load_pair(p + below, picture.width);
        }
        unsigned char values[BLOCK];
        for (int i = 0; i < BLOCK; ++i) {
            values[i] = static_cast<unsigned char>(
                blend(byte_of(top[i], 0), byte_of(top[i], 1), byte_of(bottom[i], 0),
                      byte_of(bottom[i], 1), cells.fx[i], cells.fy[i]));
        }
        store(target + x, values, count);
    });
}

constexpr float ROUND = 0.5F;
constexpr float TRUNCATE = 0.0F;

// Indices of the chroma samples of luma positions.
void find_chroma(const float (&positions)[BLOCK], const Axis& axis, float rounding,
                 int (&samples)[BLOCK]) {
    for (int i = 0; i < BLOCK; ++i) {
        float position = positions[i] >= 0.0F ? positions[i] : 0.0F;
        position = position >= axis.edge ? axis.edge : position;
        // With an odd size the last position has no chroma sample of its own.
        samples[i] = std::min(static_cast<int>(position + rounding) >> 1, axis.chroma_samples - 1);
    }
}

// Calls copy(to, from_row, from) for every chroma sample of a row: its column, and the row and
// column of the source sample.
template <typename Copy>
void for_each_chroma_sample(const Row& row, const Picture& picture, float rounding, Copy copy) {
    for_each_block(picture.columns.chroma_samples, [&](int column, int count) {
        Positions positions;
        row.map<2>(2 * column, positions);
        int columns[BLOCK];
        int rows[BLOCK];
        find_chroma(positions.x, picture.columns, rounding, columns);
        find_chroma(positions.y, picture.rows, rounding, rows);
        for (int i = 0; i < count; ++i) {
            copy(column + i, rows[i], columns[i]);
        }
    });
}

void copy_pair(unsigned char* target, const unsigned char* source) {
    std::memcpy(target, source, 2);
}

}  // namespace

void warp_semi_planar(const unsigned char* source, unsigned char* destination, const float* wp,
                      int width, int height) {
    if (width < 1 || height < 1) {
        return;
    }
    const Picture picture(width, height);
    const unsigned char* const source_uv = source + picture.luma_bytes();
    unsigned char* const destination_uv = destination + picture.luma_bytes();
    for (int y = 0; y < height; ++y) {
        const Row row(wp, y);
        warp_luma_row(source, destination + std::ptrdiff_t{width} * y, row, picture);
        if (y % 2 == 0 && y / 2 < picture.rows.chroma_samples) {
            unsigned char* const target = destination_uv + std::ptrdiff_t{width} * (y / 2);
            for_each_chroma_sample(row, picture, ROUND, [&](int to, int from_row, int from) {
                copy_pair(target + std::ptrdiff_t{2} * to,
                          source_uv + std::ptrdiff_t{width} * from_row + std::ptrdiff_t{2} * from);
            });
        }
    }
}

void warpAffine(unsigned char* source, unsigned char* destination, float* matrix, int width,
                int height) {
    float wp[6];
    SimpleLA::invert_affine(matrix, wp);
    warp_semi_planar(source, destination, wp, width, height);
}

void warpAffine_420p(unsigned char* source, unsigned char* destination, float* matrix, int width,
                     int height) {
    if (width < 1 || height < 1) {
        return;
    }
    float wp[6];
    SimpleLA::invert_affine(matrix, wp);
    const Picture picture(width, height);
    const std::ptrdiff_t u = picture.luma_bytes();
    const std::ptrdiff_t v = u + picture.luma_bytes() / 4;
    const std::ptrdiff_t chroma_row = width / 2;
    for (int y = 0; y < height; ++y) {
        const Row row(wp, y);
        warp_luma_row(source, destination + std::ptrdiff_t{width} * y, row, picture);
        if (y % 2 == 0 && y / 2 < picture.rows.chroma_samples) {
            unsigned char* const target = destination + chroma_row * (y / 2);
            for_each_chroma_sample(row, picture, TRUNCATE, [&](int to, int from_row, int from) {
                const unsigned char* const sample = source + chroma_row * from_row + from;
                target[u + to] = sample[u];
                target[v + to] = sample[v];
            });
        }
    }
}

void warpAffine_rgb(unsigned char* source, unsigned char* destination, float* matrix, int width,
                    int height) {
    constexpr int CHANNELS = 4;
    if (width < 1 || height < 1) {
        return;
    }
    float wp[6];
    SimpleLA::invert_affine(matrix, wp);
    const Picture picture(width, height);
    const std::ptrdiff_t right = width > 1 ? CHANNELS : 0;
    const std::ptrdiff_t below = height > 1 ? std::ptrdiff_t{width} * CHANNELS : 0;
    for (int y = 0; y < height; ++y) {
        const Row row(wp, y);
        unsigned char* const target = destination + std::ptrdiff_t{width} * y * CHANNELS;
        for_each_block(width, [&](int x, int count) {
            Cells cells;
            find_cells(row, x, picture, cells);
            std::uint32_t p00[BLOCK];
            std::uint32_t p01[BLOCK];
            std::uint32_t p10[BLOCK];
            std::uint32_t p11[BLOCK];
            for (int i = 0; i < BLOCK; ++i) {
                const unsigned char* const p =
                    source + (std::ptrdiff_t{cells.y[i]} * width + cells.x[i]) * CHANNELS;
                p00[i] = load<std::uint32_t>(p);
                p01[i] = load<std::uint32_t>(p + right);
                p10[i] = load<std::uint32_t>(p + below);
                p11[i] = load<std::uint32_t>(p + below + right);
            }
            std::uint32_t pixels[BLOCK];
            for (int i = 0; i < BLOCK; ++i) {
                const auto channel = [&](int c) {
                    return static_cast<std::uint32_t>(blend(byte_of(p00[i], c), byte_of(p01[i], c),
                                                            byte_of(p10[i], c), byte_of(p11[i], c),
                                                            cells.fx[i], cells.fy[i]))
                           << (8 * c);
                };
                pixels[i] = channel(0) | channel(1) | channel(2) | channel(3);
            }
            store(target + std::ptrdiff_t{x} * CHANNELS, pixels, count);
        });
    }
}

}  // namespace videostabilizer
