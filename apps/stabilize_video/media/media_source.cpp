// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/media/media_source.h"

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/display.h>
#include <libavutil/dovi_meta.h>
}

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>

#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

namespace {

constexpr int STREAM_BUFFER_BYTES = 1 << 16;
constexpr AVRational MICROSECONDS{1, AV_TIME_BASE};

bool is_character_device(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISCHR(info.st_mode);
}

bool is_regular_file(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// Whether the demuxer reads still images, as a video of one picture.
bool reads_still_images(const AVInputFormat& format) {
    const std::string name = format.name;
    constexpr const char* ENDING = "_pipe";
    return name == "image2" || name == "ico" ||
           (name.size() > 5 && name.compare(name.size() - 5, 5, ENDING) == 0);
}

bool interlaced_order(AVFieldOrder order) {
    return order != AV_FIELD_UNKNOWN && order != AV_FIELD_PROGRESSIVE;
}

// How a player should rotate the picture, in quarter turns clockwise.
int quarter_turns(const AVStream& stream) {
    const std::uint8_t* matrix =
        av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
    if (matrix == nullptr) {
        return 0;
    }
    const double counterclockwise =
        av_display_rotation_get(reinterpret_cast<const std::int32_t*>(matrix));
    if (std::isnan(counterclockwise)) {
        return 0;
    }
    return ((-static_cast<int>(std::lround(counterclockwise / 90)) % 4) + 4) % 4;
}

// Formats that are full range by their name have the same layout as others.
void use_plain_format(AVFrame& frame) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    if (without_range(format) != format) {
        frame.format = without_range(format);
        frame.color_range = AVCOL_RANGE_JPEG;
    }
}

// A piece of metadata of a picture, or else of the stream.
const std::uint8_t* side_data(const AVFrame& picture, AVFrameSideDataType type,
                              const AVStream& stream, AVPacketSideDataType stream_type) {
    const AVFrameSideData* of_picture = av_frame_get_side_data(&picture, type);
    return of_picture != nullptr ? of_picture->data
                                 : av_stream_get_side_data(&stream, stream_type, nullptr);
}

}  // namespace

MediaSource::MediaSource(const std::string& url, const MediaSourceOptions& options)
    : name_(url), stop_(options.stop) {
    open(url, options);
}

MediaSource::MediaSource(std::unique_ptr<video_io::FdSource> stream,
                         const MediaSourceOptions& options)
    : name_(stream->name()), stream_(std::move(stream)), stop_(options.stop) {
    open("", options);
}

// Has FFmpeg read from `stream_`.
AvioPtr MediaSource::make_stream_io() {
    auto* buffer = static_cast<unsigned char*>(av_malloc(STREAM_BUFFER_BYTES));
    AvioPtr io(avio_alloc_context(
        buffer, STREAM_BUFFER_BYTES, 0, this,
        [](void* self, std::uint8_t* to, int size) {
            auto& source = *static_cast<MediaSource*>(self);
            try {
                const std::size_t got =
                    source.stream_->read_available(to, static_cast<std::size_t>(size));
                return got == 0 ? AVERROR_EOF : static_cast<int>(got);
            } catch (const video_io::InputError&) {
                source.stream_failure_ = std::current_exception();
                return AVERROR(EIO);
            }
        },
        nullptr, nullptr));
    if (!io) {
        av_free(buffer);
        throw std::bad_alloc();
    }
    return io;
}

void MediaSource::open(const std::string& url, const MediaSourceOptions& options) {
    avdevice_register_all();
    open_container(url, options);
    const int found = avformat_find_stream_info(context_.get(), nullptr);
    if (found < 0) {
        throw video_io::InputError("cannot read " + name_ + ": " + av_reason(found));
    }
    find_video();
    open_decoder();
    packet_ = make_packet();
    read_first_picture(options);
    opening_ = false;
}

void MediaSource::open_container(const std::string& url, const MediaSourceOptions& options) {
    std::string container = options.container;
    if (container.empty() && is_character_device(url)) {
        container = "video4linux2";
    }
    const AVInputFormat* format = nullptr;
    if (!container.empty()) {
        format = av_find_input_format(container.c_str());
        if (format == nullptr) {
            throw video_io::InputError("there is no input format '" + container + "'");
        }
    }
    Dictionary settings;
    for (const auto& [key, value] : options.options) {
        settings.set(key, value);
    }
    // A plain name is a file, even if it contains colons.
    const std::string location = is_regular_file(url) ? "file:" + url : url;

    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    context_.reset(context);
    context->interrupt_callback.opaque = this;
    context->interrupt_callback.callback = [](void* self) {
        const std::atomic<bool>* stop = static_cast<MediaSource*>(self)->stop_;
        return stop != nullptr && stop->load() ? 1 : 0;
    };
    if (stream_) {
        io_ = make_stream_io();
        context->pb = io_.get();
    }
    context = context_.release();  // freed by a failing avformat_open_input
    const int opened = avformat_open_input(&context, location.c_str(), format, settings.address());
    context_.reset(context);
    if (opened < 0) {
        if (stream_failure_) {
            std::rethrow_exception(stream_failure_);
        }
        throw video_io::InputError("cannot read " + name_ + ": " + av_reason(opened));
    }
    if (const std::string key = settings.first_key(); !key.empty()) {
        throw video_io::InputError("the input format '" + std::string(context->iformat->name) +
                                   "' has no option '" + key + "'");
    }
    live_ = (context->iformat->flags & AVFMT_NOFILE) != 0 || context->pb == nullptr ||
            (context->pb->seekable & AVIO_SEEKABLE_NORMAL) == 0;
}

// The first picture decides the format of all.
void MediaSource::read_first_picture(const MediaSourceOptions& options) {
    const AvFramePtr first = decode();
    if (!first) {
        if (stream_failure_) {
            std::rethrow_exception(stream_failure_);
        }
        throw video_io::InputError("no picture of " + name_ + " can be decoded" +
                                   (read_failure_.empty() ? "" : ": " + read_failure_));
    }
    start_format(*first, options);
    if (converter_) {
        converter_->push(first.get());
    }
    first_ = converter_ ? next_picture() : AvFramePtr(av_frame_clone(first.get()));
    if (!first_) {
        throw video_io::InputError("no picture of " + name_ + " can be converted");
    }
    format_.width = first_->width;
    format_.height = first_->height;
    format_.pixel_aspect = first_->sample_aspect_ratio;
}

void MediaSource::find_video() {
    const int index = av_find_best_stream(context_.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const bool only_cover =
        index >= 0 && (context_->streams[index]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    if (index < 0 || only_cover) {
        const bool sound =
            av_find_best_stream(context_.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0) >= 0;
        throw NoVideoError(name_ + (sound ? " contains audio but no video" : " contains no video"));
    }
    video_ = context_->streams[index];
    const bool one_picture = context_->nb_streams == 1 && video_->nb_frames <= 1;
    const bool numbered = name_.find('%') != std::string::npos;
    if (reads_still_images(*context_->iformat) && one_picture && !numbered && !stream_) {
        throw NoVideoError(name_ + " is a still image, not a video");
    }
}

void MediaSource::open_decoder() {
    const AVCodecParameters& parameters = *video_->codecpar;
    const AVCodec* codec = avcodec_find_decoder(parameters.codec_id);
    if (codec == nullptr) {
        throw NoVideoError("there is no decoder for the video in " + name_ + " (" +
                           avcodec_get_name(parameters.codec_id) + ")");
    }
    decoder_.reset(avcodec_alloc_context3(codec));
    if (!decoder_ || avcodec_parameters_to_context(decoder_.get(), &parameters) < 0) {
        throw std::bad_alloc();
    }
    decoder_->pkt_timebase = video_->time_base;
    decoder_->framerate = av_guess_frame_rate(context_.get(), video_, nullptr);
    decoder_->thread_count = 0;
    if (live_) {  // frame threads would delay by a picture each
        decoder_->thread_type = FF_THREAD_SLICE;
        decoder_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    }
    const int result = avcodec_open2(decoder_.get(), codec, nullptr);
    if (result < 0) {
        throw video_io::InputError("the decoder " + std::string(codec->name) + " rejects " + name_ +
                                   ": " + av_reason(result));
    }
}

// Takes the conversion and the format from the first picture.
void MediaSource::start_format(const AVFrame& decoded, const MediaSourceOptions& options) {
    decoded_width_ = decoded.width;
    decoded_height_ = decoded.height;
    choose_conversion(decoded, options);
    make_converter(decoded);
    format_.pixel_format = task_.format;
    format_.time_base = video_->time_base;
    format_.nominal_rate = av_guess_frame_rate(context_.get(), video_, nullptr);
    format_.frame_rate = format_.nominal_rate;
    if (video_->avg_frame_rate.num > 0) {
        format_.frame_rate = video_->avg_frame_rate;
    }
    take_colours(decoded);
    take_hdr(decoded);
}

void MediaSource::choose_conversion(const AVFrame& decoded, const MediaSourceOptions& options) {
    task_.deinterlace =
        decoded.interlaced_frame != 0 || interlaced_order(video_->codecpar->field_order);
    if (options.turn_upright) {
        task_.quarter_turns = quarter_turns(*video_);
    }
    const auto format = static_cast<AVPixelFormat>(decoded.format);
    const std::optional<videostabilizer::PixelLayout> layout =
        layout_of(format, decoded.chroma_location);
    const bool moved = task_.deinterlace || task_.quarter_turns != 0;
    const bool is_planar = layout && layout->semi_planar == 0;
    // Deinterlacing knows no transparency, and YUV4MPEG2 only one kind of it.
    const bool keeps_alpha =
        !task_.deinterlace && (!options.planar || format == AV_PIX_FMT_YUVA444P);
    const bool keeps =
        layout && (is_planar || !(moved || options.planar)) && (layout->alpha == 0 || keeps_alpha);
    task_.format = keeps ? format : planar_format_for(format);
    // Turned 4:2:2 and 4:1:1 have fewer rows of chroma than columns, which the stabilizer does not take.
    if (task_.quarter_turns % 2 != 0 && (chroma_of(format) == videostabilizer::CHROMA_422 ||
                                         chroma_of(format) == videostabilizer::CHROMA_411)) {
        task_.format = planar_format(videostabilizer::CHROMA_444, bit_depth_of(task_.format),
                                     has_alpha(task_.format));
    }
    const bool drops_alpha = has_alpha(format) && !has_alpha(task_.format);
    if (!layout || drops_alpha || chroma_of(task_.format) != chroma_of(format)) {
        notes_.push_back("pictures are converted from " + name_of(format) + " to " +
                         name_of(task_.format) + (drops_alpha ? "; transparency is dropped" : ""));
    }
    if (task_.deinterlace) {
        notes_.emplace_back("interlaced pictures are deinterlaced");
    }
    if (task_.quarter_turns != 0) {
        notes_.emplace_back(
            "pictures are rotated upright, since the output format has no rotation tag");
    }
}

void MediaSource::take_colours(const AVFrame& decoded) {
    if (is_rgb(static_cast<AVPixelFormat>(decoded.format))) {
        format_.range = AVCOL_RANGE_MPEG;
        format_.matrix = AVCOL_SPC_BT709;
    } else {
        format_.range = decoded.color_range;
        format_.matrix = decoded.colorspace;
    }
    format_.primaries = decoded.color_primaries;
    format_.transfer = decoded.color_trc;
    format_.chroma_location = turned(decoded.chroma_location, task_.quarter_turns);
}

// Metadata of high dynamic range: what holds for the whole stream is kept.
void MediaSource::take_hdr(const AVFrame& decoded) {
    const auto* mastering = reinterpret_cast<const AVMasteringDisplayMetadata*>(
        side_data(decoded, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA, *video_,
                  AV_PKT_DATA_MASTERING_DISPLAY_METADATA));
    if (mastering != nullptr) {
        format_.mastering = *mastering;
    }
    const auto* light = reinterpret_cast<const AVContentLightMetadata*>(side_data(
        decoded, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL, *video_, AV_PKT_DATA_CONTENT_LIGHT_LEVEL));
    if (light != nullptr) {
        format_.light = *light;
    }
    if (av_frame_get_side_data(&decoded, AV_FRAME_DATA_DYNAMIC_HDR_PLUS) != nullptr) {
        notes_.emplace_back("HDR10+ metadata, which changes from scene to scene, is dropped");
    }
    const auto* dolby = reinterpret_cast<const AVDOVIDecoderConfigurationRecord*>(
        av_stream_get_side_data(video_, AV_PKT_DATA_DOVI_CONF, nullptr));
    if (dolby != nullptr ||
        av_frame_get_side_data(&decoded, AV_FRAME_DATA_DOVI_RPU_BUFFER) != nullptr) {
        const bool alone = dolby != nullptr && dolby->dv_bl_signal_compatibility_id == 0;
        notes_.emplace_back(
            alone ? "Dolby Vision metadata is dropped; this video has a profile whose "
                    "colours are wrong without it"
                  : "Dolby Vision metadata is dropped");
    }
}

void MediaSource::make_converter(const AVFrame& decoded) {
    converter_.reset();
    if (decoded.format != task_.format || task_.deinterlace || task_.quarter_turns != 0) {
        converter_ = std::make_unique<PictureConverter>(decoded, video_->time_base, task_);
    }
}

void MediaSource::set_packet_receiver(std::function<void(const AVPacket&)> receiver) {
    receiver_ = std::move(receiver);
    for (; !early_packets_.empty(); early_packets_.pop_front()) {
        if (receiver_) {
            receiver_(*early_packets_.front());
        }
    }
}

void MediaSource::forward(const AVPacket& packet) {
    if (receiver_) {
        receiver_(packet);
    } else if (opening_) {
        early_packets_.push_back(copy_of(packet));
    }
}

// Passes the next packet of the input to the decoder or the receiver. Returns false at the end of the
// input, whatever the reason.
bool MediaSource::read_packet() {
    // Not every demuxer checks the interrupt callback.
    if (stop_ != nullptr && stop_->load()) {
        throw video_io::InputError("interrupted");
    }
    const int result = av_read_frame(context_.get(), packet_.get());
    if (result < 0) {
        if (stream_failure_) {
            std::rethrow_exception(stream_failure_);
        }
        if (result == AVERROR_EXIT) {
            throw video_io::InputError("interrupted");
        }
        if (result != AVERROR_EOF) {
            read_failure_ = av_reason(result);
        }
        return false;
    }
    const AVPacket& packet = *packet_;
    const AVStream& stream = *context_->streams[packet.stream_index];
    if (packet.pts != AV_NOPTS_VALUE) {
        end_us_ = std::max(
            end_us_, av_rescale_q(packet.pts + packet.duration, stream.time_base, MICROSECONDS));
    }
    // A packet cut by the end of the file would give an incomplete picture. In broadcasts, packets
    // around every gap are marked corrupt, but most can be decoded.
    const bool broadcast = (context_->iformat->flags & AVFMT_TS_DISCONT) != 0;
    const bool cut = (packet.flags & AV_PKT_FLAG_CORRUPT) != 0 && !live_ && !broadcast;
    if (cut) {
        ++cut_packets_;
    } else if (&stream == video_) {
        const int sent = avcodec_send_packet(decoder_.get(), &packet);
        if (sent < 0 && sent != AVERROR(EAGAIN)) {
            ++decode_errors_;
        }
    } else {
        forward(packet);
    }
    av_packet_unref(packet_.get());
    return true;
}

// The next picture from the decoder; null at the end.
AvFramePtr MediaSource::decode() {
    AvFramePtr frame = make_av_frame();
    for (;;) {
        const int result = avcodec_receive_frame(decoder_.get(), frame.get());
        if (result == 0) {
            break;
        }
        if (result == AVERROR_EOF) {
            return nullptr;
        }
        if (result != AVERROR(EAGAIN)) {
            ++decode_errors_;  // the decoder continues with the next packet
            continue;
        }
        if (!input_ended_ && !read_packet()) {
            input_ended_ = true;
            avcodec_send_packet(decoder_.get(), nullptr);
        } else if (input_ended_) {
            return nullptr;
        }
    }
    if (decoded_width_ != 0 &&
        (frame->width != decoded_width_ || frame->height != decoded_height_)) {
        throw SizeChangedError(
            "the pictures change from " + size_text(decoded_width_, decoded_height_) + " to " +
            size_text(frame->width, frame->height) + " after picture " + std::to_string(pictures_));
    }
    if (frame->decode_error_flags != 0 || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0) {
        ++damaged_pictures_;
    }
    use_plain_format(*frame);
    // Time stamps must increase strictly.
    std::int64_t time = frame->best_effort_timestamp;
    const std::int64_t step = std::max<std::int64_t>(
        1, frame->pkt_duration > 0
               ? frame->pkt_duration
               : av_rescale_q(1,
                              av_inv_q(decoder_->framerate.num > 0 ? decoder_->framerate
                                                                   : AVRational{25, 1}),
                              video_->time_base));
    if (time == AV_NOPTS_VALUE) {
        time = last_time_ ? *last_time_ + step : 0;
    }
    if (last_time_ && time <= *last_time_) {
        time = *last_time_ + 1;
    }
    last_time_ = time;
    frame->pts = time;
    frame->pict_type = AV_PICTURE_TYPE_NONE;
    return frame;
}

// The next picture in the wanted form; null at the end.
AvFramePtr MediaSource::next_picture() {
    for (;;) {
        if (converter_) {
            AvFramePtr picture = converter_->pull();
            if (picture) {
                return picture;
            }
            if (converter_ended_) {
                return nullptr;
            }
        }
        AvFramePtr decoded = decode();
        if (!converter_ && (!decoded || decoded->format == task_.format)) {
            return decoded;
        }
        if (!decoded) {
            converter_ended_ = true;
            converter_->push(nullptr);
        } else {
            if (!converter_ || !converter_->accepts(*decoded)) {
                make_converter(*decoded);
            }
            if (!converter_) {
                return decoded;
            }
            converter_->push(decoded.get());
        }
    }
}

AvFramePtr MediaSource::read(PictureTag& tag) {
    AvFramePtr picture = first_ ? std::move(first_) : next_picture();
    if (picture) {
        tag.time = picture->pts;
        tag.duration = picture->pkt_duration;
        tag.parameters.clear();
        ++pictures_;
    }
    return picture;
}

std::int64_t MediaSource::expected_pictures() const {
    if (live_) {
        return -1;
    }
    if (video_->nb_frames > 0) {
        return video_->nb_frames;
    }
    const double rate = av_q2d(format_.frame_rate);
    if (context_->duration <= 0 || !(rate > 0)) {
        return -1;
    }
    return std::llround(static_cast<double>(context_->duration) / AV_TIME_BASE * rate);
}

std::string MediaSource::damage() const {
    // The duration that a container states may be off by a few pictures.
    constexpr double TOLERATED_SECONDS = 0.5;
    std::string what;
    const bool states_duration =
        !live_ && context_->duration > 0 &&
        context_->duration_estimation_method != AVFMT_DURATION_FROM_BITRATE;
    const std::int64_t start = context_->start_time == AV_NOPTS_VALUE ? 0 : context_->start_time;
    const double missing =
        states_duration ? static_cast<double>(context_->duration - (end_us_ - start)) / AV_TIME_BASE
                        : 0;
    const bool early = input_ended_ && missing > TOLERATED_SECONDS;
    if (!read_failure_.empty()) {
        what = "the input ended early: " + read_failure_;
    } else if (early || cut_packets_ > 0) {
        what = "the input is cut short";
    }
    if (early) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, " by %.1f seconds", missing);
        what += seconds;
    }
    if (decode_errors_ > 0) {
        what += (what.empty() ? "" : "; ") + std::to_string(decode_errors_) +
                " packets of the video could not be decoded";
    }
    if (damaged_pictures_ > 0) {
        what += (what.empty() ? "" : "; ") + std::to_string(damaged_pictures_) +
                " pictures of the input are damaged";
    }
    return what;
}

}  // namespace apps
