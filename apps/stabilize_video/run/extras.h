// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "apps/stabilize_video/cli/options.h"
#include "apps/stabilize_video/output/media_sink.h"
#include "apps/stabilize_video/results/path_follower.h"
#include "apps/stabilize_video/results/path_plot.h"
#include "apps/stabilize_video/results/preview.h"
#include "apps/stabilize_video/results/report.h"
#include "apps/stabilize_video/results/side_by_side.h"
#include "common/video_io/output_file.h"

namespace apps {

// One of the extras: its file name, and why it failed. Threads: thread-safe.
class Extra {
  public:
    // name  "" if it is not wanted
    explicit Extra(std::string name) : name_(std::move(name)) {}

    bool is_wanted() const { return !name_.empty(); }

    // Runs `work` if it is wanted and nothing has failed before; keeps what it throws.
    template <typename Work>
    void attempt(const Work& work) noexcept {
        if (!is_wanted() || failed_) {
            return;
        }
        try {
            work();
        } catch (...) {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (!failure_) {
                failure_ = std::current_exception();
            }
            failed_ = true;
        }
    }

    // A message for the user; "" if nothing has failed.
    std::string failure() const;

  private:
    std::string name_;
    std::atomic<bool> failed_{false};
    mutable std::mutex mutex_;  // guards failure_
    std::exception_ptr failure_;
};

// The files that are made besides the video: comparison, path, figures and plot. One that fails is
// given up and reported at the end; neither the video nor the others are affected.
//
// Threads: add on the stabilizer's worker, add_shaky on the reading thread, add_steady on the
//          writing thread, at the same time; all else owner only, while none of these runs.
class Extras {
  public:
    // Opens the files that `options` asks for, so that one that cannot be written is reported
    // before the work starts.
    // notes  receives why there is no preview
    // Throws OutputError, ExistsError, UsageError.
    Extras(const Options& options, const PictureFormat& format, const EncoderOptions& encoder,
           const std::atomic<bool>* stop, Notes& notes);

    void add(const FollowedFrame& point) noexcept;
    void add_shaky(const AVFrame& picture) noexcept;
    void add_steady(const AVFrame& picture, const PictureTag& tag) noexcept;

    // The statistics so far, which are gathered in any case.
    const ShakeReport& report() const { return report_; }

    // What the user should know and only shows while pictures are written; "": nothing.
    std::string late_note() const;

    // Completes the files. Returns a message for each that failed.
    std::vector<std::string> finish(const JobFacts& facts);

  private:
    void open_plot(const Options& options, const PictureFormat& format);

    ShakeReport report_;

    Extra compare_;
    std::unique_ptr<SideBySide> comparison_;

    std::unique_ptr<Preview> preview_;  // null: not wanted

    Extra path_;
    std::unique_ptr<video_io::OutputFile> path_file_;
    std::unique_ptr<PathCsv> csv_;

    Extra json_;
    std::unique_ptr<video_io::OutputFile> json_file_;
    PathRecord record_;

    Extra plot_;
    std::string plot_name_;
    std::unique_ptr<video_io::PendingFile> plot_file_;
    std::unique_ptr<PathPlot> drawing_;
};

}  // namespace apps
