// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

#include <atomic>
#include <vector>

namespace videostabilizer {

// Processors that this process may use; at least 1.
int usable_processors();

// Work that is divided into items, which may be done in any order and at the same time.
class DividedWork {
  public:
    DividedWork() = default;
    DividedWork(const DividedWork&) = delete;
    DividedWork& operator=(const DividedWork&) = delete;

    // participant: a number below the limit of WorkPool::run; no two calls at the same time have the
    // same.
    virtual void item(int index, int participant) noexcept = 0;

  protected:
    ~DividedWork() = default;
};

// Threads that help those who have work to divide. Nobody waits for a thread of the pool to begin:
// whoever asks for help does what nobody has helped with.
class WorkPool {
  public:
    static constexpr int MOST_THREADS = 64;

    // The pool of the process, which is made for the first user and ends, with its threads, with the
    // last. Throws std::bad_alloc. Threads: thread-safe.
    static WorkPool* acquire();
    static void release(WorkPool* pool);

    ~WorkPool();
    WorkPool(const WorkPool&) = delete;
    WorkPool& operator=(const WorkPool&) = delete;

    // Does items 0..count - 1, on this thread and on up to `participants` - 1 of the pool, which are
    // started when they are first needed; where they cannot be, there is less help. Returns when all
    // are done.
    // Threads: thread-safe.
    void run(DividedWork& work, int count, int participants);

  private:
    struct Job {
        DividedWork* work;
        int count;
        int most;               // participants
        std::atomic<int> next;  // item
        int joined;             // participants so far; guarded by mutex_, as the next two
        int active;             // of the pool's threads
        Job* other;             // the next in the list of open jobs
        void do_items(int participant);
    };

    WorkPool();  // throws std::bad_alloc
    static void* thread(void* pool);
    void help();
    void start_threads(int wanted);
    Job* open_job();

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t work_cond_ = PTHREAD_COND_INITIALIZER;  // a job was added, or end_ was set
    pthread_cond_t done_cond_ = PTHREAD_COND_INITIALIZER;  // a job lost its last active thread
    Job* jobs_ = nullptr;  // that can be joined, on the stacks of those who wait for them
    std::vector<pthread_t> threads_;
    bool end_ = false;
};

// What one stream uses of the pool.
// Threads: owner only.
class Crew {
  public:
    // threads: that work on what this stream divides; 1: only the caller; 0: as many as there are
    // processors. Throws std::bad_alloc.
    explicit Crew(int threads);
    ~Crew();
    Crew(const Crew&) = delete;
    Crew& operator=(const Crew&) = delete;

    int threads() const { return threads_; }  // 1..64
    void run(DividedWork& work, int count);   // see WorkPool::run

  private:
    int threads_;
    WorkPool* pool_;  // null: no help
};

}  // namespace videostabilizer
