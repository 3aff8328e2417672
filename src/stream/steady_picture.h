// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "stream/stream_formats.h"

namespace videostabilizer {

class PictureMemory;

}  // namespace videostabilizer

// A picture in one block of memory, with a count of references.
struct VideoStabilizerPicture {
    std::atomic<int> references;
    videostabilizer::PictureMemory* memory;  // where it goes to
    VideoStabilizerPicture* next;            // there
    VideoStabilizerPlanes planes;
    std::int64_t timestamp;
    void* host;
    VideoStabilizerStreamReport report;
};

namespace videostabilizer {

// Makes pictures of one kind and keeps those that were given back. Lives until its owner has let it go
// and every picture has come back.
//
// Threads: thread-safe.
class PictureMemory {
  public:
    // The kind: what the host sees, or, of packed RGB, what is warped. most: pictures that are kept.
    // Null without memory.
    static PictureMemory* create(const StreamFormat& format, int width, int height, int most);

    // With one reference; null without memory.
    VideoStabilizerPicture* take();

    // Of its last reference.
    void give_back(VideoStabilizerPicture* picture);

    // Ends the owner's use.
    void let_go();

    PictureMemory(const PictureMemory&) = delete;
    PictureMemory& operator=(const PictureMemory&) = delete;

  private:
    PictureMemory(const StreamFormat& format, int width, int height, int most);
    ~PictureMemory();
    VideoStabilizerPicture* make() const;
    void leave();

    StreamFormat format_;
    int width_;
    int height_;
    int most_;
    std::atomic<int> users_{1};  // the owner, and the pictures that are out

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;  // guards the rest
    VideoStabilizerPicture* kept_ = nullptr;
    int kept_count_ = 0;
    bool owned_ = true;
};

}  // namespace videostabilizer
