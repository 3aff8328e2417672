#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "videostabilizer/videostabilizer.h"

// Streams of small pictures through the stabilizer.

namespace test_support {

constexpr int WIDTH = 192;
constexpr int HEIGHT = 144;

// What a pipeline holds that nobody pops from: 3 frames in the input queue, 11 with the worker, 2
// with the warp stage, 2 in the output queue.
constexpr int FRAMES_INSIDE = 3 + 11 + 2 + 2;

struct StabilizerDeleter {
    void operator()(videostabilizer::VideoStabilizer* s) const {
        videostabilizer::video_stabilizer_delete(s);
    }
};
using StabilizerPtr = std::unique_ptr<videostabilizer::VideoStabilizer, StabilizerDeleter>;

// A stabilizer for packed planar pictures, not started. Sets the module up.
StabilizerPtr make_stabilizer(int width = WIDTH, int height = HEIGHT, bool in_place = true,
                              videostabilizer::VideoStabilizerUser* user = nullptr);

// Whether make_stabilizer was called in this process.
bool module_was_set_up();

// An owning frame with a textured picture that shakes with its number, which is its timestamp.
videostabilizer::Frame* make_frame(std::int64_t number, int width = WIDTH, int height = HEIGHT);

// Pushes frames 0 to count - 1 and the end of the input from a thread of its own, pops until the
// end, and returns the numbers of the popped frames in order. `visit`, if given, sees each of them.
// The code of the pop that ended it goes to *last_code.
std::vector<std::int64_t> run_stream(
    videostabilizer::VideoStabilizer* s, int count, int* last_code = nullptr,
    const std::function<void(const videostabilizer::Frame*)>& visit = {});

std::vector<std::int64_t> numbers_up_to(int count);

}  // namespace test_support
