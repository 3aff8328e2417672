// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/output/other_streams.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <string>

#include "apps/stabilize_video/output/container_support.h"
#include "common/video_io/byte_io.h"

namespace apps {

namespace {

// "stream 2 (audio, flac)".
std::string name_of(const AVStream& stream) {
    const AVCodecParameters& parameters = *stream.codecpar;
    const char* kind = av_get_media_type_string(parameters.codec_type);
    return "stream " + std::to_string(stream.index) + " (" + (kind == nullptr ? "unknown" : kind) +
           ", " + avcodec_get_name(parameters.codec_id) + ")";
}

// Of a format that is not known, or sound of which no packet was found.
bool is_unknown(const AVCodecParameters& parameters) {
    return parameters.codec_id == AV_CODEC_ID_NONE ||
           (parameters.codec_type == AVMEDIA_TYPE_AUDIO && parameters.sample_rate <= 0);
}

// What the muxer makes again by itself: the track with the chapters' titles, and time codes, which are
// also in the metadata.
bool is_made_again(const AVStream& stream, const AVFormatContext& to) {
    constexpr unsigned TITLES = MKTAG('t', 'e', 'x', 't');
    const unsigned tag = stream.codecpar->codec_tag;
    return tag == MKTAG('t', 'm', 'c', 'd') || (stream.codecpar->codec_id == AV_CODEC_ID_BIN_DATA &&
                                                tag == TITLES && to.nb_chapters > 0);
}

bool begins_late(const AVStream& sound, std::int64_t zero_us) {
    constexpr std::int64_t NOTICED_US = AV_TIME_BASE / 20;
    return sound.start_time != AV_NOPTS_VALUE &&
           av_rescale_q(sound.start_time, sound.time_base, MICROSECONDS) > zero_us + NOTICED_US;
}

void copy_description(const AVStream& from, AVStream& to) {
    to.disposition = from.disposition;
    to.avg_frame_rate = from.avg_frame_rate;
    to.r_frame_rate = from.r_frame_rate;
    to.sample_aspect_ratio = from.sample_aspect_ratio;
    av_dict_copy(&to.metadata, from.metadata, 0);
}

}  // namespace

OtherStreams::OtherStreams(AVFormatContext& to, const MediaSource& original, bool audio,
                           Notes& notes)
    : to_(to), offset_us_(original.format().zero_us), audio_(audio) {
    const AVFormatContext& container = original.container();
    transfers_.resize(container.nb_streams);
    for (unsigned i = 0; i < container.nb_streams; ++i) {
        const AVStream& from = *container.streams[i];
        transfers_[i].unit = from.time_base;
        if (&from != &original.video()) {
            add(from, notes);
        }
    }
}

void OtherStreams::add(const AVStream& from, Notes& notes) {
    const AVCodecParameters& parameters = *from.codecpar;
    const AVOutputFormat& muxer = *to_.oformat;
    const bool sound = parameters.codec_type == AVMEDIA_TYPE_AUDIO;
    if ((sound && !audio_) || is_made_again(from, to_)) {
        return;
    }
    if (is_unknown(parameters)) {
        notes.push_back(name_of(from) + " is left out: " +
                        (sound ? "the input holds nothing of it" : "its format is unknown"));
        return;
    }
    const bool has_sound = std::any_of(transfers_.begin(), transfers_.end(), [](const auto& other) {
        return other.to != nullptr && other.to->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    });
    if (sound && has_sound && holds_one_sound(muxer)) {
        notes.push_back(name_of(from) + " is left out: " + muxer.long_name + " holds one sound");
        return;
    }
    Transfer& transfer = transfers_[static_cast<std::size_t>(from.index)];
    const bool moved = sound && counts_samples(muxer) && begins_late(from, offset_us_);
    const bool copied = !moved && holds(muxer, from);
    if (!copied) {
        const AVCodecID codec = substitute(muxer, parameters);
        if (codec != AV_CODEC_ID_NONE) {
            transfer.transcoder = make_transcoder(from, codec, muxer,
                                                  moved ? std::optional(offset_us_) : std::nullopt);
        }
        if (!transfer.transcoder) {
            if (sound && holds_sound(muxer)) {
                throw video_io::OutputError(name_of(from) + " does not fit into " +
                                            muxer.long_name +
                                            " and cannot be converted; --no-audio leaves it out");
            }
            notes.push_back(name_of(from) + " is left out: " + muxer.long_name + " cannot hold it");
            return;
        }
        const int rate = transfer.transcoder->encoder().sample_rate;
        const bool resampled = codec == parameters.codec_id && rate != parameters.sample_rate;
        notes.push_back(name_of(from) +
                        (resampled
                             ? " is resampled to " + std::to_string(rate) +
                                   " Hz: " + muxer.long_name + " takes no other rate"
                             : std::string(" is converted to ") + avcodec_get_name(codec) + ": " +
                                   muxer.long_name +
                                   (moved ? " cannot tell when it begins" : " cannot hold it")));
    }
    AVStream* to = avformat_new_stream(&to_, nullptr);
    const int described =
        to == nullptr ? AVERROR(ENOMEM)
        : copied      ? avcodec_parameters_copy(to->codecpar, &parameters)
                 : avcodec_parameters_from_context(to->codecpar, &transfer.transcoder->encoder());
    if (described < 0) {
        throw std::bad_alloc();
    }
    if (copied) {
        to->codecpar->codec_tag = tag_in(muxer, parameters);
        for (int i = 0; i < from.nb_side_data; ++i) {
            const AVPacketSideData& data = from.side_data[i];
            add_side_data(*to, data.type, data.data, data.size);
        }
    }
    to->time_base = copied ? from.time_base : transfer.transcoder->encoder().time_base;
    copy_description(from, *to);
    transfer.to = to;
}

// Times of most containers have to increase; of some inputs they do not.
void OtherStreams::write(Transfer& transfer, AVPacket& packet, AVRational unit,
                         const Writer& writer) const {
    const std::int64_t offset = av_rescale_q(offset_us_, MICROSECONDS, unit);
    if (packet.pts != AV_NOPTS_VALUE) {
        packet.pts -= offset;
    }
    if (packet.dts != AV_NOPTS_VALUE) {
        packet.dts -= offset;
    }
    av_packet_rescale_ts(&packet, unit, transfer.to->time_base);
    if (packet.dts == AV_NOPTS_VALUE && packet.pts == AV_NOPTS_VALUE) {
        packet.dts = packet.pts =
            transfer.last ? *transfer.last + std::max<std::int64_t>(packet.duration, 1) : 0;
    }
    if (packet.dts != AV_NOPTS_VALUE) {
        const bool may_repeat = (to_.oformat->flags & AVFMT_TS_NONSTRICT) != 0;
        const std::int64_t least =
            transfer.last ? *transfer.last + (may_repeat ? 0 : 1) : INT64_MIN;
        packet.dts = std::max(packet.dts, least);
        if (packet.pts != AV_NOPTS_VALUE) {
            packet.pts = std::max(packet.pts, packet.dts);
        }
        transfer.last = packet.dts;
    }
    packet.stream_index = transfer.to->index;
    packet.pos = -1;
    writer(packet);
}

void OtherStreams::transfer(const AVPacket& packet, const Writer& writer) {
    const auto index = static_cast<std::size_t>(packet.stream_index);
    // Streams that appear later in the input have no stream in the output.
    if (index >= transfers_.size() || transfers_[index].to == nullptr) {
        return;
    }
    Transfer& transfer = transfers_[index];
    if (!transfer.transcoder) {
        const PacketPtr copy = copy_of(packet);
        write(transfer, *copy, transfer.unit, writer);
        return;
    }
    transfer.transcoder->push(&packet, [&](AVPacket& made) {
        write(transfer, made, transfer.transcoder->encoder().time_base, writer);
    });
}

void OtherStreams::finish(const Writer& writer) {
    for (Transfer& transfer : transfers_) {
        if (transfer.transcoder) {
            transfer.transcoder->push(nullptr, [&](AVPacket& made) {
                write(transfer, made, transfer.transcoder->encoder().time_base, writer);
            });
        }
    }
}

}  // namespace apps
