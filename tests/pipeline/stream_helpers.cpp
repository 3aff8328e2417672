#include "tests/pipeline/stream_helpers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <thread>

using namespace videostabilizer;

namespace {

unsigned lattice(int x, int y) {
    auto hash = static_cast<unsigned>(x) * 0x9E3779B1U ^ static_cast<unsigned>(y) * 0x85EBCA77U;
    hash = (hash ^ hash >> 15) * 0x2C1B3C6DU;
    return hash >> 24;
}

// Random grey levels on a lattice of 8 pixels, bilinear in between: corners all over, which can be
// followed.
unsigned char texture(int x, int y) {
    constexpr unsigned SPACING = 8;
    const unsigned fx = static_cast<unsigned>(x) % SPACING;
    const unsigned fy = static_cast<unsigned>(y) % SPACING;
    const int cx = x / static_cast<int>(SPACING);
    const int cy = y / static_cast<int>(SPACING);
    const unsigned top = lattice(cx, cy) * (SPACING - fx) + lattice(cx + 1, cy) * fx;
    const unsigned bottom = lattice(cx, cy + 1) * (SPACING - fx) + lattice(cx + 1, cy + 1) * fx;
    return static_cast<unsigned char>((top * (SPACING - fy) + bottom * fy) / (SPACING * SPACING));
}

bool module_used = false;

}  // namespace

namespace test_support {

bool module_was_set_up() {
    return module_used;
}

StabilizerPtr make_stabilizer(int width, int height, bool in_place, VideoStabilizerUser* user) {
    module_used = true;
    EXPECT_EQ(video_stabilizer_module_init(), 0);
    return StabilizerPtr(video_stabilizer_create(width, height, width, width / 2, PIX_FMT_YUV420P,
                                                 0, in_place ? 1 : 0, user));
}

Frame* make_frame(std::int64_t number, int width, int height) {
    Frame* const frame = frame_create(width, height, width, width / 2, PIX_FMT_YUV420P, nullptr);
    const int shift_x = static_cast<int>((number * 2) % 5);
    const int shift_y = static_cast<int>((number * 3) % 4);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            frame->plane_y[y * width + x] = texture(x + shift_x, y + shift_y);
        }
    }
    std::memset(frame->plane_uv, 128,
                static_cast<std::size_t>(frame->stride_uv) * static_cast<std::size_t>(height));
    frame->timestamp = number;
    return frame;
}

std::vector<std::int64_t> run_stream(VideoStabilizer* s, int count, int* last_code,
                                     const std::function<void(const Frame*)>& visit) {
    const int width = s->width;
    const int height = s->height;
    std::thread producer([&] {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(video_stabilizer_push_frame(s, make_frame(i, width, height)), 0);
        }
        EXPECT_EQ(video_stabilizer_signal_eos(s), 0);
    });
    std::vector<std::int64_t> numbers;
    Frame* frame = nullptr;
    int code = 0;
    while ((code = video_stabilizer_pop_frame(s, &frame)) == 0) {
        numbers.push_back(frame->timestamp);
        if (visit) {
            visit(frame);
        }
        frame_delete(frame);
    }
    producer.join();
    if (last_code != nullptr) {
        *last_code = code;
    }
    return numbers;
}

std::vector<std::int64_t> numbers_up_to(int count) {
    std::vector<std::int64_t> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

}  // namespace test_support
