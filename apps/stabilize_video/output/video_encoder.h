// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "apps/stabilize_video/media/picture_converter.h"
#include "apps/stabilize_video/output/encoder_choice.h"
#include "apps/stabilize_video/output/hardware_pictures.h"
#include "apps/stabilize_video/pictures/picture_pool.h"

namespace apps {

// Encodes pictures, after converting them to what the encoder takes. Threads: owner only.
class VideoEncoder {
  public:
    // Receives the packets, in units of time_base(). May change them.
    using Receiver = std::function<void(AVPacket&)>;

    // notes  receives what the user should know
    // Throws OutputError, UsageError.
    VideoEncoder(const AVOutputFormat& muxer, const std::string& path, const PictureFormat& format,
                 const EncoderOptions& options, Notes& notes);
    VideoEncoder(const VideoEncoder&) = delete;
    VideoEncoder& operator=(const VideoEncoder&) = delete;

    AVCodecID codec_id() const { return encoder_->codec_id; }
    AVRational time_base() const { return encoder_->time_base; }
    bool writes_alpha() const;
    // What the user should know and only shows while pictures are written; "": nothing.
    std::string late_note() const;
    // Throws std::bad_alloc.
    void describe(AVCodecParameters& parameters) const;

    // Both throw OutputError, and what the receiver throws.
    void write(const AVFrame& picture, const PictureTag& tag, const Receiver& receiver);
    void finish(const Receiver& receiver) { encode(nullptr, receiver); }

  private:
    void open(const AVOutputFormat& muxer, const AVCodec& codec, const PictureFormat& format,
              const EncoderOptions& options, Notes& notes);
    int try_open(const AVOutputFormat& muxer, const AVCodec& codec, const PictureFormat& format,
                 const EncoderOptions& options, int width, int height);
    void open_rate_filter(const PictureFormat& format);
    AvFramePtr padded(const AVFrame& picture);
    AvFramePtr converted(AvFramePtr picture);
    void encode(AVFrame* picture, const Receiver& receiver);
    void deliver(AVPacket& packet, const Receiver& receiver);

    CodecContextPtr encoder_;
    std::unique_ptr<HardwarePictures> hardware_;   // null: the encoder takes pictures from memory
    BsfPtr rate_filter_;                           // null: the codec has no tick rate
    std::unique_ptr<PictureConverter> converter_;  // null: the encoder takes the pictures
    std::unique_ptr<PicturePool> padded_pictures_;
    AVPixelFormat format_ = AV_PIX_FMT_NONE;  // of what is encoded
    int width_;                               // of the pictures; the encoder's may be larger by one
    int height_;
    AVRational unit_;            // of the pictures' times
    AVColorRange range_;         // of the pictures
    bool is_jpeg_file_ = false;  // each picture; these are read as full range, BT.601
    bool captions_lost_ = false;
    std::optional<std::int64_t> last_time_;           // in units of the encoder
    std::map<std::int64_t, std::int64_t> durations_;  // of the pictures in the encoder, by time
    PacketPtr packet_;
};

}  // namespace apps
