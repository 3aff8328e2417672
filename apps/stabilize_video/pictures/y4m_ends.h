// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/stabilize_video/pictures/picture_pool.h"
#include "apps/stabilize_video/pictures/picture_stream.h"
#include "common/video_io/output_file.h"
#include "common/video_io/y4m.h"

// YUV4MPEG2 as input and output of the program.

namespace apps {

class Y4mSource : public PictureSource {
  public:
    // Reads the header. Throws InputError, Y4mError.
    explicit Y4mSource(std::unique_ptr<video_io::FdSource> stream);

    const PictureFormat& format() const override { return format_; }
    const std::string& header_line() const { return reader_.header().line; }
    AvFramePtr read(PictureTag& tag) override;
    std::int64_t expected_pictures() const override;

    // Whether the stream begins with a YUV4MPEG2 header, unless FFmpeg has to deinterlace the pictures.
    // Consumes nothing.
    static bool recognises(video_io::FdSource& stream, bool deinterlace);

  private:
    std::unique_ptr<video_io::FdSource> stream_;
    video_io::Y4mReader reader_;
    PictureFormat format_;
    PicturePool pool_;
};

class Y4mSink : public PictureSink {
  public:
    // format       its pixel format is planar, with alpha only in 4:4:4 of 8 bits
    // header_line  of the input, to be copied; "": made from the format
    // Throws OutputError, ExistsError.
    Y4mSink(const std::string& path, const PictureFormat& format, const std::string& header_line,
            video_io::Existing existing, const std::atomic<bool>* stop);

    void write(const AVFrame& picture, const PictureTag& tag) override;
    std::string late_note() const override;
    void finish() override { file_.sink().flush(); }

    void commit() override { file_.commit(); }
    std::string keep_partial() override { return file_.keep_partial(); }

  private:
    video_io::OutputFile file_;
    video_io::Y4mWriter writer_;
    double ticks_per_picture_;
    std::optional<std::int64_t> first_time_;
    std::int64_t pictures_ = 0;
    bool varies_ = false;  // the time between pictures
    bool had_captions_ = false;
};

}  // namespace apps
