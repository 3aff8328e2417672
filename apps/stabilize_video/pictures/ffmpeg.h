// SPDX-License-Identifier: Apache-2.0

#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/pixdesc.h>
}

#include <cerrno>
#include <cstddef>
#include <memory>
#include <string>

// Owners for FFmpeg's objects, and its errors as text.

namespace apps {

// FFmpeg's unit of times that belong to no stream.
constexpr AVRational MICROSECONDS{1, AV_TIME_BASE};

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

struct BufferDeleter {
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
using BufferPtr = std::unique_ptr<AVBufferRef, BufferDeleter>;

// A demuxer; does not own an AVIOContext that was supplied to it.
struct DemuxerCloser {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using DemuxerPtr = std::unique_ptr<AVFormatContext, DemuxerCloser>;

// An AVIOContext with callbacks, and its buffer.
struct AvioDeleter {
    void operator()(AVIOContext* io) const {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
using AvioPtr = std::unique_ptr<AVIOContext, AvioDeleter>;

// A muxer with the file that it has opened, if any.
struct MuxerDeleter {
    void operator()(AVFormatContext* context) const {
        if ((context->oformat->flags & AVFMT_NOFILE) == 0) {
            avio_closep(&context->pb);
        }
        avformat_free_context(context);
    }
};
using MuxerPtr = std::unique_ptr<AVFormatContext, MuxerDeleter>;

// All of these throw std::bad_alloc when memory runs out.
PacketPtr make_packet();
PacketPtr copy_of(const AVPacket& packet);
AvFramePtr make_av_frame();
// A frame with allocated pixels.
AvFramePtr make_picture(AVPixelFormat format, int width, int height);
// Another frame with the same pixels.
AvFramePtr reference_to(const AVFrame& picture);
// Adds a copy to a stream.
void add_side_data(AVStream& to, AVPacketSideDataType type, const void* data, std::size_t size);

// Sends a frame to an encoder, null at the end, and gives `take` each packet that is ready; it returns
// FFmpeg's code, as this does.
template <typename Take>
int encode(AVCodecContext& encoder, const AVFrame* frame, AVPacket& packet, const Take& take) {
    int result = avcodec_send_frame(&encoder, frame);
    while (result >= 0) {
        result = avcodec_receive_packet(&encoder, &packet);
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return 0;
        }
        if (result >= 0) {
            result = take(packet);
        }
    }
    return result;
}

// Options for FFmpeg.
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
    // The first key left, after FFmpeg has removed those it knows; "" if there is none.
    std::string first_key() const;

  private:
    AVDictionary* dictionary_ = nullptr;
};

// FFmpeg's text for an error code.
std::string av_reason(int error);

// "1280x720".
std::string size_text(int width, int height);

// Shows the messages of FFmpeg and its encoders on the terminal, or none.
void show_ffmpeg_log(bool show);

// What FFmpeg said about a failure on this thread since the last call of forget_ffmpeg_error: its first
// error, "" if there was none. The codes that its functions return rarely name the cause.
std::string ffmpeg_error();
void forget_ffmpeg_error();
// The same, or else the text of the code.
std::string ffmpeg_error_or(int code);

}  // namespace apps
