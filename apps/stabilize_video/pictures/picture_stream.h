#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/stabilize_video/ffmpeg.h"
#include "apps/y4m.h"

// Pictures in and out, whatever carries them. Pictures are 8-bit 4:2:0.

namespace apps {

// The input cannot be used as a video. what() is a sentence for the user.
struct NoVideoError : InputError {
    using InputError::InputError;
};

// The size of the pictures changes in the middle of the stream.
struct SizeChangedError : InputError {
    using InputError::InputError;
};

// What all pictures of a stream have in common.
struct PictureFormat {
    int width = 0;              // pixels
    int height = 0;             // rows
    AVRational time_base{};     // seconds of a tick: the unit of time stamps and durations
    AVRational frame_rate{};    // pictures per second, the average where it varies; 0/1: unknown
    AVRational nominal_rate{};  // of the clock that they keep even where some are left out; or 0/1
    AVRational pixel_aspect{1, 1};  // width : height of a pixel; 0/1: unknown
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVChromaLocation chroma_location = AVCHROMA_LOC_UNSPECIFIED;
};

// What travels with one picture.
struct PictureTag {
    std::int64_t time = 0;      // ticks
    std::int64_t duration = 0;  // ticks; 0: unknown
    std::string parameters;     // of a YUV4MPEG2 FRAME line
};

class PictureSource {
  public:
    virtual ~PictureSource() = default;

    virtual const PictureFormat& format() const = 0;

    // Reads the next picture. Returns false at the end. Throws InputError when the stream breaks
    // off or goes bad; `to` may then hold part of a picture.
    virtual bool read(const Planes& to, PictureTag& tag) = 0;

    // Pictures to come, as far as the input tells; -1 if it does not.
    virtual std::int64_t expected_pictures() const { return -1; }

    // What was wrong with the input although it came to its end: a sentence, or "".
    virtual std::string damage() const { return ""; }
};

class PictureSink {
  public:
    virtual ~PictureSink() = default;

    // Takes the next picture. Throws OutputError.
    virtual void write(const Planes& picture, const PictureTag& tag) = 0;

    // Writes all that is still held back. Nothing is written afterwards. Throws OutputError.
    virtual void finish() = 0;
};

// Sentences for the user about what is done to the stream on its way.
using Notes = std::vector<std::string>;

}  // namespace apps
