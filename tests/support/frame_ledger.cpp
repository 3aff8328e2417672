// SPDX-License-Identifier: Apache-2.0

#include "tests/support/frame_ledger.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <new>
#include <set>

#include "videostabilizer/frame.h"

namespace {

std::mutex ledger_mutex;
std::set<const videostabilizer::Frame*> frames;  // guarded by ledger_mutex

}  // namespace

namespace test_support {

int live_frames() {
    const std::lock_guard<std::mutex> lock(ledger_mutex);
    return static_cast<int>(frames.size());
}

}  // namespace test_support

namespace videostabilizer {

Frame* frame_create(int width, int height, int stride_y, int stride_uv, PixFmt format,
                    unsigned char* data) {
    const std::size_t luma = static_cast<std::size_t>(stride_y) * static_cast<std::size_t>(height);
    const std::size_t chroma = static_cast<std::size_t>(chroma_planes_factor[format]) *
                               static_cast<std::size_t>(stride_uv) *
                               static_cast<std::size_t>(height);
    auto* const block = static_cast<unsigned char*>(std::calloc(1, sizeof(Frame) + luma + chroma));
    unsigned char* const pixels = data != nullptr ? data : block + sizeof(Frame);
    auto* const frame = new (block) Frame{width,  height,        stride_y, stride_uv, format, 0, 1,
                                          pixels, pixels + luma, nullptr,  nullptr,   nullptr};
    const std::lock_guard<std::mutex> lock(ledger_mutex);
    frames.insert(frame);
    return frame;
}

void frame_delete(Frame* frame) {
    if (frame == nullptr) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(ledger_mutex);
        EXPECT_EQ(frames.erase(frame), 1U) << "frame released twice";
    }
    std::free(frame);
}

}  // namespace videostabilizer
