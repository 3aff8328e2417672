// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "tests/features/picture.h"
#include "videostabilizer/videostabilizer.h"

// Streams of small pictures through the stabilizer.

namespace test_support {

using namespace videostabilizer;

struct Geometry {
    int width, height, stride_y, stride_uv;
    PixFmt format;

    std::size_t luma_bytes() const { return static_cast<std::size_t>(stride_y) * rows(); }
    std::size_t chroma_bytes() const { return static_cast<std::size_t>(stride_uv) * rows(); }

  private:
    std::size_t rows() const { return static_cast<std::size_t>(height); }
};

constexpr int WIDTH = 192;
constexpr int HEIGHT = 144;

constexpr Geometry packed(int width = WIDTH, int height = HEIGHT, PixFmt format = PIX_FMT_YUV420P) {
    return {width, height, width, width / 2, format};
}
constexpr Geometry SMALL = packed(64, 48);

// What a pipeline holds that nobody pops from: 3 frames in the input queue, 11 with the worker, 2
// with the warp stage, 2 in the output queue.
constexpr int FRAMES_INSIDE = 3 + 11 + 2 + 2;

struct StabilizerDeleter {
    void operator()(VideoStabilizer* s) const { video_stabilizer_delete(s); }
};
using StabilizerPtr = std::unique_ptr<VideoStabilizer, StabilizerDeleter>;

// Not started, and with waits so long that a lost wake-up hangs the test; null when the library
// gives none. Sets the module up.
StabilizerPtr make_stabilizer(const Geometry& geometry = packed(), bool in_place = true,
                              const VideoStabilizerOptions* options = nullptr,
                              VideoStabilizerUser* user = nullptr);

VideoStabilizerOptions options_for(int strength);

// Grey levels at a position of frame `frame`, which may be negative.
using Pixel = int (*)(int x, int y, int frame);
int shaking_texture(int x, int y, int frame);

// A frame that owns its pixels.
inline Frame* blank_frame(const Geometry& g) {
    return frame_create(g.width, g.height, g.stride_y, g.stride_uv, g.format, nullptr);
}
// One with its number as timestamp.
Frame* make_frame(int number, const Geometry& geometry = packed(), Pixel pixel = shaking_texture);

using Matrix = std::array<float, 9>;

struct Ending {
    int popped = 0;  // frames
    int code = 0;    // of the pop that ended the stream
    // What the observer was told.
    std::vector<Matrix> motions;
    int estimated = 0;  // motions
    std::vector<Matrix> corrections;
    std::vector<VideoStabilizerReport> reports;
};

// Starts the stabilizer, pushes frames 0 to count - 1 and the end of the input from a thread of its
// own, and pops until a pop fails. Then it stops a stream that has not reached its end. `make` makes
// the frames, `visit` sees each that is popped; the library counts them from `first`. Frames and
// reports must come in order, and reports once the look-ahead is known.
Ending run_stream(VideoStabilizer* s, int count, const std::function<Frame*(int)>& make = {},
                  const std::function<void(Frame*)>& visit = {}, std::int64_t first = 0);

}  // namespace test_support
