// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/pictures/y4m_ends.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <utility>

#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

namespace {

constexpr AVRational UNKNOWN_RATE{25, 1};  // as players assume

// The value of a parameter such as F30:1 in a header line; `otherwise` if it is missing.
AVRational ratio_of(const std::string& line, char parameter, AVRational otherwise) {
    const std::size_t at = line.find(std::string(" ") + parameter);
    AVRational value{};
    if (at == std::string::npos) {
        return otherwise;
    }
    if (std::sscanf(line.c_str() + at + 2, "%d:%d", &value.num, &value.den) != 2) {
        return otherwise;
    }
    return value.num > 0 && value.den > 0 ? value : otherwise;
}

// How YUV4MPEG2 names the siting of 8-bit 4:2:0.
constexpr std::pair<const char*, AVChromaLocation> SITINGS[] = {
    {"420", AVCHROMA_LOC_CENTER},
    {"420jpeg", AVCHROMA_LOC_CENTER},
    {"420mpeg2", AVCHROMA_LOC_LEFT},
    {"420paldv", AVCHROMA_LOC_TOPLEFT},
};

AVPixelFormat pixel_format_of(const video_io::Y4mHeader& header) {
    if (header.has_alpha()) {
        return planar_format(videostabilizer::CHROMA_444, header.bit_depth, true);
    }
    constexpr std::pair<video_io::Y4mChroma, videostabilizer::ChromaFormat> CHROMAS[] = {
        {video_io::Y4mChroma::C420, videostabilizer::CHROMA_420},
        {video_io::Y4mChroma::C422, videostabilizer::CHROMA_422},
        {video_io::Y4mChroma::C444, videostabilizer::CHROMA_444},
        {video_io::Y4mChroma::GREY, videostabilizer::CHROMA_NONE},
        {video_io::Y4mChroma::C411, videostabilizer::CHROMA_411},
    };
    for (const auto& [theirs, ours] : CHROMAS) {
        if (header.chroma == theirs) {
            return planar_format(ours, header.bit_depth);
        }
    }
    return AV_PIX_FMT_NONE;
}

// The name of chroma format, bit depth and siting.
std::string chroma_name(const PictureFormat& format) {
    constexpr const char* NAMES[] = {"420", "422", "444", "mono", "411"};
    const int depth = bit_depth_of(format.pixel_format);
    const videostabilizer::ChromaFormat chroma = chroma_of(format.pixel_format);
    if (has_alpha(format.pixel_format)) {
        return "444alpha";
    }
    if (depth == 8 && chroma == videostabilizer::CHROMA_420) {
        switch (format.chroma_location) {
            case AVCHROMA_LOC_CENTER:
                return "420jpeg";
            case AVCHROMA_LOC_TOPLEFT:
                return "420paldv";
            default:
                return "420mpeg2";
        }
    }
    const bool grey = chroma == videostabilizer::CHROMA_NONE;
    const std::string beyond_8 = (grey ? "" : "p") + std::to_string(depth);
    return NAMES[chroma] + (depth == 8 ? "" : beyond_8);
}

PictureFormat format_of(const video_io::Y4mHeader& header) {
    PictureFormat format;
    format.width = header.width;
    format.height = header.height;
    format.pixel_format = pixel_format_of(header);
    format.frame_rate = ratio_of(header.line, 'F', UNKNOWN_RATE);
    format.nominal_rate = format.frame_rate;
    format.time_base = av_inv_q(format.frame_rate);
    format.pixel_aspect = ratio_of(header.line, 'A', AVRational{0, 1});
    if (header.line.find("XCOLORRANGE=FULL") != std::string::npos) {
        format.range = AVCOL_RANGE_JPEG;
    } else if (header.line.find("XCOLORRANGE=LIMITED") != std::string::npos) {
        format.range = AVCOL_RANGE_MPEG;
    }
    for (const auto& [name, location] : SITINGS) {
        if (header.chroma_name == name) {
            format.chroma_location = location;
        }
    }
    return format;
}

video_io::Y4mHeader header_of(const PictureFormat& format, const std::string& line) {
    if (!line.empty()) {
        return video_io::parse_y4m_header(line);
    }
    const auto text = [](AVRational ratio) {
        return std::to_string(ratio.num) + ":" + std::to_string(ratio.num == 0 ? 0 : ratio.den);
    };
    const std::string chroma = chroma_name(format);
    std::string made = "YUV4MPEG2 W" + std::to_string(format.width) + " H" +
                       std::to_string(format.height) + " F" +
                       text(format.frame_rate.num > 0 ? format.frame_rate : UNKNOWN_RATE) +
                       " Ip A" + text(format.pixel_aspect) + " C" + chroma;
    if (chroma_of(format.pixel_format) != videostabilizer::CHROMA_NONE) {
        std::string capitals = chroma;
        std::transform(capitals.begin(), capitals.end(), capitals.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        made += " XYSCSS=" + capitals;
    }
    if (format.range == AVCOL_RANGE_JPEG || format.range == AVCOL_RANGE_MPEG) {
        made += format.range == AVCOL_RANGE_JPEG ? " XCOLORRANGE=FULL" : " XCOLORRANGE=LIMITED";
    }
    return video_io::parse_y4m_header(made);
}

video_io::Planes y4m_planes(const AVFrame& picture) {
    return {picture.data[0],     picture.data[1], picture.data[2],    picture.linesize[0],
            picture.linesize[1], picture.data[3], picture.linesize[3]};
}

}  // namespace

Y4mSource::Y4mSource(std::unique_ptr<video_io::FdSource> stream)
    : stream_(std::move(stream)),
      reader_(*stream_),
      format_(format_of(reader_.header())),
      pool_(format_.pixel_format, format_.width, format_.height) {}

AvFramePtr Y4mSource::read(PictureTag& tag) {
    AvFramePtr picture = pool_.take();
    if (!reader_.read_frame(y4m_planes(*picture))) {
        return nullptr;
    }
    tag.time = reader_.frames() - 1;
    tag.duration = 1;
    tag.parameters = reader_.frame_parameters();
    return picture;
}

std::int64_t Y4mSource::expected_pictures() const {
    constexpr std::int64_t FRAME_LINE_BYTES = 6;
    const video_io::Y4mHeader& header = reader_.header();
    const auto line_bytes = static_cast<std::int64_t>(header.line.size()) + 1;
    const long long size = stream_->file_size();
    return size < 0 ? -1 : (size - line_bytes) / (header.frame_bytes() + FRAME_LINE_BYTES);
}

bool Y4mSource::recognises(video_io::FdSource& stream, bool deinterlace) {
    constexpr std::string_view MAGIC = "YUV4MPEG2";
    if (stream.peek(MAGIC.size()) != MAGIC) {
        return false;
    }
    // Byte by byte: a live stream may stop after its header.
    std::size_t size = MAGIC.size();
    std::string_view start;
    do {
        start = stream.peek(++size);
    } while (start.size() == size && start.back() != '\n' && size <= video_io::Y4M_LONGEST_LINE);
    const bool fields =
        start.find(" It") != std::string_view::npos || start.find(" Ib") != std::string_view::npos;
    return !(deinterlace && fields);
}

Y4mSink::Y4mSink(const std::string& path, const PictureFormat& format,
                 const std::string& header_line, video_io::Existing existing,
                 const std::atomic<bool>* stop)
    : file_(path, stop, existing),
      writer_(file_.sink(), header_of(format, header_line)),
      ticks_per_picture_(av_q2d(av_inv_q(av_mul_q(
          format.frame_rate.num > 0 ? format.frame_rate : UNKNOWN_RATE, format.time_base)))) {}

void Y4mSink::write(const AVFrame& picture, const PictureTag& tag) {
    if (!first_time_) {
        first_time_ = tag.time;
    }
    const double expected = static_cast<double>(pictures_) * ticks_per_picture_;
    const double offset = static_cast<double>(tag.time - *first_time_) - expected;
    varies_ = varies_ || std::abs(offset) > ticks_per_picture_ / 2;
    had_captions_ = had_captions_ || tag.captions;
    ++pictures_;
    writer_.write_frame(y4m_planes(picture), tag.parameters);
}

std::string Y4mSink::late_note() const {
    const std::string captions = had_captions_ ? "closed captions are dropped" : "";
    return varies_ ? "the time between pictures varies, which YUV4MPEG2 cannot tell" +
                         (captions.empty() ? "" : "; " + captions)
                   : captions;
}

}  // namespace apps
