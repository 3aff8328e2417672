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

// By plane, G, B, R, A: where its sample is in a pixel.
std::array<int, 4> places(const StreamFormat& format) {
    return format.blue_first ? std::array<int, 4>{1, 0, 2, 3} : std::array<int, 4>{1, 2, 0, 3};
}

// One plane's samples of a row. Host memory may be at any address, hence the copies, which are moves
// of registers to compilers.
template <typename Sample, int CHANNELS>
void take_samples(const unsigned char* packed, int place, int width, unsigned char* plane) {
    for (int x = 0; x < width; ++x) {
        std::memcpy(plane + x * static_cast<int>(sizeof(Sample)),
                    packed + (x * CHANNELS + place) * static_cast<int>(sizeof(Sample)),
                    sizeof(Sample));
    }
}
template <typename Sample, int CHANNELS>
void put_samples(const unsigned char* plane, int place, int width, unsigned char* packed) {
    for (int x = 0; x < width; ++x) {
        std::memcpy(packed + (x * CHANNELS + place) * static_cast<int>(sizeof(Sample)),
                    plane + x * static_cast<int>(sizeof(Sample)), sizeof(Sample));
    }
}

using MoveSamples = void (*)(const unsigned char*, int, int, unsigned char*);

MoveSamples taking(const StreamFormat& format) {
    if (format.layout.bit_depth > 8) {
        return format.channels == 3 ? take_samples<std::uint16_t, 3>
                                    : take_samples<std::uint16_t, 4>;
    }
    return format.channels == 3 ? take_samples<std::uint8_t, 3> : take_samples<std::uint8_t, 4>;
}
MoveSamples putting(const StreamFormat& format) {
    if (format.layout.bit_depth > 8) {
        return format.channels == 3 ? put_samples<std::uint16_t, 3> : put_samples<std::uint16_t, 4>;
    }
    return format.channels == 3 ? put_samples<std::uint8_t, 3> : put_samples<std::uint8_t, 4>;
}

}  // namespace

void separate(const StreamFormat& format, int width, int height,
              const VideoStabilizerPlanes& packed, const VideoStabilizerPlanes& planes) {
    const MoveSamples take = taking(format);
    const std::array<int, 4> place = places(format);
    for (int row = 0; row < height; ++row) {
        for (int k = 0; k < format.channels; ++k) {
            take(row_of(packed, 0, row), place[static_cast<std::size_t>(k)], width,
                 row_of(planes, k, row));
        }
    }
}

void interleave(const StreamFormat& format, int width, int height,
                const VideoStabilizerPlanes& planes, const VideoStabilizerPlanes& packed) {
    const MoveSamples put = putting(format);
    const std::array<int, 4> place = places(format);
    for (int row = 0; row < height; ++row) {
        for (int k = 0; k < format.channels; ++k) {
            put(row_of(planes, k, row), place[static_cast<std::size_t>(k)], width,
                row_of(packed, 0, row));
        }
    }
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
