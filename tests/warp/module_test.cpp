// The process-wide set-up, which happens once in a process: each test runs in a process of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "tests/warp/warp_log.h"
#include "videostabilizer/affine_transformer_ocl.h"
#include "warp/ocl.h"

namespace videostabilizer {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const LogEntry BUILT = {6, "OpenCL built program successfully."};
const LogEntry NOT_INITIALIZED = {6,
                                  "Ocl mudule not initialized! Please call "
                                  "'affine_transformer_ocl_module_init' first!!"};

TEST(OclModule, is_set_up_once_by_whoever_comes_first_and_outlives_its_fini) {
    int results[4] = {};
    std::vector<std::thread> callers;
    for (int& result : results) {
        callers.emplace_back([&result] { result = affine_transformer_ocl_module_init(); });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_THAT(results, testing::Each(1));
    EXPECT_THAT(warp_log(), ElementsAre(BUILT));

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
    const std::vector<LogEntry> lines = warp_log();
    ASSERT_EQ(lines.size(), 5U);
    const std::string rule = " " + std::string(48, '*') + "\n";
    EXPECT_EQ(lines[0], (LogEntry{6, "There is some error in buliding program: -11\n"}));
    EXPECT_EQ(lines[1], (LogEntry{6, " \n\t\t\tOpenCL BUILD LOG\n"}));
    EXPECT_EQ(lines[2], (LogEntry{6, rule}));
    EXPECT_GT(lines[3].second.size(), 1U);
    EXPECT_EQ(lines[4], (LogEntry{6, rule}));

    test_support::clear_log();
    EXPECT_EQ(affine_transformer_ocl_module_init(), 0);
    EXPECT_EQ(affine_transformer_ocl_create(0, nullptr, {}, 1), nullptr);
    EXPECT_THAT(warp_log(4), ElementsAre(NOT_INITIALIZED));
}

// A file that goes with the test.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& content) {
        const int descriptor = mkstemp(path_);
        std::FILE* const file = fdopen(descriptor, "w");
        EXPECT_EQ(std::fwrite(content.data(), 1, content.size(), file), content.size());
        std::fclose(file);
    }
    ~TemporaryFile() { std::remove(path_); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const char* path() const { return path_; }

  private:
    char path_[32] = "/tmp/open_kernel_XXXXXX";
};

TEST(OpenKernel, reads_whole_files) {
    const std::string with_nul("a\0b\n", 4);
    for (const std::string& content : {std::string(), std::string("kernel text"), with_nul}) {
        const TemporaryFile file(content);
        char* source = nullptr;
        unsigned int length = 77;
        test_support::clear_log();
        ASSERT_EQ(openKernel(file.path(), &source, &length), 0);
        EXPECT_EQ(std::string(source, length), content);
        EXPECT_EQ(source[length], '\0');
        EXPECT_EQ(warp_log(4).size(), 1U);
        std::free(source);
    }
}

TEST(OpenKernel, fails_on_what_is_no_readable_file) {
    char untouched[] = "untouched";
    char* source = untouched;
    unsigned int length = 77;
    EXPECT_EQ(openKernel("/nowhere/kernel.cl", &source, &length), -1);
    EXPECT_EQ(source, untouched);
    EXPECT_EQ(openKernel("/", &source, &length), -1);
    EXPECT_TRUE(source == untouched || source == nullptr);
    EXPECT_EQ(warp_log().front(), (LogEntry{6, "Can't open file: /nowhere/kernel.cl\n"}));
    EXPECT_EQ(warp_log().size(), 2U);
}

}  // namespace

}  // namespace videostabilizer
