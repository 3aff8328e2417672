// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/picture_stream.h"
#include "common/video_io/output_file.h"

// Which encoder pictures get, and how it is set.

namespace apps {

struct EncoderOptions {
    // FFmpeg's name of a codec or encoder. "": H.264, or HEVC for pictures of more than 8 bits,
    // where the container takes it.
    std::string codec;
    std::optional<double> crf;  // quality, for encoders that have it; smaller is better
    std::int64_t bitrate = 0;   // bits per second; 0: by quality
    std::string preset;         // speed, for encoders that have it; "": fast
    std::vector<std::pair<std::string, std::string>> own;  // options of the encoder, by name
    std::string container;  // FFmpeg's name of a muxer; "": by the file name
    bool live = false;      // low latency: no buffering
    bool audio = true;      // keep the sound
    video_io::Existing existing = video_io::Existing::KEEP;
};

// Throws OutputError if there is none, UsageError if the container cannot hold what it makes.
const AVCodec& choose_encoder(const AVOutputFormat& muxer, const std::string& path,
                              const EncoderOptions& options, const PictureFormat& pictures);

// The format of the encoder that is nearest to the pictures'.
AVPixelFormat nearest_format(const AVCodec& codec, AVPixelFormat pictures);

// The unit of the encoder's time stamps: that of the pictures, unless container or encoder need the
// frame rate.
AVRational encoder_tick(const AVOutputFormat& muxer, const AVCodec& codec,
                        const PictureFormat& format);

// Sets what belongs to quality and speed. Throws UsageError where the user wants what the encoder does
// not have.
void set_quality(AVCodecContext& encoder, const EncoderOptions& options);

// Sets the user's options, and what an encoder takes under names of its own only. Throws UsageError.
void set_own_options(AVCodecContext& encoder, const PictureFormat& format,
                     const EncoderOptions& options);

}  // namespace apps
