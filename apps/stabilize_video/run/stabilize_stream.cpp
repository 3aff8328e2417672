// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/run/stabilize_stream.h"

#include <videostabilizer/videostabilizer.h>

#include <sys/statvfs.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>

#include "apps/stabilize_video/cli/library_log.h"
#include "apps/stabilize_video/pictures/picture_pool.h"
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

struct StabilizerDeleter {
    void operator()(vs::VideoStabilizer* stabilizer) const {
        vs::video_stabilizer_delete(stabilizer);  // stops it first
    }
};
using StabilizerPtr = std::unique_ptr<vs::VideoStabilizer, StabilizerDeleter>;

struct FrameDeleter {
    void operator()(vs::Frame* frame) const { vs::frame_delete(frame); }
};
using FramePtr = std::unique_ptr<vs::Frame, FrameDeleter>;

// The stabilizer's frames over FFmpeg's pictures. What the stabilizer writes to comes from a pool.
//
// Threads: thread-safe.
class Pictures {
  public:
    explicit Pictures(const PictureFormat& format)
        : layout_(layout_of(format.pixel_format, format.chroma_location).value()),
          pool_(format.pixel_format, format.width, format.height) {}
    Pictures(const Pictures&) = delete;
    Pictures& operator=(const Pictures&) = delete;

    const vs::PixelLayout& layout() const { return layout_; }

    // Must outlive the stabilizer, like this object.
    vs::VideoStabilizerUser* user() { return &user_; }

    // A frame over a picture, which must outlive it. Throws std::bad_alloc.
    FramePtr frame_over(const AVFrame& picture) const {
        const vs::PicturePlanes planes = planes_of(picture);
        FramePtr frame(vs::picture_frame_create(picture.width, picture.height, &layout_, &planes));
        if (!frame) {
            throw std::bad_alloc();
        }
        return frame;
    }

    // The picture of a frame that the stabilizer has filled.
    AvFramePtr picture_of(const vs::Frame& steady) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto made = made_.find(&steady);
        AvFramePtr picture = std::move(made->second);
        made_.erase(made);
        return picture;
    }

  private:
    vs::Frame* make() {
        AvFramePtr picture = pool_.take();
        FramePtr frame = frame_over(*picture);
        const std::lock_guard<std::mutex> lock(mutex_);
        made_[frame.get()] = std::move(picture);
        return frame.release();
    }

    static vs::Frame* make_frame(void* self) noexcept {
        try {
            return static_cast<Pictures*>(self)->make();
        } catch (...) {  // memory has run out; nothing may be thrown through the library
            return nullptr;
        }
    }

    vs::PixelLayout layout_;
    PicturePool pool_;
    vs::VideoStabilizerUser user_{this, make_frame};
    std::mutex mutex_;  // guards the rest
    // What the stabilizer has, also frames that it has released at the end of a stream.
    std::unordered_map<const vs::Frame*, AvFramePtr> made_;
};

StabilizerPtr make_stabilizer(const StreamParts& parts, Pictures& pictures) {
    forget_library_errors();
    const bool may_use_opencl = parts.options.engine != vs::STABILIZER_ENGINE_NATIVE;
    const bool needs_opencl = parts.options.engine == vs::STABILIZER_ENGINE_OPENCL;
    if (may_use_opencl && vs::video_stabilizer_module_init() != 0 && needs_opencl) {
        throw opencl_error();
    }
    forget_library_errors();
    const PictureFormat& format = parts.source.format();
    StabilizerPtr stabilizer(vs::video_stabilizer_create_for_pictures(
        format.width, format.height, &pictures.layout(), 0, pictures.user(), &parts.options));
    if (!stabilizer) {
        throw library_error("the stabilizer cannot be created");
    }
    if (parts.path != nullptr) {
        // With whole_shift, the corrections that are told are those of the pictures.
        const float crop = parts.options.whole_shift != 0 ? 1.0F : parts.options.crop_ratio;
        const vs::VideoStabilizerObserver observer =
            parts.path->observer(static_cast<double>(crop));
        vs::video_stabilizer_set_observer(stabilizer.get(), &observer);
    }
    return stabilizer;
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

// Reads pictures into frames, and writes those of steady frames. Threads: read on one thread, write
// on another.
class Stream {
  public:
    Stream(const StreamParts& parts, Pictures& pictures) : parts_(parts), pictures_(pictures) {}

    // A frame over the next picture; null at the end of the input.
    FramePtr read() {
        const Stopwatch stopwatch(reading_seconds_);
        Taken taken;
        taken.picture = parts_.source.read(taken.tag);
        if (!taken.picture) {
            return nullptr;
        }
        parts_.extras.add_shaky(*taken.picture);
        FramePtr frame = pictures_.frame_over(*taken.picture);
        frame->timestamp = taken.tag.time;
        const std::lock_guard<std::mutex> lock(mutex_);
        taken_.push_back(std::move(taken));
        return frame;
    }

    // Writes the picture of a steady frame.
    void write(FramePtr frame) {
        const Stopwatch stopwatch(writing_seconds_);
        const Taken taken = next();
        const AvFramePtr picture = pictures_.picture_of(*frame);
        parts_.sink.write(*picture, taken.tag);
        parts_.extras.add_steady(*picture, taken.tag);
    }

    // For use after the threads have ended.
    double reading_seconds() const { return reading_seconds_; }
    double writing_seconds() const { return writing_seconds_; }

  private:
    // A picture that was read, which is kept until the stabilizer has returned its steady one.
    struct Taken {
        AvFramePtr picture;
        PictureTag tag;
    };

    // Frames keep their order, so a queue is enough.
    Taken next() {
        const std::lock_guard<std::mutex> lock(mutex_);
        Taken taken = std::move(taken_.front());
        taken_.pop_front();
        return taken;
    }

    const StreamParts& parts_;
    Pictures& pictures_;
    double reading_seconds_ = 0;
    double writing_seconds_ = 0;
    std::mutex mutex_;  // guards the rest
    std::deque<Taken> taken_;
};

// Bounds the frames in flight and hands the steady ones to the writing thread.
//
// A full output queue of the stabilizer makes its threads poll every 50 microseconds, which costs
// when the writer is an encoder that needs all cores. With no more frames in flight than its queues
// hold, and frames taken out at once, that does not happen.
class FramesInFlight {
  public:
    explicit FramesInFlight(int look_ahead) : room_(look_ahead + CIRCULATING) {}

    // Waits for room for one more frame. Returns false when closed.
    bool enter() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return room_ > 0 || closed_; });
        --room_;
        return !closed_;
    }

    void put(FramePtr steady) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            steady_.push_back(std::move(steady));
        }
        changed_.notify_all();
    }

    // Waits for the next steady frame; null when closed and empty.
    FramePtr take() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return !steady_.empty() || closed_; });
        if (steady_.empty()) {
            return nullptr;
        }
        FramePtr frame = std::move(steady_.front());
        steady_.pop_front();
        return frame;
    }

    // Makes room for another frame.
    void leave() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ++room_;
        }
        changed_.notify_all();
    }

    // Ends all waits; no frame may enter any more.
    void close() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
        }
        changed_.notify_all();
    }

  private:
    // Besides the look-ahead: one frame each being read, analysed, warped and written, and two in
    // queues.
    static constexpr int CIRCULATING = 6;

    std::mutex mutex_;  // guards the rest
    std::condition_variable changed_;
    int room_;
    bool closed_ = false;
    std::deque<FramePtr> steady_;
};

// The threads of one stream, and what they share.
class Run {
  public:
    Run(const StreamParts& parts, Pictures& pictures, vs::VideoStabilizer* stabilizer,
        StreamSeconds& seconds)
        : parts_(parts),
          stabilizer_(stabilizer),
          seconds_(seconds),
          stream_(parts, pictures),
          in_flight_(parts.options.look_ahead) {}

    Stream& stream() { return stream_; }

    // Passes `first` and all following frames through the stabilizer. Returns the number of frames
    // written; `read_failure` receives what stopped the reading thread.
    std::int64_t pass_all(FramePtr first, std::exception_ptr& read_failure) {
        std::exception_ptr pop_failure;
        std::exception_ptr write_failure;
        std::int64_t frames = 0;
        std::thread pusher;
        std::thread popper;
        try {
            pusher = std::thread([&] { push_all(std::move(first), read_failure); });
            popper = std::thread([&] { pop_all(pop_failure); });
            frames = write_all();
        } catch (...) {
            write_failure = std::current_exception();
        }
        // Releases the other threads wherever they wait. Without a write failure the popping thread
        // is done: it has closed in_flight_.
        if (write_failure || pop_failure) {
            parts_.cancelled = true;
        }
        in_flight_.close();
        vs::video_stabilizer_stop(stabilizer_);
        for (std::thread* thread : {&pusher, &popper}) {
            if (thread->joinable()) {
                thread->join();
            }
        }
        for (const auto& failure : {write_failure, pop_failure}) {
            if (failure) {
                std::rethrow_exception(failure);
            }
        }
        return frames;
    }

  private:
    // Body of the reading thread.
    void push_all(FramePtr frame, std::exception_ptr& failure) {
        try {
            while (frame) {
                const int result = push(std::move(frame));
                if (result == vs::RESULT_STOPPING) {
                    return;  // pop_all reports why
                }
                if (result != vs::RESULT_OK) {
                    throw library_error("the stabilizer rejects a frame");
                }
                frame = stream_.read();
            }
        } catch (...) {
            failure = std::current_exception();
        }
        vs::video_stabilizer_signal_eos(stabilizer_);
    }

    int push(FramePtr frame) {
        const Stopwatch stopwatch(seconds_.pushing);
        if (!in_flight_.enter()) {
            return vs::RESULT_STOPPING;
        }
        return vs::video_stabilizer_push_frame(stabilizer_, frame.release());
    }

    // Body of the thread that takes steady frames from the stabilizer.
    void pop_all(std::exception_ptr& failure) {
        try {
            for (;;) {
                vs::Frame* frame = nullptr;
                const int result = vs::video_stabilizer_pop_frame(stabilizer_, &frame);
                if (result == vs::RESULT_END_OF_STREAM) {
                    break;
                }
                if (result != vs::RESULT_OK) {
                    throw library_error("the stabilizer has failed");
                }
                in_flight_.put(FramePtr(frame));
            }
        } catch (...) {
            failure = std::current_exception();
        }
        in_flight_.close();
    }

    std::int64_t write_all() {
        for (std::int64_t frames = 0;; ++frames) {
            FramePtr frame = take();
            if (!frame) {
                return frames;
            }
            stream_.write(std::move(frame));
            in_flight_.leave();
            parts_.progress.show(frames + 1);
        }
    }

    FramePtr take() {
        const Stopwatch stopwatch(seconds_.popping);
        return in_flight_.take();
    }

    const StreamParts& parts_;
    vs::VideoStabilizer* stabilizer_;
    StreamSeconds& seconds_;
    Stream stream_;
    FramesInFlight in_flight_;
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
    Pictures pictures(parts.source.format());
    // It may keep frames over pictures of the run, which it no longer reads once it is stopped.
    const StabilizerPtr stabilizer = make_stabilizer(parts, pictures);
    result.options = stabilizer->options;
    const auto start = std::chrono::steady_clock::now();
    Run run(parts, pictures, stabilizer.get(), result.seconds);

    // The stabilizer is not started for a stream without frames.
    FramePtr first;
    try {
        first = run.stream().read();
    } catch (const video_io::InputError&) {
        result.input_failure = std::current_exception();
    }
    if (!first) {
        return result;
    }

    if (vs::video_stabilizer_start(stabilizer.get()) != vs::RESULT_OK) {
        throw LibraryError("the stabilizer cannot start its thread");
    }
    std::exception_ptr read_failure;
    result.frames = run.pass_all(std::move(first), read_failure);
    if (read_failure && !is_input_failure(read_failure)) {
        std::rethrow_exception(read_failure);
    }
    result.input_failure = read_failure;
    result.seconds.reading = run.stream().reading_seconds();
    result.seconds.writing = run.stream().writing_seconds();
    result.seconds.total =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (parts.path != nullptr) {
        parts.path->check();
    }
    return result;
}

}  // namespace apps
