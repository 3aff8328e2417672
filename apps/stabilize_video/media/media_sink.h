// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/stabilize_video/media/media_source.h"
#include "apps/stabilize_video/media/picture_converter.h"
#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/picture_pool.h"
#include "apps/stabilize_video/pictures/picture_stream.h"
#include "common/video_io/output_file.h"

namespace apps {

struct EncoderOptions {
    // FFmpeg's name of a codec or encoder. "": H.264, or HEVC for pictures of more than 8 bits,
    // where the container takes it.
    std::string codec;
    std::optional<double> crf;  // quality, for encoders that have it; smaller is better
    std::string preset;         // speed, for encoders that have it; "": fast
    std::string container;      // FFmpeg's name of a muxer; "": by the file name
    bool live = false;          // low latency: no buffering
    video_io::Existing existing = video_io::Existing::KEEP;
};

// FFmpeg's muxer for a file of this name. Throws OutputError if there is none.
const AVOutputFormat* output_format_for(const std::string& path, const std::string& container);

// Whether files of this format have a rotation tag.
bool keeps_rotation(const AVOutputFormat& format);

// Encodes pictures into a file, which appears when it is complete, or into a pipe ("-" is standard
// output), a device or a URL; packets of other streams are copied.
//
// Threads: owner only, except copy: thread-safe.
class MediaSink : public PictureSink {
  public:
    // original  the input whose other streams, chapters, metadata and rotation are copied; may be
    //           null. Used only during construction.
    // stop      once true, a write that waits for a pipe or a network fails soon; may be null
    // Throws OutputError, ExistsError.
    MediaSink(const std::string& path, const PictureFormat& format, const EncoderOptions& options,
              const MediaSource* original, const std::atomic<bool>* stop);
    MediaSink(const MediaSink&) = delete;
    MediaSink& operator=(const MediaSink&) = delete;

    void write(const AVFrame& picture, const PictureTag& tag) override;
    void finish() override;

    void commit() override;
    std::string keep_partial() override;

    // Writes a packet of the original. Throws OutputError.
    void copy(const AVPacket& packet);

    const Notes& notes() const { return notes_; }

  private:
    void open_encoder(const PictureFormat& format, const EncoderOptions& options);
    AvFramePtr padded(const AVFrame& picture);
    AvFramePtr converted(AvFramePtr picture);
    CodecContextPtr try_encoder(const AVCodec* codec, const PictureFormat& format,
                                const EncoderOptions& options, int width, int height, int& result);
    void open_rate_filter(const PictureFormat& format);
    void add_copies(const MediaSource& original);
    void add_copy(const AVStream& from, const char* original);
    void write_header(const EncoderOptions& options);
    void encode(AVFrame* picture);
    void write_encoded(AVPacket& packet);
    void write_packet(AVPacket& packet);
    [[noreturn]] void fail(int result) const;

    std::string path_;
    std::unique_ptr<video_io::PendingFile> pending_;  // null: written directly
    const std::atomic<bool>* stop_;
    MuxerPtr context_;
    CodecContextPtr encoder_;
    BsfPtr rate_filter_;                           // null: the codec has no tick rate
    std::unique_ptr<PictureConverter> converter_;  // null: the encoder takes the pictures
    std::unique_ptr<PicturePool> padded_pictures_;
    AVPixelFormat encoder_format_ = AV_PIX_FMT_NONE;
    int width_;  // of the pictures; the encoder's may be larger by one
    int height_;
    AVStream* video_ = nullptr;
    std::int64_t offset_us_ = 0;  // subtracted from all time stamps
    struct Copy {
        AVRational time_base;  // of the original
        int stream;            // in the output; -1: dropped
    };
    std::vector<Copy> copies_;                        // by stream of the original
    std::map<std::int64_t, std::int64_t> durations_;  // of the pictures in the encoder, by time
    PacketPtr packet_;
    std::mutex mutex_;  // guards the muxer
    Notes notes_;
};

}  // namespace apps
