// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

namespace videostabilizer {

// How samples between samples are computed. Weights of one position sum to one, and a position that
// is a sample gives that sample.
enum class Resampling : std::int32_t {
    BILINEAR,  // 2 taps
    LANCZOS3,  // 6 taps: C. Duchon, "Lanczos filtering in one and two dimensions", 1979
};

constexpr int WEIGHT_BITS = 14;  // weights are multiples of 2^-14
constexpr int MAX_TAPS = 12;     // of a kernel that is stretched twofold
constexpr int STRETCHES = 16;    // a stretch is 1 + k / 16, for k from 0 to 16

// The weights of a kernel at 1024 positions between two samples.
// Threads: immutable.
class ResamplingWeights {
  public:
    // stretch: in source samples per output sample, 1..2. A kernel stretched beyond its own
    //          width keeps a reduced picture from aliasing.
    ResamplingWeights(Resampling resampling, double stretch);

    int taps() const { return taps_; }  // even

    // The weights of the taps() samples from floor(p) - taps() / 2 + 1 on at a position p.
    // fraction: p - floor(p), 0..1
    const std::int16_t* at(double fraction) const;

  private:
    int taps_;
    std::vector<std::int16_t> weights_;
};

}  // namespace videostabilizer
