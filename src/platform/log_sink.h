// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

namespace videostabilizer {

// Receives the lines that the library logs on certain threads, in place of standard error. On Android,
// and where the program defines __android_log_print, the log goes there as ever.
struct LogSink {
    void* context;
    void (*write)(void* context, int priority, const char* tag, const char* text);
};

// Of the calling thread; null: none.
const LogSink* thread_log_sink();

// Gives the calling thread a sink, which outlives the scope.
class LogScope {
  public:
    explicit LogScope(const LogSink* sink);
    ~LogScope();
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

  private:
    const LogSink* before_;
};

// pthread_create of a joinable thread that has the sink of the calling thread, which outlives it. ENOMEM: there
// was no memory; EAGAIN: no thread.
int start_thread(pthread_t* thread, void* (*body)(void*), void* argument);

// What start_thread returned last on the calling thread, which callers may have made another code of.
int& last_start_error();

}  // namespace videostabilizer
