#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "apps/output_file.h"
#include "apps/stabilize_video/video_io.h"

// YUV4MPEG2 at either end of the program.

namespace apps {

class Y4mSource : public PictureSource {
  public:
    // Reads the header. Throws InputError, Y4mError.
    explicit Y4mSource(std::unique_ptr<FdSource> stream);

    const PictureFormat& format() const override { return format_; }
    const std::string& header_line() const { return reader_.header().line; }
    bool read(const Planes& to, PictureTag& tag) override;
    std::int64_t expected_pictures() const override;

    // Whether the stream begins with the header of a YUV4MPEG2 stream that can be read here: 8-bit
    // 4:2:0. Nothing is taken from it.
    static bool recognises(FdSource& stream);

  private:
    std::unique_ptr<FdSource> stream_;
    Y4mReader reader_;
    PictureFormat format_;
};

class Y4mSink : public PictureSink {
  public:
    // header_line  of the stream that the pictures come from, to be repeated; "": made from the
    //              format. Throws OutputError, ExistsError.
    Y4mSink(const std::string& path, const PictureFormat& format, const std::string& header_line,
            Existing existing, const std::atomic<bool>* stop);

    void write(const Planes& picture, const PictureTag& tag) override;
    void finish() override { file_.sink().flush(); }

    void commit() { file_.commit(); }
    std::string keep_partial() { return file_.keep_partial(); }

  private:
    OutputFile file_;
    Y4mWriter writer_;
};

}  // namespace apps
