// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace SimpleLA {

// Uninitialised scratch memory of one call: `count` elements of a plain type T, 16-byte aligned. Up
// to STACK elements are in the object itself, so that the small systems, solved hundreds of times a
// frame, never use the heap. data() is null if there is no memory.
template <typename T, std::size_t STACK>
class Scratch {
  public:
    explicit Scratch(std::size_t count) {
        if (count <= STACK) {
            data_ = stack_;
            return;
        }
        if (count > (SIZE_MAX - ALIGNMENT) / sizeof(T)) {
            return;
        }
        heap_ = std::malloc(count * sizeof(T) + ALIGNMENT);
        if (heap_ != nullptr) {
            const std::size_t past = reinterpret_cast<std::uintptr_t>(heap_) % ALIGNMENT;
            data_ = static_cast<T*>(
                static_cast<void*>(static_cast<char*>(heap_) + (ALIGNMENT - past) % ALIGNMENT));
        }
    }
    ~Scratch() { std::free(heap_); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    T* data() { return data_; }

  private:
    static constexpr std::size_t ALIGNMENT = 16;  // bytes

    T* data_ = nullptr;
    void* heap_ = nullptr;
    alignas(ALIGNMENT) T stack_[STACK];
};

}  // namespace SimpleLA
