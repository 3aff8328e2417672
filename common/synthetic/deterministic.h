// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

// Arithmetic with the same result on every machine, for test clips. Library functions such as sin
// and rand differ between platforms.

namespace synthetic {

// 64-bit hash: the finaliser of SplitMix64 (G. L. Steele et al., "Fast splittable pseudorandom number
// generators", 2014).
inline std::uint64_t mix(std::uint64_t value) {
    value += 0x9e3779b97f4a7c15U;
    value = (value ^ (value >> 30U)) * 0xbf58476d1ce4e5b9U;
    value = (value ^ (value >> 27U)) * 0x94d049bb133111ebU;
    return value ^ (value >> 31U);
}

inline std::uint64_t mix(std::uint64_t a, std::uint64_t b) {
    return mix(mix(a) ^ b);
}
inline std::uint64_t mix(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    return mix(mix(a, b), c);
}

// Random numbers that depend on the seed only. Draw once per full expression: the order in which
// arguments are evaluated is unspecified.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(mix(seed)) {}

    std::uint64_t next() { return mix(state_++); }
    // Uniform in [0, 1), 53 bits.
    double unit() { return static_cast<double>(next() >> 11U) * 0x1p-53; }
    double between(double low, double high) { return low + (high - low) * unit(); }
    // Uniform in 0..count - 1.
    int below(int count) { return static_cast<int>(unit() * count); }

  private:
    std::uint64_t state_;
};

// Sine and cosine of an angle in full turns, accurate to 1e-9.
double sin_turns(double turns);
double cos_turns(double turns);

}  // namespace synthetic
