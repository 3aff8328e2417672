#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "apps/byte_io.h"
#include "apps/y4m.h"

// Streams in memory.

class MemorySource : public apps::ByteSource {
  public:
    explicit MemorySource(std::string bytes) : bytes_(std::move(bytes)) {}

    std::size_t read(unsigned char* to, std::size_t size) override {
        const std::size_t count = std::min(size, bytes_.size() - position_);
        std::memcpy(to, bytes_.data() + position_, count);
        position_ += count;
        return count;
    }

  private:
    std::string bytes_;
    std::size_t position_ = 0;
};

class MemorySink : public apps::ByteSink {
  public:
    std::string bytes;

    void write(const unsigned char* from, std::size_t size) override {
        bytes.append(reinterpret_cast<const char*>(from), size);
    }
};

// Memory for one picture, with `gap` bytes between rows.
class PictureBuffer {
  public:
    PictureBuffer(int width, int height, int gap = 0)
        : stride_y_(width + gap),
          stride_uv_((width + 1) / 2 + gap),
          luma_bytes_(static_cast<std::size_t>(stride_y_) * static_cast<std::size_t>(height)),
          chroma_bytes_(static_cast<std::size_t>(stride_uv_) *
                        static_cast<std::size_t>((height + 1) / 2)),
          pixels_(luma_bytes_ + 2 * chroma_bytes_) {}

    apps::Planes planes() {
        apps::Planes planes{};
        planes.y = pixels_.data();
        planes.u = planes.y + luma_bytes_;
        planes.v = planes.u + chroma_bytes_;
        planes.stride_y = stride_y_;
        planes.stride_uv = stride_uv_;
        return planes;
    }
    std::vector<unsigned char>& pixels() { return pixels_; }

  private:
    int stride_y_;
    int stride_uv_;
    std::size_t luma_bytes_;
    std::size_t chroma_bytes_;
    std::vector<unsigned char> pixels_;
};
