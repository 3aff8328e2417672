#include "tests/faults/streams.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/faults/library_calls.h"
#include "tests/faults/memory_faults.h"
#include "tests/faults/opencl_faults.h"
#include "tests/support/log_capture.h"

using namespace videostabilizer;

namespace fault_support {

namespace {

constexpr int LONG_MS = 600'000;

// In the place of the stage's own: what it makes is patient before its thread runs.
AffineTransformerOcl* create_patiently(int in_place, void* user,
                                       AffineTransformerCallbacks callbacks, int capacity) {
    AffineTransformerOcl* const t =
        affine_transformer_ocl_create(in_place, user, callbacks, capacity);
    if (t != nullptr) {
        t->timeout_ms = LONG_MS;
    }
    return t;
}

}  // namespace

StabilizerPtr make_stabilizer(bool in_place, VideoStabilizerStrength strength, Size size) {
    watch_library_memory();
    watch_opencl();
    static const int redirected =
        redirect_calls(LIBRARY,
                       "_ZN15videostabilizer29affine_transformer_ocl_createEiPvNS_"
                       "26AffineTransformerCallbacksEi",
                       reinterpret_cast<void*>(create_patiently));
    EXPECT_GT(redirected, 0);
    EXPECT_EQ(video_stabilizer_module_init(), 0);
    VideoStabilizerOptions options;
    video_stabilizer_options_for_strength(&options, strength);
    return StabilizerPtr(video_stabilizer_create_with_options(size.width, size.height, size.width,
                                                              size.width / 2, PIX_FMT_YUV420P,
                                                              in_place ? 1 : 0, nullptr, &options));
}

std::vector<Frame*> make_frames(int count, Size size) {
    std::vector<Frame*> frames;
    frames.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        frames.push_back(test_support::make_frame(i, size.width, size.height));
    }
    return frames;
}

void wait_long(VideoStabilizer* s) {
    s->timeout_ms = LONG_MS;
}

Ending run_to_the_end(VideoStabilizer* s, const std::vector<Frame*>& frames) {
    std::thread producer([&] {
        for (Frame* frame : frames) {
            video_stabilizer_push_frame(s, frame);
        }
        video_stabilizer_signal_eos(s);
    });
    Ending ending = {0, 0, true};
    Frame* frame = nullptr;
    while ((ending.code = video_stabilizer_pop_frame(s, &frame)) == RESULT_OK) {
        ending.in_order = ending.in_order && frame->timestamp == ending.popped;
        ++ending.popped;
        frame_delete(frame);
    }
    EXPECT_EQ(video_stabilizer_stop(s), 0);
    producer.join();
    EXPECT_EQ(video_stabilizer_pop_frame(s, &frame), RESULT_STOPPING);
    return ending;
}

std::vector<std::string> logged_errors() {
    std::vector<std::string> errors;
    for (const test_support::LogLine& line : test_support::log_lines()) {
        if (line.priority >= 6 && line.tag != "lk_pyradmid") {
            errors.push_back(line.tag + ": " + line.text);
        }
    }
    return errors;
}

}  // namespace fault_support
