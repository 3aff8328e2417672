// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/faults/library_calls.h"
#include "tests/pipeline/stream_helpers.h"
#include "tests/support/log_capture.h"

namespace test_support {

inline const bool library_is_watched = watch_library();

// A test that starts with the module set up, and at whose end the library holds nothing that it did
// not hold before.
class LeakTest : public testing::Test {
  protected:
    LeakTest() {
        make_stabilizer().reset();  // everything that is set up once
        blocks_ = live_blocks();
        clear_log();
    }
    void TearDown() override {
        let_all_succeed();
        expect_nothing_left();
    }
    void expect_nothing_left() const {
        EXPECT_EQ(live_blocks(), blocks_);
        EXPECT_EQ(live_opencl_objects(), 0);
    }

  private:
    int blocks_;
};

// Each as "tag: text", in order; those of the tracker, which are everyday matters, are left out.
inline std::vector<std::string> logged_errors(int least_priority = 6) {
    std::vector<std::string> errors;
    for (const LogLine& line : log_lines()) {
        if (line.priority >= least_priority && line.tag != "lk_pyradmid") {
            errors.push_back(line.tag + ": " + line.text);
        }
    }
    return errors;
}

}  // namespace test_support
