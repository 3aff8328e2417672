// SPDX-License-Identifier: Apache-2.0

// Replaces liblog on platforms other than Android.

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/log_sink.h"
#include "videostabilizer/log.h"

namespace {

char priority_letter(int priority) {
    constexpr char LETTERS[] = "??VDIWEF";  // index 2 (verbose) to 7 (fatal), as in logcat
    return priority >= 2 && priority <= 7 ? LETTERS[priority] : '?';
}

}  // namespace

// Weak: a definition in the host program takes precedence.
extern "C" __attribute__((weak)) int __android_log_print(int priority, const char* tag,
                                                         const char* format, ...) {
    std::array<char, 4096> text{};  // longer messages (compiler logs) are truncated
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    // Some messages end with newlines of their own.
    std::size_t end = std::strlen(text.data());
    while (end > 0 && text[end - 1] == '\n') {
        text[--end] = '\0';
    }
    if (const videostabilizer::LogSink* const sink = videostabilizer::thread_log_sink()) {
        sink->write(sink->context, priority, tag, text.data());
        return length;
    }
    // A single call, so that lines of several threads do not mix.
    std::fprintf(stderr, "%c/%s: %s\n", priority_letter(priority), tag, text.data());
    return length;
}
