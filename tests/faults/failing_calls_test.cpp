// SPDX-License-Identifier: Apache-2.0

// The library without memory or threads, and with an OpenCL driver that fails: every allocation and
// every call is made to fail in turn.

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/faults/leak_test.h"
#include "videostabilizer/ocl_runtime.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;

constexpr char NO_MEMORY[] = "OUT OF MEMORY!!!";
constexpr char NO_STAGE[] = "video_stabilizer: Failed to init AffineTransformer!!";
constexpr char STAGE_ENDED[] = "warp_affine_ocl: AffineTransformerOcl met an error: -1";

using WithoutMemory = LeakTest;
using FailingOpencl = LeakTest;

TEST_F(WithoutMemory, CreationGivesNullAndLeavesNothing) {
    VideoStabilizerUser user = {&user, [](void*) -> Frame* { return nullptr; }};
    const VideoStabilizerOptions options = options_for(STABILIZER_MAXIMUM);
    for (const int more : {0, ALL_LATER}) {
        for (const bool has_options : {false, true}) {
            bool failed = true;
            int n = 0;
            while (failed) {
                SCOPED_TRACE(testing::Message() << "allocation " << ++n << ", " << has_options);
                clear_log();
                fail({ALLOCATION, n, n + more});
                VideoStabilizer* const s =
                    has_options
                        ? make_stabilizer(SMALL, true, &options).release()
                        : video_stabilizer_create(64, 48, 64, 64, PIX_FMT_YUV420SP_0, 0, 0, &user);
                failed = let_all_succeed();
                EXPECT_EQ(s == nullptr, failed);
                EXPECT_EQ(failed, !logged_errors().empty());
                if (failed) {
                    EXPECT_THAT(logged_errors(), Contains(EndsWith(NO_MEMORY)));
                    EXPECT_THAT(logged_errors().back(),
                                testing::AnyOf(EndsWith(NO_MEMORY), NO_STAGE));
                }
                video_stabilizer_delete(s);
                expect_nothing_left();
            }
            EXPECT_GT(n, 50) << "are the library's allocations seen at all?";
        }
    }
}

TEST_F(WithoutMemory, AThreadThatCannotBeStartedIsReportedAndLeavesNothing) {
    fail({"pthread_create", 1});
    EXPECT_EQ(make_stabilizer(SMALL), nullptr);
    EXPECT_THAT(logged_errors(), ElementsAre(NO_STAGE));
    expect_nothing_left();
    const StabilizerPtr s = make_stabilizer(SMALL);
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(0, SMALL)), RESULT_OK);
    fail({"pthread_create", 1});
    EXPECT_EQ(video_stabilizer_start(s.get()), RESULT_NO_THREAD);
}

TEST_F(WithoutMemory, AStreamGoesOnOrEndsWithACode) {
    constexpr int FRAMES = 16;
    constexpr Geometry WITH_MOTION = packed(320, 192);  // room for enough corners
    for (const bool in_place : {false, true}) {
        const VideoStabilizerOptions options =
            options_for(in_place ? STABILIZER_MAXIMUM : STABILIZER_GENTLE);
        const auto run = [&](int n) {
            const StabilizerPtr s = make_stabilizer(WITH_MOTION, in_place, &options);
            std::vector<Frame*> frames(FRAMES);
            for (std::size_t i = 0; i < frames.size(); ++i) {
                frames[i] = make_frame(static_cast<int>(i), WITH_MOTION);
            }
            clear_log();
            fail({ALLOCATION, n, n});
            Ending ending = run_stream(s.get(), FRAMES,
                                       [&](int i) { return frames[static_cast<std::size_t>(i)]; });
            let_all_succeed();
            EXPECT_EQ(s->output_eos.load(), ending.code == RESULT_END_OF_STREAM ? 1 : 0);
            return ending;
        };
        ASSERT_EQ(run(0).popped, FRAMES);
        const int count = calls(ALLOCATION);
        int ended_early = 0;
        // The first ones, and some spread over the rest.
        for (int n = 1; n <= count; n += n <= 10 ? 1 : count / 24) {
            SCOPED_TRACE(testing::Message() << "allocation " << n << " of " << count);
            const Ending ending = run(n);
            const std::vector<std::string> errors = logged_errors();
            // No error: the library managed without.
            EXPECT_TRUE(errors.empty() || testing::Matches(Contains(EndsWith(NO_MEMORY)))(errors));
            if (ending.code == RESULT_END_OF_STREAM) {
                EXPECT_EQ(ending.popped, FRAMES);
            } else {
                ++ended_early;
                EXPECT_EQ(ending.code, RESULT_STOPPING);
                ASSERT_FALSE(errors.empty());
                EXPECT_THAT(errors.back(), EndsWith("met an error: -10004"));
            }
            expect_nothing_left();
        }
        EXPECT_GT(ended_early, 0);
    }
}

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

constexpr int FRAMES = 60;

Ending run_with(const Fault& fault, bool in_place) {
    const StabilizerPtr s = make_stabilizer(SMALL, in_place);
    clear_log();
    fail(fault);
    Ending ending = run_stream(s.get(), FRAMES);
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

// Setting OpenCL up, which happens once in a process: each case has a process of its own, forked
// before this one has touched OpenCL. The tests of it run in one of their own too.
struct SetUpCase {
    const char* name;
    Fault fault;
    std::vector<std::string> said;  // "": any text
    bool has_broken_kernels = false;
};

const std::string TAG = "warp_affine_ocl: ";
// An error by its priority alone.
const std::string READY = "OpenCL built program successfully.";

void set_up(const SetUpCase& c) {
    if (c.has_broken_kernels) {
        kernel_source_code = "__kernel void broken(int x) { no_such_thing(x) + ; }";
    }
    const bool ready = c.said[0] == READY;
    fail(c.fault);
    EXPECT_EQ(video_stabilizer_module_init(), ready ? 0 : -1);
    EXPECT_EQ(let_all_succeed(), *c.fault.call != '\0');
    using Text = testing::Matcher<std::string>;
    std::vector<Text> expected;
    for (const std::string& text : c.said) {
        expected.push_back(text.empty() ? Text(testing::_) : Text(TAG + text));
    }
    EXPECT_THAT(logged_errors(), testing::ElementsAreArray(expected));
    EXPECT_EQ(live_blocks(), ready ? 1 : 0) << "the list of devices";

    clear_log();
    EXPECT_EQ(video_stabilizer_module_fini(), 0);
    EXPECT_EQ(video_stabilizer_module_init(), ready ? 0 : -1) << "tried again";
    EXPECT_TRUE(logged_errors().empty());
    VideoStabilizer* const s =
        video_stabilizer_create(64, 48, 64, 32, PIX_FMT_YUV420P, 0, 1, nullptr);
    EXPECT_EQ(s != nullptr, ready);
    EXPECT_EQ(count_log("OUT OF MEMORY!!!"), ready ? 0 : 1);
    video_stabilizer_delete(s);
    EXPECT_EQ(live_blocks(), ready ? 1 : 0);
}

TEST(FailingSetUp, LeavesTheModuleNotReadyWithItsReason) {
    const std::string building = "There is some error in buliding program: ";
    const std::string no_log = "get buildlog failed.\n";
    const std::string no_memory = "OUT OF MEMORY!!!";
    const std::string heading = " \n\t\t\tOpenCL BUILD LOG\n";
    const std::string rule = " " + std::string(48, '*') + "\n";
    const SetUpCase cases[] = {
        {"number of platforms", {"clGetPlatformIDs"}, {"Failed to get num of platforms."}},
        {"no platform", {"clGetPlatformIDs", 1, 1, 0}, {"There is no OpenCL platforms!"}},
        {"platforms", {"clGetPlatformIDs", 2, 2}, {"Failed to get platforms!"}},
        {"vendor", {"clGetPlatformInfo", 1, ALL_LATER}, {READY}},
        {"context", {"clCreateContextFromType"}, {"Failed to create context!"}},
        {"no device", {"clCreateContextFromType", 1, ALL_LATER, -1}, {"Failed to create context!"}},
        {"size of the device list", {"clGetContextInfo"}, {"Failed to get devices!"}},
        {"device list", {"clGetContextInfo", 2, 2}, {"Failed to get devices!"}},
        {"device's limits", {"clGetDeviceInfo", 1, ALL_LATER}, {READY}},
        {"program", {"clCreateProgramWithSource"}, {"Failed to create program!"}},
        {"build", {"clBuildProgram", 1, 1, -6}, {building + "-6\n"}},
        {"kernels", {}, {building + "-11\n", heading, rule, "", rule}, true},
        {"size of the build log", {"clGetProgramBuildInfo"}, {building + "-11\n", no_log}, true},
        {"build log", {"clGetProgramBuildInfo", 2, 2}, {building + "-11\n", no_log}, true},
        {"memory for platforms", {ALLOCATION}, {no_memory}},
        {"memory for devices", {ALLOCATION, 2, 2}, {no_memory}},
        {"memory for the build log", {ALLOCATION, 3, 3}, {building + "-11\n", no_memory}, true},
    };
    for (const SetUpCase& c : cases) {
        SCOPED_TRACE(c.name);
        std::fflush(nullptr);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            set_up(c);
            std::fflush(nullptr);
            _exit(HasFailure() ? 1 : 0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
}

TEST(OclModule, CannotBeSetUpAfterAFini) {
    EXPECT_EQ(affine_transformer_ocl_module_fini(), 0);
    EXPECT_EQ(affine_transformer_ocl_module_init(), 0);
    EXPECT_EQ(affine_transformer_ocl_module_fini(), 0);
    EXPECT_EQ(affine_transformer_ocl_create(0, nullptr, {}, 1), nullptr);
    EXPECT_THAT(logged_errors(), ElementsAre(TAG + "Ocl mudule not initialized! Please call "
                                                   "'affine_transformer_ocl_module_init' first!!"));
}

TEST(OpenKernel, ReadsWholeFilesAndFailsOnWhatIsNone) {
    const std::string path = testing::TempDir() + "open_kernel_test";
    const std::string content("a\0b\n", 4);
    std::ofstream(path, std::ios::binary) << content;
    char* source = nullptr;
    unsigned int length = 77;
    ASSERT_EQ(openKernel(path.c_str(), &source, &length), 0);
    EXPECT_EQ(std::string(source, length + 1), content + '\0');
    std::free(source);
    std::remove(path.c_str());

    EXPECT_EQ(openKernel(path.c_str(), &source, &length), -1);
    EXPECT_EQ(openKernel("/", &source, &length), -1);
    EXPECT_THAT(logged_errors(), ElementsAre(TAG + "Can't open file: " + path + "\n",
                                             TAG + "Failed to get the length of: /\n"));
}

}  // namespace
