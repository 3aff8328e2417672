// Setting OpenCL up, which happens once in a process: each case has a process of its own, forked
// before this one has touched OpenCL.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tests/faults/memory_faults.h"
#include "tests/faults/opencl_faults.h"
#include "tests/faults/streams.h"
#include "tests/support/log_capture.h"
#include "videostabilizer/ocl_runtime.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using namespace videostabilizer;
using namespace fault_support;

namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char READY[] = "OpenCL built program successfully.";
constexpr char BROKEN[] = "__kernel void broken(int x) { no_such_thing(x) + ; }";

void run_in_child(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        body();
        bool failed = testing::Test::HasFailure();
#if defined(__SANITIZE_ADDRESS__)
        failed = __lsan_do_recoverable_leak_check() != 0 || failed;
#endif
        std::fflush(nullptr);
        _exit(failed ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

std::vector<std::string> texts_of(const std::vector<std::string>& errors) {
    std::vector<std::string> texts;
    for (const std::string& error : errors) {
        EXPECT_EQ(error.rfind("warp_affine_ocl: ", 0), 0U) << error;
        texts.push_back(error.substr(error.find(' ') + 1));
    }
    return texts;
}

struct SetUpCase {
    const char* name;
    OpenclFault fault;
    std::vector<std::string> said;
    bool ready = false;
    bool broken_kernels = false;
    bool no_platforms = false;
    int allocation = 0;  // that fails
};

void set_up(const SetUpCase& c) {
    watch_library_memory();
    watch_opencl();
    if (c.no_platforms) {
        hide_platforms();
    }
    if (c.broken_kernels) {
        kernel_source_code = BROKEN;
    }
    fail_opencl(c.fault);
    fail_allocation(c.allocation);
    EXPECT_EQ(video_stabilizer_module_init(), c.ready ? 0 : -1);
    EXPECT_TRUE(c.no_platforms || opencl_has_failed() || has_failed());
    fail_opencl({});
    let_all_succeed();
    EXPECT_THAT(texts_of(logged_errors()), ElementsAreArray(c.said));
    EXPECT_EQ(live_blocks(), c.ready ? 1 : 0) << "the list of devices";

    test_support::clear_log();
    EXPECT_EQ(video_stabilizer_module_fini(), 0);
    EXPECT_EQ(video_stabilizer_module_init(), c.ready ? 0 : -1) << "tried again";
    EXPECT_THAT(logged_errors(), IsEmpty());
    VideoStabilizer* const s =
        video_stabilizer_create(64, 48, 64, 32, PIX_FMT_YUV420P, 0, 1, nullptr);
    EXPECT_EQ(s != nullptr, c.ready);
    EXPECT_EQ(logged_errors().empty() ? "" : logged_errors().back(),
              c.ready ? "" : "video_stabilizer: OUT OF MEMORY!!!");
    video_stabilizer_delete(s);
    EXPECT_EQ(live_blocks(), c.ready ? 1 : 0);
}

TEST(FailingSetUp, LeavesTheModuleNotReadyWithItsReason) {
    const std::string building = "There is some error in buliding program: ";
    const std::vector<std::string> no_build_log = {building + "-11\n", "get buildlog failed.\n"};
    const std::vector<SetUpCase> cases = {
        {"number of platforms", {"clGetPlatformIDs", 1, 1}, {"Failed to get num of platforms."}},
        {"no platform", {}, {"There is no OpenCL platforms!"}, false, false, true},
        {"platforms", {"clGetPlatformIDs", 2, 2}, {"Failed to get platforms!"}},
        {"vendor", {"clGetPlatformInfo", 1, 9}, {READY}, true},
        {"context", {"clCreateContextFromType", 1, 1}, {"Failed to create context!"}},
        {"no device",
         {"clCreateContextFromType", 1, 9, CL_DEVICE_NOT_FOUND},
         {"Failed to create context!"}},
        {"size of the device list", {"clGetContextInfo", 1, 1}, {"Failed to get devices!"}},
        {"device list", {"clGetContextInfo", 2, 2}, {"Failed to get devices!"}},
        {"device's limits", {"clGetDeviceInfo", 1, 9}, {READY}, true},
        {"program", {"clCreateProgramWithSource", 1, 1}, {"Failed to create program!"}},
        {"build", {"clBuildProgram", 1, 1, CL_OUT_OF_HOST_MEMORY}, {building + "-6\n"}},
        {"size of the build log", {"clGetProgramBuildInfo", 1, 1}, no_build_log, false, true},
        {"build log", {"clGetProgramBuildInfo", 2, 2}, no_build_log, false, true},
        {"memory for platforms", {}, {"OUT OF MEMORY!!!"}, false, false, false, 1},
        {"memory for devices", {}, {"OUT OF MEMORY!!!"}, false, false, false, 2},
        {"memory for the build log",
         {},
         {building + "-11\n", "OUT OF MEMORY!!!"},
         false,
         true,
         false,
         3},
    };
    for (const SetUpCase& c : cases) {
        SCOPED_TRACE(c.name);
        run_in_child([&c] { set_up(c); });
    }
}

}  // namespace
