// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/output/container_support.h"

extern "C" {
#include <libavutil/avstring.h>
}

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <new>
#include <string>
#include <utility>

namespace apps {

namespace {

bool is_one_of(const AVOutputFormat& muxer, std::initializer_list<const char*> names) {
    return std::any_of(names.begin(), names.end(),
                       [&](const char* name) { return std::strcmp(name, muxer.name) == 0; });
}

bool is_program_stream(const AVOutputFormat& muxer) {
    return is_one_of(muxer, {"mpeg", "vob", "svcd", "dvd", "vcd"});
}

bool is_material_exchange(const AVOutputFormat& muxer) {
    return std::strncmp(muxer.name, "mxf", 3) == 0;
}

template <typename List>
bool contains(const List& list, AVCodecID codec) {
    return std::find(std::begin(list), std::end(list), codec) != std::end(list);
}

// These muxers take anything and mark what they do not know as private data, or fail on its packets.
constexpr AVCodecID IN_TRANSPORT[] = {
    AV_CODEC_ID_AAC,        AV_CODEC_ID_AAC_LATM,     AV_CODEC_ID_AC3,
    AV_CODEC_ID_EAC3,       AV_CODEC_ID_DTS,          AV_CODEC_ID_TRUEHD,
    AV_CODEC_ID_MP2,        AV_CODEC_ID_MP3,          AV_CODEC_ID_OPUS,
    AV_CODEC_ID_S302M,      AV_CODEC_ID_H264,         AV_CODEC_ID_HEVC,
    AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO,   AV_CODEC_ID_MPEG4,
    AV_CODEC_ID_VC1,        AV_CODEC_ID_DVB_SUBTITLE, AV_CODEC_ID_DVB_TELETEXT,
    AV_CODEC_ID_SMPTE_KLV,  AV_CODEC_ID_TIMED_ID3,    AV_CODEC_ID_HDMV_PGS_SUBTITLE};
constexpr AVCodecID IN_PROGRAM_STREAM[] = {
    AV_CODEC_ID_MP2,  AV_CODEC_ID_MP3,        AV_CODEC_ID_AC3,
    AV_CODEC_ID_DTS,  AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO,
    AV_CODEC_ID_H264, AV_CODEC_ID_HEVC,       AV_CODEC_ID_DVD_SUBTITLE};

struct FreeMuxer {
    void operator()(AVFormatContext* context) const {
        std::uint8_t* written = nullptr;
        if (context->pb != nullptr) {
            avio_close_dyn_buf(context->pb, &written);
            context->pb = nullptr;
        }
        av_free(written);
        avformat_free_context(context);
    }
};

// Whether the muxer begins a file of this stream.
bool begins_file(const AVOutputFormat& muxer, const AVCodecParameters& parameters,
                 const AVStream& original) {
    AVFormatContext* made = nullptr;
    if (avformat_alloc_output_context2(&made, &muxer, nullptr, nullptr) < 0) {
        throw std::bad_alloc();
    }
    const std::unique_ptr<AVFormatContext, FreeMuxer> context(made);
    AVStream* stream = avformat_new_stream(made, nullptr);
    if (stream == nullptr || avcodec_parameters_copy(stream->codecpar, &parameters) < 0 ||
        avio_open_dyn_buf(&made->pb) < 0) {
        throw std::bad_alloc();
    }
    stream->codecpar->codec_tag = tag_in(muxer, parameters);
    stream->time_base = original.time_base;
    av_dict_copy(&stream->metadata, original.metadata, 0);
    return avformat_write_header(made, nullptr) >= 0;
}

bool holds_attachment(const AVOutputFormat& muxer) {
    return std::strcmp(muxer.name, "matroska") == 0;
}

bool is_text(AVCodecID codec) {
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(codec);
    return descriptor != nullptr && (descriptor->props & AV_CODEC_PROP_TEXT_SUB) != 0;
}

AVCodecID sound_for(const AVOutputFormat& muxer, int channels) {
    constexpr int STEREO = 2;
    if (is_transport(muxer) || is_quicktime(muxer) || is_one_of(muxer, {"flv"})) {
        return AV_CODEC_ID_AAC;
    }
    if (is_program_stream(muxer) || is_one_of(muxer, {"avi"})) {
        const AVCodecID stereo = is_program_stream(muxer) ? AV_CODEC_ID_MP2 : muxer.audio_codec;
        return channels > STEREO ? AV_CODEC_ID_AC3 : stereo;
    }
    if (is_one_of(muxer, {"webm", "ogg", "ogv"})) {
        return AV_CODEC_ID_OPUS;
    }
    return muxer.audio_codec;
}

AVCodecID subtitles_for(const AVOutputFormat& muxer, AVCodecID original) {
    constexpr AVCodecID TEXT[] = {AV_CODEC_ID_MOV_TEXT, AV_CODEC_ID_SUBRIP, AV_CODEC_ID_WEBVTT,
                                  AV_CODEC_ID_ASS};
    const bool text = is_text(original);
    if (!text && is_transport(muxer)) {
        return AV_CODEC_ID_DVB_SUBTITLE;
    }
    for (const AVCodecID codec : TEXT) {
        if (text && avformat_query_codec(&muxer, codec, FF_COMPLIANCE_NORMAL) == 1) {
            return codec;
        }
    }
    return AV_CODEC_ID_NONE;
}

}  // namespace

bool is_quicktime(const AVOutputFormat& muxer) {
    return is_one_of(muxer, {"mov", "mp4", "3gp", "3g2", "ipod", "psp", "ismv", "f4v"});
}

bool is_transport(const AVOutputFormat& muxer) {
    return is_one_of(muxer, {"mpegts", "hls"});
}

bool holds_sound(const AVOutputFormat& muxer) {
    return muxer.audio_codec != AV_CODEC_ID_NONE && !is_one_of(muxer, {"mxf_opatom"});
}

bool holds_one_sound(const AVOutputFormat& muxer) {
    return is_one_of(muxer, {"flv", "swf"});
}

bool counts_samples(const AVOutputFormat& muxer) {
    return is_one_of(muxer, {"avi"}) || is_material_exchange(muxer);
}

bool holds(const AVOutputFormat& muxer, const AVStream& stream) {
    const AVCodecParameters& parameters = *stream.codecpar;
    const AVCodecID codec = parameters.codec_id;
    switch (parameters.codec_type) {
        case AVMEDIA_TYPE_ATTACHMENT:
            return holds_attachment(muxer);
        case AVMEDIA_TYPE_AUDIO:
            if (!holds_sound(muxer)) {
                return false;
            }
            break;
        case AVMEDIA_TYPE_VIDEO:
            // Covers have a place in the metadata of MP4, which QuickTime does not have.
            if ((stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0 &&
                is_one_of(muxer, {"mov"})) {
                return false;
            }
            break;
        case AVMEDIA_TYPE_SUBTITLE:
        case AVMEDIA_TYPE_DATA:
            break;
        default:
            return false;
    }
    if (is_transport(muxer)) {
        return contains(IN_TRANSPORT, codec);
    }
    if (is_program_stream(muxer)) {
        return contains(IN_PROGRAM_STREAM, codec);
    }
    if (is_material_exchange(muxer)) {
        constexpr int SAMPLE_RATE = 48000;
        return (codec == AV_CODEC_ID_PCM_S16LE || codec == AV_CODEC_ID_PCM_S24LE) &&
               parameters.sample_rate == SAMPLE_RATE;
    }
    // It would count their packets of varying length as if they were alike.
    constexpr AVCodecID NOT_IN_AVI[] = {AV_CODEC_ID_FLAC, AV_CODEC_ID_VORBIS, AV_CODEC_ID_OPUS};
    if (is_one_of(muxer, {"avi"}) && contains(NOT_IN_AVI, codec)) {
        return false;
    }
    // Data has no codec but its tag.
    const bool data = parameters.codec_type == AVMEDIA_TYPE_DATA && codec == AV_CODEC_ID_BIN_DATA;
    if (data && (!is_quicktime(muxer) || parameters.codec_tag != MKTAG('g', 'p', 'm', 'd'))) {
        return false;
    }
    // Matroska also has names for what AVI can hold, QuickTime for data, and do not tell here.
    const bool tells = !data && std::strcmp(muxer.name, "matroska") != 0;
    if (tells && avformat_query_codec(&muxer, codec, FF_COMPLIANCE_NORMAL) == 0) {
        return false;
    }
    return (muxer.flags & AVFMT_NOFILE) != 0 || begins_file(muxer, parameters, stream);
}

unsigned tag_in(const AVOutputFormat& muxer, const AVCodecParameters& parameters) {
    unsigned tag = 0;
    const bool same_meaning =
        muxer.codec_tag == nullptr ||
        av_codec_get_id(muxer.codec_tag, parameters.codec_tag) == parameters.codec_id ||
        av_codec_get_tag2(muxer.codec_tag, parameters.codec_id, &tag) == 0;
    return same_meaning ? parameters.codec_tag : 0;
}

std::string lost_facts(const AVOutputFormat& muxer, const AVFormatContext& recording) {
    const bool chapters =
        is_quicktime(muxer) || is_one_of(muxer, {"matroska", "webm", "nut", "asf", "ogg", "ogv"});
    const bool tags = chapters || is_one_of(muxer, {"flv"});
    const bool phones = is_one_of(muxer, {"3gp", "3g2"});
    const auto has = [&recording](const char* part_of_key) {
        const AVDictionaryEntry* entry = nullptr;
        while ((entry = av_dict_get(recording.metadata, "", entry, AV_DICT_IGNORE_SUFFIX)) !=
               nullptr) {
            if (av_stristr(entry->key, part_of_key) != nullptr) {
                return true;
            }
        }
        return false;
    };
    const std::pair<const char*, bool> facts[] = {
        {"location", !tags && has("location")},
        {"camera", (!tags || phones) && (has("make") || has("model"))},
        {"date", !tags && has("creation")},
        {"chapters", !chapters && recording.nb_chapters > 0}};
    std::string text;
    for (const auto& [word, lost] : facts) {
        if (lost) {
            text += (text.empty() ? "" : ", ") + std::string(word);
        }
    }
    return text;
}

AVCodecID substitute(const AVOutputFormat& muxer, const AVCodecParameters& parameters) {
    switch (parameters.codec_type) {
        case AVMEDIA_TYPE_AUDIO:
            return holds_sound(muxer) ? sound_for(muxer, parameters.ch_layout.nb_channels)
                                      : AV_CODEC_ID_NONE;
        case AVMEDIA_TYPE_SUBTITLE:
            return subtitles_for(muxer, parameters.codec_id);
        default:
            return AV_CODEC_ID_NONE;
    }
}

}  // namespace apps
