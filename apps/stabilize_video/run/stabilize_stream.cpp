// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/run/stabilize_stream.h"

#include <videostabilizer/stream.h>

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "apps/stabilize_video/cli/library_log.h"
#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

namespace vs = videostabilizer;

namespace {

LibraryError library_error(const std::string& what) {
    const std::string reported = library_errors();
    return LibraryError(reported.empty() ? what : what + " (" + reported + ")");
}

// OpenCL drivers that compile for processors keep what they have compiled.
std::string unwritable_cache() {
    const auto variable = [](const char* name) {
        const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
        return std::string(value == nullptr ? "" : value);
    };
    std::string folder = variable("POCL_CACHE_DIR");
    if (folder.empty()) {
        folder = variable("XDG_CACHE_HOME");
    }
    if (folder.empty()) {
        folder = variable("HOME");
    }
    if (folder.empty()) {
        return "";
    }
    constexpr std::uint64_t ENOUGH_BYTES = 1 << 20;
    struct statvfs disk {};
    const bool full = statvfs(folder.c_str(), &disk) == 0 &&
                      std::uint64_t{disk.f_bavail} * disk.f_frsize < ENOUGH_BYTES;
    return !full && access(folder.c_str(), W_OK) == 0 ? "" : folder;
}

LibraryError opencl_error() {
    LibraryError error = library_error("OpenCL cannot be used");
    std::string what = error.what();
    const std::string folder = unwritable_cache();
    if (what.find("platforms") != std::string::npos) {
        what += "; is a driver installed? (pocl-opencl-icd for processors, or that of the GPU)";
    } else if (!folder.empty()) {
        what += "; its cache folder cannot be written: " + folder;
    }
    return LibraryError(what + "; --engine native needs none");
}

struct StreamDeleter {
    void operator()(VideoStabilizerStream* stream) const { videostabilizer_stream_close(stream); }
};
using StreamPtr = std::unique_ptr<VideoStabilizerStream, StreamDeleter>;

std::int32_t stream_format(const vs::PixelLayout& layout) {
    constexpr std::int32_t PLANAR[] = {VIDEOSTABILIZER_YUV420P, VIDEOSTABILIZER_YUV422P,
                                       VIDEOSTABILIZER_YUV444P, VIDEOSTABILIZER_GRAY,
                                       VIDEOSTABILIZER_YUV411P};
    constexpr std::int32_t WITH_ALPHA[] = {VIDEOSTABILIZER_YUVA420P, VIDEOSTABILIZER_YUVA422P,
                                           VIDEOSTABILIZER_YUVA444P};
    constexpr std::int32_t PAIRS[] = {VIDEOSTABILIZER_NV12, VIDEOSTABILIZER_NV16,
                                      VIDEOSTABILIZER_NV24};
    constexpr std::int32_t HIGH_PAIRS[] = {VIDEOSTABILIZER_P0, VIDEOSTABILIZER_P2,
                                           VIDEOSTABILIZER_P4};
    std::int32_t family = PLANAR[layout.chroma];
    if (layout.semi_planar != 0) {
        family = (layout.high_bits != 0 ? HIGH_PAIRS : PAIRS)[layout.chroma];
    } else if (layout.alpha != 0) {
        family = WITH_ALPHA[layout.chroma];
    }
    return family + layout.bit_depth;
}

VideoStabilizerStreamOptions stream_options(const StreamParts& parts) {
    const PictureFormat& format = parts.source.format();
    const vs::PixelLayout layout = layout_of(format.pixel_format, format.chroma_location).value();
    const vs::VideoStabilizerOptions& from = parts.options;
    VideoStabilizerStreamOptions options;
    videostabilizer_stream_options_init(&options, sizeof options, VIDEOSTABILIZER_STANDARD);
    options.width = format.width;
    options.height = format.height;
    options.format = stream_format(layout);
    options.siting = layout.siting;
    options.look_ahead = from.look_ahead;
    options.sigma = from.sigma;
    options.crop_ratio = from.crop_ratio;
    options.whole_shift = from.whole_shift;
    options.edge_guard = from.edge_guard;
    options.repair_motions = from.repair_motions;
    options.scene_cuts = from.scene_cuts;
    options.engine = from.engine;
    options.sampling = from.sampling;
    options.threads = from.threads;
    options.auto_crop = from.auto_crop;
    options.crop_least = from.crop_least;
    options.crop_most = from.crop_most;
    options.shutter = from.shutter;
    options.readout = from.readout;
    return options;
}

StreamPtr open_stream(const StreamParts& parts) {
    forget_library_errors();
    const VideoStabilizerStreamOptions options = stream_options(parts);
    VideoStabilizerStream* stream = nullptr;
    const int code = videostabilizer_stream_open(&options, &stream, nullptr, 0);
    if (code == VIDEOSTABILIZER_NO_DEVICE) {
        throw opencl_error();
    }
    if (code != VIDEOSTABILIZER_OK) {
        throw library_error("the stabilizer cannot be created");
    }
    forget_library_errors();  // of a GPU that is not there
    return StreamPtr(stream);
}

// The options as the stream uses them.
vs::VideoStabilizerOptions options_in_use(const StreamParts& parts, VideoStabilizerStream* stream) {
    VideoStabilizerStreamOptions used{};
    used.size = sizeof used;
    videostabilizer_stream_get_options(stream, &used);
    vs::VideoStabilizerOptions options = parts.options;
    options.engine = static_cast<vs::VideoStabilizerEngine>(used.engine);
    options.sigma = used.sigma;
    options.crop_least = used.crop_least;
    options.crop_most = used.crop_most;
    options.picture_width = used.picture_width;
    options.picture_height = used.picture_height;
    return options;
}

int chroma_height(const PictureFormat& format) {
    return chroma_of(format.pixel_format) == vs::CHROMA_420 ? (format.height + 1) / 2
                                                            : format.height;
}

// An FFmpeg picture over a steady one, which it keeps.
AvFramePtr av_picture(VideoStabilizerPicture* steady, const PictureFormat& format) {
    const auto unref = [](void* picture, std::uint8_t*) {
        videostabilizer_picture_unref(static_cast<VideoStabilizerPicture*>(picture));
    };
    VideoStabilizerOutput output{};
    output.size = sizeof output;
    videostabilizer_picture_get(steady, &output);
    AvFramePtr picture;
    try {
        picture = make_av_frame();
    } catch (const std::bad_alloc&) {
        unref(steady, nullptr);
        throw;
    }
    picture->format = format.pixel_format;
    picture->width = format.width;
    picture->height = format.height;
    std::size_t bytes = 0;  // the planes are in one block
    for (int k = 0; k < 4 && output.planes.data[k] != nullptr; ++k) {
        picture->data[k] = static_cast<std::uint8_t*>(output.planes.data[k]);
        picture->linesize[k] = static_cast<int>(output.planes.stride[k]);
        const int rows = k == 1 || k == 2 ? chroma_height(format) : format.height;
        bytes = static_cast<std::size_t>(picture->data[k] - picture->data[0]) +
                static_cast<std::size_t>(picture->linesize[k]) * static_cast<std::size_t>(rows);
    }
    picture->buf[0] = av_buffer_create(picture->data[0], bytes, unref, steady, 0);
    if (picture->buf[0] == nullptr) {
        unref(steady, nullptr);
        throw std::bad_alloc();
    }
    return picture;
}

// Tells the path of a picture what the stream reports of it.
void follow(PathFollower& path, double stage_crop_ratio,
            const VideoStabilizerStreamReport& report) {
    const vs::VideoStabilizerObserver observer = path.observer(stage_crop_ratio);
    const auto frame = static_cast<std::int32_t>(report.number & INT32_MAX);
    if (report.number > 0) {
        const int status = report.motion_found == 2 ? 2 : 1 - report.motion_found;
        const vs::MotionLog log = {report.points, report.inliers, report.track_ratio, status};
        observer.on_motion(observer.ctx, frame - 1, report.motion, &log);
    }
    observer.on_correction(observer.ctx, frame, report.correction);
    vs::VideoStabilizerReport told{};
    told.frame = frame;
    told.look_ahead = report.look_ahead;
    told.sigma = report.sigma;
    told.guarded = report.guarded;
    told.granted = report.granted;
    told.repaired = report.motion_found == 2 ? 1 : 0;
    told.scene_start = report.number > 0 ? report.scene_start : 0;
    told.crop = report.crop;
    told.readout = report.readout;
    told.readout_confidence = report.readout_confidence;
    told.columns = report.columns;
    std::copy_n(report.first_line, 2, told.first_line);
    std::copy_n(report.last_line, 2, told.last_line);
    observer.on_report(observer.ctx, &told);
}

// Adds its lifetime to `seconds`.
class Stopwatch {
  public:
    explicit Stopwatch(double& seconds) : seconds_(seconds) {}
    ~Stopwatch() { seconds_ += std::chrono::duration<double>(Clock::now() - start_).count(); }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

  private:
    using Clock = std::chrono::steady_clock;

    double& seconds_;
    Clock::time_point start_ = Clock::now();
};

// The pictures of one stream: one thread reads and pushes, the calling one pulls and writes.
class Run {
  public:
    Run(const StreamParts& parts, VideoStabilizerStream* stream, StreamSeconds& seconds)
        : parts_(parts),
          stream_(stream),
          // With whole_shift, the corrections that are told are those of the pictures.
          stage_crop_ratio_(
              parts.options.whole_shift != 0 ? 1.0 : static_cast<double>(parts.options.crop_ratio)),
          seconds_(seconds) {}

    // Reads the next picture; null at the end of the input.
    AvFramePtr read() {
        const Stopwatch stopwatch(seconds_.reading);
        PictureTag tag;
        AvFramePtr picture = parts_.source.read(tag);
        if (picture) {
            parts_.extras.add_shaky(*picture);
            const std::lock_guard<std::mutex> lock(mutex_);
            tags_.push_back(std::move(tag));
        }
        return picture;
    }

    // Passes `first` and all following pictures through the stream. Returns the number of those
    // written; `read_failure` receives what stopped the reading thread.
    std::int64_t pass_all(AvFramePtr first, std::exception_ptr& read_failure) {
        std::exception_ptr failure;
        std::int64_t frames = 0;
        std::thread reader;
        try {
            reader = std::thread([&] { push_all(std::move(first), read_failure); });
            frames = write_all();
        } catch (...) {
            failure = std::current_exception();
            parts_.cancelled = true;
            videostabilizer_stream_drain(stream_);  // a push that waits ends
        }
        if (reader.joinable()) {
            reader.join();
        }
        if (failure) {
            std::rethrow_exception(failure);
        }
        return frames;
    }

  private:
    // Body of the reading thread.
    void push_all(AvFramePtr picture, std::exception_ptr& failure) {
        try {
            while (picture) {
                const int code = push(std::move(picture));
                if (code == VIDEOSTABILIZER_DRAINING || code == VIDEOSTABILIZER_FAILED) {
                    return;  // write_all knows why
                }
                if (code == VIDEOSTABILIZER_NO_MEMORY) {
                    throw std::bad_alloc();
                }
                if (code != VIDEOSTABILIZER_OK) {
                    throw library_error("the stabilizer rejects a frame");
                }
                picture = read();
            }
        } catch (...) {
            failure = std::current_exception();
        }
        videostabilizer_stream_drain(stream_);
    }

    // The decoder's picture is lent to the stream.
    int push(AvFramePtr picture) {
        const Stopwatch stopwatch(seconds_.pushing);
        VideoStabilizerInput input{};
        input.size = sizeof input;
        for (int k = 0; k < 4; ++k) {
            input.planes.data[k] = picture->data[k];
            input.planes.stride[k] = picture->linesize[k];
        }
        input.host = picture.release();
        input.release = [](void*, void* lent) { AvFramePtr(static_cast<AVFrame*>(lent)).reset(); };
        return videostabilizer_stream_push(stream_, &input, -1);
    }

    std::int64_t write_all() {
        for (std::int64_t frames = 0;; ++frames) {
            VideoStabilizerPicture* const steady = pull();
            if (steady == nullptr) {
                return frames;
            }
            write(steady);
            parts_.progress.show(frames + 1);
        }
    }

    // Null at the end.
    VideoStabilizerPicture* pull() {
        const Stopwatch stopwatch(seconds_.popping);
        VideoStabilizerPicture* picture = nullptr;
        const int code = videostabilizer_stream_pull(stream_, &picture, -1);
        if (code < 0) {
            throw library_error("the stabilizer has failed");
        }
        return picture;
    }

    void write(VideoStabilizerPicture* steady) {
        const Stopwatch stopwatch(seconds_.writing);
        VideoStabilizerStreamReport report{};
        report.size = sizeof report;
        videostabilizer_picture_report(steady, &report);
        const AvFramePtr picture = av_picture(steady, parts_.source.format());
        if (parts_.path != nullptr) {
            follow(*parts_.path, stage_crop_ratio_, report);
        }
        const PictureTag tag = next_tag();
        parts_.sink.write(*picture, tag);
        parts_.extras.add_steady(*picture, tag);
    }

    // Pictures keep their order, so a queue is enough.
    PictureTag next_tag() {
        const std::lock_guard<std::mutex> lock(mutex_);
        PictureTag tag = std::move(tags_.front());
        tags_.pop_front();
        return tag;
    }

    const StreamParts& parts_;
    VideoStabilizerStream* stream_;
    double stage_crop_ratio_;
    StreamSeconds& seconds_;  // reading and pushing belong to the reading thread
    std::mutex mutex_;        // guards the next
    std::deque<PictureTag> tags_;
};

bool is_input_failure(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const video_io::InputError&) {
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace

StreamResult stabilize_stream(const StreamParts& parts) {
    StreamResult result;
    const StreamPtr stream = open_stream(parts);
    result.options = options_in_use(parts, stream.get());
    const auto start = std::chrono::steady_clock::now();
    Run run(parts, stream.get(), result.seconds);

    AvFramePtr first;
    try {
        first = run.read();
    } catch (const video_io::InputError&) {
        result.input_failure = std::current_exception();
    }
    if (!first) {
        return result;
    }
    std::exception_ptr read_failure;
    result.frames = run.pass_all(std::move(first), read_failure);
    if (read_failure && !is_input_failure(read_failure)) {
        std::rethrow_exception(read_failure);
    }
    result.input_failure = read_failure;
    result.seconds.total =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (parts.path != nullptr) {
        parts.path->check();
    }
    return result;
}

}  // namespace apps
