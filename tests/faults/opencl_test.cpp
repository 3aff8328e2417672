// SPDX-License-Identifier: Apache-2.0

// A stream whose OpenCL driver fails: every call of the library is made to fail in turn.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/faults/leak_test.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

using testing::ElementsAre;

constexpr char STAGE_ENDED[] = "warp_affine_ocl: AffineTransformerOcl met an error: -1";
constexpr int FRAMES = 60;

using FailingOpencl = LeakTest;

TEST_F(FailingOpencl, AtCreationGivesNullAndLeavesNothing) {
    constexpr int NO_OBJECT_MEMORY = -4;
    const struct {
        const char* call;
        std::vector<std::string> said;  // when the first, second ... call fails
    } cases[] = {
        {"clCreateKernel", {"Failed to create kernel: -4!!"}},
        {"clCreateCommandQueue", {"Failed to create command queue: -4!!"}},
        {"clCreateBuffer",
         {"Failed to create buffer for srcY!", "Failed to create buffer for srcUV!",
          "Failed to create buffer for dstY!", "Failed to create buffer for dstUV!",
          "Failed to create buffer for wp!"}},
        {"clEnqueueWriteBuffer", {"Failed to fill a destination buffer!"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> said;
        bool failed = true;
        for (int n = 1; failed; ++n) {
            SCOPED_TRACE(testing::Message() << c.call << ", call " << n);
            clear_log();
            fail({c.call, n, n, NO_OBJECT_MEMORY});
            const StabilizerPtr s = make_stabilizer(SMALL);
            failed = let_all_succeed();
            EXPECT_EQ(s == nullptr, failed);
            if (failed) {
                ASSERT_EQ(logged_errors().size(), 2U);
                EXPECT_EQ(count_log("Failed to init AffineTransformer!!"), 1);
                const std::string text = log_lines()[log_lines().size() - 2].text;
                if (said.empty() || said.back() != text) {  // a destination is tried twice
                    said.push_back(text);
                }
                expect_nothing_left();
            }
        }
        EXPECT_EQ(said, c.said);
    }
}

Ending run_with(const Fault& fault, bool in_place) {
    const StabilizerPtr s = make_stabilizer(SMALL, in_place);
    clear_log();
    fail(fault);
    const Ending ending = run_stream(s.get(), FRAMES, [](int i) { return make_frame(i, SMALL); });
    const int whole = ending.code == RESULT_END_OF_STREAM ? 1 : 0;
    EXPECT_EQ(video_stabilizer_reached_eos(s.get()), whole);
    EXPECT_EQ(affine_transformer_ocl_reach_eos(s->transformer), whole);
    EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
    EXPECT_TRUE(let_all_succeed());
    return ending;
}

TEST_F(FailingOpencl, InAStreamEndsItAfterTheFramesThatWereDone) {
    const char* const writes[] = {"Failed to write srcY buffer!!", "Failed to write srcUV buffer!!",
                                  "Failed to write wp buffer!!"};
    const char* const reads[] = {"Failed to read dstY buffer!!", "Failed to read dstUV buffer!!"};
    const char* const launch = "Failed to clEnqueueNDRangeKernel!!";
    struct Case {
        const char* call;
        int n;
        const char* text;
        int popped;
    };
    // The launch refuses arguments that were never set, and goes on with those that were.
    std::vector<Case> cases = {{"clSetKernelArg", 1, launch, 0},
                               {"clSetKernelArg", 2, launch, 0},
                               {"clSetKernelArg", 50, nullptr, FRAMES}};
    for (const int n : {1, 2, 50}) {
        cases.push_back({"clEnqueueWriteBuffer", n, writes[(n - 1) % 3], (n - 1) / 3});
        cases.push_back({"clEnqueueNDRangeKernel", n, launch, n - 1});
        cases.push_back({"clEnqueueReadBuffer", n, reads[(n - 1) % 2], (n - 1) / 2});
    }
    for (const Case& c : cases) {
        for (const bool device_lost : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << c.call << ", call " << c.n << ", device lost " << device_lost);
            const bool in_place = device_lost;  // as good as any other pairing
            const bool survives = c.text == nullptr && !device_lost;
            const Ending ending = run_with({c.call, c.n, c.n, -5, device_lost}, in_place);
            EXPECT_EQ(ending.code, survives ? RESULT_END_OF_STREAM : RESULT_STOPPING);
            if (c.text != nullptr) {
                EXPECT_THAT(logged_errors(),
                            ElementsAre(std::string("warp_affine_ocl: ") + c.text, STAGE_ENDED));
            }
            if (c.text != nullptr || survives) {
                EXPECT_EQ(ending.popped, c.popped);
            }
            expect_nothing_left();
        }
    }
    for (const char* call : {"clReleaseKernel", "clReleaseMemObject", "clReleaseCommandQueue"}) {
        EXPECT_EQ(run_with({call}, true).popped, FRAMES) << call;
        expect_nothing_left();
    }
}

// Nobody else could free a host that has one thread.
TEST_F(FailingOpencl, AHostOfOneThreadIsReleased) {
    const StabilizerPtr s = make_stabilizer(SMALL);
    fail({"clEnqueueNDRangeKernel"});
    ASSERT_EQ(video_stabilizer_start(s.get()), RESULT_OK);
    int pushed = 0;
    while (video_stabilizer_push_frame(s.get(), make_frame(0, SMALL)) == RESULT_OK) {
        ++pushed;
    }
    EXPECT_GE(pushed, s->radius + 1) << "until the queue was full";
    EXPECT_EQ(s->quit.load(), 0) << "nobody has stopped it";
    Frame* frame = nullptr;
    EXPECT_EQ(video_stabilizer_pop_frame(s.get(), &frame), RESULT_STOPPING);
    EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
    EXPECT_EQ(count_log("Already quit!"), 0);
}

}  // namespace
