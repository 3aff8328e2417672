// SPDX-License-Identifier: Apache-2.0

#include "work_pool/work_pool.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>

#include "platform/mutex_lock.h"

namespace videostabilizer {

namespace {

// The processors' time that the control group of a container grants, in whole processors.
int group_limit() {
    std::FILE* const file = std::fopen("/sys/fs/cgroup/cpu.max", "re");
    if (file == nullptr) {
        return WorkPool::MOST_THREADS;
    }
    long long quota = 0;
    long long period = 0;
    const int numbers = std::fscanf(file, "%lld %lld", &quota, &period);  // "max" is no number
    std::fclose(file);
    if (numbers != 2 || quota < 1 || period < 1) {
        return WorkPool::MOST_THREADS;
    }
    const long long whole = (quota - 1) / period + 1;
    return static_cast<int>(std::min<long long>(whole, WorkPool::MOST_THREADS));
}

pthread_mutex_t shared_pool_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the next two
WorkPool* shared_pool = nullptr;
int shared_pool_uses = 0;

}  // namespace

int usable_processors() {
    cpu_set_t set;
    CPU_ZERO(&set);
    const int allowed = sched_getaffinity(0, sizeof(set), &set) == 0
                            ? CPU_COUNT(&set)
                            : static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    return std::clamp(allowed, 1, group_limit());
}

WorkPool* WorkPool::acquire() {
    const MutexLock lock(shared_pool_mutex);
    if (shared_pool == nullptr) {
        shared_pool = new WorkPool;
    }
    ++shared_pool_uses;
    return shared_pool;
}

void WorkPool::release(WorkPool* pool) {
    {
        const MutexLock lock(shared_pool_mutex);
        if (--shared_pool_uses > 0) {
            return;
        }
        shared_pool = nullptr;
    }
    delete pool;
}

WorkPool::WorkPool() {
    threads_.reserve(MOST_THREADS);
}

WorkPool::~WorkPool() {
    {
        const MutexLock lock(mutex_);
        end_ = true;
        pthread_cond_broadcast(&work_cond_);
    }
    for (const pthread_t thread : threads_) {
        pthread_join(thread, nullptr);
    }
    pthread_cond_destroy(&done_cond_);
    pthread_cond_destroy(&work_cond_);
    pthread_mutex_destroy(&mutex_);
}

void WorkPool::Job::do_items(int participant) {
    for (int index = next.fetch_add(1); index < count; index = next.fetch_add(1)) {
        work->item(index, participant);
    }
}

// Call it with the mutex held.
void WorkPool::start_threads(int wanted) {
    while (static_cast<int>(threads_.size()) < std::min(wanted, MOST_THREADS - 1)) {
        pthread_t started{};
        if (pthread_create(&started, nullptr, thread, this) != 0) {
            return;
        }
        threads_.push_back(started);  // reserved
    }
}

void WorkPool::run(DividedWork& work, int count, int participants) {
    Job job{&work, count, std::min(participants, count), {0}, 1, 0, nullptr};
    if (job.most > 1) {
        const MutexLock lock(mutex_);
        start_threads(job.most - 1);
        job.other = jobs_;
        jobs_ = &job;
        for (int helper = 1; helper < job.most; ++helper) {
            pthread_cond_signal(&work_cond_);  // those at work look for more by themselves
        }
    }
    job.do_items(0);
    if (job.most > 1) {
        const MutexLock lock(mutex_);
        for (Job** link = &jobs_; *link != nullptr; link = &(*link)->other) {
            if (*link == &job) {
                *link = job.other;
                break;
            }
        }
        while (job.active > 0) {
            pthread_cond_wait(&done_cond_, &mutex_);
        }
    }
}

// A job with room for another participant, or null. Call it with the mutex held.
WorkPool::Job* WorkPool::open_job() {
    Job* job = jobs_;
    while (job != nullptr && (job->joined == job->most || job->next.load() >= job->count)) {
        job = job->other;
    }
    return job;
}

void WorkPool::help() {
    pthread_mutex_lock(&mutex_);
    while (!end_) {
        Job* const job = open_job();
        if (job == nullptr) {
            pthread_cond_wait(&work_cond_, &mutex_);
            continue;
        }
        const int participant = job->joined++;
        ++job->active;
        pthread_mutex_unlock(&mutex_);
        job->do_items(participant);
        pthread_mutex_lock(&mutex_);
        if (--job->active == 0) {
            pthread_cond_broadcast(&done_cond_);
        }
    }
    pthread_mutex_unlock(&mutex_);
}

void* WorkPool::thread(void* pool) {
    static_cast<WorkPool*>(pool)->help();
    return nullptr;
}

Crew::Crew(int threads)
    : threads_(std::min(threads > 0 ? threads : usable_processors(), WorkPool::MOST_THREADS)),
      pool_(threads_ > 1 ? WorkPool::acquire() : nullptr) {}

Crew::~Crew() {
    if (pool_ != nullptr) {
        WorkPool::release(pool_);
    }
}

void Crew::run(DividedWork& work, int count) {
    if (pool_ != nullptr) {
        pool_->run(work, count, threads_);
        return;
    }
    for (int index = 0; index < count; ++index) {
        work.item(index, 0);
    }
}

}  // namespace videostabilizer
