// SPDX-License-Identifier: Apache-2.0

#include "stream/steady_picture.h"

#include <cstdlib>
#include <new>

#include "platform/mutex_lock.h"

namespace videostabilizer {

namespace {

constexpr std::size_t ALIGNMENT = 64;  // bytes; of rows

std::size_t aligned(std::size_t bytes) {
    return (bytes + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
}

}  // namespace

PictureMemory::PictureMemory(const StreamFormat& format, int width, int height, int most)
    : format_(format), width_(width), height_(height), most_(most) {}

PictureMemory::~PictureMemory() {
    while (kept_ != nullptr) {
        VideoStabilizerPicture* const picture = kept_;
        kept_ = picture->next;
        std::free(picture);
    }
    pthread_mutex_destroy(&mutex_);
}

PictureMemory* PictureMemory::create(const StreamFormat& format, int width, int height, int most) {
    return new (std::nothrow) PictureMemory(format, width, height, most);
}

// Record and planes in one block, with room behind them: vector routines of hosts may read a little beyond
// the last row.
VideoStabilizerPicture* PictureMemory::make() const {
    constexpr std::size_t HEAD = (sizeof(VideoStabilizerPicture) + ALIGNMENT - 1) / ALIGNMENT;
    std::uint64_t bytes = (HEAD + 2) * ALIGNMENT;
    for (int k = 0; k < host_planes(format_); ++k) {
        bytes += std::uint64_t{aligned(host_row_bytes(format_, width_, k))} *
                 static_cast<std::uint64_t>(host_rows(format_, height_, k));
    }
    void* const block =
        bytes <= PTRDIFF_MAX ? std::malloc(static_cast<std::size_t>(bytes)) : nullptr;
    if (block == nullptr) {
        return nullptr;
    }
    auto* const picture = new (block) VideoStabilizerPicture{};
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    auto* plane =
        static_cast<unsigned char*>(block) + (aligned(address) - address) + HEAD * ALIGNMENT;
    for (int k = 0; k < host_planes(format_); ++k) {
        const std::size_t stride = aligned(host_row_bytes(format_, width_, k));
        picture->planes.data[k] = plane;
        picture->planes.stride[k] = static_cast<std::ptrdiff_t>(stride);
        plane += stride * static_cast<std::size_t>(host_rows(format_, height_, k));
    }
    return picture;
}

VideoStabilizerPicture* PictureMemory::take() {
    VideoStabilizerPicture* picture = nullptr;
    {
        const MutexLock lock(mutex_);
        picture = kept_;
        if (picture != nullptr) {
            kept_ = picture->next;
            --kept_count_;
        }
    }
    if (picture == nullptr) {
        picture = make();
        if (picture == nullptr) {
            return nullptr;
        }
    }
    picture->references.store(1);
    picture->memory = this;
    picture->next = nullptr;
    users_.fetch_add(1);
    return picture;
}

void PictureMemory::give_back(VideoStabilizerPicture* picture) {
    bool is_kept = false;
    {
        const MutexLock lock(mutex_);
        is_kept = owned_ && kept_count_ < most_;
        if (is_kept) {
            picture->next = kept_;
            kept_ = picture;
            ++kept_count_;
        }
    }
    if (!is_kept) {
        std::free(picture);
    }
    leave();
}

void PictureMemory::let_go() {
    {
        const MutexLock lock(mutex_);
        owned_ = false;
    }
    leave();
}

void PictureMemory::leave() {
    if (users_.fetch_sub(1) == 1) {
        delete this;
    }
}

}  // namespace videostabilizer
