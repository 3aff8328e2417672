// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/media/video_facts.h"

extern "C" {
#include <libavutil/dovi_meta.h>
}

#include <algorithm>
#include <cstdint>

#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

namespace {

bool has_fields(AVFieldOrder order) {
    return order != AV_FIELD_UNKNOWN && order != AV_FIELD_PROGRESSIVE;
}

// A piece of metadata of a picture, or else of the stream.
const std::uint8_t* side_data(const AVFrame& picture, AVFrameSideDataType type,
                              const AVStream& stream, AVPacketSideDataType stream_type) {
    const AVFrameSideData* of_picture = av_frame_get_side_data(&picture, type);
    return of_picture != nullptr ? of_picture->data
                                 : av_stream_get_side_data(&stream, stream_type, nullptr);
}

// What the pictures do not tell, the container may.
void take_colours(const AVFrame& first, const AVStream& video, PictureFormat& format) {
    const AVCodecParameters& parameters = *video.codecpar;
    const auto either = [](auto of_picture, auto of_container, auto unknown) {
        return of_picture != unknown ? of_picture : of_container;
    };
    if (is_rgb(static_cast<AVPixelFormat>(first.format))) {
        format.range = AVCOL_RANGE_MPEG;
        format.matrix = AVCOL_SPC_BT709;
    } else {
        format.range = either(first.color_range, parameters.color_range, AVCOL_RANGE_UNSPECIFIED);
        format.matrix = either(first.colorspace, parameters.color_space, AVCOL_SPC_UNSPECIFIED);
        // Pictures of DNxHR say BT.709 where they do not know.
        if (parameters.codec_id == AV_CODEC_ID_DNXHD &&
            parameters.color_space != AVCOL_SPC_UNSPECIFIED) {
            format.matrix = parameters.color_space;
        }
    }
    format.primaries =
        either(first.color_primaries, parameters.color_primaries, AVCOL_PRI_UNSPECIFIED);
    format.transfer = either(first.color_trc, parameters.color_trc, AVCOL_TRC_UNSPECIFIED);
    format.chroma_location =
        either(first.chroma_location, parameters.chroma_location, AVCHROMA_LOC_UNSPECIFIED);
}

// Metadata of high dynamic range: what holds for the whole stream is kept.
void take_hdr(const AVFrame& first, const AVStream& video, PictureFormat& format, Notes& notes) {
    const auto* mastering = reinterpret_cast<const AVMasteringDisplayMetadata*>(
        side_data(first, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA, video,
                  AV_PKT_DATA_MASTERING_DISPLAY_METADATA));
    if (mastering != nullptr) {
        format.mastering = *mastering;
    }
    const auto* light = reinterpret_cast<const AVContentLightMetadata*>(side_data(
        first, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL, video, AV_PKT_DATA_CONTENT_LIGHT_LEVEL));
    if (light != nullptr) {
        format.light = *light;
    }
    if (av_frame_get_side_data(&first, AV_FRAME_DATA_DYNAMIC_HDR_PLUS) != nullptr) {
        notes.emplace_back("HDR10+ metadata, which changes from scene to scene, is dropped");
    }
    const auto* dolby = reinterpret_cast<const AVDOVIDecoderConfigurationRecord*>(
        av_stream_get_side_data(&video, AV_PKT_DATA_DOVI_CONF, nullptr));
    if (dolby != nullptr ||
        av_frame_get_side_data(&first, AV_FRAME_DATA_DOVI_RPU_BUFFER) != nullptr) {
        const bool alone = dolby != nullptr && dolby->dv_bl_signal_compatibility_id == 0;
        notes.emplace_back(alone
                               ? "Dolby Vision metadata is dropped; this video has a profile whose "
                                 "colours are wrong without it"
                               : "Dolby Vision metadata is dropped");
    }
}

}  // namespace

AVStream* choose_video(const AVFormatContext& container, std::optional<int> wanted) {
    AVStream* best = nullptr;
    const auto area = [](const AVStream& stream) {
        return std::int64_t{stream.codecpar->width} * stream.codecpar->height;
    };
    for (unsigned i = 0; i < container.nb_streams; ++i) {
        AVStream* stream = container.streams[i];
        const bool still = (stream->disposition &
                            (AV_DISPOSITION_ATTACHED_PIC | AV_DISPOSITION_TIMED_THUMBNAILS)) != 0;
        if (stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO ||
            (wanted ? stream->index != *wanted : still)) {
            continue;
        }
        if (best == nullptr || area(*stream) > area(*best)) {
            best = stream;
        }
    }
    return best;
}

bool is_interlaced(const AVStream& video, const AVFrame& first) {
    return first.interlaced_frame != 0 || has_fields(video.codecpar->field_order);
}

void mark_interlaced(const AVStream& video, AVFrame& picture) {
    const AVFieldOrder order = video.codecpar->field_order;
    const AVCodecDescriptor* codec = avcodec_descriptor_get(video.codecpar->codec_id);
    // Others mix pictures of both kinds, and their decoders know each.
    const bool all_alike = codec != nullptr && (codec->props & AV_CODEC_PROP_INTRA_ONLY) != 0;
    if (all_alike && has_fields(order) && picture.interlaced_frame == 0) {
        picture.interlaced_frame = 1;
        picture.top_field_first = order == AV_FIELD_TT || order == AV_FIELD_BT ? 1 : 0;
    }
}

void take_facts(AVFormatContext& container, AVStream& video, const AVFrame& first,
                PictureFormat& format, Notes& notes) {
    format.codec = video.codecpar->codec_id;
    format.nominal_rate = av_guess_frame_rate(&container, &video, nullptr);
    format.frame_rate = video.avg_frame_rate.num > 0 ? video.avg_frame_rate : format.nominal_rate;
    format.orientation = orientation_of(video);
    take_colours(first, video, format);
    take_hdr(first, video, format, notes);
}

}  // namespace apps
