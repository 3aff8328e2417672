#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/byte_io.h"
#include "apps/stabilize_video/ffmpeg.h"
#include "apps/stabilize_video/picture_converter.h"
#include "apps/stabilize_video/video_io.h"

namespace apps {

struct MediaSourceOptions {
    std::string container;  // FFmpeg's name of a demuxer or device; "": find out
    std::vector<std::pair<std::string, std::string>> options;  // for it, by name
    // Turn the pixels upright, for outputs that cannot say how to turn a picture; else the turn is
    // left to the player, as in the input.
    bool turn_upright = false;
    // Once true, reading ends soon. May be null; outlives the source.
    const std::atomic<bool>* stop = nullptr;
};

// Any video that FFmpeg reads: the best video stream decoded, everything else as packets.
//
// Threads: one thread at a time; FFmpeg decodes with threads of its own.
class MediaSource : public PictureSource {
  public:
    // Opens a file, a device or a URL and decodes the first picture. Throws InputError,
    // NoVideoError.
    MediaSource(const std::string& url, const MediaSourceOptions& options);
    // The same from an open stream.
    MediaSource(std::unique_ptr<FdSource> stream, const MediaSourceOptions& options);
    ~MediaSource() override;
    MediaSource(const MediaSource&) = delete;
    MediaSource& operator=(const MediaSource&) = delete;

    const PictureFormat& format() const override { return format_; }
    bool read(const Planes& to, PictureTag& tag) override;
    std::int64_t expected_pictures() const override;
    std::string damage() const override;

    // Where the packets of all other streams go, those that were met before this call included.
    // Called within read. Throws what the receiver throws.
    void set_packet_receiver(std::function<void(const AVPacket&)> receiver);

    const AVFormatContext& container() const { return *context_; }
    const AVStream& video() const { return *video_; }
    bool is_live() const { return live_; }
    const Notes& notes() const { return notes_; }

  private:
    struct Closer {
        void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
    };

    void open(const std::string& url, const MediaSourceOptions& options);
    void find_video();
    void open_decoder();
    void start_format(const AVFrame& decoded, const MediaSourceOptions& options);
    void make_converter(const AVFrame& decoded);
    bool read_packet();
    void forward(const AVPacket& packet);
    AvFramePtr decode();
    AvFramePtr next_picture();

    std::string name_;
    std::unique_ptr<FdSource> stream_;  // null: FFmpeg opens the input itself
    std::exception_ptr stream_failure_;
    const std::atomic<bool>* stop_;
    std::unique_ptr<AVFormatContext, Closer> context_;
    AVStream* video_ = nullptr;  // belongs to context_
    CodecContextPtr decoder_;
    PacketPtr packet_;
    bool live_ = false;
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

    std::function<void(const AVPacket&)> receiver_;
    std::deque<PacketPtr> early_packets_;  // met before there was a receiver

    std::int64_t decode_errors_ = 0;
    std::int64_t damaged_pictures_ = 0;
    std::int64_t cut_packets_ = 0;
    std::string read_failure_;
    std::int64_t end_us_ = 0;  // latest end of a packet, microseconds of the container
};

}  // namespace apps
