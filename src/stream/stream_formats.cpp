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
    std::int32_t code;
    const char* name;  // with 8 bits; of packed RGB also without the bits
    ChromaFormat chroma;
    bool alpha;
    bool semi_planar;
    int channels;
    bool blue_first;
};

constexpr Family FAMILIES[] = {
    {VIDEOSTABILIZER_GRAY, "gray", CHROMA_NONE, false, false, 0, false},
    {VIDEOSTABILIZER_YUV420P, "yuv420p", CHROMA_420, false, false, 0, false},
    {VIDEOSTABILIZER_YUV422P, "yuv422p", CHROMA_422, false, false, 0, false},
    {VIDEOSTABILIZER_YUV444P, "yuv444p", CHROMA_444, false, false, 0, false},
    {VIDEOSTABILIZER_YUV411P, "yuv411p", CHROMA_411, false, false, 0, false},
    {VIDEOSTABILIZER_YUVA420P, "yuva420p", CHROMA_420, true, false, 0, false},
    {VIDEOSTABILIZER_YUVA422P, "yuva422p", CHROMA_422, true, false, 0, false},
    {VIDEOSTABILIZER_YUVA444P, "yuva444p", CHROMA_444, true, false, 0, false},
    {VIDEOSTABILIZER_NV12, "nv12", CHROMA_420, false, true, 0, false},
    {VIDEOSTABILIZER_NV21, "nv21", CHROMA_420, false, true, 0, false},
    {VIDEOSTABILIZER_NV16, "nv16", CHROMA_422, false, true, 0, false},
    {VIDEOSTABILIZER_NV24, "nv24", CHROMA_444, false, true, 0, false},
    {VIDEOSTABILIZER_NV42, "nv42", CHROMA_444, false, true, 0, false},
    {VIDEOSTABILIZER_P0, "p0", CHROMA_420, false, true, 0, false},
    {VIDEOSTABILIZER_P2, "p2", CHROMA_422, false, true, 0, false},
    {VIDEOSTABILIZER_P4, "p4", CHROMA_444, false, true, 0, false},
    // Planes G, B, R, A: what is looked at most comes first, as luma does.
    {VIDEOSTABILIZER_RGB, "rgb", CHROMA_444, false, false, 3, false},
    {VIDEOSTABILIZER_BGR, "bgr", CHROMA_444, false, false, 3, true},
    {VIDEOSTABILIZER_RGBA, "rgba", CHROMA_444, true, false, 4, false},
    {VIDEOSTABILIZER_BGRA, "bgra", CHROMA_444, true, false, 4, true},
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
        const std::ptrdiff_t stride = planes.stride[k];
        if (planes.data[k] == nullptr) {
            return "a plane is null";
        }
        if (stride < -INT32_MAX || stride > INT32_MAX) {
            return "a stride is longer than 32 bits tell";
        }
        if (static_cast<std::size_t>(std::abs(stride)) < host_row_bytes(format, width, k)) {
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
