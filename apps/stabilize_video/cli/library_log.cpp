// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/cli/library_log.h"

#include <videostabilizer/log.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr int PRIORITY_WARNING = 5;
constexpr int PRIORITY_ERROR = 6;

constexpr std::size_t MOST_ERRORS = 2;  // kept; the first ones name the cause

// Lost corners are normal, although the library logs them as errors.
constexpr const char* TRACKER_TAG = "lk_pyradmid";

std::atomic<bool> shown{false};
std::mutex errors_mutex;          // guards `errors`
std::vector<std::string> errors;  // first lines of messages

const char* priority_name(int priority) {
    if (priority >= PRIORITY_ERROR) {
        return "error";
    }
    return priority == PRIORITY_WARNING ? "warning" : "info";
}

void keep_error(const std::string& message) {
    const std::lock_guard<std::mutex> lock(errors_mutex);
    if (errors.size() < MOST_ERRORS) {
        errors.push_back(message.substr(0, message.find('\n')));
    }
}

}  // namespace

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    const bool is_kept = priority >= PRIORITY_ERROR && std::strcmp(tag, TRACKER_TAG) != 0;
    if (!shown && !is_kept) {
        return 0;
    }
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return length;
    }
    std::string message = text;
    message.erase(message.find_last_not_of('\n') + 1);  // some messages end with one
    if (is_kept) {
        keep_error(message);
    }
    if (shown) {
        std::fprintf(stderr, "%s %s: %s\n", priority_name(priority), tag, message.c_str());
    }
    return length;
}

namespace apps {

void show_library_log(bool show) {
    shown = show;
}

void forget_library_errors() {
    const std::lock_guard<std::mutex> lock(errors_mutex);
    errors.clear();
}

std::string library_errors() {
    const std::lock_guard<std::mutex> lock(errors_mutex);
    std::string all;
    for (const std::string& error : errors) {
        all += (all.empty() ? "" : "; ") + error;
    }
    return all;
}

}  // namespace apps
