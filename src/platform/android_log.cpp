// Stand-in for the platform's log library where there is none (everything but Android).

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "videostabilizer/log.h"

namespace {

char priority_letter(int priority) {
    constexpr char letters[] = "??VDIWEF";  // index 2 (verbose) to 7 (fatal), as in logcat
    return priority >= 2 && priority <= 7 ? letters[priority] : '?';
}

}  // namespace

// Weak, so that a definition in the host program wins.
extern "C" __attribute__((weak)) int __android_log_print(int priority, const char* tag,
                                                         const char* format, ...) {
    std::array<char, 4096> text{};  // longer messages (compiler logs) are cut
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    // Some messages carry their own line end; a line per message is what a reader wants.
    std::size_t end = std::strlen(text.data());
    while (end > 0 && text[end - 1] == '\n') {
        text[--end] = '\0';
    }
    // One call, so that messages of several threads do not mix within a line.
    std::fprintf(stderr, "%c/%s: %s\n", priority_letter(priority), tag, text.data());
    return length;
}
