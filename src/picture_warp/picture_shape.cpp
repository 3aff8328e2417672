// SPDX-License-Identifier: Apache-2.0

#include "picture_warp/picture_shape.h"

#include "frames/picture_layout.h"

namespace videostabilizer {

namespace {

// Where the first chroma sample lies among `sharing` luma samples of a row.
double first_across(ChromaSiting siting, double sharing) {
    return siting == CHROMA_SITING_CENTRE || siting == CHROMA_SITING_TOP ||
                   siting == CHROMA_SITING_BOTTOM
               ? 0.5 * (sharing - 1)
               : 0;
}

// Where it lies among two of a column.
double first_down(ChromaSiting siting) {
    if (siting == CHROMA_SITING_TOP_LEFT || siting == CHROMA_SITING_TOP) {
        return 0;
    }
    return siting == CHROMA_SITING_BOTTOM_LEFT || siting == CHROMA_SITING_BOTTOM ? 1 : 0.5;
}

SampleFormat sample_format(const PixelLayout& layout) {
    SampleFormat format;
    format.depth = layout.bit_depth;
    format.bytes = sample_bytes(layout);
    format.shift = layout.high_bits != 0 && format.bytes == 2 ? 16 - layout.bit_depth : 0;
    return format;
}

}  // namespace

PictureShape picture_shape(int width, int height, const PixelLayout& layout) {
    const SampleFormat format = sample_format(layout);
    PictureShape picture{};
    picture.planes = plane_count(layout);
    picture.plane[0] = {{width, height, format}, {}};
    PicturePlane chroma = picture.plane[0];
    chroma.shape.format.channels = layout.semi_planar != 0 ? 2 : 1;
    chroma.shape.width = plane_samples(width, layout, 1) / chroma.shape.format.channels;
    chroma.shape.height = plane_rows(height, layout, 1);
    if (layout.chroma != CHROMA_444) {
        chroma.grid.x_step = layout.chroma == CHROMA_411 ? 4 : 2;
        chroma.grid.x_first = first_across(layout.siting, chroma.grid.x_step);
    }
    if (layout.chroma == CHROMA_420) {
        chroma.grid.y_step = 2;
        chroma.grid.y_first = first_down(layout.siting);
    }
    for (int k = 1; k < picture.planes; ++k) {
        picture.plane[k] = is_chroma(k) ? chroma : picture.plane[0];
    }
    return picture;
}

}  // namespace videostabilizer
