// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/stabilize_video/media/container_input.h"
#include "apps/stabilize_video/media/picture_converter.h"
#include "apps/stabilize_video/media/stream_clock.h"
#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/picture_stream.h"
#include "common/video_io/byte_io.h"

namespace apps {

struct MediaSourceOptions : ContainerInput::Options {
    // Rotate the pictures upright, for outputs without a rotation tag.
    bool turn_upright = false;
    // Planar pictures only.
    bool planar = false;
    Deinterlace deinterlace = Deinterlace::FULL_RATE;  // of interlaced pictures
    std::optional<int> stream;                         // number of the video stream; else the best
    // The part that is wanted, from the start of the file; else all of it.
    std::int64_t start_us = 0;
    std::optional<std::int64_t> duration_us;
};

// Any video that FFmpeg reads: one video stream decoded, all other streams as packets. Pictures
// are the decoder's own where the stabilizer takes their format.
//
// Threads: owner only; FFmpeg decodes with threads of its own.
class MediaSource : public PictureSource {
  public:
    // Opens a file, a device or a URL and decodes the first picture. Throws InputError,
    // NoVideoError, UsageError.
    MediaSource(const std::string& url, const MediaSourceOptions& options);
    // The same for an open stream.
    MediaSource(std::unique_ptr<video_io::FdSource> stream, const MediaSourceOptions& options);
    MediaSource(const MediaSource&) = delete;
    MediaSource& operator=(const MediaSource&) = delete;

    const PictureFormat& format() const override { return format_; }
    AvFramePtr read(PictureTag& tag) override;
    std::int64_t expected_pictures() const override;
    std::string damage() const override;

    // Receives the packets of all other streams, including those read before this call. Called
    // within read. Throws what the receiver throws.
    void set_packet_receiver(std::function<void(const AVPacket&)> receiver);

    const AVFormatContext& container() const { return *context_; }
    const AVStream& video() const { return *video_; }
    bool is_live() const { return input_.is_live(); }
    const Notes& notes() const { return notes_; }

  private:
    void open(const MediaSourceOptions& options);
    void find_video(const MediaSourceOptions& options);
    void choose_range(const MediaSourceOptions& options);
    void open_decoder();
    void read_first_picture(const MediaSourceOptions& options);
    void start_format(const AVFrame& decoded, const MediaSourceOptions& options);
    void choose_conversion(const AVFrame& decoded, const MediaSourceOptions& options);
    void make_converter(const AVFrame& decoded);
    bool read_packet();
    bool is_wanted(AVPacket& packet) const;
    void forward(AVPacket& packet);
    AvFramePtr decode();
    AvFramePtr decode_wanted();
    void drop_pictures();
    void keep_captions(const AVFrame& decoded);
    std::shared_ptr<const AVBufferRef> captions_at(std::int64_t time);
    AvFramePtr next_picture();

    ContainerInput input_;
    AVFormatContext* context_;   // of input_
    AVStream* video_ = nullptr;  // owned by context_
    std::unique_ptr<StreamClock> clock_;
    CodecContextPtr decoder_;
    AVRational rate_{};  // of pictures, as the container tells; some decoders set ticks for it
    PacketPtr packet_;
    std::int64_t stop_us_ = INT64_MAX;  // end of the part that is wanted
    bool starts_late_ = false;
    bool past_stop_ = false;
    bool stopped_ = false;  // there, not at the end of the file
    bool opening_ = true;
    bool input_ended_ = false;

    PictureConverter::Task task_;
    std::unique_ptr<PictureConverter> converter_;  // null: nothing to convert
    bool converter_ended_ = false;
    int decoded_width_ = 0;
    int decoded_height_ = 0;
    PictureFormat format_;
    Notes notes_;
    AvFramePtr first_;  // decoded while opening
    std::optional<std::int64_t> last_time_;
    std::int64_t pictures_ = 0;
    // Of pictures that are being converted, by the time that the decoder gave.
    std::map<std::int64_t, std::shared_ptr<const AVBufferRef>> captions_;

    std::function<void(const AVPacket&)> receiver_;
    std::deque<PacketPtr> early_packets_;  // read before there was a receiver

    std::int64_t decode_errors_ = 0;
    std::int64_t damaged_pictures_ = 0;
    std::int64_t cut_packets_ = 0;
    std::int64_t end_us_ = 0;  // latest end of a packet, microseconds of the container
};

}  // namespace apps
