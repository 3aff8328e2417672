// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/fast16.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "features/fast16_variants.h"
#include "platform/log.h"

namespace videostabilizer {
namespace {

constexpr char LOG_TAG[] = "log_utils";

constexpr int CIRCLE = 16;           // pixels on the circle of the segment test
constexpr int RUN = 9;               // consecutive ones that make a corner
constexpr int OFFSETS = 25;          // CIRCLE + RUN: every run of RUN without wrapping
constexpr int MIN_CELL = 2;          // for a band of cell_size / 2 rows to have any
constexpr int MIN_BORDER = 3;        // the radius of the circle
constexpr int MAX_DIFFERENCE = 255;  // of two grey levels; index of difference 0 in threshold_tab

constexpr unsigned DARKER = 1;
constexpr unsigned BRIGHTER = 2;

struct CirclePoint {
    int dx;
    int dy;  // downwards
};

constexpr CirclePoint CIRCLE_16[] = {{0, 3},  {1, 3},  {2, 2},  {3, 1},   {3, 0},   {3, -1},
                                     {2, -2}, {1, -3}, {0, -3}, {-1, -3}, {-2, -2}, {-3, -1},
                                     {-3, 0}, {-3, 1}, {-2, 2}, {-1, 3}};
constexpr CirclePoint CIRCLE_12[] = {{0, 2},  {1, 2},   {2, 1},   {2, 0},  {2, -1}, {1, -2},
                                     {0, -2}, {-1, -2}, {-2, -1}, {-2, 0}, {-2, 1}, {-1, 2}};
constexpr CirclePoint CIRCLE_8[] = {{0, 1},  {1, 1},   {1, 0},  {1, -1},
                                    {0, -1}, {-1, -1}, {-1, 0}, {-1, 1}};

// A ring of three rows in the scratch memory: the row being scanned and the two above it, which the
// maxima of the middle one depend on. Each row has its scores (a byte per column, 0 where there is
// no corner) and the list of the columns of its corners, preceded by their count:
//
//   scores 0 | scores 1 | scores 2 | padding | count, columns 0 | count, columns 1 | ... 2
//    width      width      width     to 4       1 + width ints
class ScoreRows {
  public:
    struct Row {
        unsigned char* scores;
        int* columns;  // columns[-1] is their count
    };

    ScoreRows(unsigned char* buffer, int width)
        : scores_(buffer), lists_(buffer + (score_bytes(width) + 3) / 4 * 4), width_(width) {
        std::memset(scores_, 0, score_bytes(width));
    }

    // The row `index` rows below the first one scanned; overwrites the one three rows above it.
    Row operator[](int index) const {
        const std::size_t slot = static_cast<std::size_t>(index) % 3;
        const std::size_t width = static_cast<std::size_t>(width_);
        void* const list = lists_ + slot * (width + 1) * sizeof(int);
        return {scores_ + slot * width, static_cast<int*>(list) + 1};
    }

  private:
    static std::size_t score_bytes(int width) { return static_cast<std::size_t>(width) * 3; }

    unsigned char* scores_;
    unsigned char* lists_;
    int width_;
};

// The column cells that already have a corner in the current band, one bit each. In the stabilizer
// one word is enough for frames up to 4096 pixels wide; only wider images allocate.
class BandMask {
  public:
    explicit BandMask(int cells) : more_(static_cast<std::size_t>((cells - 1) / 64)) {}

    void clear() {
        first_ = 0;
        std::fill(more_.begin(), more_.end(), 0);
    }

    // Marks a cell. False if it was marked before.
    bool take(int cell) {
        std::uint64_t& word = cell < 64 ? first_ : more_[static_cast<std::size_t>(cell / 64 - 1)];
        const std::uint64_t bit = std::uint64_t{1} << (cell % 64);
        const bool is_free = (word & bit) == 0;
        word |= bit;
        return is_free;
    }

  private:
    std::uint64_t first_ = 0;
    std::vector<std::uint64_t> more_;  // cells 64 and up
};

template <typename Condition>
bool has_run(const unsigned char* centre, const std::int32_t* pixel, Condition condition) {
    int run = 0;
    for (int k = 0; k < OFFSETS; ++k) {
        run = condition(static_cast<int>(centre[pixel[k]])) ? run + 1 : 0;
        if (run >= RUN) {
            return true;
        }
    }
    return false;
}

bool is_corner(const unsigned char* centre, const FastParams& params) {
    const std::int32_t* const pixel = params.pixel;
    const int v = *centre;
    const unsigned char* const classes = params.threshold_tab + (MAX_DIFFERENCE - v);
    // A run of 9 contains a pixel of each of the 8 opposite pairs, so every pair must have one of
    // the run's class. The first pair rejects most pixels, the next three most of the rest.
    const auto pair = [&](int k) -> unsigned {
        return static_cast<unsigned>(classes[centre[pixel[k]]]) | classes[centre[pixel[k + 8]]];
    };
    unsigned candidates = pair(0);
    if (candidates == 0) {
        return false;
    }
    candidates &= pair(2) & pair(4) & pair(6);
    if (candidates == 0) {
        return false;
    }
    candidates &= pair(1) & pair(3) & pair(5) & pair(7);

    const int dark = v - params.threshold;
    const int bright = v + params.threshold;
    return ((candidates & DARKER) != 0 &&
            has_run(centre, pixel, [dark](int level) { return level < dark; })) ||
           ((candidates & BRIGHTER) != 0 &&
            has_run(centre, pixel, [bright](int level) { return level > bright; }));
}

// Whether a score is greater than its 8 neighbours. Equal neighbours suppress each other.
bool is_strict_maximum(const unsigned char* above, const unsigned char* row,
                       const unsigned char* below, int j) {
    const int score = row[j];
    const auto beats = [score, j](const unsigned char* other) {
        return score > other[j - 1] && score > other[j] && score > other[j + 1];
    };
    return score > row[j - 1] && score > row[j + 1] && beats(above) && beats(below);
}

bool can_detect(int width, int height, const FastParams& params) {
    return width > 0 && height > 0 && width == params.width && params.buffer != nullptr &&
           params.cell_size >= MIN_CELL && params.border_x >= MIN_BORDER &&
           params.border_y >= MIN_BORDER;
}

}  // namespace

int scan_row_plain(const unsigned char* row, int first, int end, const FastParams& params,
                   unsigned char* scores, int* columns) {
    int count = 0;
    for (int j = first; j < end; ++j) {
        if (!is_corner(row + j, params)) {
            continue;
        }
        columns[count++] = j;
        if (params.nonmax_suppression != 0) {
            scores[j] =
                static_cast<unsigned char>(cornerScore16(row + j, params.pixel, params.threshold));
        }
    }
    return count;
}

void detect_corners(const CornerVariant& variant, const unsigned char* image,
                    std::vector<KeyPoint>& keypoints, int width, int height,
                    const FastParams& params) {
    const ScoreRows rows(params.buffer, width);
    const int first_row = params.border_y;
    const int end_row = height - params.border_y;
    if (end_row < first_row) {
        return;
    }
    BandMask band((width - 1) / params.cell_size + 1);
    const int band_rows = params.cell_size / 2;

    // With row i scanned, the maxima of row i - 1 are known. The last turn scans nothing.
    for (int i = first_row; i <= end_row; ++i) {
        const int index = i - first_row;
        const ScoreRows::Row current = rows[index];
        std::memset(current.scores, 0, static_cast<std::size_t>(width));
        current.columns[-1] = 0;
        if (i < end_row) {
            current.columns[-1] =
                variant.scan_row(image + static_cast<std::ptrdiff_t>(i) * width, params.border_x,
                                 width - params.border_x, params, current.scores, current.columns);
        }
        if (i == first_row) {
            continue;
        }

        const ScoreRows::Row judged = rows[index + 2];  // slot of row i - 1
        const ScoreRows::Row above = rows[index + 1];   // slot of row i - 2, zeros at first
        if (i % band_rows == 0) {
            band.clear();
        }
        for (int n = 0; n < judged.columns[-1]; ++n) {
            const int j = judged.columns[n];
            if (params.nonmax_suppression != 0 &&
                !is_strict_maximum(above.scores, judged.scores, current.scores, j)) {
                continue;
            }
            if (band.take(j / params.cell_size)) {
                keypoints.push_back({static_cast<float>(j), static_cast<float>(i - 1),
                                     static_cast<float>(judged.scores[j]), 0});
            }
        }
    }
}

void makeOffsets(int* pixel, int row_stride, int pattern_size) {
    const CirclePoint* const points = pattern_size == 16   ? CIRCLE_16
                                      : pattern_size == 12 ? CIRCLE_12
                                      : pattern_size == 8  ? CIRCLE_8
                                                           : nullptr;
    for (int k = 0; k < OFFSETS; ++k) {
        if (points == nullptr) {
            pixel[k] = 0;
            continue;
        }
        const CirclePoint& point = points[k % pattern_size];
        // 64 bits, so that no stride overflows.
        pixel[k] = static_cast<int>(point.dx + std::int64_t{point.dy} * row_stride);
    }
}

int cornerScore16(const unsigned char* ptr, const int* pixel, int threshold) {
    const int v = *ptr;
    std::int16_t d[OFFSETS];
    for (int k = 0; k < OFFSETS; ++k) {
        d[k] = static_cast<std::int16_t>(v - ptr[pixel[k]]);
    }

    // The best run of 9 darker pixels: a0 becomes the maximum over all runs of the smallest
    // difference. Runs k and k + 1 share the 8 differences from k + 1 on.
    int a0 = threshold;
    for (int k = 0; k < CIRCLE; k += 2) {
        int a = std::min({d[k + 1], d[k + 2], d[k + 3]});
        if (a <= a0) {
            continue;
        }
        a = std::min<int>(a, std::min({d[k + 4], d[k + 5], d[k + 6], d[k + 7], d[k + 8]}));
        a0 = std::max({a0, std::min<int>(a, d[k]), std::min<int>(a, d[k + 9])});
    }

    // The same for brighter pixels, whose differences are negative, if a run is better still.
    int b0 = -a0;
    for (int k = 0; k < CIRCLE; k += 2) {
        int b = std::max({d[k + 1], d[k + 2], d[k + 3], d[k + 4], d[k + 5]});
        if (b >= b0) {
            continue;
        }
        b = std::max<int>(b, std::max({d[k + 6], d[k + 7], d[k + 8]}));
        b0 = std::min({b0, std::max<int>(b, d[k]), std::max<int>(b, d[k + 9])});
    }
    return -b0 - 1;
}

int fast16_init(FastParams* params, int threshold, int nonmax_suppression, int cell_size,
                int reserved, int border_x, int border_y, int width, int height) {
    makeOffsets(params->pixel, width, CIRCLE);
    params->threshold = std::clamp(threshold, 0, MAX_DIFFERENCE);
    params->nonmax_suppression = nonmax_suppression;
    params->cell_size = cell_size;
    params->reserved = reserved;
    params->border_x = border_x;
    params->border_y = border_y;
    params->width = width;
    params->height = height;
    for (int d = -MAX_DIFFERENCE; d <= MAX_DIFFERENCE; ++d) {
        params->threshold_tab[d + MAX_DIFFERENCE] =
            static_cast<unsigned char>(d < -params->threshold  ? DARKER
                                       : d > params->threshold ? BRIGHTER
                                                               : 0);
    }

    // Three score rows and three lists use at most 15 * width + 15 bytes.
    const std::int64_t bytes = (std::int64_t{width} + 16) * 3 * 5 + 128;
    params->buffer = nullptr;
    if (width >= 0 && bytes <= PTRDIFF_MAX) {
        params->buffer = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(bytes)));
    }
    if (params->buffer == nullptr) {
        __android_log_print(LOG_ERROR, LOG_TAG, OUT_OF_MEMORY_TEXT);
        return -1;
    }
    return 0;
}

void fast16_fini(FastParams* params) {
    std::free(params->buffer);
}

void fast16(const unsigned char* image, std::vector<KeyPoint>& keypoints, int width, int height,
            const FastParams* params) {
    keypoints.clear();
    if (!can_detect(width, height, *params)) {
        return;
    }
    static const CornerVariant& variant = fastest_variant(corner_variants);
    try {
        detect_corners(variant, image, keypoints, width, height, *params);
    } catch (const std::bad_alloc&) {  // nothing is thrown across the interface
        __android_log_print(LOG_ERROR, LOG_TAG, OUT_OF_MEMORY_TEXT);
    }
}

}  // namespace videostabilizer
