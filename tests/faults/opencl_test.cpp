// A stream whose OpenCL driver fails: every call of the library is made to fail in turn.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/faults/memory_faults.h"
#include "tests/faults/opencl_faults.h"
#include "tests/faults/streams.h"
#include "tests/support/log_capture.h"

using namespace videostabilizer;
using namespace fault_support;

namespace {

using testing::ElementsAre;

constexpr char STAGE_ENDED[] = "warp_affine_ocl: AffineTransformerOcl met an error: -1";
constexpr int FRAMES = 60;

std::string stage_says(const std::string& text) {
    return "warp_affine_ocl: " + text;
}

class FailingOpencl : public testing::Test {
  protected:
    void SetUp() override {
        make_stabilizer().reset();  // everything that is set up once
        blocks_ = live_blocks();
        objects_ = live_opencl_objects();
    }
    void TearDown() override {
        fail_opencl({});
        expect_nothing_left();
    }
    void expect_nothing_left() const {
        EXPECT_EQ(live_blocks(), blocks_);
        EXPECT_EQ(live_opencl_objects(), objects_);
    }

  private:
    int blocks_ = 0;
    int objects_ = 0;
};

// What the stage says when creation fails at the n-th call of a name, n = 1, 2, ..., without
// repetitions.
std::vector<std::string> failures_of_creation(const std::string& call) {
    std::vector<std::string> said;
    for (int n = 1;; ++n) {
        SCOPED_TRACE(testing::Message() << call << ", call " << n);
        test_support::clear_log();
        fail_opencl({call.c_str(), n, n, CL_MEM_OBJECT_ALLOCATION_FAILURE});
        const StabilizerPtr s = make_stabilizer();
        if (!opencl_has_failed()) {
            EXPECT_NE(s, nullptr);
            return said;
        }
        EXPECT_EQ(s, nullptr);
        const std::vector<std::string> errors = logged_errors();
        if (errors.size() != 2) {
            ADD_FAILURE() << testing::PrintToString(errors);
            return said;
        }
        EXPECT_EQ(errors.back(), "video_stabilizer: Failed to init AffineTransformer!!");
        if (said.empty() || said.back() != errors.front()) {
            said.push_back(errors.front());
        }
    }
}

TEST_F(FailingOpencl, AtCreationGivesNullAndLeavesNothing) {
    const struct {
        const char* call;
        std::vector<std::string> said;
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
        std::vector<std::string> expected;
        for (const std::string& text : c.said) {
            expected.push_back(stage_says(text));
        }
        EXPECT_EQ(failures_of_creation(c.call), expected);
        expect_nothing_left();
    }
}

// Runs a stream whose host cannot but wait: a lost wake-up, or a wait without end, hangs the test.
Ending run_with(const OpenclFault& fault, bool in_place) {
    fail_opencl({});
    const StabilizerPtr s = make_stabilizer(in_place);
    wait_long(s.get());
    const std::vector<Frame*> frames = make_frames(FRAMES);
    test_support::clear_log();
    fail_opencl(fault);
    EXPECT_EQ(video_stabilizer_start(s.get()), 0);
    const Ending ending = run_to_the_end(s.get(), frames);
    EXPECT_TRUE(ending.in_order);
    const bool whole = ending.code == RESULT_END_OF_STREAM;
    EXPECT_EQ(video_stabilizer_reached_eos(s.get()), whole ? 1 : 0);
    EXPECT_EQ(affine_transformer_ocl_reach_eos(s->transformer), whole ? 1 : 0);
    EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
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
    std::vector<Case> cases;
    for (const int n : {1, 2, 50}) {
        cases.push_back({"clEnqueueWriteBuffer", n, writes[(n - 1) % 3], (n - 1) / 3});
        cases.push_back({"clEnqueueNDRangeKernel", n, launch, n - 1});
        cases.push_back({"clEnqueueReadBuffer", n, reads[(n - 1) % 2], (n - 1) / 2});
    }
    // The launch refuses what was never set, and goes on with what was.
    cases.push_back({"clSetKernelArg", 1, launch, 0});
    cases.push_back({"clSetKernelArg", 2, launch, 0});
    cases.push_back({"clSetKernelArg", 50, nullptr, FRAMES});

    for (const Case& c : cases) {
        for (const bool device_lost : {false, true}) {
            const bool in_place = device_lost;  // as good as any other pairs
            SCOPED_TRACE(testing::Message()
                         << c.call << ", call " << c.n << ", device lost " << device_lost);
            const bool survives = c.text == nullptr && !device_lost;
            const Ending ending =
                run_with({c.call, c.n, c.n, CL_OUT_OF_RESOURCES, device_lost}, in_place);
            EXPECT_TRUE(opencl_has_failed());
            EXPECT_EQ(ending.code, survives ? RESULT_END_OF_STREAM : RESULT_STOPPING);
            if (survives) {
                EXPECT_EQ(ending.popped, FRAMES);
                EXPECT_THAT(logged_errors(), ElementsAre());
            } else if (c.text != nullptr) {
                EXPECT_EQ(ending.popped, c.popped);
                EXPECT_THAT(logged_errors(), ElementsAre(stage_says(c.text), STAGE_ENDED));
            }
            expect_nothing_left();
        }
    }
}

TEST_F(FailingOpencl, WhenReleasingIsNotTriedAgain) {
    for (const char* call : {"clReleaseKernel", "clReleaseMemObject", "clReleaseCommandQueue"}) {
        for (const int n : {1, 2, 5}) {
            SCOPED_TRACE(testing::Message() << call << ", call " << n);
            const Ending ending = run_with({call, n, n}, true);
            EXPECT_EQ(ending.popped, FRAMES);
            EXPECT_EQ(ending.code, RESULT_END_OF_STREAM);
            expect_nothing_left();
        }
    }
}

// A host that is alone with its stream: nobody else could free it.
TEST_F(FailingOpencl, AHostOfOneThreadIsLetGoOf) {
    const StabilizerPtr s = make_stabilizer();
    wait_long(s.get());
    fail_opencl({"clEnqueueNDRangeKernel", 1});
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    int pushed = 0;
    while (video_stabilizer_push_frame(s.get(), make_frames(1)[0]) == RESULT_OK) {
        ++pushed;
    }
    EXPECT_GE(pushed, s->radius + 1) << "until the queue was full";
    EXPECT_EQ(s->quit.load(), 0) << "nobody has stopped it";
    Frame* frame = nullptr;
    EXPECT_EQ(video_stabilizer_pop_frame(s.get(), &frame), RESULT_STOPPING);
    test_support::clear_log();
    EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
    EXPECT_EQ(test_support::count_log("Already quit!"), 0);
}

}  // namespace
