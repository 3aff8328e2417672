// SPDX-License-Identifier: Apache-2.0

// Setting OpenCL up, which happens once in a process: each case has a process of its own, forked
// before this one has touched OpenCL. The other tests run in one of their own too.

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

using testing::ElementsAre;

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
