// SPDX-License-Identifier: Apache-2.0

#include "platform/log_sink.h"

#include <cerrno>
#include <new>

namespace videostabilizer {

namespace {

thread_local const LogSink* sink_of_thread = nullptr;
thread_local int start_error = 0;

struct ThreadStart {
    void* (*body)(void*);
    void* argument;
    const LogSink* sink;
};

void* begin_thread(void* start) {
    const ThreadStart begun = *static_cast<ThreadStart*>(start);
    delete static_cast<ThreadStart*>(start);
    sink_of_thread = begun.sink;
    return begun.body(begun.argument);
}

}  // namespace

const LogSink* thread_log_sink() {
    return sink_of_thread;
}

LogScope::LogScope(const LogSink* sink) : before_(sink_of_thread) {
    sink_of_thread = sink;
}

LogScope::~LogScope() {
    sink_of_thread = before_;
}

int& last_start_error() {
    return start_error;
}

int start_thread(pthread_t* thread, void* (*body)(void*), void* argument) {
    if (sink_of_thread == nullptr) {
        return start_error = pthread_create(thread, nullptr, body, argument);
    }
    auto* const start = new (std::nothrow) ThreadStart{body, argument, sink_of_thread};
    if (start == nullptr) {
        return start_error = ENOMEM;
    }
    start_error = pthread_create(thread, nullptr, begin_thread, start);
    if (start_error != 0) {
        delete start;
    }
    return start_error;
}

}  // namespace videostabilizer
