// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/media/media_source.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "apps/stabilize_video/media/video_facts.h"
#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

namespace {

// From one picture of a broadcast that stands alone to the next.
constexpr std::int64_t LONGEST_GROUP_US = 10 * std::int64_t{AV_TIME_BASE};
// By how much sound may be behind the pictures in a file.
constexpr std::int64_t PATIENCE_US = 2 * std::int64_t{AV_TIME_BASE};

// Whether the demuxer reads still images, as a video of one picture.
bool reads_still_images(const AVInputFormat& format) {
    const std::string name = format.name;
    constexpr const char* ENDING = "_pipe";
    return name == "image2" || name == "ico" ||
           (name.size() > 5 && name.compare(name.size() - 5, 5, ENDING) == 0);
}

// Formats that are full range by their name have the same layout as others.
void use_plain_format(AVFrame& frame) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    if (without_range(format) != format) {
        frame.format = without_range(format);
        frame.color_range = AVCOL_RANGE_JPEG;
    }
}

// FFmpeg's own decoders of VP8 and VP9 leave transparency out.
const AVCodec* decoder_for(const AVStream& video, Notes& notes) {
    const AVCodecID id = video.codecpar->codec_id;
    const AVDictionaryEntry* alpha = av_dict_get(video.metadata, "alpha_mode", nullptr, 0);
    const bool vp9 = id == AV_CODEC_ID_VP9;
    if (alpha != nullptr && std::strcmp(alpha->value, "1") == 0 && (vp9 || id == AV_CODEC_ID_VP8)) {
        const AVCodec* codec = avcodec_find_decoder_by_name(vp9 ? "libvpx-vp9" : "libvpx");
        if (codec != nullptr) {
            return codec;
        }
        notes.emplace_back("transparency is dropped: FFmpeg is without libvpx, which decodes it");
    }
    return avcodec_find_decoder(id);
}

}  // namespace

MediaSource::MediaSource(const std::string& url, const MediaSourceOptions& options)
    : input_(url, options), context_(&input_.context()) {
    open(options);
}

MediaSource::MediaSource(std::unique_ptr<video_io::FdSource> stream,
                         const MediaSourceOptions& options)
    : input_(std::move(stream), options), context_(&input_.context()) {
    open(options);
}

void MediaSource::open(const MediaSourceOptions& options) {
    find_video(options);
    clock_ = std::make_unique<StreamClock>(*context_);
    choose_range(options);
    open_decoder();
    packet_ = make_packet();
    read_first_picture(options);
    opening_ = false;
}

// The first picture decides the format of all.
void MediaSource::read_first_picture(const MediaSourceOptions& options) {
    const AvFramePtr first = decode_wanted();
    if (!first) {
        input_.rethrow_failure();
        if (starts_late_ && input_ended_ && last_time_) {
            throw video_io::InputError(input_.name() + " ends before --start");
        }
        throw video_io::InputError(input_.why_empty());
    }
    start_format(*first, options);
    if (converter_) {
        converter_->push(first.get());
    }
    first_ = converter_ ? next_picture() : AvFramePtr(av_frame_clone(first.get()));
    if (!first_) {
        throw video_io::InputError("no picture of " + input_.name() + " can be converted");
    }
    format_.width = first_->width;
    format_.height = first_->height;
    format_.pixel_aspect = first_->sample_aspect_ratio;
}

void MediaSource::find_video(const MediaSourceOptions& options) {
    video_ = choose_video(*context_, options.stream);
    if (video_ == nullptr) {
        if (options.stream) {
            throw NoVideoError("stream " + std::to_string(*options.stream) + " of " +
                               input_.name() + " is no video");
        }
        const bool sound =
            av_find_best_stream(context_, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0) >= 0;
        throw NoVideoError(input_.name() +
                           (sound ? " contains audio but no video" : " contains no video"));
    }
    const bool one_picture = context_->nb_streams == 1 && video_->nb_frames <= 1;
    const bool numbered = input_.name().find('%') != std::string::npos;
    if (reads_still_images(*context_->iformat) && one_picture && !numbered && input_.has_name()) {
        throw NoVideoError(input_.name() + " is a still image, not a video");
    }
}

// Goes to the start of the part that is wanted, from which times then count. Otherwise files that begin
// later than 0, such as pieces and broadcasts, are moved to 0.
void MediaSource::choose_range(const MediaSourceOptions& options) {
    const bool broadcast = input_.is_broadcast();
    const std::int64_t begin = context_->start_time == AV_NOPTS_VALUE ? 0 : context_->start_time;
    format_.zero_us = broadcast ? begin : std::max<std::int64_t>(begin, 0);
    if (options.start_us > 0) {
        format_.zero_us = begin + options.start_us;
        // Broadcasts have no index: there it goes to any packet, and the pictures up to the next that
        // stands alone cannot be decoded.
        const std::int64_t target = format_.zero_us - (broadcast ? LONGEST_GROUP_US : 0);
        if (target > begin && input_.seekable()) {
            // Where this fails, everything before is read and dropped.
            avformat_seek_file(context_, -1, INT64_MIN, target, target, 0);
        }
    }
    starts_late_ = options.start_us > 0;
    if (options.duration_us) {
        stop_us_ = (starts_late_ ? format_.zero_us : begin) + *options.duration_us;
    }
}

void MediaSource::open_decoder() {
    const AVCodecParameters& parameters = *video_->codecpar;
    const AVCodec* codec = decoder_for(*video_, notes_);
    if (codec == nullptr) {
        throw NoVideoError("there is no decoder for the video in " + input_.name() + " (" +
                           avcodec_get_name(parameters.codec_id) + ")");
    }
    decoder_.reset(avcodec_alloc_context3(codec));
    if (!decoder_ || avcodec_parameters_to_context(decoder_.get(), &parameters) < 0) {
        throw std::bad_alloc();
    }
    decoder_->pkt_timebase = video_->time_base;
    rate_ = av_guess_frame_rate(context_, video_, nullptr);
    if (rate_.num <= 0) {
        rate_ = AVRational{25, 1};
    }
    decoder_->framerate = rate_;
    decoder_->thread_count = 0;
    if (input_.is_live()) {  // frame threads would delay by a picture each
        decoder_->thread_type = FF_THREAD_SLICE;
        decoder_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    }
    const int result = avcodec_open2(decoder_.get(), codec, nullptr);
    if (result < 0) {
        throw video_io::InputError("the decoder " + std::string(codec->name) + " rejects " +
                                   input_.name() + ": " + av_reason(result));
    }
}

// Takes the conversion and the format from the first picture.
void MediaSource::start_format(const AVFrame& decoded, const MediaSourceOptions& options) {
    decoded_width_ = decoded.width;
    decoded_height_ = decoded.height;
    choose_conversion(decoded, options);
    make_converter(decoded);
    format_.pixel_format = task_.format;
    take_facts(*context_, *video_, decoded, format_, notes_);
    format_.time_base = video_->time_base;
    if (converter_) {
        format_.time_base = converter_->time_base();
    }
    if (task_.deinterlace == Deinterlace::FULL_RATE) {
        constexpr AVRational FIELDS{2, 1};
        format_.frame_rate = av_mul_q(format_.frame_rate, FIELDS);
        format_.nominal_rate = av_mul_q(format_.nominal_rate, FIELDS);
    }
    if (options.turn_upright) {
        format_.chroma_location = turned(format_.chroma_location, format_.orientation);
        format_.orientation = Orientation{};
    }
}

void MediaSource::choose_conversion(const AVFrame& decoded, const MediaSourceOptions& options) {
    if (is_interlaced(*video_, decoded)) {
        task_.deinterlace = options.deinterlace;
    }
    if (options.turn_upright) {
        task_.orientation = orientation_of(*video_);
    }
    const auto format = static_cast<AVPixelFormat>(decoded.format);
    const std::optional<videostabilizer::PixelLayout> layout =
        layout_of(format, decoded.chroma_location);
    const bool deinterlaced = task_.deinterlace != Deinterlace::NONE;
    const bool moved = deinterlaced || !task_.orientation.upright();
    const bool is_planar = layout && layout->semi_planar == 0;
    // Deinterlacing knows no transparency, and YUV4MPEG2 only one kind of it.
    const bool keeps_alpha = !deinterlaced && (!options.planar || format == AV_PIX_FMT_YUVA444P);
    const bool keeps =
        layout && (is_planar || !(moved || options.planar)) && (layout->alpha == 0 || keeps_alpha);
    task_.format = keeps ? format : planar_format_for(format);
    const AVPixelFormat clear =
        planar_format(chroma_of(task_.format), bit_depth_of(task_.format), true);
    if (!keeps && has_alpha(format) && chroma_of(format) != videostabilizer::CHROMA_NONE &&
        !deinterlaced && (!options.planar || clear == AV_PIX_FMT_YUVA444P) &&
        clear != AV_PIX_FMT_NONE) {
        task_.format = clear;
    }
    // Turned 4:2:2 and 4:1:1 have fewer rows of chroma than columns, which the stabilizer does not take.
    if (task_.orientation.quarter_turns % 2 != 0 &&
        (chroma_of(format) == videostabilizer::CHROMA_422 ||
         chroma_of(format) == videostabilizer::CHROMA_411)) {
        task_.format = planar_format(videostabilizer::CHROMA_444, bit_depth_of(task_.format),
                                     has_alpha(task_.format));
    }
    const bool drops_alpha = has_alpha(format) && !has_alpha(task_.format);
    if (!layout || drops_alpha || chroma_of(task_.format) != chroma_of(format)) {
        notes_.push_back("pictures are converted from " + name_of(format) + " to " +
                         name_of(task_.format) + (drops_alpha ? "; transparency is dropped" : ""));
    }
    if (deinterlaced) {
        notes_.emplace_back(task_.deinterlace == Deinterlace::FULL_RATE
                                ? "interlaced pictures are deinterlaced, one picture for each field"
                                : "interlaced pictures are deinterlaced");
    }
    if (!task_.orientation.upright()) {
        notes_.emplace_back(
            "pictures are turned upright, since the output format has no rotation tag");
    }
}

void MediaSource::make_converter(const AVFrame& decoded) {
    converter_.reset();
    if (decoded.format != task_.format || task_.deinterlace != Deinterlace::NONE ||
        !task_.orientation.upright()) {
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

// Whether a packet lies within the part that is wanted. Of subtitles that begin before it, the rest is
// taken.
bool MediaSource::is_wanted(AVPacket& packet) const {
    if (packet.pts == AV_NOPTS_VALUE) {
        return true;
    }
    const AVStream& stream = *context_->streams[packet.stream_index];
    const std::int64_t begin = av_rescale_q(packet.pts, stream.time_base, MICROSECONDS);
    if (starts_late_ && begin < format_.zero_us) {
        const std::int64_t late =
            av_rescale_q(format_.zero_us - begin, MICROSECONDS, stream.time_base);
        if (stream.codecpar->codec_type != AVMEDIA_TYPE_SUBTITLE || packet.duration <= late) {
            return false;
        }
        packet.pts += late;
        packet.dts = packet.pts;
        packet.duration -= late;
    }
    return begin < stop_us_;
}

void MediaSource::forward(AVPacket& packet) {
    if (!is_wanted(packet)) {
        return;
    }
    if (receiver_) {
        receiver_(packet);
    } else if (opening_) {
        early_packets_.push_back(copy_of(packet));
    }
}

// Passes the next packet of the input to the decoder or the receiver. Returns false at the end of the
// input, whatever the reason.
bool MediaSource::read_packet() {
    if (!input_.read(*packet_)) {
        return false;
    }
    clock_->correct(*packet_);
    const AVPacket& packet = *packet_;
    const AVStream& stream = *context_->streams[packet.stream_index];
    if (packet.pts != AV_NOPTS_VALUE) {
        end_us_ = std::max(
            end_us_, av_rescale_q(packet.pts + packet.duration, stream.time_base, MICROSECONDS));
    }
    // A packet cut by the end of the file would give an incomplete picture. In broadcasts, packets
    // around every gap are marked corrupt, but most can be decoded.
    const bool broadcast = input_.is_broadcast();
    const bool cut = (packet.flags & AV_PKT_FLAG_CORRUPT) != 0 && !input_.is_live() && !broadcast;
    if (cut) {
        ++cut_packets_;
    } else if (&stream == video_) {
        past_stop_ =
            past_stop_ ||
            (packet.dts != AV_NOPTS_VALUE &&
             av_rescale_q(packet.dts, stream.time_base, MICROSECONDS) - PATIENCE_US > stop_us_);
        const int sent = avcodec_send_packet(decoder_.get(), &packet);
        if (sent < 0 && sent != AVERROR(EAGAIN)) {
            ++decode_errors_;
        }
    } else {
        forward(*packet_);
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
    frame->sample_aspect_ratio = av_guess_sample_aspect_ratio(context_, video_, frame.get());
    mark_interlaced(*video_, *frame);
    if (frame->color_range == AVCOL_RANGE_UNSPECIFIED) {
        frame->color_range = video_->codecpar->color_range;
    }
    if (frame->decode_error_flags != 0 || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0) {
        ++damaged_pictures_;
    }
    use_plain_format(*frame);
    // Time stamps must increase strictly.
    std::int64_t time = frame->best_effort_timestamp;
    const std::int64_t step = std::max<std::int64_t>(
        1, frame->pkt_duration > 0 ? frame->pkt_duration
                                   : av_rescale_q(1, av_inv_q(rate_), video_->time_base));
    if (time == AV_NOPTS_VALUE) {
        time = last_time_ ? *last_time_ + step : 0;
    }
    if (last_time_ && time <= *last_time_) {
        time = *last_time_ + 1;
    }
    last_time_ = time;
    frame->pts = time;
    if (input_ended_ && frame->pkt_duration == 0) {  // no other tells when the last picture ends
        frame->pkt_duration = step;
    }
    frame->pict_type = AV_PICTURE_TYPE_NONE;
    keep_captions(*frame);
    return frame;
}

// The next picture of the part that is wanted; null at the end.
AvFramePtr MediaSource::decode_wanted() {
    for (;;) {
        AvFramePtr picture = decode();
        if (!picture) {
            return nullptr;
        }
        const std::int64_t time = av_rescale_q(picture->pts, video_->time_base, MICROSECONDS);
        constexpr std::int64_t ROUNDING_US = 1000;
        if (time >= stop_us_) {
            // The sound of the last pictures follows.
            while (context_->nb_streams > 1 && !past_stop_ && read_packet()) {
                drop_pictures();
            }
            input_ended_ = true;
            stopped_ = true;
            return nullptr;
        }
        if (!starts_late_ || time >= format_.zero_us - ROUNDING_US) {
            return picture;
        }
    }
}

void MediaSource::drop_pictures() {
    const AvFramePtr dropped = make_av_frame();
    while (avcodec_receive_frame(decoder_.get(), dropped.get()) >= 0) {
    }
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
        AvFramePtr decoded = stopped_ ? nullptr : decode_wanted();
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

void MediaSource::keep_captions(const AVFrame& decoded) {
    const AVFrameSideData* data = av_frame_get_side_data(&decoded, AV_FRAME_DATA_A53_CC);
    if (data == nullptr) {
        return;
    }
    BufferPtr reference(av_buffer_ref(data->buf));
    if (!reference) {
        throw std::bad_alloc();
    }
    captions_[decoded.pts] = std::move(reference);
}

// Of the two pictures that are made of two fields, the one with the time of both gets the captions.
std::shared_ptr<const AVBufferRef> MediaSource::captions_at(std::int64_t time) {
    const std::int64_t decoded = av_rescale_q(time, format_.time_base, video_->time_base);
    const auto found = captions_.find(decoded);
    std::shared_ptr<const AVBufferRef> captions;
    if (found != captions_.end() &&
        av_rescale_q(decoded, video_->time_base, format_.time_base) == time) {
        captions = std::move(found->second);
    }
    captions_.erase(captions_.begin(), captions_.upper_bound(decoded));
    return captions;
}

AvFramePtr MediaSource::read(PictureTag& tag) {
    AvFramePtr picture = first_ ? std::move(first_) : next_picture();
    if (picture) {
        tag.time = picture->pts;
        // FFmpeg's deinterlacers halve the unit of time, but do not double durations.
        constexpr int FIELDS = 2;
        tag.duration =
            picture->pkt_duration * (task_.deinterlace == Deinterlace::KEEP_RATE ? FIELDS : 1);
        tag.parameters.clear();
        tag.captions = captions_at(picture->pts);
        ++pictures_;
    }
    return picture;
}

std::int64_t MediaSource::expected_pictures() const {
    if (input_.is_live()) {
        return -1;
    }
    const bool whole = !starts_late_ && stop_us_ == INT64_MAX;
    const int per_frame = task_.deinterlace == Deinterlace::FULL_RATE ? 2 : 1;
    if (video_->nb_frames > 0 && whole) {
        return video_->nb_frames * per_frame;
    }
    const double rate = av_q2d(format_.frame_rate);
    if (context_->duration <= 0 || !(rate > 0)) {
        return -1;
    }
    const std::int64_t begin = context_->start_time == AV_NOPTS_VALUE ? 0 : context_->start_time;
    const std::int64_t from = starts_late_ ? format_.zero_us : begin;
    const std::int64_t length = std::min(begin + context_->duration, stop_us_) - from;
    return std::llround(static_cast<double>(std::max<std::int64_t>(length, 0)) / AV_TIME_BASE *
                        rate);
}

std::string MediaSource::damage() const {
    // The duration that a container states may be off by a few pictures.
    constexpr double TOLERATED_SECONDS = 0.5;
    std::string what;
    const bool states_duration = !input_.is_live() && context_->duration > 0 && !stopped_ &&
                                 context_->duration_estimation_method == AVFMT_DURATION_FROM_STREAM;
    const std::int64_t start = context_->start_time == AV_NOPTS_VALUE ? 0 : context_->start_time;
    // Of files that do not start at 0, some containers state the duration, others the end.
    const std::int64_t end = end_us_ - std::min<std::int64_t>(start, 0);
    const double missing =
        states_duration ? static_cast<double>(context_->duration - end) / AV_TIME_BASE : 0;
    const bool early = input_ended_ && missing > TOLERATED_SECONDS;
    if (!input_.failure().empty()) {
        what = "the input ended early: " + input_.failure();
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
