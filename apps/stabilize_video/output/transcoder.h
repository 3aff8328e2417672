// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "apps/stabilize_video/pictures/ffmpeg.h"

namespace apps {

// Makes a stream of another codec of one that a container cannot hold. Threads: owner only.
class Transcoder {
  public:
    // Receives packets in units of encoder().time_base. May change them.
    using Receiver = std::function<void(AVPacket&)>;

    virtual ~Transcoder() = default;

    virtual const AVCodecContext& encoder() const = 0;

    // Takes the next packet, null at the end. Its times are in units of the original stream. What
    // cannot be decoded is left out. Throws OutputError, and what the receiver throws.
    virtual void push(const AVPacket* packet, const Receiver& receiver) = 0;
};

// For sound and subtitles; null if it cannot be made of this stream. The codec is one for
// `muxer`. Before sound that begins after `silence_from_us` there will be silence.
std::unique_ptr<Transcoder> make_transcoder(const AVStream& original, AVCodecID codec,
                                            const AVOutputFormat& muxer,
                                            std::optional<std::int64_t> silence_from_us);

}  // namespace apps
