// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <vector>

// A test program that links log_capture.cpp receives the library's log: its definition of
// __android_log_print stands before the library's weak one.

namespace test_support {

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

inline bool operator==(const LogLine& a, const LogLine& b) {
    return a.priority == b.priority && a.tag == b.tag && a.text == b.text;
}

void clear_log();
std::vector<LogLine> log_lines();
int count_log(const std::string& text);  // lines with exactly this text

}  // namespace test_support
