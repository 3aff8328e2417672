// The YUV4MPEG2 reader: refuses a stream with its own error and nothing else, or reads what a writer
// makes the very same bytes of.

#include <algorithm>
#include <string>

#include "apps/y4m.h"
#include "fuzz/fuzz_input.h"

namespace {

constexpr std::int64_t LARGEST_PICTURE = 1 << 16;  // bytes; larger ones only take time

class Source : public apps::ByteSource {
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

class Sink : public apps::ByteSink {
  public:
    std::string bytes;
    void write(const unsigned char* from, std::size_t size) override {
        bytes.append(from, from + size);
    }
};

struct Picture {
    Picture(const apps::Y4mHeader& header, int gap)
        : stride_y(header.width + gap),
          stride_uv(header.chroma_width() + gap),
          y(bytes(stride_y, header.height)),
          u(bytes(stride_uv, header.chroma_height())),
          v(u) {}
    static std::vector<unsigned char> bytes(int stride, int height) {
        return std::vector<unsigned char>(static_cast<std::size_t>(stride) *
                                          static_cast<std::size_t>(height));
    }
    apps::Planes planes() { return {y.data(), u.data(), v.data(), stride_y, stride_uv}; }

    int stride_y;
    int stride_uv;
    std::vector<unsigned char> y;
    std::vector<unsigned char> u;
    std::vector<unsigned char> v;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Source source(data, size);
    Sink sink;
    bool whole = false;
    try {
        apps::Y4mReader reader(source);
        const apps::Y4mHeader& header = reader.header();
        fuzz::require(header.width >= 1 && header.width <= apps::Y4M_LARGEST_SIDE &&
                          header.height >= 1 && header.height <= apps::Y4M_LARGEST_SIDE &&
                          std::int64_t{header.width} * header.height <= apps::Y4M_MOST_PIXELS,
                      "a header within the limits");
        if (header.frame_bytes() > LARGEST_PICTURE) {
            return 0;
        }
        apps::Y4mWriter writer(sink, header);
        Picture picture(header, static_cast<int>(size % 3));
        while (reader.read_frame(picture.planes())) {
            writer.write_frame(picture.planes(), reader.frame_parameters());
        }
        whole = true;
    } catch (const apps::Y4mError&) {
    }
    const std::string written = sink.bytes;
    fuzz::require(written.size() <= size && std::equal(written.begin(), written.end(), data,
                                                       [](char a, std::uint8_t b) {
                                                           return static_cast<std::uint8_t>(a) == b;
                                                       }),
                  "frames come back as they were read");
    fuzz::require(!whole || written.size() == size, "nothing of a good stream is left out");
    return 0;
}
