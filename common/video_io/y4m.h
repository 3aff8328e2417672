// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/video_io/byte_io.h"

// YUV4MPEG2: uncompressed video, a header line, then per picture a line starting with FRAME and the
// planes Y, U, V with packed rows. Here: 4:2:0, 4:2:2, 4:4:4 and grey of 8, 9, 10, 12, 14 and 16
// bits, 4:1:1 and 4:4:4 with a plane of alpha of 8 bits, any size; chroma sizes are rounded up. Samples beyond 8 bits have two bytes, little endian.
// Threads: owner only.

namespace video_io {

// The stream is malformed. what() is a message for the user.
struct Y4mError : InputError {
    using InputError::InputError;
};

// Limits on header values, so that a hostile one cannot exhaust memory.
inline constexpr int Y4M_LARGEST_SIDE = 16384;                          // pixels
inline constexpr std::int64_t Y4M_MOST_PIXELS = std::int64_t{1} << 26;  // per picture
inline constexpr std::size_t Y4M_LONGEST_LINE = 4096;  // bytes, without the newline

enum class Y4mChroma { C420, C422, C444, GREY, C411, C444_ALPHA };

struct Y4mHeader {
    int width = 0;   // pixels
    int height = 0;  // rows
    Y4mChroma chroma = Y4mChroma::C420;
    int bit_depth = 8;
    // The name of chroma format, bit depth and siting, such as 420mpeg2.
    std::string chroma_name;
    // The header line without its newline. A writer copies it, and with it frame rate, interlacing,
    // aspect ratio and comments.
    std::string line;

    int sample_bytes() const { return bit_depth > 8 ? 2 : 1; }
    // 0 x 0 for grey.
    int chroma_width() const {
        switch (chroma) {
            case Y4mChroma::GREY:
                return 0;
            case Y4mChroma::C444:
            case Y4mChroma::C444_ALPHA:
                return width;
            case Y4mChroma::C411:
                return (width + 3) / 4;
            default:
                return (width + 1) / 2;
        }
    }
    int chroma_height() const {
        return is_grey() ? 0 : chroma == Y4mChroma::C420 ? (height + 1) / 2 : height;
    }
    bool is_grey() const { return chroma == Y4mChroma::GREY; }
    bool has_alpha() const { return chroma == Y4mChroma::C444_ALPHA; }
    // Bytes of one picture, without its FRAME line.
    std::int64_t frame_bytes() const {
        return (std::int64_t{width} * height * (has_alpha() ? 2 : 1) +
                2 * std::int64_t{chroma_width()} * chroma_height()) *
               sample_bytes();
    }
};

// Parses a header line, given without its newline. Throws Y4mError.
Y4mHeader parse_y4m_header(const std::string& line);

// The header of a progressive stream of 8-bit 4:2:0 with square pixels and centred chroma.
// rate  frames per second as a ratio, for example "30:1"
Y4mHeader make_y4m_header(int width, int height, const std::string& rate);

// The planes of a picture, of which a grey one has the first, and only one with alpha the last;
// strides in bytes. Does not own the memory.
struct Planes {
    unsigned char* y;
    unsigned char* u;
    unsigned char* v;
    std::ptrdiff_t stride_y;
    std::ptrdiff_t stride_uv;
    unsigned char* alpha = nullptr;
    std::ptrdiff_t stride_alpha = 0;
};

class Y4mReader {
  public:
    // Reads the header. `source` must outlive the reader. Throws Y4mError, InputError.
    explicit Y4mReader(ByteSource& source);

    const Y4mHeader& header() const { return header_; }

    // Reads the next picture into `planes` (header().width x height and its chroma).
    // Returns false at the end of the stream. Throws Y4mError if the picture is cut short or does
    // not begin with a FRAME line, InputError; `planes` may then hold part of a picture.
    bool read_frame(const Planes& planes);

    // What followed FRAME in the line of the last picture read, leading space included; mostly "".
    const std::string& frame_parameters() const { return frame_parameters_; }

    // Complete pictures read so far.
    std::int64_t frames() const { return frames_; }

  private:
    void read_plane(unsigned char* plane, std::ptrdiff_t stride, int row_bytes, int rows,
                    std::int64_t& done);

    ByteSource& source_;
    Y4mHeader header_;
    std::string frame_parameters_;
    std::int64_t frames_ = 0;
};

class Y4mWriter {
  public:
    // Writes the header line. `sink` must outlive the writer. Throws OutputError.
    Y4mWriter(ByteSink& sink, const Y4mHeader& header);

    // Writes one picture. `parameters` as from Y4mReader::frame_parameters.
    void write_frame(const Planes& planes, const std::string& parameters = "");

  private:
    void write_plane(const unsigned char* plane, std::ptrdiff_t stride, int row_bytes, int rows);

    ByteSink& sink_;
    Y4mHeader header_;
};

}  // namespace video_io
