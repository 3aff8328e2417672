// stabilize-video without memory: it says so, ends with a documented status, and leaves no file that
// looks finished. Some positions are tried; with EVERY_ALLOCATION in the environment all of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <string>
#include <vector>

#include "tests/apps/run_program.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int EXIT_WITHOUT_MEMORY = 4;
constexpr int FRAMES = 14;

class ProgramWithoutMemory : public testing::Test {
  protected:
    void SetUp() override {
        apps::ClipSettings settings;
        settings.camera.width = 256;  // enough for the corners that a motion is estimated from
        settings.camera.height = 192;
        write_clip(folder_.file("in.y4m"), apps::ShakyClip(settings), FRAMES);
    }

    // With the n-th allocation failing; 0: none.
    Outcome run(long n, const std::string& output, const std::string& arguments) const {
        return run_shell(
            folder_, "cd '" + folder_.file("") +
                         "' && LD_PRELOAD='" PRELOADED "' COUNT_FILE=count FAIL_ALLOCATION=" +
                         std::to_string(n) + " \"$PROGRAM\" in.y4m " + output + " " + arguments);
    }

    void expect_no_crash(const std::string& output, const std::string& arguments,
                         const std::vector<std::string>& results, int positions) const {
        ASSERT_EQ(run(0, output, arguments).status, 0);
        const long count = std::stol(read_file(folder_.file("count")));
        ASSERT_GT(count, 100) << "are the program's allocations seen at all?";
        std::vector<std::string> whole = results;
        whole.insert(whole.end(), {"count", "in.y4m", output});
        std::sort(whole.begin(), whole.end());
        EXPECT_EQ(folder_.names(), whole);
        int failed = 0;
        std::vector<long> failing;
        if (std::getenv("EVERY_ALLOCATION") != nullptr) {  // NOLINT(concurrency-mt-unsafe)
            failing.resize(static_cast<std::size_t>(count));
            std::iota(failing.begin(), failing.end(), 1);
        } else {
            // The first ones are of the program's start, where most differ from each other.
            for (int i = 0; i < positions / 2; ++i) {
                failing.push_back(i + 1);
                failing.push_back(count * i * 2 / positions);
            }
        }
        for (const long n : failing) {
            SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(count));
            for (const std::string& name : whole) {
                if (name != "in.y4m") std::remove(folder_.file(name).c_str());
            }
            const Outcome outcome = run(n, output, arguments);
            std::remove(folder_.file("count").c_str());
            if (outcome.status == 0) continue;  // something else did as well
            ++failed;
            EXPECT_EQ(outcome.status, EXIT_WITHOUT_MEMORY) << outcome.errors;
            EXPECT_THAT(outcome.errors, HasSubstr("stabilize-video: "));
            EXPECT_THAT(folder_.names(), ElementsAre("in.y4m"));
        }
        EXPECT_GT(failed, static_cast<int>(failing.size()) / 3);
    }

  private:
    Folder folder_;
};

TEST_F(ProgramWithoutMemory, MakingAStreamOfPictures) {
    expect_no_crash("out.y4m", "-q --path path.csv --json report.json", {"path.csv", "report.json"},
                    40);
}

TEST_F(ProgramWithoutMemory, MakingAFilm) {
    expect_no_crash("out.mkv", "-q --codec ffv1", {}, 10);
}

}  // namespace
