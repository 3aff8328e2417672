// SPDX-License-Identifier: Apache-2.0

#include "formats.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace obs_videostabilizer {

namespace {

struct FormatPair {
    video_format format;
    std::int32_t stream_format;
};

// Alpha, and the unused byte of BGRX, are warped along.
constexpr FormatPair FORMATS[] = {
    {VIDEO_FORMAT_I420, VIDEOSTABILIZER_YUV420P + 8},
    {VIDEO_FORMAT_NV12, VIDEOSTABILIZER_NV12 + 8},
    {VIDEO_FORMAT_YVYU, VIDEOSTABILIZER_YUV422P + 8},
    {VIDEO_FORMAT_YUY2, VIDEOSTABILIZER_YUV422P + 8},
    {VIDEO_FORMAT_UYVY, VIDEOSTABILIZER_YUV422P + 8},
    {VIDEO_FORMAT_RGBA, VIDEOSTABILIZER_RGBA + 8},
    {VIDEO_FORMAT_BGRA, VIDEOSTABILIZER_BGRA + 8},
    {VIDEO_FORMAT_BGRX, VIDEOSTABILIZER_BGRA + 8},
    {VIDEO_FORMAT_Y800, VIDEOSTABILIZER_GRAY + 8},
    {VIDEO_FORMAT_I444, VIDEOSTABILIZER_YUV444P + 8},
    {VIDEO_FORMAT_BGR3, VIDEOSTABILIZER_BGR + 8},
    {VIDEO_FORMAT_I422, VIDEOSTABILIZER_YUV422P + 8},
    {VIDEO_FORMAT_I40A, VIDEOSTABILIZER_YUVA420P + 8},
    {VIDEO_FORMAT_I42A, VIDEOSTABILIZER_YUVA422P + 8},
    {VIDEO_FORMAT_YUVA, VIDEOSTABILIZER_YUVA444P + 8},
    {VIDEO_FORMAT_AYUV, VIDEOSTABILIZER_YUVA444P + 8},
    {VIDEO_FORMAT_I010, VIDEOSTABILIZER_YUV420P + 10},
    {VIDEO_FORMAT_P010, VIDEOSTABILIZER_P0 + 10},
    {VIDEO_FORMAT_I210, VIDEOSTABILIZER_YUV422P + 10},
    {VIDEO_FORMAT_I412, VIDEOSTABILIZER_YUV444P + 12},
    {VIDEO_FORMAT_YA2L, VIDEOSTABILIZER_YUVA444P + 12},
};

// Where the samples of packed YUV are among the four bytes of a group: of two pixels with a common
// chroma, or of one pixel with alpha.
struct Packing {
    int pixels;
    std::array<int, 4> places;  // Y, U, V, then the second Y or alpha
};
constexpr Packing YUY2{2, {0, 1, 3, 2}};
constexpr Packing YVYU{2, {0, 3, 1, 2}};
constexpr Packing UYVY{2, {1, 0, 2, 3}};
constexpr Packing AYUV{1, {2, 1, 0, 3}};
constexpr std::size_t GROUP = 4;

bool is_packed_yuv(video_format format) {
    return format == VIDEO_FORMAT_YUY2 || format == VIDEO_FORMAT_YVYU ||
           format == VIDEO_FORMAT_UYVY || format == VIDEO_FORMAT_AYUV;
}

// Calls `work` with the packing as a constant, so that loops over samples are compiled for each.
template <typename Work>
void with_packing(video_format format, const Work& work) {
    switch (format) {
        case VIDEO_FORMAT_YUY2:
            work([] { return YUY2; });
            break;
        case VIDEO_FORMAT_YVYU:
            work([] { return YVYU; });
            break;
        case VIDEO_FORMAT_UYVY:
            work([] { return UYVY; });
            break;
        default:
            work([] { return AYUV; });
            break;
    }
}

// A row of each plane. Without alpha, the last is nowhere.
struct Rows {
    std::uint8_t* y;
    std::uint8_t* u;
    std::uint8_t* v;
    std::uint8_t* a;
};

Rows rows_of(const VideoStabilizerPlanes& planes, std::ptrdiff_t row) {
    const auto at = [&](int plane) {
        return static_cast<std::uint8_t*>(planes.data[plane]) + row * planes.stride[plane];
    };
    return {at(0), at(1), at(2), at(3)};
}

template <typename PackingOf>
void separate_row(PackingOf packing_of, const std::uint8_t* packed, const Rows& to,
                  std::size_t width) {
    constexpr Packing P = packing_of();
    const std::size_t whole = width / P.pixels;
    for (std::size_t k = 0; k < whole; ++k) {
        const std::uint8_t* const group = packed + k * GROUP;
        to.y[k * P.pixels] = group[P.places[0]];
        to.u[k] = group[P.places[1]];
        to.v[k] = group[P.places[2]];
        if (P.pixels == 2) {
            to.y[k * 2 + 1] = group[P.places[3]];
        } else {
            to.a[k] = group[P.places[3]];
        }
    }
    if (P.pixels == 2 && width % 2 != 0) {
        const std::uint8_t* const group = packed + whole * GROUP;
        to.y[width - 1] = group[P.places[0]];
        to.u[whole] = group[P.places[1]];
        to.v[whole] = group[P.places[2]];
    }
}

// From column `first`, which is even, on.
template <typename PackingOf>
void merge_row(PackingOf packing_of, const Rows& from, std::uint8_t* packed, std::size_t first,
               std::size_t width) {
    constexpr Packing P = packing_of();
    const std::size_t whole = width / P.pixels;
    for (std::size_t k = first / P.pixels; k < whole; ++k) {
        std::uint8_t* const group = packed + k * GROUP;
        group[P.places[0]] = from.y[k * P.pixels];
        group[P.places[1]] = from.u[k];
        group[P.places[2]] = from.v[k];
        group[P.places[3]] = P.pixels == 2 ? from.y[k * 2 + 1] : from.a[k];
    }
    if (P.pixels == 2 && width % 2 != 0) {
        std::uint8_t* const group = packed + whole * GROUP;
        group[P.places[0]] = from.y[width - 1];
        group[P.places[1]] = from.u[whole];
        group[P.places[2]] = from.v[whole];
    }
}

int shape_of(const obs_source_frame& frame, int plane, VideoStabilizerPlaneShape& shape) {
    shape.size = sizeof shape;
    return videostabilizer_format_plane(stream_format(frame.format), static_cast<int>(frame.width),
                                        static_cast<int>(frame.height), plane, &shape);
}

// Planes without gaps, one after the other.
VideoStabilizerPlanes planes_in(std::vector<std::uint8_t>& memory, const obs_source_frame& frame) {
    VideoStabilizerPlanes planes{};
    std::array<std::size_t, 4> offsets{};
    std::size_t size = 0;
    VideoStabilizerPlaneShape shape{};
    const int count = shape_of(frame, 0, shape);
    for (int k = 0; k < count; ++k) {
        shape_of(frame, k, shape);
        offsets[static_cast<std::size_t>(k)] = size;
        planes.stride[k] = static_cast<std::ptrdiff_t>(shape.row_bytes);
        size += shape.row_bytes * static_cast<std::size_t>(shape.rows);
    }
    memory.resize(size);
    for (int k = 0; k < 4; ++k) {
        planes.data[k] = memory.data() + offsets[static_cast<std::size_t>(k)];
    }
    return planes;
}

std::size_t middle(const obs_source_frame& frame) {
    return frame.width / 2 / 2 * 2;
}

}  // namespace

std::int32_t stream_format(video_format format) {
    const auto* const found =
        std::find_if(std::begin(FORMATS), std::end(FORMATS),
                     [format](const FormatPair& pair) { return pair.format == format; });
    return found != std::end(FORMATS) ? found->stream_format : -1;
}

bool is_same_kind(const obs_source_frame& a, const obs_source_frame& b) {
    return a.width == b.width && a.height == b.height && a.format == b.format &&
           a.full_range == b.full_range && a.trc == b.trc && a.flip == b.flip;
}

VideoStabilizerPlanes planes_to_push(const obs_source_frame& frame,
                                     std::vector<std::uint8_t>& separated, bool& are_own) {
    are_own = !is_packed_yuv(frame.format);
    if (are_own) {
        VideoStabilizerPlanes planes{};
        for (int k = 0; k < 4; ++k) {
            planes.data[k] = frame.data[k];
            planes.stride[k] = static_cast<std::ptrdiff_t>(frame.linesize[k]);
        }
        return planes;
    }
    const VideoStabilizerPlanes planes = planes_in(separated, frame);
    with_packing(frame.format, [&](auto packing_of) {
        for (std::size_t row = 0; row < frame.height; ++row) {
            separate_row(packing_of, frame.data[0] + row * frame.linesize[0],
                         rows_of(planes, static_cast<std::ptrdiff_t>(row)), frame.width);
        }
    });
    return planes;
}

void overwrite(obs_source_frame& frame, const VideoStabilizerPlanes& steady, bool halves) {
    const std::size_t first_column = halves ? middle(frame) : 0;
    if (is_packed_yuv(frame.format)) {
        with_packing(frame.format, [&](auto packing_of) {
            for (std::size_t row = 0; row < frame.height; ++row) {
                merge_row(packing_of, rows_of(steady, static_cast<std::ptrdiff_t>(row)),
                          frame.data[0] + row * frame.linesize[0], first_column, frame.width);
            }
        });
        return;
    }
    VideoStabilizerPlaneShape shape{};
    const int count = shape_of(frame, 0, shape);
    for (int k = 0; k < count; ++k) {
        // A plane's share of the left half, whose width is even.
        VideoStabilizerPlaneShape left{};
        obs_source_frame half = frame;
        half.width = static_cast<std::uint32_t>(first_column);
        const std::size_t skip =
            first_column > 0 && shape_of(half, k, left) > 0 ? left.row_bytes : 0;
        shape_of(frame, k, shape);
        const std::size_t bytes = std::min<std::size_t>(shape.row_bytes, frame.linesize[k]);
        for (int row = 0; row < shape.rows && skip < bytes; ++row) {
            std::memcpy(
                frame.data[k] + static_cast<std::size_t>(row) * frame.linesize[k] + skip,
                static_cast<const std::uint8_t*>(steady.data[k]) + row * steady.stride[k] + skip,
                bytes - skip);
        }
    }
}

}  // namespace obs_videostabilizer
