// SPDX-License-Identifier: Apache-2.0

// stabilize-video without memory: it says so, ends with a documented status, and leaves no file that
// looks finished. Some positions are tried; with EVERY_ALLOCATION in the environment all of them.

#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/apps/run_program.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int EXIT_WITHOUT_FILE = 3;
constexpr int EXIT_WITHOUT_MEMORY = 4;

// With the n-th allocation failing; 0: none.
Outcome run(const Folder& folder, long n, const std::string& arguments) {
    // Large enough for the corners that a motion is estimated from.
    write_clip(folder.file("in.y4m"), 256, 192, 14);
    return run_shell(folder, "cd '" + folder.file("") +
                                 "' && LD_PRELOAD='" PRELOADED
                                 "' COUNT_FILE=count FAIL_ALLOCATION=" +
                                 std::to_string(n) + " \"$PROGRAM\" in.y4m -q " + arguments);
}

void expect_no_crash(const std::string& arguments, long positions) {
    const Folder whole;
    ASSERT_EQ(run(whole, 0, arguments).status, 0);
    const long count = std::stol(read_file(whole.file("count")));
    ASSERT_GT(count, 100) << "are the program's allocations seen at all?";
    std::vector<long> failing;
    if (std::getenv("EVERY_ALLOCATION") != nullptr) {  // NOLINT(concurrency-mt-unsafe)
        positions = 2 * count;
    }
    // The first ones are of the program's start, where most differ from each other.
    for (long i = 0; i < positions / 2; ++i) {
        failing.push_back(i + 1);
        failing.push_back(count * i * 2 / positions);
    }
    std::size_t failed = 0;
    for (const long n : failing) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(count));
        const Folder folder;
        const Outcome outcome = run(folder, n, arguments);
        std::remove(folder.file("count").c_str());
        if (outcome.status != 0) {  // else the program managed without
            ++failed;
            EXPECT_THAT(outcome.errors, HasSubstr("stabilize-video: "));
            // A failure after the video costs only the file that it concerns.
            if (outcome.status != EXIT_WITHOUT_FILE) {
                EXPECT_EQ(outcome.status, EXIT_WITHOUT_MEMORY) << outcome.errors;
                EXPECT_THAT(folder.names(), ElementsAre("in.y4m"));
            } else {
                EXPECT_THAT(outcome.errors, HasSubstr("the video itself is complete"));
            }
        }
    }
    EXPECT_GT(failed, failing.size() / 3);
}

TEST(ProgramWithoutMemory, MakingAStreamOfPictures) {
    expect_no_crash("out.y4m --path path.csv --json report.json", 24);
}

TEST(ProgramWithoutMemory, OnTheStrongPath) {
    expect_no_crash("out.y4m --strength strong --crop auto --threads 3", 10);
}

TEST(ProgramWithoutMemory, MakingAFilm) {
    expect_no_crash("out.mkv --codec ffv1", 10);
}

}  // namespace
