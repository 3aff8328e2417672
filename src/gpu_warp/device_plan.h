// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "gpu_warp/plan_numbers.h"
#include "native_warp/plane_warp.h"

namespace videostabilizer {

// What the device needs to know of a warp of a plane, beside its samples: numbers, see
// plan_numbers.h, and weights, which are those of the native engine.
class DevicePlan {
  public:
    // warp: one that two passes do, for planes of that shape. Throws std::bad_alloc.
    void make(const PlaneShape& shape, const PlaneWarp& warp);

    const std::vector<std::int32_t>& numbers() const { return numbers_; }
    const std::vector<std::int16_t>& weights() const { return weights_; }
    int intermediate_rows() const { return numbers_[PLAN_LINES]; }

  private:
    void begin(PlanNumber section);
    void add(std::int64_t position);
    void add_tables(const SampleFormat& format, const PlaneWarp& warp);
    void add_down_places(int height, const PlaneWarp& warp);
    void add_across_places(const PlaneWarp& warp);

    std::vector<std::int32_t> numbers_;
    std::vector<std::int16_t> weights_;
};

// A row of a plane on the device: whole blocks.
constexpr int row_blocks(const PlaneShape& shape) {
    return (shape.width * shape.format.channels + BLOCK - 1) / BLOCK;
}

}  // namespace videostabilizer
