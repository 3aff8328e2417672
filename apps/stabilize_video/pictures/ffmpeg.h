#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/pixdesc.h>
}

#include <memory>
#include <string>

// FFmpeg's objects with owners, and its errors as text.

namespace apps {

struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;

struct AvFrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using AvFramePtr = std::unique_ptr<AVFrame, AvFrameDeleter>;

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;

struct BsfDeleter {
    void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
};
using BsfPtr = std::unique_ptr<AVBSFContext, BsfDeleter>;

struct FilterGraphDeleter {
    void operator()(AVFilterGraph* graph) const { avfilter_graph_free(&graph); }
};
using FilterGraphPtr = std::unique_ptr<AVFilterGraph, FilterGraphDeleter>;

// All of these throw std::bad_alloc without memory.
PacketPtr make_packet();
PacketPtr copy_of(const AVPacket& packet);
AvFramePtr make_av_frame();
// A frame with pixels of its own.
AvFramePtr make_picture(AVPixelFormat format, int width, int height);

// Options for FFmpeg, with their owner.
class Dictionary {
  public:
    Dictionary() = default;
    ~Dictionary() { av_dict_free(&dictionary_); }
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;

    void set(const std::string& key, const std::string& value) {
        av_dict_set(&dictionary_, key.c_str(), value.c_str(), 0);
    }
    AVDictionary** address() { return &dictionary_; }
    // The first key that is left, for options that nobody has taken; "" if there is none.
    std::string first_key() const;

  private:
    AVDictionary* dictionary_ = nullptr;
};

// FFmpeg's text for an error code.
std::string av_reason(int error);

// "1280x720".
std::string size_text(int width, int height);

// Keeps FFmpeg's own messages off the terminal, or shows them.
void show_ffmpeg_log(bool show);

}  // namespace apps
