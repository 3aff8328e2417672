// SPDX-License-Identifier: Apache-2.0

#include "steady_buffers.h"

#include <gst/video/gstvideoaffinetransformationmeta.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <iterator>

#include "formats.h"

namespace gst_videostabilizer {

// The frame holds a reference to its buffer.
struct Loan {
    GstVideoFrame frame;
};

namespace {

void release_loan(void* loan, void* /*host*/) {
    end_loan(static_cast<Loan*>(loan));
}

void release_picture(gpointer picture) {
    videostabilizer_picture_unref(static_cast<VideoStabilizerPicture*>(picture));
}

struct Point {
    double x;
    double y;
};

// Where a place of the shaky picture is shown.
Point shown_at(Point p, const VideoStabilizerStreamReport& report, const GstVideoInfo& info) {
    const float* const m = report.correction;
    const auto row = [&](int k) {
        return static_cast<double>(m[k]) * p.x + static_cast<double>(m[k + 1]) * p.y +
               static_cast<double>(m[k + 2]);
    };
    const double w = row(6) != 0 ? row(6) : 1;
    const double crop = report.crop > 0 ? static_cast<double>(report.crop) : 1;
    const double middle_x = info.width / 2.0;
    const double middle_y = info.height / 2.0;
    return {(row(0) / w - middle_x) / crop + middle_x, (row(3) / w - middle_y) / crop + middle_y};
}

void move_region(GstVideoRegionOfInterestMeta& region, const VideoStabilizerStreamReport& report,
                 const GstVideoInfo& info) {
    const double left = region.x;
    const double top = region.y;
    const double right = left + region.w;
    const double bottom = top + region.h;
    Point least{HUGE_VAL, HUGE_VAL};
    Point most{-HUGE_VAL, -HUGE_VAL};
    for (const Point corner : {Point{left, top}, {right, top}, {left, bottom}, {right, bottom}}) {
        const Point p = shown_at(corner, report, info);
        least = {std::min(least.x, p.x), std::min(least.y, p.y)};
        most = {std::max(most.x, p.x), std::max(most.y, p.y)};
    }
    const auto within = [](double value, int size) {
        return static_cast<guint>(std::clamp(std::nearbyint(value), 0.0, 1.0 * size));
    };
    region.x = within(least.x, info.width);
    region.y = within(least.y, info.height);
    region.w = within(most.x, info.width) - region.x;
    region.h = within(most.y, info.height) - region.y;
}

// The window that makes the picture of the caps out of a larger one. A crop meta of another size than the
// caps is for those after us.
const GstVideoCropMeta* window_of(GstBuffer* buffer, const GstVideoInfo& info) {
    const GstVideoCropMeta* const crop = gst_buffer_get_video_crop_meta(buffer);
    if (crop == nullptr) return nullptr;
    const bool fits = crop->width == static_cast<guint>(info.width) &&
                      crop->height == static_cast<guint>(info.height);
    return fits ? crop : nullptr;
}

// Makes the frame that of a part of it. False: it has no such part.
bool cut_out(GstVideoFrame& frame, guint x, guint y, const GstVideoInfo& info) {
    const auto whole_width = static_cast<guint64>(frame.info.width);
    const auto whole_height = static_cast<guint64>(frame.info.height);
    if (guint64{x} + static_cast<guint64>(info.width) > whole_width ||
        guint64{y} + static_cast<guint64>(info.height) > whole_height) {
        return false;
    }
    const GstVideoFormatInfo& format = *info.finfo;
    for (guint plane = 0; plane < format.n_planes; ++plane) {
        guint component = 0;
        while (format.plane[component] != plane) {
            ++component;
        }
        const std::ptrdiff_t column = x >> format.w_sub[component];
        const std::ptrdiff_t row = y >> format.h_sub[component];
        frame.data[plane] = static_cast<guint8*>(frame.data[plane]) +
                            row * frame.info.stride[plane] +
                            column * format.pixel_stride[component];
    }
    return true;
}

struct MetaCopy {
    GstBuffer* to;
    const GstVideoInfo* info;
    const VideoStabilizerStreamReport* report;
    bool is_cut_out;  // the crop meta has been followed
};

gboolean copy_meta(GstBuffer* from, GstMeta** meta, gpointer user_data) {
    const auto* const copy = static_cast<const MetaCopy*>(user_data);
    const GstMetaInfo* const kind = (*meta)->info;
    if (copy->is_cut_out && kind->api == GST_VIDEO_CROP_META_API_TYPE) return TRUE;
    if (kind->api == GST_VIDEO_AFFINE_TRANSFORMATION_META_API_TYPE) {  // does not copy itself
        const auto* const shown = reinterpret_cast<const GstVideoAffineTransformationMeta*>(*meta);
        auto* const copied = gst_buffer_add_video_affine_transformation_meta(copy->to);
        std::copy(std::begin(shown->matrix), std::end(shown->matrix), std::begin(copied->matrix));
        return TRUE;
    }
    static const GQuark memory = g_quark_from_static_string(GST_META_TAG_MEMORY_STR);
    static const GQuark reference = g_quark_from_static_string(GST_META_TAG_MEMORY_REFERENCE_STR);
    if (kind->transform_func == nullptr || gst_meta_api_type_has_tag(kind->api, memory) != FALSE ||
        gst_meta_api_type_has_tag(kind->api, reference) != FALSE) {
        return TRUE;
    }
    GstMetaTransformCopy whole = {FALSE, 0, static_cast<gsize>(-1)};
    kind->transform_func(copy->to, *meta, from, _gst_meta_transform_copy, &whole);
    return TRUE;
}

gboolean move_if_region(GstBuffer* /*buffer*/, GstMeta** meta, gpointer user_data) {
    const auto* const copy = static_cast<const MetaCopy*>(user_data);
    if ((*meta)->info->api == GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE) {
        move_region(*reinterpret_cast<GstVideoRegionOfInterestMeta*>(*meta), *copy->report,
                    *copy->info);
    }
    return TRUE;
}

}  // namespace

bool may_borrow(GstBuffer* buffer) {
    for (guint k = 0; k < gst_buffer_n_memory(buffer); ++k) {
        if (gst_memory_is_type(gst_buffer_peek_memory(buffer, k), GST_ALLOCATOR_SYSMEM) == FALSE) {
            return false;
        }
    }
    if (buffer->pool == nullptr) return true;
    guint most = 0;
    GstStructure* const config = gst_buffer_pool_get_config(buffer->pool);
    gst_buffer_pool_config_get_params(config, nullptr, nullptr, nullptr, &most);
    gst_structure_free(config);
    return most == 0;  // grows as needed
}

Loan* begin_loan(GstBuffer* buffer, const GstVideoInfo& info, bool borrow,
                 VideoStabilizerInput& input) {
    auto loan = std::make_unique<Loan>();
    GstVideoInfo wanted = info;
    if (gst_video_frame_map(&loan->frame, &wanted, buffer, GST_MAP_READ) == FALSE) return nullptr;
    const GstVideoCropMeta* const window = window_of(buffer, info);
    if (!cut_out(loan->frame, window != nullptr ? window->x : 0, window != nullptr ? window->y : 0,
                 info)) {
        gst_video_frame_unmap(&loan->frame);
        return nullptr;
    }
    input.planes = planes_of(loan->frame);
    input.release = borrow ? release_loan : nullptr;
    input.release_context = loan.get();
    return loan.release();
}

void end_loan(Loan* loan) {
    gst_video_frame_unmap(&loan->frame);
    delete loan;
}

BufferPtr wrap(VideoStabilizerPicture* picture, const GstVideoInfo& info) {
    VideoStabilizerOutput output{};
    output.size = sizeof output;
    videostabilizer_picture_get(picture, &output);
    const GstVideoFormatInfo& format = *info.finfo;
    std::array<gsize, GST_VIDEO_MAX_PLANES> offsets{};
    std::array<gint, GST_VIDEO_MAX_PLANES> strides{};
    BufferPtr buffer(gst_buffer_new());
    gsize offset = 0;
    for (guint plane = 0; plane < format.n_planes; ++plane) {
        int k = 0;
        while (plane_of(format, k) != plane) {
            ++k;
        }
        VideoStabilizerPlaneShape shape{};
        shape.size = sizeof shape;
        videostabilizer_format_plane(stream_format(GST_VIDEO_INFO_FORMAT(&info)), info.width,
                                     info.height, k, &shape);
        const std::ptrdiff_t stride = output.planes.stride[k];
        const gsize bytes =
            static_cast<gsize>(stride) * static_cast<gsize>(shape.rows - 1) + shape.row_bytes;
        gst_buffer_append_memory(
            buffer.get(),
            gst_memory_new_wrapped(static_cast<GstMemoryFlags>(0), output.planes.data[k], bytes, 0,
                                   bytes, videostabilizer_picture_ref(picture), release_picture));
        offsets[plane] = offset;
        strides[plane] = static_cast<gint>(stride);
        offset += bytes;
    }
    gst_buffer_add_video_meta_full(buffer.get(), GST_VIDEO_FRAME_FLAG_NONE,
                                   GST_VIDEO_INFO_FORMAT(&info), static_cast<guint>(info.width),
                                   static_cast<guint>(info.height), format.n_planes, offsets.data(),
                                   strides.data());
    videostabilizer_picture_unref(picture);
    return buffer;
}

void copy_metadata(GstBuffer* from, GstBuffer* to, const GstVideoInfo& info,
                   const VideoStabilizerStreamReport& report) {
    constexpr auto FLAGS_AND_TIMES = static_cast<GstBufferCopyFlags>(
        static_cast<int>(GST_BUFFER_COPY_FLAGS) | static_cast<int>(GST_BUFFER_COPY_TIMESTAMPS));
    gst_buffer_copy_into(to, from, FLAGS_AND_TIMES, 0, static_cast<gsize>(-1));
    MetaCopy copy{to, &info, &report, window_of(from, info) != nullptr};
    gst_buffer_foreach_meta(from, copy_meta, &copy);
    gst_buffer_foreach_meta(to, move_if_region, &copy);
}

}  // namespace gst_videostabilizer
