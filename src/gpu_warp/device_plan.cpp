// SPDX-License-Identifier: Apache-2.0

#include "gpu_warp/device_plan.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace videostabilizer {

namespace {

constexpr int BELOW_PHASE = POSITION_BITS - PHASE_BITS;

static_assert(PHASE_BITS == 6 && BELOW_PHASE == 18 && BLOCK == 16 && STRIP_BLOCKS == 16 &&
                  PAIR_WEIGHTS == 2 * BLOCK && lane_slot(4) == 8 && lane_slot(8) == 4,
              "as in picture_kernels.cl");

std::int32_t phases_of(std::int64_t position) {
    return static_cast<std::int32_t>(position >> BELOW_PHASE);
}
std::int32_t below_phase(std::int64_t position) {
    return static_cast<std::int32_t>(position & ((std::int64_t{1} << BELOW_PHASE) - 1));
}

}  // namespace

void DevicePlan::begin(PlanNumber section) {
    numbers_[section] = static_cast<std::int32_t>(numbers_.size());
}

// A position in two numbers, since not all devices have 64-bit ones.
void DevicePlan::add(std::int64_t position) {
    numbers_.push_back(phases_of(position));
    numbers_.push_back(below_phase(position));
}

void DevicePlan::add_tables(const SampleFormat& format, const PlaneWarp& warp) {
    weights_.clear();
    begin(PLAN_ACROSS_FIRST);
    for (std::size_t k = 0; k < warp.table_count(); ++k) {
        const AcrossTable& across = warp.table(k).across;
        for (const AcrossPhase& phase : across.phases) {
            for (int lane = 0; lane < BLOCK; ++lane) {
                numbers_.push_back((phase.first[lane] - lane % format.channels) / format.channels);
            }
        }
        weights_.insert(weights_.end(), across.weights.begin(), across.weights.end());
    }
    begin(PLAN_DOWN_PHASES);
    for (std::size_t k = 0; k < warp.table_count(); ++k) {
        const DownTable& down = warp.table(k).down;
        const auto first_weight = static_cast<std::int32_t>(weights_.size());
        for (const DownPhase& phase : down.phases) {
            numbers_.insert(numbers_.end(),
                            {phase.first, phase.pairs, first_weight + phase.weights, 0});
        }
        weights_.insert(weights_.end(), down.weights.begin(), down.weights.end());
    }
}

// Also finds the intermediate rows that the output needs.
void DevicePlan::add_down_places(int height, const PlaneWarp& warp) {
    const int blocks = numbers_[PLAN_BLOCKS];
    const int strips = numbers_[PLAN_STRIPS];
    int first = std::numeric_limits<int>::max();
    int end = std::numeric_limits<int>::min();
    begin(PLAN_DOWN_PLACES);
    const std::size_t rows = numbers_.size() + static_cast<std::size_t>(2 * strips * height);
    std::vector<std::int32_t> row_numbers;
    row_numbers.reserve(4 * static_cast<std::size_t>(height));
    for (int y = 0; y < height; ++y) {
        std::int64_t step = 0;
        PlaneWarp::Placement place{};
        for (int strip = 0; strip < strips; ++strip) {
            place = warp.place_down(y, strip, step);
            add(place.position);
            const DownTable& table = warp.table(place.table).down;
            const int last_block = std::min(blocks - strip * STRIP_BLOCKS, STRIP_BLOCKS) - 1;
            const int left = block_position(place.position).sample;
            const int right = block_position(place.position + step * last_block).sample;
            first = std::min(first, std::min(left, right) + table.begin);
            end = std::max(end, std::max(left, right) + table.end);
        }
        row_numbers.insert(row_numbers.end(), {phases_of(step), below_phase(step),
                                               static_cast<std::int32_t>(place.table), 0});
    }
    numbers_[PLAN_DOWN_ROWS] = static_cast<std::int32_t>(rows);
    numbers_.insert(numbers_.end(), row_numbers.begin(), row_numbers.end());
    numbers_[PLAN_FIRST_LINE] = first;
    numbers_[PLAN_LINES] = end - first;
}

void DevicePlan::add_across_places(const PlaneWarp& warp) {
    const int blocks = numbers_[PLAN_BLOCKS];
    const int strips = numbers_[PLAN_STRIPS];
    const int lines = numbers_[PLAN_LINES];
    const bool even = warp.evenly_spaced();
    std::int64_t step = 0;
    PlaneWarp::Placement places[STRIP_BLOCKS];
    begin(PLAN_ACROSS_PLACES);
    numbers_.reserve(numbers_.size() + 2 * static_cast<std::size_t>(lines) *
                                           static_cast<std::size_t>(even ? strips : blocks));
    for (int line = 0; line < lines; ++line) {
        const int row = line + numbers_[PLAN_FIRST_LINE];
        for (int strip = 0; strip < strips; ++strip) {
            if (even) {
                add(warp.place_evenly(row, strip, step));
                continue;
            }
            const int count = std::min(blocks - strip * STRIP_BLOCKS, STRIP_BLOCKS);
            warp.place_across(row, strip, count, places);
            for (int block = 0; block < count; ++block) {
                const BlockPosition at = block_position(places[block].position);
                numbers_.push_back(at.sample * PHASES + at.phase);
                numbers_.push_back(static_cast<std::int32_t>(places[block].table));
            }
        }
    }
    if (even) {
        numbers_[PLAN_ACROSS_EVEN] = 1;
        numbers_[PLAN_ACROSS_STEP] = phases_of(step);
        numbers_[PLAN_ACROSS_STEP_BELOW] = below_phase(step);
    }
}

void DevicePlan::make(const PlaneShape& shape, const PlaneWarp& warp) {
    const SampleFormat& format = shape.format;
    const Rounding across = across_rounding(format);
    const Rounding down = down_rounding(format);
    numbers_.assign(PLAN_COUNT, 0);
    numbers_[PLAN_WIDTH] = shape.width;
    numbers_[PLAN_HEIGHT] = shape.height;
    numbers_[PLAN_CHANNELS] = format.channels;
    numbers_[PLAN_BLOCKS] = row_blocks(shape);
    numbers_[PLAN_STRIPS] = warp.strips();
    numbers_[PLAN_SAMPLE_SHIFT] = format.shift;
    numbers_[PLAN_BIAS] = format.bytes == 2 ? 1 << 15 : 0;
    numbers_[PLAN_LARGEST] = (1 << format.depth) - 1;
    numbers_[PLAN_ACROSS_ADD] = across.add;
    numbers_[PLAN_ACROSS_SHIFT] = across.shift;
    numbers_[PLAN_DOWN_ADD] = down.add;
    numbers_[PLAN_DOWN_SHIFT] = down.shift;
    numbers_[PLAN_ACROSS_PAIRS] = warp.table(0).across.pairs;
    add_tables(format, warp);
    add_down_places(shape.height, warp);
    add_across_places(warp);
}

}  // namespace videostabilizer
