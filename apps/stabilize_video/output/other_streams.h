// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "apps/stabilize_video/media/media_source.h"
#include "apps/stabilize_video/output/transcoder.h"
#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/picture_stream.h"

namespace apps {

// The streams of a file besides its video, on their way into another: copied where the container
// can hold them, else converted, else left out with a note. Threads: owner only.
class OtherStreams {
  public:
    // Receives packets for av_interleaved_write_frame.
    using Writer = std::function<void(AVPacket&)>;

    // Adds streams to `to`, whose header is not written yet and which must outlive this object.
    // Throws OutputError.
    OtherStreams(AVFormatContext& to, const MediaSource& original, bool audio, Notes& notes);

    // Takes the next packet of the original. Throws OutputError, and what the writer throws.
    void transfer(const AVPacket& packet, const Writer& writer);
    // Writes what is still buffered.
    void finish(const Writer& writer);

  private:
    struct Transfer {
        AVRational unit{};                       // of the original's times
        AVStream* to = nullptr;                  // owned by the muxer; null: left out
        std::unique_ptr<Transcoder> transcoder;  // null: copied
        std::optional<std::int64_t> last;        // decoding time, in units of `to`
    };
    void add(const AVStream& from, Notes& notes);
    void write(Transfer& transfer, AVPacket& packet, AVRational unit, const Writer& writer) const;

    AVFormatContext& to_;
    std::int64_t offset_us_;  // subtracted from all times
    bool audio_;
    std::vector<Transfer> transfers_;  // by stream of the original
};

}  // namespace apps
