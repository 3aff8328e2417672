// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/picture_frame.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "frames/picture_layout.h"
#include "platform/log.h"

namespace videostabilizer {

namespace {

constexpr char TAG[] = "log_utils";

constexpr int ROW_ALIGNMENT = 64;  // bytes

// Released by frame_delete, for which the frame comes first.
struct PictureRecord {
    Frame frame;
    PixelLayout layout;
    PicturePlanes planes;
};

const PictureRecord* record_of(const Frame* frame) {
    return frame->format == PIX_FMT_PICTURE ? reinterpret_cast<const PictureRecord*>(frame)
                                            : nullptr;
}

std::int64_t row_bytes(int width, const PixelLayout& layout, int k) {
    return static_cast<std::int64_t>(plane_samples(width, layout, k)) * sample_bytes(layout);
}

const char* planes_fault(int width, const PixelLayout& layout, const PicturePlanes& planes) {
    for (int k = 0; k < plane_count(layout); ++k) {
        const std::int64_t stride = plane_stride(planes, k);
        if (plane_data(planes, k) == nullptr) {
            return "a plane is null";
        }
        if (std::max(stride, -stride) < row_bytes(width, layout, k)) {
            return "a stride is shorter than a row";
        }
        if (stride % sample_bytes(layout) != 0) {
            return "a stride is odd";
        }
    }
    return nullptr;
}

const char* picture_fault(int width, int height, const PixelLayout* layout,
                          const PicturePlanes* planes) {
    if (width < 1 || height < 1 || width > LARGEST_PICTURE || height > LARGEST_PICTURE) {
        return "width and height must be 1 to 32768";
    }
    if (layout == nullptr) {
        return "no layout";
    }
    const char* const fault = layout_fault(*layout);
    return fault != nullptr || planes == nullptr ? fault : planes_fault(width, *layout, *planes);
}

// The strides of planes that the frame owns. Returns their bytes.
std::int64_t own_strides(int width, int height, const PixelLayout& layout, PicturePlanes& planes) {
    std::int64_t bytes = 0;
    for (int k = 0; k < plane_count(layout); ++k) {
        const std::int64_t row = row_bytes(width, layout, k);
        const std::int64_t stride = (row + ROW_ALIGNMENT - 1) / ROW_ALIGNMENT * ROW_ALIGNMENT;
        set_plane(planes, k, nullptr, static_cast<std::int32_t>(stride));
        bytes += stride * plane_rows(height, layout, k);
    }
    return bytes;
}

// Places the planes one after the other, from the next aligned address on.
void place_planes(unsigned char* memory, int height, const PixelLayout& layout,
                  PicturePlanes& planes) {
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    memory += (ROW_ALIGNMENT - address % ROW_ALIGNMENT) % ROW_ALIGNMENT;
    for (int k = 0; k < plane_count(layout); ++k) {
        const std::int32_t stride = plane_stride(planes, k);
        set_plane(planes, k, memory, stride);
        memory += static_cast<std::ptrdiff_t>(stride) * plane_rows(height, layout, k);
    }
}

}  // namespace

const char* layout_fault(const PixelLayout& layout) {
    if (layout.chroma < CHROMA_420 || layout.chroma > CHROMA_411) {
        return "chroma is none of 420, 422, 444, none and 411";
    }
    if (layout.siting < CHROMA_SITING_LEFT || layout.siting > CHROMA_SITING_BOTTOM) {
        return "no such siting";
    }
    if (layout.bit_depth < 8 || layout.bit_depth > 16) {
        return "bit_depth is not 8 to 16";
    }
    const auto is_switch = [](std::int32_t value) { return value == 0 || value == 1; };
    if (!is_switch(layout.semi_planar) || !is_switch(layout.high_bits)) {
        return "semi_planar or high_bits is neither 0 nor 1";
    }
    if (!is_switch(layout.alpha)) {
        return "alpha is neither 0 nor 1";
    }
    if (layout.alpha != 0 && (layout.chroma == CHROMA_NONE || layout.semi_planar != 0)) {
        return "alpha comes with planes Y, U and V only";
    }
    if (std::any_of(layout.reserved, layout.reserved + 2, [](int value) { return value != 0; })) {
        return "reserved fields are set";
    }
    return nullptr;
}

bool operator==(const PixelLayout& a, const PixelLayout& b) {
    const bool has_bits_to_spare = a.bit_depth > 8 && a.bit_depth < 16;
    const bool shares_chroma = a.chroma != CHROMA_444 && a.chroma != CHROMA_NONE;
    return a.chroma == b.chroma && a.bit_depth == b.bit_depth && a.alpha == b.alpha &&
           (a.siting == b.siting || !shares_chroma) &&
           (a.semi_planar == b.semi_planar || a.chroma == CHROMA_NONE) &&
           (a.high_bits == b.high_bits || !has_bits_to_spare);
}

int plane_count(const PixelLayout& layout) {
    if (layout.chroma == CHROMA_NONE) {
        return 1;
    }
    return layout.semi_planar != 0 ? 2 : 3 + layout.alpha;
}

int plane_samples(int width, const PixelLayout& layout, int k) {
    if (k == 0 || k == 3) {
        return width;
    }
    const int sharing = layout.chroma == CHROMA_444 ? 1 : layout.chroma == CHROMA_411 ? 4 : 2;
    const int pixels = (width + sharing - 1) / sharing;
    return layout.semi_planar != 0 ? 2 * pixels : pixels;
}

int plane_rows(int height, const PixelLayout& layout, int k) {
    return (k == 1 || k == 2) && layout.chroma == CHROMA_420 ? (height + 1) / 2 : height;
}

bool is_picture_of(const Frame& frame, int width, int height, const PixelLayout& layout) {
    const PictureRecord* const record = record_of(&frame);
    return record != nullptr && frame.width == width && frame.height == height &&
           record->layout == layout;
}

Frame* picture_frame_create(int width, int height, const PixelLayout* layout,
                            const PicturePlanes* planes) {
    const char* const fault = picture_fault(width, height, layout, planes);
    if (fault != nullptr) {
        __android_log_print(LOG_ERROR, TAG, "picture_frame_create: %d x %d: %s", width, height,
                            fault);
        return nullptr;
    }
    PicturePlanes placed{};
    std::int64_t bytes = sizeof(PictureRecord);
    if (planes == nullptr) {
        bytes += own_strides(width, height, *layout, placed) + ROW_ALIGNMENT;
    }
    void* const block =
        bytes <= PTRDIFF_MAX ? std::malloc(static_cast<std::size_t>(bytes)) : nullptr;
    if (block == nullptr) {
        __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
        return nullptr;
    }
    auto* const record = new (block) PictureRecord{};
    if (planes == nullptr) {
        place_planes(reinterpret_cast<unsigned char*>(record + 1), height, *layout, placed);
    } else {
        for (int k = 0; k < plane_count(*layout); ++k) {
            set_plane(placed, k, plane_data(*planes, k), plane_stride(*planes, k));
        }
    }
    record->layout = *layout;
    record->planes = placed;
    Frame& frame = record->frame;
    frame.width = width;
    frame.height = height;
    frame.stride_y = placed.stride[0];
    frame.stride_uv = placed.stride[1];
    frame.format = PIX_FMT_PICTURE;
    frame.plane_y = placed.data[0];
    frame.plane_uv = placed.data[1];
    return &frame;
}

int picture_frame_planes(const Frame* frame, PicturePlanes* planes) {
    const PictureRecord* const record = record_of(frame);
    if (record == nullptr) {
        return -1;
    }
    std::copy_n(record->planes.data, 3, planes->data);
    std::copy_n(record->planes.stride, 3, planes->stride);
    if (record->layout.alpha != 0) {
        planes->alpha = record->planes.alpha;
        planes->alpha_stride = record->planes.alpha_stride;
    }
    return 0;
}

}  // namespace videostabilizer
