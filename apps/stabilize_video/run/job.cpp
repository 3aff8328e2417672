#include "apps/stabilize_video/job.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

#include "apps/stabilize_video/interruption.h"
#include "apps/stabilize_video/library_log.h"
#include "apps/stabilize_video/media_sink.h"
#include "apps/stabilize_video/media_source.h"
#include "apps/stabilize_video/path_follower.h"
#include "apps/stabilize_video/path_plot.h"
#include "apps/stabilize_video/report.h"
#include "apps/stabilize_video/side_by_side.h"
#include "apps/stabilize_video/stabilize_stream.h"
#include "apps/stabilize_video/y4m_ends.h"

namespace apps {

namespace vs = videostabilizer;

namespace {

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

bool is_url(const std::string& path) {
    return path.find("://") != std::string::npos;
}

bool has_ending(const std::string& path, const std::string& ending) {
    return path.size() >= ending.size() &&
           path.compare(path.size() - ending.size(), ending.size(), ending) == 0;
}

bool is_y4m_output(const Options& options) {
    if (!options.output_format.empty() || !options.codec.empty()) return false;
    if (options.output == "-" || has_ending(options.output, ".y4m")) return true;
    // A named pipe, or a device, whose name tells nothing.
    return is_direct_output(options.output) &&
           av_guess_format(nullptr, options.output.c_str(), nullptr) == nullptr;
}

std::string seconds_text(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", seconds < 10 ? 1 : 0, seconds);
    return text;
}

void say(const Options& options, const std::string& text) {
    if (!options.quiet) std::fprintf(stderr, "stabilize-video: %s\n", text.c_str());
}

void refuse_same_files(const Options& options) {
    std::set<std::string> names;
    for (const std::string* name : {&options.output, &options.path_file, &options.json_file,
                                    &options.plot_file, &options.compare_file}) {
        if (name->empty() || is_url(*name)) continue;
        if (is_same_file(options.inputs[0], *name)) {
            throw UsageError("the output " + *name + " is the input file");
        }
        const bool device = *name != "-" && is_direct_output(*name);
        if (!device && !names.insert(*name).second) {
            throw UsageError("different outputs need different files: " + *name);
        }
    }
}

// The input: YUV4MPEG2 by our own reader, all else by FFmpeg.
struct Input {
    std::unique_ptr<PictureSource> source;
    MediaSource* media = nullptr;  // `source`, if it is one
    std::string y4m_header;        // of YUV4MPEG2, else ""
    bool live = false;             // delivers at its own pace
};

Input open_input(const Options& options, bool turn_upright) {
    const std::string& name = options.inputs[0];
    const std::atomic<bool>* stop = &interruption().stop_input;
    MediaSourceOptions media_options;
    media_options.container = options.input_format;
    media_options.options = options.input_options;
    media_options.turn_upright = turn_upright;
    media_options.stop = stop;

    Input input;
    struct stat info {};
    const bool exists = name == "-" || stat(name.c_str(), &info) == 0;
    const bool by_name = is_url(name) || (exists && name != "-" && S_ISCHR(info.st_mode)) ||
                         (!options.input_format.empty() && name != "-");
    std::unique_ptr<MediaSource> media;
    if (by_name) {
        media = std::make_unique<MediaSource>(name, media_options);
    } else {
        auto stream = std::make_unique<FdSource>(name, stop);
        const bool regular = stream->file_size() >= 0;
        input.live = !regular;
        if (options.input_format.empty() && Y4mSource::recognises(*stream)) {
            auto y4m = std::make_unique<Y4mSource>(std::move(stream));
            input.y4m_header = y4m->header_line();
            input.source = std::move(y4m);
            return input;
        }
        media = regular && name != "-"
                    ? std::make_unique<MediaSource>(name, media_options)
                    : std::make_unique<MediaSource>(std::move(stream), media_options);
    }
    input.live = media->is_live();
    input.media = media.get();
    input.source = std::move(media);
    return input;
}

// What the stabilizer is to do. Files may wait: there the look-ahead reaches as far as the weights
// of the smoothing do, which is twice their width.
vs::VideoStabilizerOptions stabilizer_options(const Options& options, bool may_wait) {
    const std::pair<const char*, vs::VideoStabilizerStrength> strengths[] = {
        {"gentle", vs::STABILIZER_GENTLE},
        {"standard", vs::STABILIZER_STANDARD},
        {"strong", vs::STABILIZER_STRONG},
        {"maximum", vs::STABILIZER_MAXIMUM},
    };
    vs::VideoStabilizerOptions result;
    vs::video_stabilizer_options_init(&result);
    for (const auto& [name, strength] : strengths) {
        if (options.strength == name) vs::video_stabilizer_options_for_strength(&result, strength);
    }
    if (may_wait) {
        result.look_ahead = std::max(result.look_ahead, static_cast<int>(2 * result.sigma));
    }
    if (options.look_ahead) result.look_ahead = *options.look_ahead;
    if (options.crop) result.crop_ratio = *options.crop;
    return result;
}

// One run of the program.
class Job {
  public:
    explicit Job(const Options& options) : options_(options) {}

    int run();

  private:
    void open_results();
    void open_output();
    void tell_delay() const;
    // Whether the output is used while it is made.
    bool is_direct() const { return is_url(options_.output) || is_direct_output(options_.output); }
    void finish_results(const StreamResult& result);
    int conclude(const StreamResult& result);
    std::string summary(std::int64_t frames) const;
    std::string describe_damage(const StreamResult& result) const;

    const Options& options_;
    vs::VideoStabilizerOptions settings_{};
    Input input_;
    Notes notes_;
    // What is made. Opened before the work starts, so that what cannot be written is told at once.
    std::unique_ptr<Y4mSink> y4m_;
    std::unique_ptr<MediaSink> media_;
    std::unique_ptr<SideBySide> comparison_;
    std::unique_ptr<OutputFile> path_file_;
    std::unique_ptr<OutputFile> json_file_;
    std::unique_ptr<PendingFile> plot_file_;
    std::unique_ptr<PathCsv> csv_;
    std::unique_ptr<PathPlot> plot_;
    ShakeReport report_{!options_.json_file.empty()};
    std::string damage_;
};

void Job::open_output() {
    const PictureFormat& format = input_.source->format();
    const std::atomic<bool>* stop = &interruption().stop_all;
    EncoderOptions encoder;
    encoder.codec = options_.codec;
    encoder.crf = options_.crf;
    encoder.preset = options_.preset;
    encoder.existing = options_.existing;
    if (is_y4m_output(options_)) {
        y4m_ = std::make_unique<Y4mSink>(options_.output, format, input_.y4m_header,
                                         options_.existing, stop);
        if (input_.media != nullptr && input_.media->container().nb_streams > 1) {
            notes_.emplace_back("YUV4MPEG2 carries pictures only; sound and all else is left out");
        }
    } else {
        EncoderOptions main = encoder;
        main.container = options_.output_format;
        main.live = input_.live && is_direct();
        media_ = std::make_unique<MediaSink>(options_.output, format, main, input_.media, stop);
        notes_.insert(notes_.end(), media_->notes().begin(), media_->notes().end());
    }
    if (!options_.compare_file.empty()) {
        comparison_ = std::make_unique<SideBySide>(options_.compare_file, format, encoder, stop);
    }
}

void Job::open_results() {
    const std::atomic<bool>* stop = &interruption().stop_all;
    if (!options_.path_file.empty()) {
        path_file_ = std::make_unique<OutputFile>(options_.path_file, stop, options_.existing);
        csv_ = std::make_unique<PathCsv>(path_file_->sink());
    }
    if (!options_.json_file.empty()) {
        json_file_ = std::make_unique<OutputFile>(options_.json_file, stop, options_.existing);
    }
    if (!options_.plot_file.empty()) {
        PathPlot::check_available(options_.plot_file);
        plot_file_ = std::make_unique<PendingFile>(options_.plot_file, options_.existing);
        const std::string& name = options_.inputs[0];
        const PictureFormat& format = input_.source->format();
        const double rate = format.frame_rate.num > 0 ? av_q2d(format.frame_rate) : 0;
        const std::string title =
            name == "-" ? "standard input" : std::filesystem::path(name).filename().string();
        plot_ = std::make_unique<PathPlot>(rate, "Where the camera looks: " + title);
    }
}

void Job::tell_delay() const {
    const AVRational rate = input_.source->format().frame_rate;
    if (!input_.live || !is_direct() || rate.num <= 0) return;
    char text[96];
    std::snprintf(text, sizeof text, "live: pictures come out %d frames (%.0f ms) later",
                  settings_.look_ahead, 1000 * settings_.look_ahead / av_q2d(rate));
    say(options_, text);
}

std::string Job::describe_damage(const StreamResult& result) const {
    if (!result.input_failure) return input_.source->damage();
    try {
        std::rethrow_exception(result.input_failure);
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

void Job::finish_results(const StreamResult& result) {
    if (y4m_) y4m_->finish();
    if (media_) media_->finish();
    if (comparison_) comparison_->finish();
    if (json_file_) {
        const JobFacts facts{options_.inputs[0],
                             options_.output,
                             options_.strength,
                             input_.source->format(),
                             settings_,
                             result,
                             notes_,
                             damage_};
        write_json(json_file_->sink(), report_, facts);
    }
    if (plot_) {
        plot_->set_summary(summary(result.frames));
        plot_->draw(plot_file_->temporary(), options_.plot_file);
    }
}

// What has been done and how well, for the plot.
std::string Job::summary(std::int64_t frames) const {
    char text[256];
    std::snprintf(text, sizeof text, "%s, delay %d frames", options_.strength.c_str(),
                  settings_.look_ahead);
    std::string result = text;
    const AVRational rate = input_.source->format().frame_rate;
    if (rate.num > 0) {
        std::snprintf(text, sizeof text, " (%.0f ms)", 1000 * settings_.look_ahead / av_q2d(rate));
        result += text;
    }
    std::snprintf(text, sizeof text, "; shake %.2f pixels before, %.2f after",
                  report_.shake_before(), report_.shake_after());
    result += text;
    if (settings_.edge_guard != 0 && frames > 0) {
        std::snprintf(text, sizeof text, "; edge guard in %.0f %% of frames, granting %.0f %%",
                      100 * static_cast<double>(report_.guarded()) / static_cast<double>(frames),
                      100 * report_.mean_granted());
        result += text;
    }
    return result;
}

int Job::conclude(const StreamResult& result) {
    const bool interrupted = interruption().signalled;
    if (interrupted && !options_.keep_partial) throw InputError("interrupted");
    if (result.input_failure && result.frames == 0) {
        std::rethrow_exception(result.input_failure);  // nothing worth keeping
    }
    damage_ = describe_damage(result);
    finish_results(result);
    if (interrupted) {
        const std::string kept = y4m_ ? y4m_->keep_partial() : media_->keep_partial();
        std::fprintf(stderr, "stabilize-video: interrupted; %lld frames are kept%s%s\n",
                     static_cast<long long>(result.frames), kept.empty() ? "" : " as ",
                     kept.c_str());
        return EXIT_INTERRUPTED;
    }
    if (path_file_) path_file_->commit();
    if (json_file_) json_file_->commit();
    if (plot_file_) plot_file_->commit();
    if (comparison_) comparison_->commit();
    if (y4m_) y4m_->commit();
    if (media_) media_->commit();

    if (!damage_.empty()) {
        std::fprintf(stderr,
                     "stabilize-video: %s; the %lld whole frames that there were have been "
                     "delivered\n",
                     damage_.c_str(), static_cast<long long>(result.frames));
        try {
            if (result.input_failure) std::rethrow_exception(result.input_failure);
        } catch (const SizeChangedError&) {
            return EXIT_SIZE_CHANGED;
        } catch (const InputError&) {
            return EXIT_DAMAGED;
        }
        return EXIT_DAMAGED;
    }
    char text[160];
    std::snprintf(text, sizeof text,
                  "%lld frames in %s s; shake %.2f pixels before, %.2f after (%.1f dB)",
                  static_cast<long long>(result.frames), seconds_text(result.seconds.total).c_str(),
                  report_.shake_before(), report_.shake_after(), report_.residual_db());
    say(options_, text);
    return EXIT_DONE;
}

int Job::run() {
    refuse_same_files(options_);
    // An output that is refused by its name is told before the input is opened.
    const bool turn_upright =
        is_y4m_output(options_) ||
        !keeps_rotation(*output_format_for(options_.output, options_.output_format));
    input_ = open_input(options_, turn_upright);
    if (input_.media != nullptr) notes_ = input_.media->notes();
    settings_ = stabilizer_options(options_, !input_.live && !is_direct());
    open_output();
    open_results();
    for (const std::string& note : notes_) {
        say(options_, "note: " + note);
    }
    tell_delay();

    const PictureFormat& format = input_.source->format();
    const bool told_place = settings_.whole_shift != 0 && format.width >= 16 && format.height >= 16;
    const PictureLayout layout(format.width, format.height,
                               told_place ? PictureLayout::TOP_LEFT : PictureLayout::MIDDLE);
    if (told_place) {
        settings_.picture_width = format.width;
        settings_.picture_height = format.height;
    }
    // About what the stabilizer crops.
    PathFollower path(0.5 * (told_place ? format.width : layout.frame_width()),
                      0.5 * (told_place ? format.height : layout.frame_height()));
    path.add([this](const FollowedFrame& point) { report_.add(point); });
    if (csv_) path.add([this](const FollowedFrame& point) { csv_->write(point); });
    if (plot_) path.add([this](const FollowedFrame& point) { plot_->add(point); });
    if (input_.media != nullptr) {
        input_.media->set_packet_receiver([this](const AVPacket& packet) {
            if (media_) media_->copy(packet);
        });
    }

    StreamResult result;
    {
        const double rate = format.frame_rate.num > 0 ? av_q2d(format.frame_rate) : 0;
        Progress progress(options_.progress && !options_.quiet && !options_.verbose,
                          input_.source->expected_pictures(), rate);
        PictureSink& sink = y4m_ ? static_cast<PictureSink&>(*y4m_) : *media_;
        result = stabilize_stream({*input_.source, sink, layout, settings_, &path,
                                   comparison_.get(), progress, interruption().stop_input});
    }
    return conclude(result);
}

int report_failure(ExitCode code, const char* what) {
    const bool interrupted = interruption().signalled;
    std::fprintf(stderr, "stabilize-video: %s\n", interrupted ? "interrupted" : what);
    return interrupted ? EXIT_INTERRUPTED : code;
}

}  // namespace

int run_job(const Options& options) {
    try {
        show_library_log(options.verbose);
        show_ffmpeg_log(options.verbose);
        return Job(options).run();
    } catch (const UsageError& error) {
        return report_failure(EXIT_USAGE, error.what());
    } catch (const InputError& error) {
        return report_failure(EXIT_INPUT, error.what());
    } catch (const OutputError& error) {
        return report_failure(EXIT_OUTPUT, error.what());
    } catch (const LibraryError& error) {
        return report_failure(EXIT_LIBRARY, error.what());
    } catch (const std::bad_alloc&) {
        return report_failure(EXIT_LIBRARY, "memory has run out");
    } catch (const std::exception& error) {
        return report_failure(EXIT_LIBRARY, error.what());
    }
}

}  // namespace apps
