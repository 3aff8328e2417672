// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/media/media_sink.h"

extern "C" {
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <utility>

#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

namespace {

constexpr AVRational MICROSECONDS{1, AV_TIME_BASE};

// Default quality: visually transparent or close to it.
struct Quality {
    const char* encoder;
    double crf;
    const char* preset;
};
constexpr Quality QUALITIES[] = {
    {"libx264", 18, "fast"}, {"libx265", 20, "fast"}, {"libvpx-vp9", 28, ""},
    {"libvpx", 8, ""},       {"libaom-av1", 26, ""},  {"libsvtav1", 28, ""},
};

// Whether files of this format can hold video of this codec. Of muxers that do not tell, those whose
// default is H.264 or one of its predecessors can hold H.264, and those of transport streams HEVC.
bool takes(const AVOutputFormat& format, AVCodecID codec) {
    const int known = avformat_query_codec(&format, codec, FF_COMPLIANCE_NORMAL);
    if (known >= 0) {
        return known == 1;
    }
    if (codec == AV_CODEC_ID_HEVC) {
        return std::strcmp(format.name, "mpegts") == 0 || std::strcmp(format.name, "hls") == 0 ||
               format.video_codec == codec;
    }
    constexpr std::array<AVCodecID, 4> PREDECESSORS = {
        AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_MPEG4, AV_CODEC_ID_H264};
    return std::find(PREDECESSORS.begin(), PREDECESSORS.end(), format.video_codec) !=
           PREDECESSORS.end();
}

// Whether a stream can be copied into a file of this format. Where the muxer does not tell, audio and
// video are assumed to fit, other streams only if the original has the same format.
bool takes_copy(const AVOutputFormat& format, const AVStream& stream, const char* original) {
    const AVCodecParameters& parameters = *stream.codecpar;
    const int known = avformat_query_codec(&format, parameters.codec_id, FF_COMPLIANCE_NORMAL);
    if (known >= 0) {
        return known == 1;
    }
    return parameters.codec_type == AVMEDIA_TYPE_AUDIO ||
           parameters.codec_type == AVMEDIA_TYPE_VIDEO || std::strcmp(format.name, original) == 0;
}

// The encoder for pictures of so many bits where the user has named none.
const AVCodec* default_encoder(const AVOutputFormat& format, int bit_depth) {
    const AVCodec* hevc = avcodec_find_encoder(AV_CODEC_ID_HEVC);
    if (bit_depth > 8 && hevc != nullptr && takes(format, AV_CODEC_ID_HEVC)) {
        return hevc;
    }
    return avcodec_find_encoder(takes(format, AV_CODEC_ID_H264) ? AV_CODEC_ID_H264
                                                                : format.video_codec);
}

const AVCodec* find_encoder(const AVOutputFormat& format, const std::string& name, int bit_depth) {
    if (name.empty()) {
        return default_encoder(format, bit_depth);
    }
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (codec == nullptr) {
        const AVCodecDescriptor* descriptor = avcodec_descriptor_get_by_name(name.c_str());
        if (descriptor != nullptr) {
            codec = avcodec_find_encoder(descriptor->id);
        }
    }
    if (codec == nullptr || codec->type != AVMEDIA_TYPE_VIDEO) {
        throw video_io::OutputError("there is no video encoder '" + name + "'");
    }
    return codec;
}

// How far a format is from that of the pictures; less is better. What is lost comes first, bits before
// chroma, then what is written in vain.
std::array<int, 9> distance(AVPixelFormat format, AVPixelFormat pictures) {
    const AVPixelFormat plain = without_range(format);
    const auto amount = [pictures](AVPixelFormat of) {
        const videostabilizer::ChromaFormat chroma = chroma_of(of);
        if (chroma == videostabilizer::CHROMA_411) {  // 4:2:2 has all of it, 4:2:0 has not
            return chroma_of(pictures) == chroma ? 1 : 0;
        }
        return chroma == videostabilizer::CHROMA_NONE ? -1 : static_cast<int>(chroma);
    };
    const int bits = bit_depth_of(plain) - bit_depth_of(pictures);
    const int chroma = amount(plain) - amount(pictures);
    return {sws_isSupportedOutput(format) != 0 ? 0 : 1,
            amount(plain) < 0 && chroma < 0 ? 1 : 0,  // all colour
            layout_of(plain, AVCHROMA_LOC_UNSPECIFIED) ? 0 : 1,
            has_alpha(pictures) && !has_alpha(format) ? 1 : 0,
            std::max(-bits, 0),
            std::max(-chroma, 0),
            std::max(chroma, 0),
            std::max(bits, 0),
            (has_alpha(format) && !has_alpha(pictures) ? 4 : 0) + (plain == pictures ? 0 : 2) +
                (format == plain ? 0 : 1)};
}

// The format of the encoder that is nearest to the pictures'.
AVPixelFormat pixel_format_of(const AVCodec& codec, AVPixelFormat pictures) {
    if (codec.pix_fmts == nullptr) {
        return pictures;
    }
    AVPixelFormat best = codec.pix_fmts[0];
    for (const AVPixelFormat* format = codec.pix_fmts; *format != AV_PIX_FMT_NONE; ++format) {
        if (distance(*format, pictures) < distance(best, pictures)) {
            best = *format;
        }
    }
    return best;
}

void set_quality(AVCodecContext& encoder, const EncoderOptions& options) {
    const std::string name = encoder.codec->name;
    const auto has = [&](const char* option) {
        return av_opt_find(encoder.priv_data, option, nullptr, 0, 0) != nullptr;
    };
    Quality quality{"", -1, ""};
    for (const Quality& known : QUALITIES) {
        if (name == known.encoder) {
            quality = known;
        }
    }
    if (options.crf && !has("crf")) {
        throw video_io::OutputError("the encoder " + name + " has no --crf");
    }
    if (!options.preset.empty() && !has("preset")) {
        throw video_io::OutputError("the encoder " + name + " has no --preset");
    }
    const double crf = options.crf.value_or(quality.crf);
    if (crf >= 0) {
        encoder.bit_rate = 0;
        if (av_opt_set_double(encoder.priv_data, "crf", crf, 0) < 0) {
            throw video_io::OutputError("the encoder " + name + " does not accept --crf " +
                                        std::to_string(crf));
        }
    } else {
        encoder.flags |= AV_CODEC_FLAG_QSCALE;
        encoder.global_quality = 3 * FF_QP2LAMBDA;
    }
    const std::string preset = options.preset.empty() ? quality.preset : options.preset;
    if (!preset.empty()) {
        av_opt_set(encoder.priv_data, "preset", preset.c_str(), 0);
    }
    if (name == "libvpx-vp9" || name == "libaom-av1") {  // slow by default
        av_opt_set_int(encoder.priv_data, "cpu-used", options.live ? 7 : 4, 0);
        av_opt_set_int(encoder.priv_data, "row-mt", 1, 0);
    }
    if (options.live) {
        av_opt_set(encoder.priv_data, "tune", "zerolatency", 0);
        encoder.max_b_frames = 0;
        encoder.flags |= AV_CODEC_FLAG_LOW_DELAY;
    }
}

// For the HDR metadata, x264 and x265 have the same notation: chromaticities in units of 0.00002,
// luminances of 0.0001 candela per square metre.
std::string mastering_text(const AVMasteringDisplayMetadata& mastering) {
    constexpr int CHROMATICITY = 50000;
    constexpr int LUMINANCE = 10000;
    const auto units = [](AVRational value, int unit) {
        return std::to_string(av_rescale(value.num, unit, std::max(value.den, 1)));
    };
    const auto pair = [&](const AVRational point[2]) {
        return "(" + units(point[0], CHROMATICITY) + "," + units(point[1], CHROMATICITY) + ")";
    };
    const auto& primaries = mastering.display_primaries;
    return "G" + pair(primaries[1]) + "B" + pair(primaries[2]) + "R" + pair(primaries[0]) + "WP" +
           pair(mastering.white_point) + "L(" + units(mastering.max_luminance, LUMINANCE) + "," +
           units(mastering.min_luminance, LUMINANCE) + ")";
}

// Parameters by the encoder's own names, beyond FFmpeg's.
void set_own_parameters(AVCodecContext& encoder, const PictureFormat& format) {
    const std::string name = encoder.codec->name;
    const bool x265 = name == "libx265";
    if (!x265 && name != "libx264") {
        return;
    }
    // x265 writes to the terminal by itself.
    const bool silent = av_log_get_level() <= AV_LOG_QUIET;
    std::string parameters = x265 && silent ? "log-level=none" : "";
    const auto add = [&parameters](const char* key, const std::string& value) {
        parameters += (parameters.empty() ? "" : ":") + std::string(key) + "=" + value;
    };
    if (format.mastering && format.mastering->has_primaries != 0 &&
        format.mastering->has_luminance != 0) {
        add(x265 ? "master-display" : "mastering-display", mastering_text(*format.mastering));
    }
    if (format.light) {
        add(x265 ? "max-cll" : "cll",
            std::to_string(format.light->MaxCLL) + "," + std::to_string(format.light->MaxFALL));
    }
    if (x265 && (format.mastering || format.light)) {
        add("hdr10", "1");
        add("repeat-headers", "1");
    }
    av_opt_set(encoder.priv_data, x265 ? "x265-params" : "x264-params", parameters.c_str(), 0);
}

void add_side_data(AVStream& to, AVPacketSideDataType type, const void* data, std::size_t size) {
    std::uint8_t* copy = av_stream_new_side_data(&to, type, size);
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(copy, data, size);
}

void add_hdr(const PictureFormat& format, AVStream& to) {
    if (format.mastering) {
        add_side_data(to, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, &*format.mastering,
                      sizeof *format.mastering);
    }
    if (format.light) {
        add_side_data(to, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, &*format.light, sizeof *format.light);
    }
}

void copy_side_data(const AVStream& from, AVStream& to, bool turn) {
    for (const AVPacketSideDataType type :
         {AV_PKT_DATA_DISPLAYMATRIX, AV_PKT_DATA_STEREO3D, AV_PKT_DATA_SPHERICAL}) {
        if (type == AV_PKT_DATA_DISPLAYMATRIX && !turn) {
            continue;
        }
        std::size_t size = 0;
        const std::uint8_t* data = av_stream_get_side_data(&from, type, &size);
        if (data != nullptr) {
            add_side_data(to, type, data, size);
        }
    }
}

void copy_chapters(const AVFormatContext& from, AVFormatContext& to, std::int64_t offset_us) {
    for (unsigned i = 0; i < from.nb_chapters; ++i) {
        const AVChapter& chapter = *from.chapters[i];
        auto* copy = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
        auto** grown = static_cast<AVChapter**>(
            av_realloc_array(to.chapters, to.nb_chapters + 1, sizeof(AVChapter*)));
        if (copy == nullptr || grown == nullptr) {
            av_free(copy);
            throw std::bad_alloc();
        }
        const std::int64_t offset = av_rescale_q(offset_us, MICROSECONDS, chapter.time_base);
        copy->id = chapter.id;
        copy->time_base = chapter.time_base;
        copy->start = std::max<std::int64_t>(0, chapter.start - offset);
        copy->end = chapter.end - offset;
        av_dict_copy(&copy->metadata, chapter.metadata, 0);
        to.chapters = grown;
        to.chapters[to.nb_chapters++] = copy;
    }
}

// QuickTime and what is derived from it.
bool is_quicktime(const AVOutputFormat& format) {
    constexpr std::array<const char*, 6> FAMILY = {"mov", "mp4", "3gp", "3g2", "ipod", "psp"};
    return std::any_of(FAMILY.begin(), FAMILY.end(),
                       [&](const char* name) { return std::strcmp(name, format.name) == 0; });
}

const char* kind_of(const AVCodecParameters& parameters) {
    const char* kind = av_get_media_type_string(parameters.codec_type);
    return kind == nullptr ? "unknown" : kind;
}

}  // namespace

const AVOutputFormat* output_format_for(const std::string& path, const std::string& container) {
    const AVOutputFormat* format = container.empty()
                                       ? av_guess_format(nullptr, path.c_str(), nullptr)
                                       : av_guess_format(container.c_str(), nullptr, nullptr);
    if (format == nullptr) {
        throw video_io::OutputError(
            container.empty() ? "the name " + path +
                                    " does not tell the output format; use an ending such as "
                                    ".mp4, or --output-format"
                              : "there is no output format '" + container + "'");
    }
    if (std::strcmp(format->name, "image2") == 0 || format->video_codec == AV_CODEC_ID_NONE) {
        throw video_io::OutputError(path + " would not be a video (" + format->long_name + ")");
    }
    return format;
}

bool keeps_rotation(const AVOutputFormat& format) {
    return is_quicktime(format);
}

MediaSink::MediaSink(const std::string& path, const PictureFormat& format,
                     const EncoderOptions& options, const MediaSource* original,
                     const std::atomic<bool>* stop)
    : path_(path == "-" ? "standard output" : path),
      stop_(stop),
      width_(format.width),
      height_(format.height),
      packet_(make_packet()) {
    const AVOutputFormat* muxer = output_format_for(path, options.container);
    const bool url = path.find("://") != std::string::npos;
    if (!url && !video_io::is_direct_output(path)) {
        pending_ = std::make_unique<video_io::PendingFile>(path, options.existing);
    }
    std::string location = path == "-" ? "pipe:1" : path;
    if (pending_) {
        location = "file:" + pending_->temporary();
    }

    AVFormatContext* context = nullptr;
    const int made = avformat_alloc_output_context2(&context, muxer, nullptr, location.c_str());
    if (made < 0) {
        fail(made);
    }
    context_.reset(context);
    context->interrupt_callback.opaque = this;
    context->interrupt_callback.callback = [](void* self) {
        const std::atomic<bool>* flag = static_cast<MediaSink*>(self)->stop_;
        return flag != nullptr && flag->load() ? 1 : 0;
    };
    if (options.live) {
        context->flags |= AVFMT_FLAG_FLUSH_PACKETS;
        context->max_interleave_delta = AV_TIME_BASE / 2;
    }

    open_encoder(format, options);
    open_rate_filter(format);
    video_ = avformat_new_stream(context, nullptr);
    if (video_ == nullptr) {
        throw std::bad_alloc();
    }
    const int copied = rate_filter_
                           ? avcodec_parameters_copy(video_->codecpar, rate_filter_->par_out)
                           : avcodec_parameters_from_context(video_->codecpar, encoder_.get());
    if (copied < 0) {
        throw std::bad_alloc();
    }
    video_->time_base = encoder_->time_base;
    video_->avg_frame_rate = format.frame_rate;
    video_->sample_aspect_ratio = format.pixel_aspect;
    add_hdr(format, *video_);
    // Players of Apple take HEVC under this tag only.
    if (encoder_->codec_id == AV_CODEC_ID_HEVC && is_quicktime(*muxer)) {
        video_->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');
    }
    if (original != nullptr) {
        add_copies(*original);
    }
    if ((muxer->flags & AVFMT_NOFILE) == 0) {
        const int opened = avio_open2(&context->pb, location.c_str(), AVIO_FLAG_WRITE,
                                      &context->interrupt_callback, nullptr);
        if (opened < 0) {
            fail(opened);
        }
    }
    write_header(options);
}

void MediaSink::fail(int result) const {
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result == AVERROR(EPIPE)) {
        throw video_io::OutputError("cannot write " + path_ + ": the reader has closed it");
    }
    throw video_io::OutputError("cannot write " + path_ + ": " +
                                (result == AVERROR_EXIT ? "interrupted" : av_reason(result)));
}

CodecContextPtr MediaSink::try_encoder(const AVCodec* codec, const PictureFormat& format,
                                       const EncoderOptions& options, int width, int height,
                                       int& result) {
    CodecContextPtr encoder(avcodec_alloc_context3(codec));
    if (!encoder) {
        throw std::bad_alloc();
    }
    encoder->width = width;
    encoder->height = height;
    encoder->time_base = format.time_base;
    encoder->framerate = format.frame_rate;
    encoder->sample_aspect_ratio = format.pixel_aspect;
    encoder->pix_fmt = encoder_format_;
    encoder->color_range = format.range;
    encoder->color_primaries = format.primaries;
    encoder->color_trc = format.transfer;
    encoder->colorspace = format.matrix;
    encoder->chroma_sample_location = format.chroma_location;
    encoder->thread_count = 0;
    encoder->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;  // full range in JPEG pictures
    if ((context_->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    set_quality(*encoder, options);
    set_own_parameters(*encoder, format);
    result = avcodec_open2(encoder.get(), codec, nullptr);
    if (result < 0) {
        return nullptr;
    }
    return encoder;
}

void MediaSink::open_encoder(const PictureFormat& format, const EncoderOptions& options) {
    const AVCodec* codec =
        find_encoder(*context_->oformat, options.codec, bit_depth_of(format.pixel_format));
    if (codec == nullptr) {
        throw video_io::OutputError(std::string("there is no encoder for ") +
                                    context_->oformat->long_name);
    }
    if (avformat_query_codec(context_->oformat, codec->id, FF_COMPLIANCE_NORMAL) == 0) {
        throw video_io::OutputError(std::string(context_->oformat->long_name) + " cannot hold " +
                                    avcodec_get_name(codec->id) + " video");
    }
    encoder_format_ = pixel_format_of(*codec, format.pixel_format);
    const bool drops_alpha = has_alpha(format.pixel_format) && !has_alpha(encoder_format_);
    if (drops_alpha || bit_depth_of(encoder_format_) != bit_depth_of(format.pixel_format) ||
        chroma_of(encoder_format_) != chroma_of(format.pixel_format)) {
        notes_.push_back(name_of(format.pixel_format) + " pictures are written as " +
                         name_of(encoder_format_) + ", the nearest that the encoder " +
                         codec->name + " takes" + (drops_alpha ? "; transparency is dropped" : ""));
    }
    int result = 0;
    encoder_ = try_encoder(codec, format, options, width_, height_, result);
    const int even_width = width_ + width_ % 2;
    const int even_height = height_ + height_ % 2;
    if (!encoder_ && (even_width != width_ || even_height != height_)) {
        encoder_ = try_encoder(codec, format, options, even_width, even_height, result);
        if (encoder_) {
            notes_.push_back("the pictures are padded to " + size_text(even_width, even_height) +
                             ": " + codec->name + " accepts even sizes only");
        }
    }
    if (!encoder_) {
        throw video_io::OutputError(std::string("the encoder ") + codec->name +
                                    " does not accept pictures of " + size_text(width_, height_) +
                                    ": " + av_reason(result));
    }
}

// H.264 and HEVC streams state a tick rate. Encoders set it to the time base, thousands per second; this
// filter sets it to the frame rate.
void MediaSink::open_rate_filter(const PictureFormat& format) {
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
        fail(result);
    }
}

// Streams that the output format cannot hold are dropped, with a note.
void MediaSink::add_copy(const AVStream& from, const char* original) {
    const AVCodecParameters& parameters = *from.codecpar;
    // The muxer writes a new track for the chapters' titles.
    if (parameters.codec_id == AV_CODEC_ID_BIN_DATA && context_->nb_chapters > 0) {
        return;
    }
    const AVOutputFormat& muxer = *context_->oformat;
    Copy& copy = copies_[static_cast<std::size_t>(from.index)];
    if (!takes_copy(muxer, from, original)) {
        const bool time_code = parameters.codec_tag == MKTAG('t', 'm', 'c', 'd');
        if (!time_code) {  // time codes are kept in the metadata
            notes_.push_back(std::string("stream ") + std::to_string(from.index) + " (" +
                             kind_of(parameters) + ", " + avcodec_get_name(parameters.codec_id) +
                             ") is dropped: " + muxer.long_name + " cannot hold it");
        }
        return;
    }
    AVStream* to = avformat_new_stream(context_.get(), nullptr);
    if (to == nullptr || avcodec_parameters_copy(to->codecpar, &parameters) < 0) {
        throw std::bad_alloc();
    }
    // The same tag may mean something else in the output format.
    unsigned tag = 0;
    const bool same_meaning =
        muxer.codec_tag == nullptr ||
        av_codec_get_id(muxer.codec_tag, parameters.codec_tag) == parameters.codec_id ||
        av_codec_get_tag2(muxer.codec_tag, parameters.codec_id, &tag) == 0;
    to->codecpar->codec_tag = same_meaning ? parameters.codec_tag : 0;
    to->time_base = from.time_base;
    to->disposition = from.disposition;
    to->avg_frame_rate = from.avg_frame_rate;
    to->r_frame_rate = from.r_frame_rate;
    to->sample_aspect_ratio = from.sample_aspect_ratio;
    av_dict_copy(&to->metadata, from.metadata, 0);
    for (int i = 0; i < from.nb_side_data; ++i) {
        const AVPacketSideData& data = from.side_data[i];
        add_side_data(*to, data.type, data.data, data.size);
    }
    copy.stream = to->index;
}

void MediaSink::add_copies(const MediaSource& original) {
    const AVFormatContext& container = original.container();
    // Broadcast clocks start anywhere and are moved to 0; other files keep their start.
    if ((container.iformat->flags & AVFMT_TS_DISCONT) != 0 &&
        container.start_time != AV_NOPTS_VALUE) {
        offset_us_ = container.start_time;
    }
    av_dict_copy(&context_->metadata, container.metadata, 0);
    for (const char* about_the_file :
         {"major_brand", "minor_version", "compatible_brands", "encoder"}) {
        av_dict_set(&context_->metadata, about_the_file, nullptr, 0);
    }
    copy_chapters(container, *context_, offset_us_);

    copies_.resize(container.nb_streams);
    for (unsigned i = 0; i < container.nb_streams; ++i) {
        const AVStream& from = *container.streams[i];
        copies_[i] = {from.time_base, -1};
        if (&from == &original.video()) {
            av_dict_copy(&video_->metadata, from.metadata, 0);
            av_dict_set(&video_->metadata, "encoder", nullptr, 0);
            video_->disposition = from.disposition;
            copy_side_data(from, *video_, keeps_rotation(*context_->oformat));
        } else {
            add_copy(from, container.iformat->name);
        }
    }
}

void MediaSink::write_header(const EncoderOptions& options) {
    Dictionary settings;
    if (!options.live && pending_ && keeps_rotation(*context_->oformat)) {
        settings.set("movflags", "+faststart");
    }
    const int result = avformat_write_header(context_.get(), settings.address());
    if (result < 0) {
        fail(result);
    }
}

void MediaSink::write_packet(AVPacket& packet) {
    const std::lock_guard<std::mutex> lock(mutex_);
    int result = av_interleaved_write_frame(context_.get(), &packet);
    if (result >= 0 && context_->pb != nullptr) {
        result = context_->pb->error;
    }
    if (result < 0) {
        fail(result);
    }
}

void MediaSink::write_encoded(AVPacket& packet) {
    const auto duration = durations_.find(packet.pts);
    if (duration != durations_.end()) {
        packet.duration = duration->second;
        durations_.erase(duration);
    }
    const std::int64_t offset = av_rescale_q(offset_us_, MICROSECONDS, encoder_->time_base);
    packet.pts -= offset;
    packet.dts -= offset;
    packet.stream_index = video_->index;
    av_packet_rescale_ts(&packet, encoder_->time_base, video_->time_base);
    write_packet(packet);
}

// Sends the next picture to the encoder, null at the end, and writes its packets.
void MediaSink::encode(AVFrame* picture) {
    int result = avcodec_send_frame(encoder_.get(), picture);
    if (result < 0) {
        fail(result);
    }
    for (;;) {
        result = avcodec_receive_packet(encoder_.get(), packet_.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return;
        }
        if (result < 0) {
            fail(result);
        }
        if (!rate_filter_) {
            write_encoded(*packet_);
            continue;
        }
        result = av_bsf_send_packet(rate_filter_.get(), packet_.get());
        if (result >= 0) {
            result = av_bsf_receive_packet(rate_filter_.get(), packet_.get());
        }
        if (result < 0) {
            fail(result);
        }
        write_encoded(*packet_);
    }
}

// A copy with the encoder's size. Its last rows and columns repeat those of the picture.
AvFramePtr MediaSink::padded(const AVFrame& picture) {
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
AvFramePtr MediaSink::converted(AvFramePtr picture) {
    const auto format = static_cast<AVPixelFormat>(picture->format);
    if (without_range(encoder_format_) == format &&
        (encoder_format_ == format || picture->color_range == AVCOL_RANGE_JPEG)) {
        picture->format = encoder_format_;  // the samples are the same
        return picture;
    }
    if (!converter_) {
        PictureConverter::Task task;
        task.format = encoder_format_;
        converter_ = std::make_unique<PictureConverter>(*picture, encoder_->time_base, task);
    }
    converter_->push(picture.get());
    return converter_->pull();
}

void MediaSink::write(const AVFrame& picture, const PictureTag& tag) {
    const bool fits = encoder_->width == width_ && encoder_->height == height_;
    AvFramePtr frame = fits ? reference_to(picture) : padded(picture);
    frame->pts = tag.time;
    frame->pkt_duration = tag.duration;
    frame->color_range = encoder_->color_range;
    frame->color_primaries = encoder_->color_primaries;
    frame->color_trc = encoder_->color_trc;
    frame->colorspace = encoder_->colorspace;
    frame->chroma_location = encoder_->chroma_sample_location;
    frame->sample_aspect_ratio = encoder_->sample_aspect_ratio;
    durations_[tag.time] = tag.duration;
    if (const AvFramePtr ready = converted(std::move(frame))) {
        encode(ready.get());
    }
}

void MediaSink::copy(const AVPacket& packet) {
    const auto index = static_cast<std::size_t>(packet.stream_index);
    // Streams that appear later in the input have no stream in the output.
    if (index >= copies_.size() || copies_[index].stream < 0) {
        return;
    }
    const PacketPtr out = copy_of(packet);
    const AVRational from = copies_[index].time_base;
    const std::int64_t offset = av_rescale_q(offset_us_, MICROSECONDS, from);
    if (out->pts != AV_NOPTS_VALUE) {
        out->pts -= offset;
    }
    if (out->dts != AV_NOPTS_VALUE) {
        out->dts -= offset;
    }
    out->stream_index = copies_[index].stream;
    av_packet_rescale_ts(out.get(), from, context_->streams[out->stream_index]->time_base);
    out->pos = -1;
    write_packet(*out);
}

void MediaSink::finish() {
    encode(nullptr);
    const std::lock_guard<std::mutex> lock(mutex_);
    int result = av_write_trailer(context_.get());
    if (result >= 0 && context_->pb != nullptr) {
        result = context_->pb->error;
    }
    if (result < 0) {
        fail(result);
    }
    if ((context_->oformat->flags & AVFMT_NOFILE) == 0) {
        // Some file systems report a full disk only on closing.
        result = avio_closep(&context_->pb);
        if (result < 0) {
            fail(result);
        }
    }
}

void MediaSink::commit() {
    if (pending_) {
        pending_->commit();
    }
}

std::string MediaSink::keep_partial() {
    return pending_ ? pending_->keep_partial() : "";
}

}  // namespace apps
