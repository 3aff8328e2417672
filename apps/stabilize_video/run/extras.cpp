// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/run/extras.h"

#include <cstdio>
#include <filesystem>
#include <new>

namespace apps {

namespace {

// What was done and how well, in a line for the plot.
std::string summary(const JobFacts& facts, const ShakeReport& report) {
    char text[256];
    std::snprintf(text, sizeof text, "%s, delay %d frames", facts.strength.c_str(),
                  facts.options.look_ahead);
    std::string result = text;
    const AVRational rate = facts.format.frame_rate;
    if (rate.num > 0) {
        std::snprintf(text, sizeof text, " (%.0f ms)",
                      1000 * facts.options.look_ahead / av_q2d(rate));
        result += text;
    }
    result += "; " + report.shake_text();
    if (facts.options.edge_guard != 0 && facts.frames > 0) {
        std::snprintf(
            text, sizeof text, "; edge guard in %.0f %% of frames, granting %.0f %%",
            100 * static_cast<double>(report.guarded()) / static_cast<double>(facts.frames),
            100 * report.mean_granted());
        result += text;
    }
    return result;
}

}  // namespace

std::string Extra::failure() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!failure_) {
        return "";
    }
    try {
        std::rethrow_exception(failure_);
    } catch (const std::bad_alloc&) {
        return "cannot write " + name_ + ": memory has run out";
    } catch (const std::exception& error) {
        return error.what();
    }
}

Extras::Extras(const Options& options, const PictureFormat& format, const EncoderOptions& encoder,
               const std::atomic<bool>* stop, Notes& notes)
    : compare_(options.compare_file),
      path_(options.path_file),
      json_(options.json_file),
      plot_(options.plot_file),
      plot_name_(options.plot_file) {
    if (compare_.is_wanted()) {
        comparison_ = std::make_unique<SideBySide>(options.compare_file, format, encoder, stop);
    }
    if (options.preview) {
        try {
            preview_ = std::make_unique<Preview>(format);
        } catch (const video_io::OutputError& error) {
            notes.emplace_back(error.what());
        }
    }
    if (path_.is_wanted()) {
        path_file_ =
            std::make_unique<video_io::OutputFile>(options.path_file, stop, options.existing);
        csv_ = std::make_unique<PathCsv>(path_file_->sink());
    }
    if (json_.is_wanted()) {
        json_file_ =
            std::make_unique<video_io::OutputFile>(options.json_file, stop, options.existing);
    }
    if (plot_.is_wanted()) {
        open_plot(options, format);
    }
}

void Extras::open_plot(const Options& options, const PictureFormat& format) {
    PathPlot::check_available(options.plot_file);
    plot_file_ = std::make_unique<video_io::PendingFile>(options.plot_file, options.existing);
    const std::string& input = options.inputs[0];
    const std::string title =
        input == "-" ? "standard input" : std::filesystem::path(input).filename().string();
    const double rate = format.frame_rate.num > 0 ? av_q2d(format.frame_rate) : 0;
    drawing_ = std::make_unique<PathPlot>(rate, "Camera path: " + title);
}

void Extras::add(const FollowedFrame& point) noexcept {
    report_.add(point);
    path_.attempt([&] { csv_->write(point); });
    json_.attempt([&] { record_.add(point); });
    plot_.attempt([&] { drawing_->add(point); });
}

void Extras::add_shaky(const AVFrame& picture) noexcept {
    compare_.attempt([&] { comparison_->add_shaky(picture); });
    if (preview_) {
        try {
            preview_->add_shaky(picture);
        } catch (const std::bad_alloc&) {  // this picture is not shown
        }
    }
}

void Extras::add_steady(const AVFrame& picture, const PictureTag& tag) noexcept {
    compare_.attempt([&] { comparison_->add_steady(picture, tag); });
    if (preview_) {
        try {
            preview_->add_steady(picture);
        } catch (const std::bad_alloc&) {  // this picture is not shown
        }
    }
}

std::string Extras::late_note() const {
    return preview_ && preview_->ended_at_once()
               ? "the window of --preview was closed at once; can ffplay use the display?"
               : "";
}

std::vector<std::string> Extras::finish(const JobFacts& facts) {
    preview_.reset();
    compare_.attempt([&] {
        comparison_->finish();
        comparison_->commit();
    });
    path_.attempt([&] { path_file_->commit(); });
    json_.attempt([&] {
        write_json(json_file_->sink(), report_, record_, facts);
        json_file_->commit();
    });
    // Last, since PLplot exits on errors of its own.
    plot_.attempt([&] {
        drawing_->set_summary(summary(facts, report_));
        drawing_->draw(plot_file_->temporary(), plot_name_);
        plot_file_->commit();
    });
    std::vector<std::string> failures;
    for (const Extra* extra : {&compare_, &path_, &json_, &plot_}) {
        std::string failure = extra->failure();
        if (!failure.empty()) {
            failures.push_back(std::move(failure));
        }
    }
    return failures;
}

}  // namespace apps
