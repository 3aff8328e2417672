// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/output/video_encoder.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

namespace {

[[noreturn]] void fail(const AVCodecContext& encoder, int result) {
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    throw video_io::OutputError(std::string("the encoder ") + encoder.codec->name +
                                " fails: " + ffmpeg_error_or(result));
}

// Captions travel in the pictures of a few codecs.
bool takes_captions(const AVCodecContext& encoder) {
    return encoder.priv_data != nullptr &&
           av_opt_find(encoder.priv_data, "a53cc", nullptr, 0, 0) != nullptr;
}

}  // namespace

VideoEncoder::VideoEncoder(const AVOutputFormat& muxer, const std::string& path,
                           const PictureFormat& format, const EncoderOptions& options, Notes& notes)
    : width_(format.width),
      height_(format.height),
      unit_(format.time_base),
      range_(format.range),
      packet_(make_packet()) {
    const AVCodec& codec = choose_encoder(muxer, path, options, format);
    is_jpeg_file_ = codec.id == AV_CODEC_ID_MJPEG && std::strcmp(muxer.name, "image2") == 0;
    format_ = nearest_format(codec, format.pixel_format);
    if (is_jpeg_file_) {
        format_ = with_full_range(format_);
    }
    open(muxer, codec, format, options, notes);
    const bool drops_alpha = has_alpha(format.pixel_format) && !has_alpha(format_);
    if (drops_alpha || bit_depth_of(format_) != bit_depth_of(format.pixel_format) ||
        chroma_of(format_) != chroma_of(format.pixel_format)) {
        notes.push_back(name_of(format.pixel_format) + " pictures are written as " +
                        name_of(format_) + ", the nearest that the encoder " + codec.name +
                        " takes" + (drops_alpha ? "; transparency is dropped" : ""));
    }
    const bool coded = format.codec != AV_CODEC_ID_NONE && format.codec != AV_CODEC_ID_RAWVIDEO &&
                       format.codec != AV_CODEC_ID_WRAPPED_AVFRAME;
    if (options.codec.empty() && coded && format.codec != codec.id) {
        notes.push_back(std::string("the video, which was ") + avcodec_get_name(format.codec) +
                        ", is written as " + avcodec_get_name(codec.id) +
                        "; --codec chooses another");
    }
    open_rate_filter(format);
}

bool VideoEncoder::writes_alpha() const {
    return has_alpha(format_);
}

void VideoEncoder::describe(AVCodecParameters& parameters) const {
    const int copied = rate_filter_ ? avcodec_parameters_copy(&parameters, rate_filter_->par_out)
                                    : avcodec_parameters_from_context(&parameters, encoder_.get());
    if (copied < 0) {
        throw std::bad_alloc();
    }
}

// Returns FFmpeg's code. Throws UsageError for what only the user can change.
int VideoEncoder::try_open(const AVOutputFormat& muxer, const AVCodec& codec,
                           const PictureFormat& format, const EncoderOptions& options, int width,
                           int height) {
    encoder_.reset(avcodec_alloc_context3(&codec));
    if (!encoder_) {
        throw std::bad_alloc();
    }
    AVCodecContext& encoder = *encoder_;
    encoder.width = width;
    encoder.height = height;
    encoder.time_base = encoder_tick(muxer, codec, format);
    const bool counted = av_cmp_q(encoder.time_base, format.time_base) != 0;
    encoder.framerate = counted && encoder.time_base.den < 1000 * encoder.time_base.num
                            ? av_inv_q(encoder.time_base)
                            : format.frame_rate;
    encoder.sample_aspect_ratio = format.pixel_aspect;
    encoder.pix_fmt = format_;
    encoder.color_range = is_jpeg_file_ ? AVCOL_RANGE_JPEG : format.range;
    encoder.color_primaries = format.primaries;
    encoder.color_trc = format.transfer;
    encoder.colorspace = format.matrix;
    encoder.chroma_sample_location = format.chroma_location;
    encoder.field_order = AV_FIELD_PROGRESSIVE;
    encoder.thread_count = 0;
    encoder.strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;  // full range in JPEG pictures
    if ((muxer.flags & AVFMT_GLOBALHEADER) != 0) {
        encoder.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    if (std::strcmp(muxer.name, "avi") == 0) {
        encoder.max_b_frames = 0;  // it has no times to put them in order
    }
    if (HardwarePictures::needed(format_)) {
        format_ = format.pixel_format;
        hardware_ = std::make_unique<HardwarePictures>(encoder, codec, format_);
    }
    set_quality(encoder, options);
    set_own_options(encoder, format, options);
    forget_ffmpeg_error();
    return avcodec_open2(&encoder, &codec, nullptr);
}

void VideoEncoder::open(const AVOutputFormat& muxer, const AVCodec& codec,
                        const PictureFormat& format, const EncoderOptions& options, Notes& notes) {
    const AVPixelFormat wanted = format_;
    int result = try_open(muxer, codec, format, options, width_, height_);
    const std::string cause = result < 0 ? ffmpeg_error_or(result) : "";
    const int even_width = width_ + width_ % 2;
    const int even_height = height_ + height_ % 2;
    if (result < 0 && (even_width != width_ || even_height != height_)) {
        format_ = wanted;  // a device may have changed it
        result = try_open(muxer, codec, format, options, even_width, even_height);
        if (result >= 0) {
            notes.push_back("the pictures are padded to " + size_text(even_width, even_height) +
                            ": " + codec.name + " accepts even sizes only");
        }
    }
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result < 0) {
        const bool hardware =
            (codec.capabilities & (AV_CODEC_CAP_HARDWARE | AV_CODEC_CAP_HYBRID)) != 0;
        throw video_io::OutputError(
            std::string("the encoder ") + codec.name + " cannot be used: " + cause +
            (hardware ? "; it needs a device of its own, and the driver of it" : ""));
    }
}

// H.264 and HEVC streams state a tick rate. Encoders set it to the time base, thousands per second; this
// filter sets it to the frame rate.
void VideoEncoder::open_rate_filter(const PictureFormat& format) {
    const bool h264 = encoder_->codec_id == AV_CODEC_ID_H264;
    const bool hevc = encoder_->codec_id == AV_CODEC_ID_HEVC;
    if ((!h264 && !hevc) || format.nominal_rate.num <= 0) {
        return;
    }
    AVBSFContext* filter = nullptr;
    const AVBitStreamFilter* kind = av_bsf_get_by_name(h264 ? "h264_metadata" : "hevc_metadata");
    if (kind == nullptr) {
        return;
    }
    if (av_bsf_alloc(kind, &filter) < 0) {
        throw std::bad_alloc();
    }
    rate_filter_.reset(filter);
    filter->time_base_in = encoder_->time_base;
    // H.264 counts fields.
    const AVRational rate = av_mul_q(format.nominal_rate, AVRational{h264 ? 2 : 1, 1});
    av_opt_set_q(filter->priv_data, "tick_rate", rate, 0);
    int result = avcodec_parameters_from_context(filter->par_in, encoder_.get());
    if (result >= 0) {
        result = av_bsf_init(filter);
    }
    if (result < 0) {
        throw video_io::OutputError("the frame rate cannot be set: " + av_reason(result));
    }
}

std::string VideoEncoder::late_note() const {
    return captions_lost_ ? std::string("closed captions are dropped: the encoder ") +
                                encoder_->codec->name + " does not take them"
                          : "";
}

// A copy with the encoder's size. Its last rows and columns repeat those of the picture.
AvFramePtr VideoEncoder::padded(const AVFrame& picture) {
    const auto format = static_cast<AVPixelFormat>(picture.format);
    const videostabilizer::PixelLayout layout =
        layout_of(format, picture.chroma_location).value_or(videostabilizer::PixelLayout{});
    if (!padded_pictures_) {
        padded_pictures_ = std::make_unique<PicturePool>(format, encoder_->width, encoder_->height);
    }
    AvFramePtr frame = padded_pictures_->take();
    int chroma_x = 0;
    int chroma_y = 0;
    av_pix_fmt_get_chroma_sub_sample(format, &chroma_x, &chroma_y);
    for (int i = 0; i < 4 && frame->data[i] != nullptr; ++i) {
        const bool chroma = i == 1 || i == 2;
        const bool pairs = chroma && layout.semi_planar != 0;
        const std::size_t sample = (layout.bit_depth > 8 ? 2U : 1U) * (pairs ? 2U : 1U);
        const auto columns = [&](int width) {
            return static_cast<std::size_t>(chroma ? AV_CEIL_RSHIFT(width, chroma_x) : width);
        };
        const auto rows = [&](int height) {
            return chroma ? AV_CEIL_RSHIFT(height, chroma_y) : height;
        };
        const std::size_t bytes = columns(width_) * sample;
        for (int y = 0; y < rows(frame->height); ++y) {
            const int from = std::min(y, rows(height_) - 1);
            unsigned char* row =
                frame->data[i] + static_cast<std::ptrdiff_t>(y) * frame->linesize[i];
            std::memcpy(row,
                        picture.data[i] + static_cast<std::ptrdiff_t>(from) * picture.linesize[i],
                        bytes);
            if (columns(frame->width) > columns(width_)) {
                std::memcpy(row + bytes, row + bytes - sample, sample);
            }
        }
    }
    return frame;
}

// A picture in the encoder's format; null if the converter keeps it for now.
AvFramePtr VideoEncoder::converted(AvFramePtr picture) {
    const auto format = static_cast<AVPixelFormat>(picture->format);
    if (without_range(format_) == format &&
        (format_ == format || picture->color_range == AVCOL_RANGE_JPEG)) {
        picture->format = format_;  // the samples are the same
        return picture;
    }
    if (!converter_) {
        PictureConverter::Task task;
        task.format = format_;
        task.matrix_of_jpeg = is_jpeg_file_;
        converter_ = std::make_unique<PictureConverter>(*picture, encoder_->time_base, task);
    }
    converter_->push(picture.get());
    return converter_->pull();
}

void VideoEncoder::write(const AVFrame& picture, const PictureTag& tag, const Receiver& receiver) {
    const bool fits = encoder_->width == width_ && encoder_->height == height_;
    AvFramePtr frame = fits ? reference_to(picture) : padded(picture);
    // A coarser unit must not make two times one.
    std::int64_t time = av_rescale_q(tag.time, unit_, encoder_->time_base);
    if (last_time_) {
        time = std::max(time, *last_time_ + 1);
    }
    last_time_ = time;
    frame->pts = time;
    frame->pkt_duration = av_rescale_q(tag.duration, unit_, encoder_->time_base);
    frame->color_range = range_;
    frame->color_primaries = encoder_->color_primaries;
    frame->color_trc = encoder_->color_trc;
    frame->colorspace = encoder_->colorspace;
    frame->chroma_location = encoder_->chroma_sample_location;
    frame->sample_aspect_ratio = encoder_->sample_aspect_ratio;
    durations_[time] = frame->pkt_duration;
    AvFramePtr ready = converted(std::move(frame));
    if (ready) {
        ready->color_range = encoder_->color_range;
    }
    if (ready && hardware_) {
        ready = hardware_->upload(*ready);
    }
    captions_lost_ = captions_lost_ || (tag.captions && !takes_captions(*encoder_));
    if (ready && tag.captions) {
        AVBufferRef* captions = av_buffer_ref(tag.captions.get());
        if (captions == nullptr || av_frame_new_side_data_from_buf(
                                       ready.get(), AV_FRAME_DATA_A53_CC, captions) == nullptr) {
            av_buffer_unref(&captions);
            throw std::bad_alloc();
        }
    }
    if (ready) {
        encode(ready.get(), receiver);
    }
}

// Sends the next picture to the encoder, null at the end.
void VideoEncoder::encode(AVFrame* picture, const Receiver& receiver) {
    forget_ffmpeg_error();
    const int result = apps::encode(*encoder_, picture, *packet_, [&](AVPacket& packet) {
        int filtered = rate_filter_ ? av_bsf_send_packet(rate_filter_.get(), &packet) : 0;
        if (filtered >= 0 && rate_filter_) {
            filtered = av_bsf_receive_packet(rate_filter_.get(), &packet);
        }
        if (filtered >= 0) {
            deliver(packet, receiver);
        }
        return filtered;
    });
    if (result < 0) {
        fail(*encoder_, result);
    }
}

void VideoEncoder::deliver(AVPacket& packet, const Receiver& receiver) {
    const auto duration = durations_.find(packet.pts);
    if (duration != durations_.end()) {
        packet.duration = duration->second;
        durations_.erase(duration);
    }
    receiver(packet);
}

}  // namespace apps
