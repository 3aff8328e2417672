// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/run/job.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

#include "apps/stabilize_video/cli/interruption.h"
#include "apps/stabilize_video/cli/library_log.h"
#include "apps/stabilize_video/media/media_source.h"
#include "apps/stabilize_video/output/media_sink.h"
#include "apps/stabilize_video/pictures/y4m_ends.h"
#include "apps/stabilize_video/results/path_follower.h"
#include "apps/stabilize_video/run/extras.h"
#include "apps/stabilize_video/run/stabilize_stream.h"

namespace apps {

namespace vs = videostabilizer;

namespace {

bool is_url(const std::string& path) {
    return path.find("://") != std::string::npos;
}

bool has_ending(const std::string& path, const std::string& ending) {
    return path.size() >= ending.size() &&
           path.compare(path.size() - ending.size(), ending.size(), ending) == 0;
}

bool is_y4m_output(const Options& options) {
    if (!options.output_format.empty() || !options.codec.empty()) {
        return false;
    }
    if (options.output == "-" || has_ending(options.output, ".y4m")) {
        return true;
    }
    // A named pipe or a device, whose name says nothing about the format.
    return video_io::is_direct_output(options.output) &&
           av_guess_format(nullptr, options.output.c_str(), nullptr) == nullptr;
}

void say(const Options& options, const std::string& text) {
    if (!options.quiet) {
        std::fprintf(stderr, "stabilize-video: %s\n", text.c_str());
    }
}

void refuse_same_files(const Options& options) {
    const std::array<const std::string*, 5> outputs = {&options.output, &options.path_file,
                                                       &options.json_file, &options.plot_file,
                                                       &options.compare_file};
    const auto is_file = [](const std::string& name) { return !name.empty() && !is_url(name); };
    for (auto output = outputs.begin(); output != outputs.end(); ++output) {
        const std::string& name = **output;
        if (!is_file(name)) {
            continue;
        }
        if (video_io::is_same_file(options.inputs[0], name)) {
            throw UsageError("the output " + name + " is the input file");
        }
        for (auto other = outputs.begin(); other != output; ++other) {
            if (is_file(**other) && video_io::is_same_output(**other, name)) {
                throw UsageError("different outputs need different files: " + **other + " and " +
                                 name);
            }
        }
    }
}

// The value that belongs to a name, or the other one if the name is not in the table.
template <typename Value, std::size_t COUNT>
Value named(const std::pair<const char*, Value> (&table)[COUNT], const std::string& name,
            Value otherwise) {
    const auto* const entry = std::find_if(std::begin(table), std::end(table),
                                           [&](const auto& e) { return name == e.first; });
    return entry == std::end(table) ? otherwise : entry->second;
}

constexpr std::pair<const char*, Deinterlace> DEINTERLACING[] = {
    {"full-rate", Deinterlace::FULL_RATE},
    {"keep-rate", Deinterlace::KEEP_RATE},
    {"ignore", Deinterlace::NONE},
};

// The input: YUV4MPEG2 by our own reader, everything else by FFmpeg.
struct Input {
    std::unique_ptr<PictureSource> source;
    MediaSource* media = nullptr;  // `source`, if it is FFmpeg's
    std::string y4m_header;        // header line of YUV4MPEG2, else ""
    bool live = false;             // a pipe or a device, which sets the pace
};

// Pictures for YUV4MPEG2 are planar and upright.
Input open_input(const Options& options) {
    const std::string& name = options.inputs[0];
    const std::atomic<bool>* stop = &interruption().stop_input;
    MediaSourceOptions media_options;
    media_options.container = options.input_format;
    media_options.options = options.input_options;
    media_options.planar = is_y4m_output(options);
    // An output format that cannot be used is reported before the input is opened.
    media_options.turn_upright =
        media_options.planar ||
        !keeps_rotation(*output_format_for(options.output, options.output_format));
    media_options.stop = stop;
    media_options.stream = options.stream;
    media_options.deinterlace = named(DEINTERLACING, options.interlaced, Deinterlace::FULL_RATE);
    media_options.start_us = options.start_us;
    media_options.duration_us = options.duration_us;

    Input input;
    struct stat info {};
    const bool found = name == "-" || stat(name.c_str(), &info) == 0;
    const bool numbered = !found && name.find('%') != std::string::npos;
    const bool by_name = is_url(name) || numbered ||
                         (found && name != "-" && S_ISCHR(info.st_mode)) ||
                         (!options.input_format.empty() && name != "-");
    std::unique_ptr<MediaSource> media;
    if (by_name) {
        media = std::make_unique<MediaSource>(name, media_options);
    } else {
        // A file from its start can be opened again by this name, and then be searched.
        const std::string STANDARD_INPUT = "/dev/stdin";
        const bool whole_file = name == "-" && lseek(STDIN_FILENO, 0, SEEK_CUR) == 0 &&
                                access(STANDARD_INPUT.c_str(), R_OK) == 0;
        auto stream = std::make_unique<video_io::FdSource>(name, stop);
        const bool regular = stream->file_size() >= 0;
        input.live = !regular;
        const bool part = options.start_us > 0 || options.duration_us || options.stream;
        if (options.input_format.empty() && !part &&
            Y4mSource::recognises(*stream, options.interlaced != "ignore")) {
            auto y4m = std::make_unique<Y4mSource>(std::move(stream));
            input.y4m_header = y4m->header_line();
            input.source = std::move(y4m);
            return input;
        }
        if (regular && (name != "-" || whole_file)) {
            media =
                std::make_unique<MediaSource>(name == "-" ? STANDARD_INPUT : name, media_options);
        } else {
            media = std::make_unique<MediaSource>(std::move(stream), media_options);
        }
    }
    input.live = media->is_live();
    input.media = media.get();
    input.source = std::move(media);
    return input;
}

void refuse_small_pictures(const PictureFormat& format) {
    constexpr int SMALLEST_SIDE = 16;
    if (format.width < SMALLEST_SIDE || format.height < SMALLEST_SIDE) {
        throw video_io::InputError("the pictures are " + size_text(format.width, format.height) +
                                   "; the smallest that can be stabilised are " +
                                   size_text(SMALLEST_SIDE, SMALLEST_SIDE));
    }
}

constexpr std::pair<const char*, vs::VideoStabilizerStrength> STRENGTHS[] = {
    {"gentle", vs::STABILIZER_GENTLE},
    {"standard", vs::STABILIZER_STANDARD},
    {"strong", vs::STABILIZER_STRONG},
    {"maximum", vs::STABILIZER_MAXIMUM},
};
constexpr std::pair<const char*, vs::VideoStabilizerEngine> ENGINES[] = {
    {"native", vs::STABILIZER_ENGINE_NATIVE},
    {"auto", vs::STABILIZER_ENGINE_AUTO},
    {"opencl", vs::STABILIZER_ENGINE_OPENCL},
};
constexpr std::pair<const char*, vs::VideoStabilizerSampling> SAMPLINGS[] = {
    {"stated", vs::STABILIZER_SAMPLING_STATED},
    {"bilinear", vs::STABILIZER_SAMPLING_BILINEAR},
    {"sharp", vs::STABILIZER_SAMPLING_SHARP},
};
constexpr std::pair<const char*, vs::VideoStabilizerShutter> SHUTTERS[] = {
    {"off", vs::STABILIZER_SHUTTER_OFF},
    {"rows", vs::STABILIZER_SHUTTER_ROWS},
    {"columns", vs::STABILIZER_SHUTTER_COLUMNS},
};

// The stabilizer's options. For files, where delay does not matter, the look-ahead covers the whole
// smoothing window, 2 sigma.
vs::VideoStabilizerOptions stabilizer_options(const Options& options, bool is_offline) {
    vs::VideoStabilizerOptions result;
    vs::video_stabilizer_options_for_strength(
        &result, named(STRENGTHS, options.strength, vs::STABILIZER_STANDARD));
    if (is_offline) {
        result.look_ahead = std::max(result.look_ahead, static_cast<int>(2 * result.sigma));
    }
    if (options.look_ahead) {
        result.look_ahead = *options.look_ahead;
    }
    if (options.crop) {
        result.crop_ratio = *options.crop;
    }
    result.auto_crop = options.auto_crop ? 1 : 0;
    result.crop_least = options.crop_least;
    result.crop_most = options.crop_most;
    result.shutter = named(SHUTTERS, options.rolling_shutter, result.shutter);
    result.readout = options.readout;
    result.engine = named(ENGINES, options.engine, vs::STABILIZER_ENGINE_NATIVE);
    result.sampling = named(SAMPLINGS, options.sampling, result.sampling);
    result.threads = options.threads;
    return result;
}

// One run of the program.
class Job {
  public:
    explicit Job(const Options& options) : options_(options) {}

    int run();

  private:
    void open_outputs();
    std::unique_ptr<PictureSink> open_video(const EncoderOptions& encoder);
    void tell_delay() const;
    // Whether the output is used while it is made.
    bool is_direct() const {
        return is_url(options_.output) || video_io::is_direct_output(options_.output);
    }
    StreamResult stabilize();
    int conclude(StreamResult result);
    void finish_video(StreamSeconds& seconds);
    int keep_partial(const StreamResult& result);
    std::string describe_damage(const StreamResult& result) const;
    int tell_damage(const StreamResult& result) const;
    void tell_success(const StreamResult& result) const;

    Options options_;
    vs::VideoStabilizerOptions settings_{};
    Input input_;
    Notes notes_;
    std::unique_ptr<PictureSink> sink_;
    MediaSink* media_sink_ = nullptr;  // `sink_`, if it is FFmpeg's
    std::unique_ptr<Extras> extras_;
    std::string damage_;
};

// Opens everything that will be written, so that a file that cannot be written is reported before the
// work starts.
void Job::open_outputs() {
    EncoderOptions encoder;
    encoder.codec = options_.codec;
    encoder.crf = options_.crf;
    encoder.preset = options_.preset;
    encoder.bitrate = options_.bitrate;
    encoder.own = options_.encoder_options;
    encoder.audio = options_.audio;
    encoder.existing = options_.existing;
    sink_ = open_video(encoder);
    extras_ = std::make_unique<Extras>(options_, input_.source->format(), encoder,
                                       &interruption().stop_all, notes_);
}

std::unique_ptr<PictureSink> Job::open_video(const EncoderOptions& encoder) {
    const PictureFormat& format = input_.source->format();
    const std::atomic<bool>* stop = &interruption().stop_all;
    if (is_y4m_output(options_)) {
        if (input_.media != nullptr && input_.media->container().nb_streams > 1) {
            notes_.emplace_back(
                "YUV4MPEG2 holds pictures only; sound and other streams are dropped");
        }
        if (format.mastering || format.light || format.transfer == AVCOL_TRC_SMPTE2084 ||
            format.transfer == AVCOL_TRC_ARIB_STD_B67) {
            notes_.emplace_back("YUV4MPEG2 has no tags for high dynamic range; they are dropped");
        }
        return std::make_unique<Y4mSink>(options_.output, format, input_.y4m_header,
                                         options_.existing, stop);
    }
    EncoderOptions main = encoder;
    main.container = options_.output_format;
    main.live = input_.live && is_direct();
    auto sink = std::make_unique<MediaSink>(options_.output, format, main, input_.media, stop);
    notes_.insert(notes_.end(), sink->notes().begin(), sink->notes().end());
    media_sink_ = sink.get();
    return sink;
}

void Job::tell_delay() const {
    const AVRational rate = input_.source->format().frame_rate;
    if (!input_.live || !is_direct() || rate.num <= 0) {
        return;
    }
    char text[96];
    std::snprintf(text, sizeof text, "live: the delay is %d frames (%.0f ms)", settings_.look_ahead,
                  1000 * settings_.look_ahead / av_q2d(rate));
    say(options_, text);
}

std::string Job::describe_damage(const StreamResult& result) const {
    if (!result.input_failure) {
        return input_.source->damage();
    }
    try {
        std::rethrow_exception(result.input_failure);
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

StreamResult Job::stabilize() {
    const PictureFormat& format = input_.source->format();
    PathFollower path(format.width, format.height);
    path.add([this](const FollowedFrame& point) { extras_->add(point); });
    if (input_.media != nullptr) {
        input_.media->set_packet_receiver([this](const AVPacket& packet) {
            if (media_sink_ != nullptr) {
                media_sink_->copy(packet);
            }
        });
    }
    const double rate = format.frame_rate.num > 0 ? av_q2d(format.frame_rate) : 0;
    Progress progress(options_.progress && !options_.quiet && !options_.verbose,
                      input_.source->expected_pictures(), rate, options_.shared_progress);
    return stabilize_stream(
        {*input_.source, *sink_, settings_, &path, *extras_, progress, interruption().stop_input});
}

// Encoders hold pictures back until the end.
void Job::finish_video(StreamSeconds& seconds) {
    const auto start = std::chrono::steady_clock::now();
    sink_->finish();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    seconds.writing += taken.count();
    seconds.total += taken.count();
}

int Job::conclude(StreamResult result) {
    const bool interrupted = interruption().signalled();
    if (interrupted && !options_.keep_partial) {
        throw video_io::InputError("interrupted");
    }
    if (result.input_failure && result.frames == 0) {
        std::rethrow_exception(result.input_failure);  // nothing worth keeping
    }
    damage_ = describe_damage(result);
    finish_video(result.seconds);
    if (interrupted) {
        return keep_partial(result);
    }
    for (const std::string& note :
         {extras_->report().lost_note(), sink_->late_note(), extras_->late_note()}) {
        if (!note.empty()) {
            notes_.push_back(note);
            say(options_, "note: " + note);
        }
    }
    const JobFacts facts{options_.inputs[0],      options_.output, options_.strength,
                         input_.source->format(), result.options,  notes_,
                         result.frames,           result.seconds,  damage_};
    // First, so that it is safe whatever happens to the rest.
    sink_->commit();
    const std::vector<std::string> failures = extras_->finish(facts);

    int status = EXIT_DONE;
    if (damage_.empty()) {
        tell_success(result);
    } else {
        status = tell_damage(result);
    }
    if (failures.empty()) {
        return status;
    }
    for (const std::string& failure : failures) {
        std::fprintf(stderr, "stabilize-video: %s\n", failure.c_str());
    }
    std::fprintf(stderr, "stabilize-video: the video itself is complete: %s\n",
                 options_.output.c_str());
    return interruption().signalled() ? EXIT_INTERRUPTED : EXIT_OUTPUT;
}

int Job::keep_partial(const StreamResult& result) {
    const std::string kept = sink_->keep_partial();
    std::fprintf(stderr, "stabilize-video: interrupted; %lld frames are kept%s%s\n",
                 static_cast<long long>(result.frames), kept.empty() ? "" : " as ", kept.c_str());
    return EXIT_INTERRUPTED;
}

// Reports what was wrong with the input. Returns the exit status.
int Job::tell_damage(const StreamResult& result) const {
    std::fprintf(stderr, "stabilize-video: %s; all %lld complete frames were written\n",
                 damage_.c_str(), static_cast<long long>(result.frames));
    try {
        if (result.input_failure) {
            std::rethrow_exception(result.input_failure);
        }
    } catch (const SizeChangedError&) {
        return EXIT_SIZE_CHANGED;
    } catch (const video_io::InputError&) {
        return EXIT_DAMAGED;
    }
    return EXIT_DAMAGED;
}

void Job::tell_success(const StreamResult& result) const {
    if (options_.quiet) {
        return;
    }
    const ShakeReport& report = extras_->report();
    const double seconds = result.seconds.total;
    std::fprintf(stderr, "stabilize-video: %lld frames in %.*f s; %s",
                 static_cast<long long>(result.frames), seconds < 10 ? 1 : 0, seconds,
                 report.shake_text().c_str());
    if (report.is_measured()) {
        std::fprintf(stderr, " (%.1f dB)", report.residual_db());
    }
    std::fputc('\n', stderr);
}

int Job::run() {
    refuse_same_files(options_);
    input_ = open_input(options_);
    refuse_small_pictures(input_.source->format());
    if (input_.media != nullptr) {
        notes_ = input_.media->notes();
    }
    settings_ = stabilizer_options(options_, !input_.live && !is_direct());
    if (options_.crop == 1.0F && settings_.edge_guard != 0) {
        notes_.emplace_back("--crop 1 leaves no margin: nothing can be corrected");
    }
    open_outputs();
    for (const std::string& note : notes_) {
        say(options_, "note: " + note);
    }
    tell_delay();
    return conclude(stabilize());
}

int report_failure(ExitCode code, const char* what) {
    const bool interrupted = interruption().signalled();
    std::fprintf(stderr, "stabilize-video: %s\n", interrupted ? "interrupted" : what);
    return interrupted ? EXIT_INTERRUPTED : code;
}

}  // namespace

int run_job(const Options& options) {
    try {
        watch_signals(options.keep_partial ? OnSignal::FINISH_OUTPUT : OnSignal::STOP);
        if (options.skip_existing && is_output_there(options.output)) {
            say(options, options.output + " exists already, and is left as it is");
            return EXIT_DONE;
        }
        show_library_log(options.verbose);
        show_ffmpeg_log(options.verbose);
        return Job(options).run();
    } catch (const UsageError& error) {
        return report_failure(EXIT_USAGE, error.what());
    } catch (const video_io::InputError& error) {
        return report_failure(EXIT_INPUT, error.what());
    } catch (const video_io::OutputError& error) {
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
