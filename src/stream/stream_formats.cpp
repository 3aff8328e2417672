// SPDX-License-Identifier: Apache-2.0

#include "stream/stream_formats.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "frames/picture_layout.h"

namespace videostabilizer {

namespace {

constexpr std::int32_t BITS = 0xFF;  // of a format; the rest is its family

struct Family {
    const char* name;  // with 8 bits; of packed RGB also without the bits
    std::int32_t code;
    ChromaFormat chroma;
    int channels;
    bool alpha;
    bool semi_planar;
    bool blue_first;
};

constexpr Family FAMILIES[] = {
    {"gray", VIDEOSTABILIZER_GRAY, CHROMA_NONE, 0, false, false, false},
    {"yuv420p", VIDEOSTABILIZER_YUV420P, CHROMA_420, 0, false, false, false},
    {"yuv422p", VIDEOSTABILIZER_YUV422P, CHROMA_422, 0, false, false, false},
    {"yuv444p", VIDEOSTABILIZER_YUV444P, CHROMA_444, 0, false, false, false},
    {"yuv411p", VIDEOSTABILIZER_YUV411P, CHROMA_411, 0, false, false, false},
    {"yuva420p", VIDEOSTABILIZER_YUVA420P, CHROMA_420, 0, true, false, false},
    {"yuva422p", VIDEOSTABILIZER_YUVA422P, CHROMA_422, 0, true, false, false},
    {"yuva444p", VIDEOSTABILIZER_YUVA444P, CHROMA_444, 0, true, false, false},
    {"nv12", VIDEOSTABILIZER_NV12, CHROMA_420, 0, false, true, false},
    {"nv21", VIDEOSTABILIZER_NV21, CHROMA_420, 0, false, true, false},
    {"nv16", VIDEOSTABILIZER_NV16, CHROMA_422, 0, false, true, false},
    {"nv24", VIDEOSTABILIZER_NV24, CHROMA_444, 0, false, true, false},
    {"nv42", VIDEOSTABILIZER_NV42, CHROMA_444, 0, false, true, false},
    {"p0", VIDEOSTABILIZER_P0, CHROMA_420, 0, false, true, false},
    {"p2", VIDEOSTABILIZER_P2, CHROMA_422, 0, false, true, false},
    {"p4", VIDEOSTABILIZER_P4, CHROMA_444, 0, false, true, false},
    // Planes G, B, R, A: what is looked at most comes first, as luma does.
    {"rgb", VIDEOSTABILIZER_RGB, CHROMA_444, 3, false, false, false},
    {"bgr", VIDEOSTABILIZER_BGR, CHROMA_444, 3, false, false, true},
    {"rgba", VIDEOSTABILIZER_RGBA, CHROMA_444, 4, true, false, false},
    {"bgra", VIDEOSTABILIZER_BGRA, CHROMA_444, 4, true, false, true},
};

bool has_high_bits(const Family& family) {
    return family.code >= VIDEOSTABILIZER_P0 && family.code <= VIDEOSTABILIZER_P4;
}

bool has_depth(const Family& family, std::int32_t bits) {
    if (family.channels != 0) {
        return bits == 8 || bits == 16;
    }
    return bits >= (has_high_bits(family) ? 9 : 8) && bits <= 16;
}

// Whether `text` is a number of two digits, 09 to 16, with "le" after it.
std::int32_t deep_bits(const char* text) {
    for (std::int32_t bits = 9; bits <= 16; ++bits) {
        const char digits[] = {bits < 10 ? '0' : '1', static_cast<char>('0' + bits % 10), '\0'};
        const char* const written = bits < 10 && *text != '0' ? digits + 1 : digits;
        const std::size_t length = std::strlen(written);
        if (std::strncmp(text, written, length) == 0 && std::strcmp(text + length, "le") == 0) {
            return bits;
        }
    }
    return 0;
}

// The bits that the rest of a name says, after the family's; 0: it is no name of the family.
std::int32_t named_bits(const Family& family, const char* rest) {
    if (family.channels != 0) {
        const char* const plain = family.channels == 3 ? "24" : "";
        const char* const deep = family.channels == 3 ? "48le" : "64le";
        return std::strcmp(rest, plain) == 0 ? 8 : (std::strcmp(rest, deep) == 0 ? 16 : 0);
    }
    if (*rest == '\0' && !has_high_bits(family)) {
        return 8;
    }
    // Other formats with pairs have no names with more bits.
    return family.semi_planar && !has_high_bits(family) ? 0 : deep_bits(rest);
}

}  // namespace

std::optional<StreamFormat> stream_format(std::int32_t format, std::int32_t siting) {
    const std::int32_t bits = format & BITS;
    for (const Family& family : FAMILIES) {
        if (family.code != (format & ~BITS) || !has_depth(family, bits)) {
            continue;
        }
        StreamFormat found{};
        found.layout.chroma = family.chroma;
        found.layout.siting = static_cast<ChromaSiting>(siting);
        found.layout.bit_depth = bits;
        found.layout.semi_planar = family.semi_planar ? 1 : 0;
        found.layout.high_bits = has_high_bits(family) ? 1 : 0;
        found.layout.alpha = family.alpha ? 1 : 0;
        found.channels = family.channels;
        found.blue_first = family.blue_first;
        if (layout_fault(found.layout) == nullptr) {
            return found;
        }
    }
    return std::nullopt;
}

std::int32_t format_by_name(const char* name) {
    for (const Family& family : FAMILIES) {
        const std::size_t length = std::strlen(family.name);
        if (std::strncmp(name, family.name, length) != 0) {
            continue;
        }
        const std::int32_t bits = named_bits(family, name + length);
        if (bits != 0 && has_depth(family, bits)) {
            return family.code + bits;
        }
    }
    return -1;
}

int host_planes(const StreamFormat& format) {
    return format.is_packed() ? 1 : plane_count(format.layout);
}

std::size_t host_row_bytes(const StreamFormat& format, int width, int k) {
    const int samples =
        format.is_packed() ? width * format.channels : plane_samples(width, format.layout, k);
    return static_cast<std::size_t>(samples) *
           static_cast<std::size_t>(sample_bytes(format.layout));
}

int host_rows(const StreamFormat& format, int height, int k) {
    return format.is_packed() ? height : plane_rows(height, format.layout, k);
}

const char* host_planes_fault(const StreamFormat& format, int width,
                              const VideoStabilizerPlanes& planes) {
    for (int k = 0; k < host_planes(format); ++k) {
        const std::int64_t stride = planes.stride[k];
        if (planes.data[k] == nullptr) {
            return "a plane is null";
        }
        if (stride != static_cast<std::int32_t>(stride)) {
            return "a stride is longer than 32 bits tell";
        }
        if (static_cast<std::uint64_t>(std::abs(stride)) < host_row_bytes(format, width, k)) {
            return "a stride is shorter than a row";
        }
        if (stride % sample_bytes(format.layout) != 0) {
            return "a stride is odd where samples have two bytes";
        }
    }
    return nullptr;
}

PicturePlanes picture_planes(const StreamFormat& format, const VideoStabilizerPlanes& planes) {
    PicturePlanes picture{};
    for (int k = 0; k < plane_count(format.layout); ++k) {
        set_plane(picture, k, static_cast<unsigned char*>(planes.data[k]),
                  static_cast<std::int32_t>(planes.stride[k]));
    }
    return picture;
}

}  // namespace videostabilizer
