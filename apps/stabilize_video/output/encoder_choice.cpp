// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/output/encoder_choice.h"

extern "C" {
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

namespace {

// Default quality: visually transparent or close to it.
struct Quality {
    const char* encoder;
    double crf;       // -1: it has none
    double most_crf;  // that it takes
    const char* preset;
    int scale;             // of encoders without crf, smaller is better
    std::int64_t ceiling;  // bits per second for each pixel, within which crf works; 0: none
};
constexpr Quality QUALITIES[] = {
    {"libx264", 18, 51, "fast", 0, 0}, {"libx265", 20, 51, "fast", 0, 0},
    {"libvpx-vp9", 28, 63, "", 0, 0},  {"libvpx", 12, 63, "", 0, 50},
    {"libaom-av1", 26, 63, "", 0, 0},  {"libsvtav1", 28, 63, "", 0, 0},
    {"libtheora", -1, 0, "", 8, 0},    {"mpeg4", -1, 0, "", 2, 0},
    {"h264_vaapi", -1, 0, "", 20, 0},  {"hevc_vaapi", -1, 0, "", 20, 0},
    {"h264_nvenc", -1, 0, "", 20, 0},  {"hevc_nvenc", -1, 0, "", 20, 0},
    {"h264_qsv", -1, 0, "", 20, 0},    {"hevc_qsv", -1, 0, "", 20, 0},
};

bool has_ending(const std::string& name, const std::string& ending) {
    return name.size() >= ending.size() &&
           name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

Quality quality_of(const std::string& encoder) {
    constexpr int USUAL_SCALE = 3;
    for (const Quality& known : QUALITIES) {
        if (encoder == known.encoder) {
            return known;
        }
    }
    return {"", -1, 63, "", USUAL_SCALE, 0};
}

// Encoders that are better than the one that FFmpeg takes for a codec.
struct Preferred {
    AVCodecID codec;
    const char* encoder;
    int least_side;  // of pictures, pixels
};
constexpr Preferred PREFERRED[] = {{AV_CODEC_ID_AV1, "libsvtav1", 64},
                                   {AV_CODEC_ID_PRORES, "prores_ks", 1}};

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

// The encoder for pictures of so many bits where the user has named none.
const AVCodec* default_encoder(const AVOutputFormat& format, const std::string& path,
                               int bit_depth) {
    if (std::strcmp(format.name, "image2") == 0) {
        return avcodec_find_encoder(
            av_guess_codec(&format, nullptr, path.c_str(), nullptr, AVMEDIA_TYPE_VIDEO));
    }
    const AVCodec* hevc = avcodec_find_encoder(AV_CODEC_ID_HEVC);
    if (bit_depth > 8 && hevc != nullptr && takes(format, AV_CODEC_ID_HEVC)) {
        return hevc;
    }
    return avcodec_find_encoder(takes(format, AV_CODEC_ID_H264) ? AV_CODEC_ID_H264
                                                                : format.video_codec);
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

bool keeps_samples(const AVCodec& codec, AVPixelFormat pictures) {
    const std::array<int, 9> lost = distance(nearest_format(codec, pictures), pictures);
    return lost[1] == 0 && lost[3] == 0 && lost[4] == 0 && lost[5] == 0;
}

// By the name of an encoder or a codec.
const AVCodec* encoder_named(const std::string& name, const PictureFormat& pictures) {
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get_by_name(name.c_str());
    if (descriptor != nullptr && (codec == nullptr || codec->id == descriptor->id)) {
        for (const auto& [id, encoder, side] : PREFERRED) {
            const AVCodec* better =
                id == descriptor->id ? avcodec_find_encoder_by_name(encoder) : nullptr;
            if (better != nullptr && std::min(pictures.width, pictures.height) >= side &&
                keeps_samples(*better, pictures.pixel_format)) {
                return better;
            }
        }
        codec = codec != nullptr ? codec : avcodec_find_encoder(descriptor->id);
    }
    if (codec == nullptr || codec->type != AVMEDIA_TYPE_VIDEO) {
        throw UsageError("there is no video encoder '" + name + "'");
    }
    return codec;
}

// The frame rate as it would be if no picture were missing. What containers tell as such may be a common
// multiple of all intervals.
AVRational usual_rate(const PictureFormat& format) {
    constexpr AVRational UNKNOWN{25, 1};
    constexpr AVRational RATES[] = {{24000, 1001}, {24, 1},  {25, 1},       {30000, 1001},
                                    {30, 1},       {50, 1},  {60000, 1001}, {60, 1},
                                    {100, 1},      {120, 1}, {240, 1}};
    constexpr double MOST_MISSING = 1.5;
    const double average = av_q2d(format.frame_rate);
    if (format.nominal_rate.num <= 0 || !(average > 0)) {
        return format.frame_rate.num > 0 ? format.frame_rate : UNKNOWN;
    }
    if (av_q2d(format.nominal_rate) <= MOST_MISSING * average) {
        return format.nominal_rate;
    }
    constexpr double ROUNDING = 0.999;
    for (const AVRational rate : RATES) {
        if (av_q2d(rate) >= ROUNDING * average) {
            return rate;
        }
    }
    return format.frame_rate;
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

// Parameters of x264 and x265 beyond FFmpeg's.
std::string x26x_parameters(bool x265, const PictureFormat& format) {
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
    return parameters;
}

void set_option(AVCodecContext& encoder, const std::string& key, const std::string& value) {
    forget_ffmpeg_error();
    const int result = av_opt_set(&encoder, key.c_str(), value.c_str(), AV_OPT_SEARCH_CHILDREN);
    if (result == AVERROR_OPTION_NOT_FOUND) {
        throw UsageError(std::string("the encoder ") + encoder.codec->name + " has no option '" +
                         key + "'");
    }
    if (result < 0) {
        throw UsageError("--encoder-option " + key + "=" + value + ": " + ffmpeg_error_or(result));
    }
}

void set_preset(AVCodecContext& encoder, const std::string& preset) {
    constexpr const char* OF_X26X[] = {"ultrafast", "superfast", "veryfast", "faster",   "fast",
                                       "medium",    "slow",      "slower",   "veryslow", "placebo"};
    const std::string name = encoder.codec->name;
    if (preset.empty()) {
        return;
    }
    std::string hint;
    bool known = true;
    if (name == "libx264" || name == "libx265") {
        known = std::find(std::begin(OF_X26X), std::end(OF_X26X), preset) != std::end(OF_X26X);
        for (const char* one : OF_X26X) {
            hint += (hint.empty() ? "; it has " : ", ") + std::string(one);
        }
    }
    if (!known || av_opt_set(encoder.priv_data, "preset", preset.c_str(), 0) < 0) {
        throw UsageError("the encoder " + name + " has no preset '" + preset + "'" + hint);
    }
}

// DNxHD has fixed bit rates for a few sizes and rates; its successor DNxHR takes any.
void set_profile(AVCodecContext& encoder) {
    const std::string name = encoder.codec->name;
    if (name == "dnxhd") {
        const bool deep = bit_depth_of(encoder.pix_fmt) > 8;
        const bool full = chroma_of(encoder.pix_fmt) == videostabilizer::CHROMA_444;
        av_opt_set(encoder.priv_data, "profile",
                   full ? "dnxhr_444" : (deep ? "dnxhr_hqx" : "dnxhr_hq"), 0);
    } else if (name == "prores_ks" && chroma_of(encoder.pix_fmt) == videostabilizer::CHROMA_422) {
        av_opt_set(encoder.priv_data, "profile", "hq", 0);
    }
}

}  // namespace

const AVCodec& choose_encoder(const AVOutputFormat& muxer, const std::string& path,
                              const EncoderOptions& options, const PictureFormat& pictures) {
    const AVCodec* codec = options.codec.empty()
                               ? default_encoder(muxer, path, bit_depth_of(pictures.pixel_format))
                               : encoder_named(options.codec, pictures);
    if (codec == nullptr) {
        throw video_io::OutputError(std::string("there is no encoder for ") + muxer.long_name);
    }
    if (avformat_query_codec(&muxer, codec->id, FF_COMPLIANCE_NORMAL) == 0) {
        throw UsageError(std::string(muxer.long_name) + " cannot hold " +
                         avcodec_get_name(codec->id) + " video");
    }
    return *codec;
}

AVPixelFormat nearest_format(const AVCodec& codec, AVPixelFormat pictures) {
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

AVRational encoder_tick(const AVOutputFormat& muxer, const AVCodec& codec,
                        const PictureFormat& format) {
    const AVRational rate = usual_rate(format);
    if (codec.supported_framerates != nullptr) {
        return av_inv_q(
            codec.supported_framerates[av_find_nearest_q_idx(rate, codec.supported_framerates)]);
    }
    // These tell the times of pictures by counting them.
    const std::string name = muxer.name;
    if (name == "avi" || name == "gxf" || name == "swf" || name.rfind("mxf", 0) == 0) {
        return av_inv_q(rate);
    }
    constexpr int FINEST_OF_MPEG4 = 65535;
    if (codec.id == AV_CODEC_ID_MPEG4 && format.time_base.den > FINEST_OF_MPEG4) {
        return {1, 60000};
    }
    return format.time_base;
}

void set_quality(AVCodecContext& encoder, const EncoderOptions& options) {
    const std::string name = encoder.codec->name;
    const auto has = [&](const char* option) {
        return encoder.priv_data != nullptr &&
               av_opt_find(encoder.priv_data, option, nullptr, 0, 0) != nullptr;
    };
    const Quality quality = quality_of(name);
    if (options.crf && !has("crf")) {
        throw UsageError("the encoder " + name + " has no --crf");
    }
    if (!options.preset.empty() && !has("preset")) {
        throw UsageError("the encoder " + name + " has no --preset");
    }
    const double crf = options.crf.value_or(quality.crf);
    if (options.bitrate > 0) {
        encoder.bit_rate = options.bitrate;
    } else if (crf >= 0) {
        if (crf > quality.most_crf) {
            throw UsageError("the encoder " + name + " takes --crf 0 to " +
                             std::to_string(static_cast<int>(quality.most_crf)));
        }
        encoder.bit_rate = quality.ceiling * encoder.width * encoder.height;
        av_opt_set_double(encoder.priv_data, "crf", crf, 0);
    } else if (has_ending(name, "_vaapi")) {  // in units of the codec; 0: the encoder's own
        encoder.global_quality = *quality.encoder == '\0' ? 0 : quality.scale;
    } else if (has_ending(name, "_nvenc")) {
        av_opt_set_int(encoder.priv_data, "qp", quality.scale, 0);
    } else {
        encoder.flags |= AV_CODEC_FLAG_QSCALE;
        encoder.global_quality = quality.scale * FF_QP2LAMBDA;
    }
    set_preset(encoder, options.preset.empty() ? quality.preset : options.preset);
    if (name == "libvpx-vp9" || name == "libaom-av1" || name == "libvpx") {  // slow by default
        av_opt_set_int(encoder.priv_data, "cpu-used", options.live ? 7 : 4, 0);
        av_opt_set_int(encoder.priv_data, "row-mt", 1, 0);
    }
    if (name == "libvpx" && has_alpha(encoder.pix_fmt)) {  // it takes one or the other
        av_opt_set_int(encoder.priv_data, "auto-alt-ref", 0, 0);
    }
    set_profile(encoder);
    if (options.live) {
        av_opt_set(encoder.priv_data, "tune", "zerolatency", 0);
        encoder.max_b_frames = 0;
        encoder.flags |= AV_CODEC_FLAG_LOW_DELAY;
    }
}

void set_own_options(AVCodecContext& encoder, const PictureFormat& format,
                     const EncoderOptions& options) {
    const std::string name = encoder.codec->name;
    const bool x265 = name == "libx265";
    const std::string key = x265 ? "x265-params" : "x264-params";
    std::string parameters =
        x265 || name == "libx264" ? x26x_parameters(x265, format) : std::string();
    for (const auto& [own_key, value] : options.own) {
        if (own_key == key) {
            parameters += (parameters.empty() ? "" : ":") + value;
            continue;
        }
        set_option(encoder, own_key, value);
    }
    if (!parameters.empty()) {
        av_opt_set(encoder.priv_data, key.c_str(), parameters.c_str(), 0);
    }
}

}  // namespace apps
