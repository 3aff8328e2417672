#include "tests/simplela/heap.h"

#include <atomic>
#include <cstddef>

namespace {

std::atomic<int> live{0};
std::atomic<int> grants_left{-1};  // negative: nothing is refused, or it has been
std::atomic<bool> has_refused{false};

}  // namespace

extern "C" {

void* __real_malloc(std::size_t size);
void __real_free(void* block);
void* __wrap_malloc(std::size_t size);
void __wrap_free(void* block);

void* __wrap_malloc(std::size_t size) {
    if (grants_left >= 0 && grants_left-- == 0) {
        has_refused = true;
        return nullptr;
    }
    void* block = __real_malloc(size);
    live += block != nullptr ? 1 : 0;
    return block;
}

void __wrap_free(void* block) {
    live -= block != nullptr ? 1 : 0;
    __real_free(block);
}

}  // extern "C"

namespace heap {

int live_blocks() {
    return live;
}

void refuse_after(int granted) {
    has_refused = false;
    grants_left = granted;
}

bool refused() {
    grants_left = -1;
    return has_refused;
}

}  // namespace heap
