// SPDX-License-Identifier: Apache-2.0

#include "camera_motion/block_search.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace videostabilizer {

namespace {

constexpr int SIDE = 8;     // pixels of a block
constexpr int SPACING = 6;  // at least, from block to block
constexpr double MOST_BLOCKS = 100;
constexpr int RADIUS = 4;  // of the square whose mean is taken away, pixels

constexpr int DEVIATION =
    24;                  // grey levels: the mean deviation that all surroundings are brought to
constexpr int FLAT = 1;  // grey levels: a smaller deviation is mostly noise

}  // namespace

BlockSearch::BlockSearch(int width, int height)
    : width_(width),
      height_(height),
      earlier_(static_cast<std::size_t>(width) * static_cast<std::size_t>(height)),
      later_(earlier_.size()),
      deviations_(earlier_.size()),
      sums_((static_cast<std::size_t>(width) + 1) * (static_cast<std::size_t>(height) + 1)) {
    const double area = static_cast<double>(width) * height;
    const int spacing = std::max(SPACING, static_cast<int>(std::sqrt(area / MOST_BLOCKS)));
    const int columns = width < SIDE ? 0 : (width - SIDE) / spacing + 1;
    const int rows = height < SIDE ? 0 : (height - SIDE) / spacing + 1;
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < columns; ++c) {
            // Spread over the whole width and height.
            const int x = columns == 1 ? 0 : c * (width - SIDE) / (columns - 1);
            const int y = rows == 1 ? 0 : r * (height - SIDE) / (rows - 1);
            blocks_.push_back({x + 0.5 * (SIDE - 1), y + 0.5 * (SIDE - 1), 0, 0, 0});
        }
    }
}

// Sets sums_[y][x] to the sum of value(x, y) over all pixels above and left of (x, y).
template <class Value>
void BlockSearch::sum_up(Value value) {
    const int pitch = width_ + 1;
    for (int y = 0; y < height_; ++y) {
        std::uint32_t row = 0;
        for (int x = 0; x < width_; ++x) {
            row += static_cast<std::uint32_t>(value(x, y));
            sums_[packed_index(pitch, x + 1, y + 1)] = sums_[packed_index(pitch, x + 1, y)] + row;
        }
    }
}

int BlockSearch::mean_around(int x, int y) const {
    const int left = std::max(0, x - RADIUS), right = std::min(width_, x + RADIUS + 1);
    const int top = std::max(0, y - RADIUS), bottom = std::min(height_, y + RADIUS + 1);
    const auto sum = [this](int at_x, int at_y) {
        return sums_[packed_index(width_ + 1, at_x, at_y)];
    };
    const std::uint32_t total =
        sum(right, bottom) - sum(left, bottom) - sum(right, top) + sum(left, top);
    return static_cast<int>(total) / ((right - left) * (bottom - top));
}

// Takes the mean of the surroundings away and brings their contrast to the same everywhere, so that a
// pale background counts as much as a checked shirt.
void BlockSearch::even_out(const LumaView& picture, std::vector<unsigned char>& even) {
    constexpr int UNIT = 16;  // of deviations: a sixteenth of a grey level
    const auto at = [this](int x, int y) { return packed_index(width_, x, y); };
    const auto grey = [&picture](int x, int y) {
        return UNIT * picture.data[static_cast<std::ptrdiff_t>(y) * picture.pitch + x];
    };
    sum_up(grey);
    for (int y = 0; y < height_; ++y) {
        for (int x = 0; x < width_; ++x) {
            deviations_[at(x, y)] = grey(x, y) - mean_around(x, y);
        }
    }
    sum_up([&](int x, int y) { return std::abs(deviations_[at(x, y)]); });
    for (int y = 0; y < height_; ++y) {
        for (int x = 0; x < width_; ++x) {
            const int level =
                128 + DEVIATION * deviations_[at(x, y)] / (UNIT * FLAT + mean_around(x, y));
            even[at(x, y)] = static_cast<unsigned char>(std::clamp(level, 0, 255));
        }
    }
}

void BlockSearch::add(const LumaView& picture) {
    std::swap(earlier_, later_);
    even_out(picture, later_);
}

// The sum of the absolute differences of a block at (x, y) and another one.
int BlockSearch::difference(int x, int y, int to_x, int to_y) const {
    const unsigned char* a = earlier_.data() + static_cast<std::ptrdiff_t>(y) * width_ + x;
    const unsigned char* b = later_.data() + static_cast<std::ptrdiff_t>(to_y) * width_ + to_x;
    int sum = 0;
    for (int r = 0; r < SIDE; ++r) {
        for (int c = 0; c < SIDE; ++c) {
            sum += std::abs(a[c] - b[c]);
        }
        a += width_;
        b += width_;
    }
    return sum;
}

const std::vector<BlockSearch::Block>& BlockSearch::search(int dx, int dy, int range) {
    for (Block& block : blocks_) {
        const int x = static_cast<int>(block.x);  // SIDE is even: the last pixel before the middle
        const int y = static_cast<int>(block.y);
        const int left = x - SIDE / 2 + 1, top = y - SIDE / 2 + 1;
        const int least_x = std::max(-left, dx - range);
        const int most_x = std::min(width_ - SIDE - left, dx + range);
        const int least_y = std::max(-top, dy - range);
        const int most_y = std::min(height_ - SIDE - top, dy + range);
        block.certainty = 0;
        if (least_x > most_x || least_y > most_y) {
            continue;
        }
        // Every second place in both directions: structures of these pictures are wider. Then the
        // places beside the best one.
        int best = 1 << 30;
        int best_x = 0;
        int best_y = 0;
        double sum = 0;
        int count = 0;
        const auto visit = [&](int to_x, int to_y) {
            const int d = difference(left, top, left + to_x, top + to_y);
            if (d < best) {
                best = d;
                best_x = to_x;
                best_y = to_y;
            }
            sum += d;
            ++count;
        };
        for (int to_y = least_y; to_y <= most_y; to_y += 2) {
            for (int to_x = least_x; to_x <= most_x; to_x += 2) {
                visit(to_x, to_y);
            }
        }
        const double mean = sum / count;
        const int around_x = best_x;
        const int around_y = best_y;
        for (int to_y = std::max(least_y, around_y - 1); to_y <= std::min(most_y, around_y + 1);
             ++to_y) {
            for (int to_x = std::max(least_x, around_x - 1); to_x <= std::min(most_x, around_x + 1);
                 ++to_x) {
                visit(to_x, to_y);
            }
        }
        // Between the pixels: differences grow evenly on both sides of the right place.
        const auto between = [&](int step_x, int step_y) {
            const int before_x = left + best_x - step_x, before_y = top + best_y - step_y;
            const int after_x = left + best_x + step_x, after_y = top + best_y + step_y;
            if (before_x < 0 || before_y < 0 || after_x + SIDE > width_ ||
                after_y + SIDE > height_) {
                return 0.0;
            }
            const int before = difference(left, top, before_x, before_y);
            const int after = difference(left, top, after_x, after_y);
            const int rise = std::max(before, after) - best;
            return rise > 0 ? 0.5 * (before - after) / rise : 0.0;
        };
        block.dx = best_x + between(1, 0);
        block.dy = best_y + between(0, 1);
        block.certainty = mean > 0 ? 1 - best / mean : 0;
    }
    return blocks_;
}

}  // namespace videostabilizer
