// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gst/video/video.h>

#include <memory>

#include "videostabilizer/stream.h"

// Buffers on their way into a stream and out of it.

namespace gst_videostabilizer {

struct BufferUnref {
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
};
using BufferPtr = std::unique_ptr<GstBuffer, BufferUnref>;

// Whether a stream may keep the buffer for the look-ahead. Else it is copied: its pool does not grow, or
// its memory is a device's, of which there may be little.
bool may_borrow(GstBuffer* buffer);

// Lends a buffer, or the part of it that its crop meta says, to a stream, or has it copied. `input` gets
// the planes and what ends the loan; where the stream did not take it, end_loan does. Null: the buffer
// cannot be mapped as such a picture.
struct Loan;
Loan* begin_loan(GstBuffer* buffer, const GstVideoInfo& info, bool borrow,
                 VideoStabilizerInput& input);
void end_loan(Loan* loan);

// A buffer over the picture, whose reference it takes.
BufferPtr wrap(VideoStabilizerPicture* picture, const GstVideoInfo& info);

// Copies times, flags and metas. Regions of interest move with the picture; what describes memory stays
// behind, and so does a crop that has been followed.
void copy_metadata(GstBuffer* from, GstBuffer* to, const GstVideoInfo& info,
                   const VideoStabilizerStreamReport& report);

}  // namespace gst_videostabilizer
