// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

namespace videostabilizer {

// Holds a mutex of pthreads while it lives.
class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexLock() { pthread_mutex_unlock(&mutex_); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    pthread_mutex_t& mutex_;
};

}  // namespace videostabilizer
