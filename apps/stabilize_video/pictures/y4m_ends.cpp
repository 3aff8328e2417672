// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/pictures/y4m_ends.h"

#include <cstdio>
#include <utility>

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

PictureFormat format_of(const video_io::Y4mHeader& header) {
    PictureFormat format;
    format.width = header.width;
    format.height = header.height;
    format.frame_rate = ratio_of(header.line, 'F', UNKNOWN_RATE);
    format.nominal_rate = format.frame_rate;
    format.time_base = av_inv_q(format.frame_rate);
    format.pixel_aspect = ratio_of(header.line, 'A', AVRational{0, 1});
    if (header.line.find("XCOLORRANGE=FULL") != std::string::npos) {
        format.range = AVCOL_RANGE_JPEG;
    }
    return format;
}

video_io::Y4mHeader header_of(const PictureFormat& format, const std::string& line) {
    const AVRational rate = format.frame_rate.num > 0 ? format.frame_rate : UNKNOWN_RATE;
    video_io::Y4mHeader header = video_io::make_y4m_header(
        format.width, format.height, std::to_string(rate.num) + ":" + std::to_string(rate.den));
    if (!line.empty()) {
        header.line = line;
        return header;
    }
    const AVRational aspect = format.pixel_aspect;
    const bool left = format.chroma_location == AVCHROMA_LOC_LEFT;
    header.line = header.line.substr(0, header.line.find(" Ip")) + " Ip A" +
                  std::to_string(aspect.num) + ":" +
                  std::to_string(aspect.num == 0 ? 0 : aspect.den) +
                  (left ? " C420mpeg2" : " C420jpeg");
    if (format.range == AVCOL_RANGE_JPEG) {
        header.line += " XCOLORRANGE=FULL";
    }
    return header;
}

}  // namespace

Y4mSource::Y4mSource(std::unique_ptr<video_io::FdSource> stream)
    : stream_(std::move(stream)), reader_(*stream_), format_(format_of(reader_.header())) {}

bool Y4mSource::read(const video_io::Planes& to, PictureTag& tag) {
    if (!reader_.read_frame(to)) {
        return false;
    }
    tag.time = reader_.frames() - 1;
    tag.duration = 1;
    tag.parameters = reader_.frame_parameters();
    return true;
}

std::int64_t Y4mSource::expected_pictures() const {
    constexpr std::int64_t FRAME_LINE_BYTES = 6;
    const video_io::Y4mHeader& header = reader_.header();
    const auto line_bytes = static_cast<std::int64_t>(header.line.size()) + 1;
    const long long size = stream_->file_size();
    return size < 0 ? -1 : (size - line_bytes) / (header.frame_bytes() + FRAME_LINE_BYTES);
}

bool Y4mSource::recognises(video_io::FdSource& stream) {
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
    try {
        video_io::parse_y4m_header(std::string(start.substr(0, start.find('\n'))));
    } catch (const video_io::Y4mChromaError&) {
        return false;
    } catch (const video_io::Y4mError&) {  // the reader reports it
    }
    return true;
}

Y4mSink::Y4mSink(const std::string& path, const PictureFormat& format,
                 const std::string& header_line, video_io::Existing existing,
                 const std::atomic<bool>* stop)
    : file_(path, stop, existing), writer_(file_.sink(), header_of(format, header_line)) {}

void Y4mSink::write(const video_io::Planes& picture, const PictureTag& tag) {
    writer_.write_frame(picture, tag.parameters);
}

}  // namespace apps
