// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

// A target is a function that does what its input says and checks the results. It is linked either
// with the fuzzing engine or with replay.cpp.

// Called by engine and replay; the result is always 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Ends the process in every kind of build, which an engine counts as a finding.
inline void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "violated: %s\n", what);
        std::abort();
    }
}

// Draws values from the input; 0 once it has ended.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool empty() const { return size_ == 0; }

    template <typename T>
    T take() {
        T value{};
        const std::size_t count = size_ < sizeof value ? size_ : sizeof value;
        if (count > 0) {
            std::memcpy(&value, data_, count);
            data_ += count;
            size_ -= count;
        }
        return value;
    }
    int byte() { return take<std::uint8_t>(); }
    bool flag() { return (byte() & 1) != 0; }
    // first to last; at most 65536 values.
    int in_range(int first, int last) {
        const int count = last - first + 1;
        return first + (count > 256 ? take<std::uint16_t>() : byte()) % count;
    }
    // Mostly 0 to last, sometimes any int.
    std::int32_t mostly(int last) {
        const int kind = byte();
        return kind >= 250 ? take<std::int32_t>() : kind % (last + 1);
    }
    // Mostly a number of ordinary size, in sixteenths; sometimes any bits.
    float number() {
        const int kind = byte();
        if (kind >= 240) {
            return take<float>();
        }
        return static_cast<float>(take<std::int16_t>()) / 16.0F;
    }
    // Mostly from first to last, in sixteenths; sometimes any bits.
    float between(int first, int last) {
        const int kind = byte();
        return kind >= 250 ? take<float>()
                           : static_cast<float>(in_range(16 * first, 16 * last)) / 16.0F;
    }

    // A picture of exactly so many bytes on the heap, so that every overread is detected: the rest
    // of the input, repeated, with noise in the bits of a mask.
    std::vector<unsigned char> picture(std::size_t bytes) {
        const int mask = byte();
        std::uint32_t noise = take<std::uint8_t>();
        std::vector<unsigned char> result(bytes);
        for (std::size_t i = 0; i < bytes; ++i) {
            noise = noise * 1664525U + 1013904223U;
            const int value = size_ == 0 ? 0 : data_[i % size_];
            result[i] = static_cast<unsigned char>(value ^ (static_cast<int>(noise >> 24U) & mask));
        }
        return result;
    }
    // The next `bytes` of the input, or what is left.
    Input split(std::size_t bytes) {
        const std::size_t count = size_ < bytes ? size_ : bytes;
        const Input part(data_, count);
        data_ += count;
        size_ -= count;
        return part;
    }
    std::size_t left() const { return size_; }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
};

}  // namespace fuzz
