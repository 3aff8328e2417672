// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gst/video/video.h>

#include <cstdint>

#include "videostabilizer/stream.h"

namespace gst_videostabilizer {

// The library's name of a format, or -1.
std::int32_t stream_format(GstVideoFormat format);

int siting(GstVideoChromaSite site);

// video/x-raw with every format, size and frame rate. The caller owns it.
GstCaps* supported_caps();

// GStreamer's number of the library's plane: YV12 has V before U.
guint plane_of(const GstVideoFormatInfo& format, int stream_plane);

VideoStabilizerPlanes planes_of(const GstVideoFrame& frame);

}  // namespace gst_videostabilizer
