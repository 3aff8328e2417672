#include "apps/stabilize_video/library_log.h"

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

constexpr std::size_t MOST_ERRORS = 2;  // kept: the first ones name the cause

// Corners that cannot be followed are everyday matters, although reported as errors.
constexpr const char* TRACKER_TAG = "lk_pyradmid";

// How the library's threads announce that they give up.
constexpr const char* THREAD_FAILURES[] = {"met an error", "met an unknown error"};

std::atomic<bool> shown{false};
std::atomic<bool> thread_failed{false};
std::mutex errors_mutex;          // guards `errors`
std::vector<std::string> errors;  // first lines of messages

const char* priority_name(int priority) {
    if (priority >= PRIORITY_ERROR) return "error";
    return priority == PRIORITY_WARNING ? "warning" : "info";
}

void remember_error(const std::string& message) {
    for (const char* failure : THREAD_FAILURES) {
        if (message.find(failure) != std::string::npos) thread_failed = true;
    }
    const std::lock_guard<std::mutex> lock(errors_mutex);
    if (errors.size() < MOST_ERRORS) errors.push_back(message.substr(0, message.find('\n')));
}

}  // namespace

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    const bool to_remember = priority >= PRIORITY_ERROR && std::strcmp(tag, TRACKER_TAG) != 0;
    if (!shown && !to_remember) return 0;
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0) return length;
    std::string message = text;
    message.erase(message.find_last_not_of('\n') + 1);  // some messages bring their own line end
    if (to_remember) remember_error(message);
    if (shown) std::fprintf(stderr, "%s %s: %s\n", priority_name(priority), tag, message.c_str());
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

bool library_thread_failed() {
    return thread_failed;
}

}  // namespace apps
