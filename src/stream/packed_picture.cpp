// SPDX-License-Identifier: Apache-2.0

#include "stream/packed_picture.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace videostabilizer {

namespace {

unsigned char* row_of(const VideoStabilizerPlanes& planes, int k, int row) {
    return static_cast<unsigned char*>(planes.data[k]) + row * planes.stride[k];
}

// Host memory may be at any address, hence the copies, which are single moves to compilers.
template <typename Sample>
void move_sample(const unsigned char* from, unsigned char* to) {
    std::memcpy(to, from, sizeof(Sample));
}

// A row of pixels and of the planes G, B, R, A.
struct Row {
    unsigned char* packed;
    std::array<unsigned char*, 4> planes;
};

template <typename Sample, int CHANNELS, bool SEPARATES>
void convert_row(const Row& row, const std::array<int, 4>& places, int width) {
    constexpr int BYTES = sizeof(Sample);
    const std::array<unsigned char*, 4> planes = row.planes;
    const int green = places[0] * BYTES;
    const int blue = places[1] * BYTES;
    const int red = places[2] * BYTES;
    unsigned char* pixel = row.packed;
    for (int x = 0; x < width * BYTES; x += BYTES, pixel += CHANNELS * BYTES) {
        if (SEPARATES) {
            move_sample<Sample>(pixel + green, planes[0] + x);
            move_sample<Sample>(pixel + blue, planes[1] + x);
            move_sample<Sample>(pixel + red, planes[2] + x);
        } else {
            move_sample<Sample>(planes[0] + x, pixel + green);
            move_sample<Sample>(planes[1] + x, pixel + blue);
            move_sample<Sample>(planes[2] + x, pixel + red);
        }
        if (CHANNELS == 4 && SEPARATES) {
            move_sample<Sample>(pixel + 3 * BYTES, planes[3] + x);
        } else if (CHANNELS == 4) {
            move_sample<Sample>(planes[3] + x, pixel + 3 * BYTES);
        }
    }
}

template <bool SEPARATES>
void convert(const StreamFormat& format, int width, int height, const VideoStabilizerPlanes& packed,
             const VideoStabilizerPlanes& planes) {
    const bool deep = format.layout.bit_depth > 8;
    auto* convert_one = convert_row<std::uint8_t, 3, SEPARATES>;
    if (format.channels == 3) {
        convert_one = deep ? convert_row<std::uint16_t, 3, SEPARATES> : convert_one;
    } else {
        convert_one = deep ? convert_row<std::uint16_t, 4, SEPARATES>
                           : convert_row<std::uint8_t, 4, SEPARATES>;
    }
    const std::array<int, 4> places =
        format.blue_first ? std::array<int, 4>{1, 0, 2, 3} : std::array<int, 4>{1, 2, 0, 3};
    for (int y = 0; y < height; ++y) {
        Row row{row_of(packed, 0, y), {}};
        for (int k = 0; k < format.channels; ++k) {
            row.planes[static_cast<std::size_t>(k)] = row_of(planes, k, y);
        }
        convert_one(row, places, width);
    }
}

}  // namespace

void separate(const StreamFormat& format, int width, int height,
              const VideoStabilizerPlanes& packed, const VideoStabilizerPlanes& planes) {
    convert<true>(format, width, height, packed, planes);
}

void interleave(const StreamFormat& format, int width, int height,
                const VideoStabilizerPlanes& planes, const VideoStabilizerPlanes& packed) {
    convert<false>(format, width, height, packed, planes);
}

void copy_picture(const StreamFormat& format, int width, int height,
                  const VideoStabilizerPlanes& from, const VideoStabilizerPlanes& to) {
    for (int k = 0; k < host_planes(format); ++k) {
        const std::size_t bytes = host_row_bytes(format, width, k);
        for (int row = 0; row < host_rows(format, height, k); ++row) {
            std::memcpy(row_of(to, k, row), row_of(from, k, row), bytes);
        }
    }
}

StreamFormat separated(const StreamFormat& format) {
    StreamFormat planes = format;
    planes.channels = 0;
    return planes;
}

}  // namespace videostabilizer
