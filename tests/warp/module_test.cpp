// The process-wide set-up, which happens once in a process: each test runs in a process of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "tests/warp/warp_log.h"
#include "videostabilizer/affine_transformer_ocl.h"
#include "warp/ocl.h"

namespace videostabilizer {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const LogEntry NOT_INITIALIZED = {6,
                                  "Ocl mudule not initialized! Please call "
                                  "'affine_transformer_ocl_module_init' first!!"};

TEST(OclModule, is_set_up_once_by_whoever_comes_first_and_outlives_its_fini) {
    std::thread other([] { EXPECT_EQ(affine_transformer_ocl_module_init(), 1); });
    EXPECT_EQ(affine_transformer_ocl_module_init(), 1);
    other.join();
    EXPECT_THAT(warp_log(), ElementsAre(LogEntry{6, "OpenCL built program successfully."}));

    test_support::clear_log();
    EXPECT_EQ(affine_transformer_ocl_module_fini(), 0);
    EXPECT_EQ(affine_transformer_ocl_module_init(), 1);
    EXPECT_THAT(warp_log(4), IsEmpty());
    EXPECT_NE(ocl_runtime().program, nullptr);
}

TEST(OclModule, cannot_be_set_up_after_a_fini) {
    EXPECT_EQ(affine_transformer_ocl_module_fini(), 0);
    EXPECT_EQ(affine_transformer_ocl_module_init(), 0);
    EXPECT_EQ(affine_transformer_ocl_module_fini(), 0);
    EXPECT_EQ(affine_transformer_ocl_create(0, nullptr, {}, 1), nullptr);
    EXPECT_THAT(warp_log(4), ElementsAre(NOT_INITIALIZED));
}

TEST(OclModule, stays_unready_with_the_compiler_log_when_the_kernels_do_not_build) {
    kernel_source_code = "__kernel void broken(int x) { no_such_thing(x) + ; }";
    EXPECT_EQ(affine_transformer_ocl_module_init(), 0);
    const LogEntry rule = {6, " " + std::string(48, '*') + "\n"};
    EXPECT_THAT(warp_log(),
                ElementsAre(LogEntry{6, "There is some error in buliding program: -11\n"},
                            LogEntry{6, " \n\t\t\tOpenCL BUILD LOG\n"}, rule,
                            testing::Pair(6, testing::Not(IsEmpty())), rule));
    test_support::clear_log();
    EXPECT_EQ(affine_transformer_ocl_module_init(), 0);
    EXPECT_EQ(affine_transformer_ocl_create(0, nullptr, {}, 1), nullptr);
    EXPECT_THAT(warp_log(4), ElementsAre(NOT_INITIALIZED));
}

TEST(OpenKernel, reads_whole_files_and_fails_on_what_is_none) {
    const std::string path = testing::TempDir() + "open_kernel_test";
    const std::string content("a\0b\n", 4);
    std::ofstream(path, std::ios::binary) << content;
    char* source = nullptr;
    unsigned int length = 77;
    ASSERT_EQ(openKernel(path.c_str(), &source, &length), 0);
    EXPECT_EQ(std::string(source, length + 1), content + '\0');
    std::free(source);
    std::remove(path.c_str());

    test_support::clear_log();
    EXPECT_EQ(openKernel(path.c_str(), &source, &length), -1);
    EXPECT_THAT(warp_log(), ElementsAre(LogEntry{6, "Can't open file: " + path + "\n"}));
    EXPECT_EQ(openKernel("/", &source, &length), -1);
}

}  // namespace

}  // namespace videostabilizer
