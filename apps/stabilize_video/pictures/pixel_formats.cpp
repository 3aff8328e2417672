// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/pictures/pixel_formats.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace apps {

namespace vs = videostabilizer;

namespace {

constexpr std::pair<AVPixelFormat, AVPixelFormat> WITH_RANGE[] = {
    {AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV420P}, {AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUV422P},
    {AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUV444P}, {AV_PIX_FMT_YUVJ440P, AV_PIX_FMT_YUV440P},
    {AV_PIX_FMT_YUVJ411P, AV_PIX_FMT_YUV411P},
};

const AVPixFmtDescriptor& descriptor_of(AVPixelFormat format) {
    static constexpr AVPixFmtDescriptor NONE{};
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    return descriptor != nullptr ? *descriptor : NONE;
}

bool has_flag(AVPixelFormat format, std::uint64_t flag) {
    return (descriptor_of(format).flags & flag) != 0;
}

// Whether all samples are alike, of 8 bits or of 9 to 16 in two bytes, with none between those of a
// row but the other of a chroma pair.
bool has_plain_samples(const AVPixFmtDescriptor& descriptor) {
    const AVComponentDescriptor& luma = descriptor.comp[0];
    const int bytes = luma.depth > 8 ? 2 : 1;
    for (int i = 0; i < descriptor.nb_components; ++i) {
        const AVComponentDescriptor& c = descriptor.comp[i];
        const bool paired = descriptor.nb_components == 3 && i > 0 &&
                            descriptor.comp[1].plane == descriptor.comp[2].plane;
        if (c.depth != luma.depth || c.shift != luma.shift ||
            c.step != (paired ? 2 * bytes : bytes)) {
            return false;
        }
    }
    return luma.depth >= 8 && luma.depth <= 16 &&
           (luma.shift == 0 || luma.shift + luma.depth == 16);
}

vs::ChromaSiting siting_of(AVChromaLocation location) {
    switch (location) {
        case AVCHROMA_LOC_CENTER:
            return vs::CHROMA_SITING_CENTRE;
        case AVCHROMA_LOC_TOPLEFT:
            return vs::CHROMA_SITING_TOP_LEFT;
        case AVCHROMA_LOC_TOP:
            return vs::CHROMA_SITING_TOP;
        case AVCHROMA_LOC_BOTTOMLEFT:
            return vs::CHROMA_SITING_BOTTOM_LEFT;
        case AVCHROMA_LOC_BOTTOM:
            return vs::CHROMA_SITING_BOTTOM;
        default:
            return vs::CHROMA_SITING_LEFT;
    }
}

}  // namespace

AVPixelFormat without_range(AVPixelFormat format) {
    for (const auto& [with, without] : WITH_RANGE) {
        if (format == with) {
            return without;
        }
    }
    return format;
}

AVPixelFormat with_full_range(AVPixelFormat format) {
    for (const auto& [with, without] : WITH_RANGE) {
        if (without == format) {
            return with;
        }
    }
    return format;
}

std::optional<vs::PixelLayout> layout_of(AVPixelFormat format, AVChromaLocation location) {
    constexpr std::uint64_t OTHER = AV_PIX_FMT_FLAG_BE | AV_PIX_FMT_FLAG_PAL |
                                    AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_HWACCEL |
                                    AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_BAYER |
                                    AV_PIX_FMT_FLAG_FLOAT;
    const AVPixFmtDescriptor& d = descriptor_of(format);
    if (has_flag(format, OTHER) || !has_plain_samples(d)) {
        return std::nullopt;
    }
    const bool grey = d.nb_components == 1;
    const bool alpha = d.nb_components == 4 && d.comp[2].plane == 2 && d.comp[3].plane == 3;
    const bool planes =
        (d.nb_components == 3 || alpha) && d.comp[0].plane == 0 && d.comp[1].plane == 1;
    const bool known_chroma =
        (d.log2_chroma_w <= 1 && d.log2_chroma_h <= 1 && d.log2_chroma_w >= d.log2_chroma_h) ||
        (d.log2_chroma_w == 2 && d.log2_chroma_h == 0);
    if (!grey && !(planes && known_chroma)) {
        return std::nullopt;
    }
    vs::PixelLayout layout{};
    layout.chroma = chroma_of(format);
    layout.siting = siting_of(location);
    layout.bit_depth = d.comp[0].depth;
    layout.semi_planar = !grey && d.comp[1].plane == d.comp[2].plane ? 1 : 0;
    layout.high_bits = d.comp[0].shift > 0 ? 1 : 0;
    layout.alpha = alpha ? 1 : 0;
    return layout;
}

AVPixelFormat planar_format(vs::ChromaFormat chroma, int bit_depth, bool alpha) {
    constexpr const char* STARTS[] = {"420p", "422p", "444p", "gray", "411p"};
    std::string name = STARTS[chroma];
    if (chroma != vs::CHROMA_NONE) {
        name.insert(0, alpha ? "yuva" : "yuv");
    }
    if (bit_depth > 8) {
        name += std::to_string(bit_depth) + "le";
    }
    return av_get_pix_fmt(name.c_str());
}

AVPixelFormat planar_format_for(AVPixelFormat format) {
    constexpr int DEEPEST = 16;
    const vs::ChromaFormat chroma = chroma_of(format);
    for (int depth = std::clamp(bit_depth_of(format), 8, DEEPEST); depth < DEEPEST; ++depth) {
        const AVPixelFormat planar = planar_format(chroma, depth);
        if (planar != AV_PIX_FMT_NONE) {
            return planar;
        }
    }
    return planar_format(chroma, DEEPEST);
}

vs::PicturePlanes planes_of(const AVFrame& picture) {
    vs::PicturePlanes planes{};
    for (int i = 0; i < 3; ++i) {
        planes.data[i] = picture.data[i];
        planes.stride[i] = picture.linesize[i];
    }
    planes.alpha = picture.data[3];
    planes.alpha_stride = picture.linesize[3];
    return planes;
}

std::string name_of(AVPixelFormat format) {
    const char* name = av_get_pix_fmt_name(format);
    return name != nullptr ? name : "unknown";
}

bool is_rgb(AVPixelFormat format) {
    return has_flag(format, AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL);
}

bool has_alpha(AVPixelFormat format) {
    return has_flag(format, AV_PIX_FMT_FLAG_ALPHA);
}

int bit_depth_of(AVPixelFormat format) {
    const AVPixFmtDescriptor& d = descriptor_of(format);
    int depth = 0;
    for (int i = 0; i < d.nb_components; ++i) {
        depth = std::max(depth, d.comp[i].depth);
    }
    return depth;
}

vs::ChromaFormat chroma_of(AVPixelFormat format) {
    const AVPixFmtDescriptor& d = descriptor_of(format);
    if (is_rgb(format)) {
        return vs::CHROMA_444;
    }
    if (d.nb_components < 3) {
        return vs::CHROMA_NONE;
    }
    if (d.log2_chroma_w == 0) {
        return vs::CHROMA_444;
    }
    if (d.log2_chroma_w == 2 && d.log2_chroma_h == 0) {
        return vs::CHROMA_411;
    }
    return d.log2_chroma_h == 0 ? vs::CHROMA_422 : vs::CHROMA_420;
}

}  // namespace apps
