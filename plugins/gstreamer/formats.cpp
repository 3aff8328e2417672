// SPDX-License-Identifier: Apache-2.0

#include "formats.h"

#include <algorithm>
#include <iterator>

namespace gst_videostabilizer {

namespace {

constexpr int LEAST_SIZE = 16;
constexpr int MOST_SIZE = 32768;

struct FormatPair {
    GstVideoFormat format;
    std::int32_t stream_format;
};

// In the order of preference. Alpha, and the unused byte of x formats, are warped along.
constexpr FormatPair FORMATS[] = {
    {GST_VIDEO_FORMAT_I420, VIDEOSTABILIZER_YUV420P + 8},
    {GST_VIDEO_FORMAT_NV12, VIDEOSTABILIZER_NV12 + 8},
    {GST_VIDEO_FORMAT_NV21, VIDEOSTABILIZER_NV21 + 8},
    {GST_VIDEO_FORMAT_YV12, VIDEOSTABILIZER_YUV420P + 8},
    {GST_VIDEO_FORMAT_Y42B, VIDEOSTABILIZER_YUV422P + 8},
    {GST_VIDEO_FORMAT_Y444, VIDEOSTABILIZER_YUV444P + 8},
    {GST_VIDEO_FORMAT_Y41B, VIDEOSTABILIZER_YUV411P + 8},
    {GST_VIDEO_FORMAT_NV16, VIDEOSTABILIZER_NV16 + 8},
    {GST_VIDEO_FORMAT_NV24, VIDEOSTABILIZER_NV24 + 8},
    {GST_VIDEO_FORMAT_GRAY8, VIDEOSTABILIZER_GRAY + 8},
    {GST_VIDEO_FORMAT_A420, VIDEOSTABILIZER_YUVA420P + 8},
    {GST_VIDEO_FORMAT_P010_10LE, VIDEOSTABILIZER_P0 + 10},
    {GST_VIDEO_FORMAT_P012_LE, VIDEOSTABILIZER_P0 + 12},
    {GST_VIDEO_FORMAT_P016_LE, VIDEOSTABILIZER_P0 + 16},
    {GST_VIDEO_FORMAT_I420_10LE, VIDEOSTABILIZER_YUV420P + 10},
    {GST_VIDEO_FORMAT_I420_12LE, VIDEOSTABILIZER_YUV420P + 12},
    {GST_VIDEO_FORMAT_I422_10LE, VIDEOSTABILIZER_YUV422P + 10},
    {GST_VIDEO_FORMAT_I422_12LE, VIDEOSTABILIZER_YUV422P + 12},
    {GST_VIDEO_FORMAT_Y444_10LE, VIDEOSTABILIZER_YUV444P + 10},
    {GST_VIDEO_FORMAT_Y444_12LE, VIDEOSTABILIZER_YUV444P + 12},
    {GST_VIDEO_FORMAT_Y444_16LE, VIDEOSTABILIZER_YUV444P + 16},
    {GST_VIDEO_FORMAT_A420_10LE, VIDEOSTABILIZER_YUVA420P + 10},
    {GST_VIDEO_FORMAT_A422_10LE, VIDEOSTABILIZER_YUVA422P + 10},
    {GST_VIDEO_FORMAT_A444_10LE, VIDEOSTABILIZER_YUVA444P + 10},
    {GST_VIDEO_FORMAT_GRAY16_LE, VIDEOSTABILIZER_GRAY + 16},
    {GST_VIDEO_FORMAT_RGB, VIDEOSTABILIZER_RGB + 8},
    {GST_VIDEO_FORMAT_BGR, VIDEOSTABILIZER_BGR + 8},
    {GST_VIDEO_FORMAT_RGBA, VIDEOSTABILIZER_RGBA + 8},
    {GST_VIDEO_FORMAT_BGRA, VIDEOSTABILIZER_BGRA + 8},
    {GST_VIDEO_FORMAT_RGBx, VIDEOSTABILIZER_RGBA + 8},
    {GST_VIDEO_FORMAT_BGRx, VIDEOSTABILIZER_BGRA + 8},
    {GST_VIDEO_FORMAT_RGBA64_LE, VIDEOSTABILIZER_RGBA + 16},
    {GST_VIDEO_FORMAT_BGRA64_LE, VIDEOSTABILIZER_BGRA + 16},
};

}  // namespace

std::int32_t stream_format(GstVideoFormat format) {
    const auto* const found =
        std::find_if(std::begin(FORMATS), std::end(FORMATS),
                     [format](const FormatPair& pair) { return pair.format == format; });
    return found != std::end(FORMATS) ? found->stream_format : -1;
}

int siting(GstVideoChromaSite site) {
    if (site == GST_VIDEO_CHROMA_SITE_NONE) return VIDEOSTABILIZER_SITING_CENTRE;
    if (site == GST_VIDEO_CHROMA_SITE_COSITED) return VIDEOSTABILIZER_SITING_TOP_LEFT;
    if (site == GST_VIDEO_CHROMA_SITE_V_COSITED) return VIDEOSTABILIZER_SITING_TOP;
    return VIDEOSTABILIZER_SITING_LEFT;  // also where it is not known
}

GstCaps* supported_caps() {
    GValue formats = G_VALUE_INIT;
    g_value_init(&formats, GST_TYPE_LIST);
    for (const FormatPair& pair : FORMATS) {
        GValue name = G_VALUE_INIT;
        g_value_init(&name, G_TYPE_STRING);
        g_value_set_string(&name, gst_video_format_to_string(pair.format));
        gst_value_list_append_and_take_value(&formats, &name);
    }
    GstCaps* const caps =
        gst_caps_new_simple("video/x-raw", "width", GST_TYPE_INT_RANGE, LEAST_SIZE, MOST_SIZE,
                            "height", GST_TYPE_INT_RANGE, LEAST_SIZE, MOST_SIZE, "framerate",
                            GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, nullptr);
    gst_caps_set_value(caps, "format", &formats);
    g_value_unset(&formats);
    return caps;
}

guint plane_of(const GstVideoFormatInfo& format, int stream_plane) {
    const bool planar = format.n_planes == format.n_components;
    return planar ? format.plane[stream_plane] : static_cast<guint>(stream_plane);
}

VideoStabilizerPlanes planes_of(const GstVideoFrame& frame) {
    VideoStabilizerPlanes planes{};
    const GstVideoFormatInfo& format = *frame.info.finfo;
    for (int k = 0; k < static_cast<int>(format.n_planes); ++k) {
        const guint plane = plane_of(format, k);
        planes.data[k] = frame.data[plane];
        planes.stride[k] = frame.info.stride[plane];
    }
    return planes;
}

}  // namespace gst_videostabilizer
