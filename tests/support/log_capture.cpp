// SPDX-License-Identifier: Apache-2.0

#include "tests/support/log_capture.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "videostabilizer/log.h"

namespace {

std::mutex log_mutex;
std::vector<test_support::LogLine> captured;  // guarded by log_mutex

}  // namespace

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    std::array<char, 1024> text{};
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    const std::lock_guard<std::mutex> lock(log_mutex);
    captured.push_back({priority, tag, text.data()});
    return length;
}

namespace test_support {

void clear_log() {
    const std::lock_guard<std::mutex> lock(log_mutex);
    captured.clear();
}

std::vector<LogLine> log_lines() {
    const std::lock_guard<std::mutex> lock(log_mutex);
    return captured;
}

int count_log(const std::string& text) {
    const std::lock_guard<std::mutex> lock(log_mutex);
    return static_cast<int>(std::count_if(captured.begin(), captured.end(),
                                          [&](const LogLine& line) { return line.text == text; }));
}

}  // namespace test_support
