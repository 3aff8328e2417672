// In a file of its own: within the tests the compiler would see std::free called on what it takes
// for a block of the standard operator new. Both forms of that are replaced because the sanitizers'
// own nothrow form does not go through the other one.

#include "tests/motion/failing_allocator.h"

#include <cstdlib>
#include <new>

int allocations_left = -1;

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    if (allocations_left >= 0 && allocations_left-- == 0) {
        return nullptr;
    }
    return std::malloc(size > 0 ? size : 1);
}

void* operator new(std::size_t size) {
    if (void* block = operator new(size, std::nothrow)) {
        return block;
    }
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t& /*tag*/) noexcept {
    std::free(block);
}
