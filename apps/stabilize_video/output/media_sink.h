// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "apps/stabilize_video/media/media_source.h"
#include "apps/stabilize_video/output/encoder_choice.h"
#include "apps/stabilize_video/output/other_streams.h"
#include "apps/stabilize_video/output/video_encoder.h"
#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/picture_stream.h"
#include "common/video_io/output_file.h"

namespace apps {

// FFmpeg's muxer for a file of this name. Throws UsageError if there is none.
const AVOutputFormat* output_format_for(const std::string& path, const std::string& container);

// Whether there is such a file, or the first of such numbered pictures.
bool is_output_there(const std::string& path);

// Whether files of this format have a rotation tag.
bool keeps_rotation(const AVOutputFormat& format);

// Encodes pictures into a file, which appears when it is complete, or into a pipe ("-" is standard
// output), a device or a URL, or into numbered pictures; other streams go along.
//
// Threads: owner only, except copy, which may run on one other thread before finish.
class MediaSink : public PictureSink {
  public:
    // original  the input whose other streams, chapters, metadata and rotation are copied; may be
    //           null. Used only during construction.
    // stop      once true, a write that waits for a pipe or a network fails soon; may be null
    // Throws OutputError, ExistsError, UsageError.
    MediaSink(const std::string& path, const PictureFormat& format, const EncoderOptions& options,
              const MediaSource* original, const std::atomic<bool>* stop);
    MediaSink(const MediaSink&) = delete;
    MediaSink& operator=(const MediaSink&) = delete;

    void write(const AVFrame& picture, const PictureTag& tag) override;
    std::string late_note() const override { return encoder_->late_note(); }
    void finish() override;

    void commit() override;
    std::string keep_partial() override;

    // Writes a packet of the original. Throws OutputError.
    void copy(const AVPacket& packet);

    const Notes& notes() const { return notes_; }

  private:
    void add_video(const PictureFormat& format);
    void add_original(const MediaSource& original, const EncoderOptions& options);
    void write_header(const EncoderOptions& options);
    void write_encoded(AVPacket& packet);
    void write_packet(AVPacket& packet);
    [[noreturn]] void fail(int result) const;

    std::string path_;
    std::unique_ptr<video_io::PendingFile> pending_;  // null: written directly
    const std::atomic<bool>* stop_;
    MuxerPtr context_;
    std::unique_ptr<VideoEncoder> encoder_;
    std::unique_ptr<OtherStreams> others_;  // null: the video is alone
    AVStream* video_ = nullptr;
    std::int64_t offset_us_;  // subtracted from all time stamps
    std::mutex mutex_;        // guards the muxer
    Notes notes_;
};

}  // namespace apps
