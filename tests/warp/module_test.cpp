// SPDX-License-Identifier: Apache-2.0

// The process-wide set-up, which happens once in a process: each test runs in a process of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/warp/warp_stage.h"
#include "warp/ocl.h"

using namespace videostabilizer;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(OclModule, CannotBeSetUpAfterAFini) {
    EXPECT_EQ(affine_transformer_ocl_module_fini(), 0);
    EXPECT_EQ(affine_transformer_ocl_module_init(), 0);
    EXPECT_EQ(affine_transformer_ocl_module_fini(), 0);
    EXPECT_EQ(affine_transformer_ocl_create(0, nullptr, {}, 1), nullptr);
    const LogEntry reason = {6,
                             "Ocl mudule not initialized! Please call "
                             "'affine_transformer_ocl_module_init' first!!"};
    EXPECT_THAT(warp_log(4), ElementsAre(reason));
}

TEST(OclModule, StaysUnreadyWithTheCompilerLogWhenTheKernelsDoNotBuild) {
    kernel_source_code = "__kernel void broken(int x) { no_such_thing(x) + ; }";
    EXPECT_EQ(affine_transformer_ocl_module_init(), 0);
    const LogEntry rule = {6, " " + std::string(48, '*') + "\n"};
    EXPECT_THAT(warp_log(),
                ElementsAre(LogEntry{6, "There is some error in buliding program: -11\n"},
                            LogEntry{6, " \n\t\t\tOpenCL BUILD LOG\n"}, rule,
                            testing::Pair(6, testing::Not(IsEmpty())), rule));
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

    test_support::clear_log();
    EXPECT_EQ(openKernel(path.c_str(), &source, &length), -1);
    EXPECT_THAT(warp_log(), ElementsAre(LogEntry{6, "Can't open file: " + path + "\n"}));
    test_support::clear_log();
    EXPECT_EQ(openKernel("/", &source, &length), -1);
    EXPECT_THAT(warp_log(), ElementsAre(LogEntry{6, "Failed to get the length of: /\n"}));
}

}  // namespace
