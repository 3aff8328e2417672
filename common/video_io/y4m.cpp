// SPDX-License-Identifier: Apache-2.0

#include "common/video_io/y4m.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>

namespace video_io {

namespace {

constexpr std::string_view STREAM_MAGIC = "YUV4MPEG2";
constexpr std::string_view FRAME_MAGIC = "FRAME";

// Names of chroma formats. Those that end in jpeg, mpeg2 or paldv also tell the siting.
struct ChromaName {
    Y4mChroma chroma;
    std::string_view name;  // of 8 bits
    std::string_view deep;  // of others, up to the bit depth; "": there are none
};
constexpr ChromaName CHROMA_NAMES[] = {
    {Y4mChroma::C420, "420", "420p"},        {Y4mChroma::C422, "422", "422p"},
    {Y4mChroma::C444, "444", "444p"},        {Y4mChroma::GREY, "mono", "mono"},
    {Y4mChroma::C420, "420jpeg", ""},        {Y4mChroma::C420, "420mpeg2", ""},
    {Y4mChroma::C420, "420paldv", ""},       {Y4mChroma::C411, "411", ""},
    {Y4mChroma::C444_ALPHA, "444alpha", ""},
};
constexpr int BEYOND_8_BITS[] = {9, 10, 12, 14, 16};

enum class LineEnd { NEWLINE, END_OF_STREAM, TOO_LONG };

LineEnd read_line(ByteSource& source, std::string& line) {
    line.clear();
    for (;;) {
        unsigned char byte = 0;
        if (source.read(&byte, 1) == 0) {
            return LineEnd::END_OF_STREAM;
        }
        if (byte == '\n') {
            return LineEnd::NEWLINE;
        }
        if (line.size() == Y4M_LONGEST_LINE) {
            return LineEnd::TOO_LONG;
        }
        line.push_back(static_cast<char>(byte));
    }
}

// Text of the stream for an error message: shortened, unprintable characters replaced.
std::string quoted(std::string_view text) {
    constexpr std::size_t LONGEST = 40;
    std::string shown = "'";
    for (const char c : text.substr(0, LONGEST)) {
        const bool printable = std::isprint(static_cast<unsigned char>(c)) != 0;
        shown += printable ? c : '?';
    }
    return shown + (text.size() > LONGEST ? "...'" : "'");
}

int parse_side(std::string_view text, const char* name) {
    int value = 0;
    bool valid = !text.empty();
    for (const char c : text) {
        valid = valid && c >= '0' && c <= '9';
        if (!valid) {
            break;
        }
        // Clamped so that it cannot overflow.
        value = std::min(value * 10 + (c - '0'), Y4M_LARGEST_SIDE + 1);
    }
    if (!valid) {
        throw Y4mError(std::string("the header gives the ") + name + " as " + quoted(text));
    }
    if (value < 1 || value > Y4M_LARGEST_SIDE) {
        throw Y4mError(std::string("the ") + name + " " + quoted(text) + " is not in 1 to " +
                       std::to_string(Y4M_LARGEST_SIDE));
    }
    return value;
}

// Sets the fields that the name of the chroma format tells.
void read_chroma(const std::string& name, Y4mHeader& header) {
    header.chroma_name = name;
    for (const ChromaName& known : CHROMA_NAMES) {
        header.chroma = known.chroma;
        header.bit_depth = 8;
        if (name == known.name) {
            return;
        }
        for (const int depth : BEYOND_8_BITS) {
            header.bit_depth = depth;
            if (!known.deep.empty() && name == std::string(known.deep) + std::to_string(depth)) {
                return;
            }
        }
    }
    throw Y4mError(
        "the chroma format is " + quoted(name) +
        ", but only 420, 422, 444 and mono of 8 to 16 bits, 411 and 444alpha are handled");
}

bool starts_with(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

// Some writers name the chroma format only in this comment, in capitals.
constexpr std::string_view CHROMA_COMMENT = "XYSCSS=";

}  // namespace

Y4mHeader parse_y4m_header(const std::string& line) {
    Y4mHeader header;
    header.line = line;
    std::string chroma;
    std::string chroma_comment;
    std::string_view rest = std::string_view(line).substr(STREAM_MAGIC.size());
    while (!rest.empty()) {
        rest.remove_prefix(1);  // the space
        const std::string_view parameter = rest.substr(0, rest.find(' '));
        rest.remove_prefix(parameter.size());
        if (parameter.empty()) {
            continue;
        }
        const std::string_view value = parameter.substr(1);
        if (parameter[0] == 'W') {
            header.width = parse_side(value, "width");
        }
        if (parameter[0] == 'H') {
            header.height = parse_side(value, "height");
        }
        if (parameter[0] == 'C') {
            chroma = value;
        }
        if (starts_with(parameter, CHROMA_COMMENT)) {
            chroma_comment = parameter.substr(CHROMA_COMMENT.size());
            for (char& c : chroma_comment) {
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
        }
    }
    if (header.width == 0) {
        throw Y4mError("the header gives no width");
    }
    if (header.height == 0) {
        throw Y4mError("the header gives no height");
    }
    if (std::int64_t{header.width} * header.height > Y4M_MOST_PIXELS) {
        throw Y4mError("pictures of " + std::to_string(header.width) + " x " +
                       std::to_string(header.height) + " pixels are too large");
    }
    if (chroma.empty()) {
        chroma = chroma_comment.empty() ? "420" : chroma_comment;
    }
    read_chroma(chroma, header);
    return header;
}

Y4mHeader make_y4m_header(int width, int height, const std::string& rate) {
    return parse_y4m_header(std::string(STREAM_MAGIC) + " W" + std::to_string(width) + " H" +
                            std::to_string(height) + " F" + rate + " Ip A1:1 C420jpeg");
}

Y4mReader::Y4mReader(ByteSource& source) : source_(source) {
    // Checked before the line is read: another kind of file may have no line ends.
    std::string start(STREAM_MAGIC.size(), '\0');
    start.resize(source.read(reinterpret_cast<unsigned char*>(start.data()), start.size()));
    if (start.empty()) {
        throw Y4mError("the input is empty");
    }
    std::string line;
    LineEnd end = LineEnd::NEWLINE;
    if (start == STREAM_MAGIC) {
        end = read_line(source, line);
        if (end == LineEnd::TOO_LONG) {
            throw Y4mError("the header line is longer than " + std::to_string(Y4M_LONGEST_LINE) +
                           " bytes");
        }
    }
    if (start != STREAM_MAGIC || (!line.empty() && line[0] != ' ')) {
        throw Y4mError("the input is not YUV4MPEG2: it begins with " + quoted(start + line));
    }
    if (end == LineEnd::END_OF_STREAM) {
        throw Y4mError("the header line is cut short");
    }
    header_ = parse_y4m_header(start + line);
}

void Y4mReader::read_plane(unsigned char* plane, std::ptrdiff_t stride, int row_bytes, int rows,
                           std::int64_t& done) {
    const bool packed = stride == row_bytes;
    const std::size_t piece =
        packed ? static_cast<std::size_t>(row_bytes) * static_cast<std::size_t>(rows)
               : static_cast<std::size_t>(row_bytes);
    for (int row = 0; row < (packed ? 1 : rows); ++row) {
        const std::size_t got = source_.read(plane + row * stride, piece);
        done += static_cast<std::int64_t>(got);
        if (got < piece) {
            throw Y4mError("frame " + std::to_string(frames_) +
                           " is cut short: " + std::to_string(done) + " of " +
                           std::to_string(header_.frame_bytes()) + " bytes");
        }
    }
}

bool Y4mReader::read_frame(const Planes& planes) {
    std::string line;
    const LineEnd end = read_line(source_, line);
    if (end == LineEnd::END_OF_STREAM && line.empty()) {
        return false;
    }
    const std::string here = "frame " + std::to_string(frames_);
    const bool has_magic = starts_with(line, FRAME_MAGIC) &&
                           (line.size() == FRAME_MAGIC.size() || line[FRAME_MAGIC.size()] == ' ');
    if (end == LineEnd::END_OF_STREAM && (has_magic || starts_with(FRAME_MAGIC, line))) {
        throw Y4mError(here + " is cut short: its FRAME line is not complete");
    }
    if (!has_magic) {
        throw Y4mError(here + " begins with " + quoted(line) + " instead of FRAME");
    }
    if (end == LineEnd::TOO_LONG) {
        throw Y4mError(here + ": the FRAME line is longer than " +
                       std::to_string(Y4M_LONGEST_LINE) + " bytes");
    }

    std::int64_t done = 0;
    const int bytes = header_.sample_bytes();
    read_plane(planes.y, planes.stride_y, header_.width * bytes, header_.height, done);
    for (unsigned char* plane : {planes.u, planes.v}) {
        if (!header_.is_grey()) {
            read_plane(plane, planes.stride_uv, header_.chroma_width() * bytes,
                       header_.chroma_height(), done);
        }
    }
    if (header_.has_alpha()) {
        read_plane(planes.alpha, planes.stride_alpha, header_.width * bytes, header_.height, done);
    }
    frame_parameters_ = line.substr(FRAME_MAGIC.size());
    ++frames_;
    return true;
}

Y4mWriter::Y4mWriter(ByteSink& sink, const Y4mHeader& header) : sink_(sink), header_(header) {
    const std::string line = header.line + '\n';
    sink_.write(reinterpret_cast<const unsigned char*>(line.data()), line.size());
}

void Y4mWriter::write_plane(const unsigned char* plane, std::ptrdiff_t stride, int row_bytes,
                            int rows) {
    for (int row = 0; row < rows; ++row) {
        sink_.write(plane + row * stride, static_cast<std::size_t>(row_bytes));
    }
}

void Y4mWriter::write_frame(const Planes& planes, const std::string& parameters) {
    const std::string line = std::string(FRAME_MAGIC) + parameters + '\n';
    sink_.write(reinterpret_cast<const unsigned char*>(line.data()), line.size());
    const int bytes = header_.sample_bytes();
    write_plane(planes.y, planes.stride_y, header_.width * bytes, header_.height);
    for (const unsigned char* plane : {planes.u, planes.v}) {
        if (!header_.is_grey()) {
            write_plane(plane, planes.stride_uv, header_.chroma_width() * bytes,
                        header_.chroma_height());
        }
    }
    if (header_.has_alpha()) {
        write_plane(planes.alpha, planes.stride_alpha, header_.width * bytes, header_.height);
    }
}

}  // namespace video_io
