#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/output_file.h"
#include "apps/stabilize_video/ffmpeg.h"
#include "apps/stabilize_video/media_source.h"
#include "apps/stabilize_video/picture_converter.h"
#include "apps/stabilize_video/video_io.h"

namespace apps {

struct EncoderOptions {
    std::string codec;          // FFmpeg's name of a codec or encoder; "": H.264 where it fits
    std::optional<double> crf;  // quality of encoders that know it; smaller is better
    std::string preset;         // speed of encoders that know it; "": fast
    std::string container;      // FFmpeg's name of a muxer; "": by the name of the file
    bool live = false;          // hold nothing back
    Existing existing = Existing::KEEP;
};

// FFmpeg's muxer for a file of this name. Throws OutputError when the name does not tell.
const AVOutputFormat* output_format_for(const std::string& path, const std::string& container);

// Whether a file of this format tells players how to turn the picture.
bool keeps_rotation(const AVOutputFormat& format);

// Encodes pictures into a file, which appears when it is finished, into a pipe ("-" is standard
// output), a device or a URL; and takes packets of other streams as they are.
//
// Threads: write and finish on one thread, copy on any.
class MediaSink : public PictureSink {
  public:
    // original  the input whose other streams, chapters, titles and turn are to be kept; null if
    //           there is none. Read only here.
    // stop      once true, a write that waits for a pipe or a network fails soon; may be null
    // Throws OutputError, ExistsError.
    MediaSink(const std::string& path, const PictureFormat& format, const EncoderOptions& options,
              const MediaSource* original, const std::atomic<bool>* stop);
    ~MediaSink() override;
    MediaSink(const MediaSink&) = delete;
    MediaSink& operator=(const MediaSink&) = delete;

    void write(const Planes& picture, const PictureTag& tag) override;
    void finish() override;

    // Takes a packet of the original.
    void copy(const AVPacket& packet);

    // Gives the finished file its name. Throws OutputError, ExistsError.
    void commit();
    // Likewise, for a file that is finished but not whole. Returns the name, or "".
    std::string keep_partial();

    const Notes& notes() const { return notes_; }

  private:
    struct Freer {
        void operator()(AVFormatContext* context) const { avformat_free_context(context); }
    };

    void open_encoder(const PictureFormat& format, const EncoderOptions& options);
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
    std::unique_ptr<PendingFile> pending_;  // null: written directly
    const std::atomic<bool>* stop_;
    std::unique_ptr<AVFormatContext, Freer> context_;
    bool header_written_ = false;
    CodecContextPtr encoder_;
    BsfPtr rate_filter_;                           // null: the codec states no rate
    std::unique_ptr<PictureConverter> converter_;  // null: the encoder takes 8-bit 4:2:0
    AVPixelFormat encoder_format_ = AV_PIX_FMT_YUV420P;
    int width_;  // of the pictures that come; the encoder's may be larger by one
    int height_;
    AVStream* video_ = nullptr;
    std::int64_t offset_us_ = 0;  // taken off all time stamps
    struct Copy {
        AVRational time_base;  // of the original
        int stream;            // in the output; -1: left out
    };
    std::vector<Copy> copies_;                        // by stream of the original
    std::map<std::int64_t, std::int64_t> durations_;  // of the pictures in the encoder, by time
    PacketPtr packet_;
    std::mutex mutex_;  // guards the muxer
    Notes notes_;
};

}  // namespace apps
