// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/orientation.h"
#include "common/video_io/byte_io.h"

extern "C" {
#include <libavutil/mastering_display_metadata.h>
}

// Interfaces of picture input and output. Pictures are FFmpeg's frames, of a format that the
// stabilizer takes. Threads: owner only.

namespace apps {

// The input holds no video that can be used. what() is a message for the user.
struct NoVideoError : video_io::InputError {
    using video_io::InputError::InputError;
};

// The picture size changes within the stream.
struct SizeChangedError : video_io::InputError {
    using video_io::InputError::InputError;
};

// The command line asks for what there is not. what() is a message for the user.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What all pictures of a stream have in common.
struct PictureFormat {
    int width = 0;   // pixels
    int height = 0;  // rows
    AVPixelFormat pixel_format = AV_PIX_FMT_YUV420P;
    AVRational time_base{};         // seconds per tick, the unit of time stamps and durations
    AVRational frame_rate{};        // pictures per second, average where it varies; 0/1: unknown
    AVRational nominal_rate{};      // the same as if no picture were missing; 0/1: unknown
    AVRational pixel_aspect{1, 1};  // width : height of a pixel; 0/1: unknown
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVChromaLocation chroma_location = AVCHROMA_LOC_UNSPECIFIED;
    std::optional<AVMasteringDisplayMetadata> mastering;
    std::optional<AVContentLightMetadata> light;
    Orientation orientation;             // as a player has to turn the pictures
    AVCodecID codec = AV_CODEC_ID_NONE;  // of the input
    std::int64_t zero_us = 0;            // what is to become 0 in the output, microseconds
};

// What travels with one picture.
struct PictureTag {
    std::int64_t time = 0;      // ticks
    std::int64_t duration = 0;  // ticks; 0: unknown
    std::string parameters;     // of a YUV4MPEG2 FRAME line
    std::shared_ptr<const AVBufferRef>
        captions;  // CEA-608 and 708, as AV_FRAME_DATA_A53_CC; or null
};

class PictureSource {
  public:
    virtual ~PictureSource() = default;

    virtual const PictureFormat& format() const = 0;

    // The next picture, which must not be changed; null at the end. Throws InputError when the stream
    // is cut short or damaged.
    virtual AvFramePtr read(PictureTag& tag) = 0;

    // Number of pictures according to the input; -1: unknown.
    virtual std::int64_t expected_pictures() const { return -1; }

    // Damage that did not end the stream early: a message for the user, or "".
    virtual std::string damage() const { return ""; }
};

class PictureSink {
  public:
    virtual ~PictureSink() = default;

    // Writes the next picture. Its pixels must not change any more. Throws OutputError.
    virtual void write(const AVFrame& picture, const PictureTag& tag) = 0;

    // What the user should know and only shows while pictures are written; "": nothing.
    virtual std::string late_note() const { return ""; }

    // Writes everything that is still buffered; the last write. Throws OutputError.
    virtual void finish() = 0;

    // After finish: gives the file its name. Throws OutputError, ExistsError.
    virtual void commit() = 0;

    // The same for an incomplete file, see PendingFile. Returns the name, or "" for a direct output.
    // Throws OutputError.
    virtual std::string keep_partial() = 0;
};

// Messages for the user about changes to the stream.
using Notes = std::vector<std::string>;

}  // namespace apps
