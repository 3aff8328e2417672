// SPDX-License-Identifier: Apache-2.0

// The YUV4MPEG2 reader: either refuses a stream with its own error, or reads frames of which the
// writer makes the same bytes.

#include <algorithm>
#include <string>

#include "common/video_io/y4m.h"
#include "fuzz/fuzz_input.h"

namespace {

constexpr std::int64_t LARGEST_PICTURE = 1 << 16;  // bytes; larger ones are only slow

class Source : public video_io::ByteSource {
  public:
    Source(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::size_t read(unsigned char* to, std::size_t size) override {
        const std::size_t count = std::min(size, size_);
        std::copy_n(data_, count, to);
        data_ += count;
        size_ -= count;
        return count;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
};

class Sink : public video_io::ByteSink {
  public:
    std::string bytes;
    void write(const unsigned char* from, std::size_t size) override {
        bytes.append(from, from + size);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Source source(data, size);
    Sink sink;
    bool whole = false;
    try {
        video_io::Y4mReader reader(source);
        const video_io::Y4mHeader& header = reader.header();
        fuzz::require(header.width >= 1 && header.width <= video_io::Y4M_LARGEST_SIDE &&
                          header.height >= 1 && header.height <= video_io::Y4M_LARGEST_SIDE &&
                          std::int64_t{header.width} * header.height <= video_io::Y4M_MOST_PIXELS,
                      "a header within the limits");
        if (header.frame_bytes() > LARGEST_PICTURE) {
            return 0;
        }
        video_io::Y4mWriter writer(sink, header);
        const int stride_y = header.width * header.sample_bytes() + static_cast<int>(size % 3);
        const int stride_uv =
            header.chroma_width() * header.sample_bytes() + static_cast<int>(size % 3);
        const auto plane = [](int stride, int height) {
            return std::vector<unsigned char>(static_cast<std::size_t>(stride) *
                                              static_cast<std::size_t>(height));
        };
        std::vector<unsigned char> y = plane(stride_y, header.height);
        std::vector<unsigned char> u = plane(stride_uv, header.chroma_height());
        std::vector<unsigned char> v = u;
        std::vector<unsigned char> alpha = y;
        const video_io::Planes planes = {y.data(),  u.data(),     v.data(), stride_y,
                                         stride_uv, alpha.data(), stride_y};
        while (reader.read_frame(planes)) {
            writer.write_frame(planes, reader.frame_parameters());
        }
        whole = true;
    } catch (const video_io::Y4mError&) {
    }
    const std::string written = sink.bytes;
    fuzz::require(written.size() <= size && std::equal(written.begin(), written.end(), data,
                                                       [](char a, std::uint8_t b) {
                                                           return static_cast<std::uint8_t>(a) == b;
                                                       }),
                  "frames come back as they were read");
    fuzz::require(!whole || written.size() == size, "a valid stream is read to its end");
    return 0;
}
