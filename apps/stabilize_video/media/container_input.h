// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "common/video_io/byte_io.h"

namespace apps {

// A container that FFmpeg reads, packet by packet. Threads: owner only.
class ContainerInput {
  public:
    struct Options {
        std::string container;  // FFmpeg's name of a demuxer or device; "": detected
        std::vector<std::pair<std::string, std::string>> options;  // for it, by name
        // Once true, reading ends soon. May be null; must outlive the object.
        const std::atomic<bool>* stop = nullptr;
    };

    // Opens a file, a device or a URL, and finds its streams. Throws InputError, UsageError.
    ContainerInput(const std::string& url, const Options& options);
    // The same for an open stream.
    ContainerInput(std::unique_ptr<video_io::FdSource> stream, const Options& options);
    ContainerInput(const ContainerInput&) = delete;
    ContainerInput& operator=(const ContainerInput&) = delete;

    AVFormatContext& context() const { return *context_; }
    const std::string& name() const { return name_; }
    bool has_name() const { return !stream_; }
    bool is_live() const { return live_; }  // a pipe or a device
    bool seekable() const;
    bool is_broadcast() const;  // its clock may jump

    // The next packet; false at the end, whatever the reason. Throws InputError.
    bool read(AVPacket& packet);
    // Why it ended early; "" if it did not.
    const std::string& failure() const { return failure_; }
    // Throws what ended the open stream, if anything did.
    void rethrow_failure() const;
    // A message for the user, after no picture was found.
    std::string why_empty() const;

  private:
    void open(const std::string& url, const Options& options);
    void open_once(const std::string& url, const Options& options, bool farther);
    AvioPtr make_stream_io();
    bool has_unknown_sound() const;

    std::string name_;
    std::unique_ptr<video_io::FdSource> stream_;  // null: FFmpeg opens the input itself
    std::exception_ptr stream_failure_;
    const std::atomic<bool>* stop_;
    AvioPtr io_;  // of `stream_`; used by context_ until that is closed
    DemuxerPtr context_;
    bool live_ = false;
    std::string failure_;
};

}  // namespace apps
