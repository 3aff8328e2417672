#include "apps/stabilize_video/stabilize_stream.h"

#include <videostabilizer/videostabilizer.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "apps/stabilize_video/library_log.h"

namespace apps {

namespace vs = videostabilizer;

namespace {

// How often the watch looks, and how long a stream may stand still while both ends wait for the
// library before it counts as dead. A frame takes seconds at the very worst.
constexpr std::chrono::milliseconds WATCH_INTERVAL{200};
constexpr std::chrono::seconds LONGEST_STANDSTILL{120};

LibraryError library_error(const std::string& what) {
    const std::string reported = library_errors();
    return LibraryError(reported.empty() ? what : what + " (" + reported + ")");
}

struct StabilizerDeleter {
    void operator()(vs::VideoStabilizer* stabilizer) const {
        vs::video_stabilizer_delete(stabilizer);  // stops it first
    }
};
using StabilizerPtr = std::unique_ptr<vs::VideoStabilizer, StabilizerDeleter>;

StabilizerPtr make_stabilizer(const StreamParts& parts) {
    forget_library_errors();
    if (vs::video_stabilizer_module_init() != 0) {
        throw library_error("OpenCL cannot be used");
    }
    forget_library_errors();
    const int width = parts.layout.frame_width();
    StabilizerPtr stabilizer(vs::video_stabilizer_create_with_options(
        width, parts.layout.frame_height(), width, width / 2, vs::PIX_FMT_YUV420P, 1, nullptr,
        &parts.options));
    if (!stabilizer) throw library_error("the stabilizer cannot be made");
    if (parts.path != nullptr) {
        const vs::VideoStabilizerObserver observer =
            parts.path->observer(static_cast<double>(stabilizer->transformer->crop_ratio));
        vs::video_stabilizer_set_observer(stabilizer.get(), &observer);
    }
    return stabilizer;
}

// Adds the time of its life to `seconds`.
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

// Stops the stabilizer, which releases whoever waits in it, when the library has failed: a pop
// would otherwise wait for ever.
class Watch {
  public:
    explicit Watch(vs::VideoStabilizer* stabilizer) : stabilizer_(stabilizer) {
        thread_ = std::thread([this] { run(); });
    }
    ~Watch() { end(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // Brackets a call that waits for the library; `waiting` counts those that do.
    void enter() { ++waiting_; }
    void leave() {
        --waiting_;
        ++passed_;
    }

    // From then on nobody but the caller stops the stabilizer.
    void end() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ended_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable()) thread_.join();
    }

  private:
    void run() {
        using Clock = std::chrono::steady_clock;
        Clock::time_point last_progress = Clock::now();
        std::uint64_t last_passed = 0;
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, WATCH_INTERVAL, [this] { return ended_; })) {
            const std::uint64_t passed = passed_;
            // With only one end waiting, the other is busy with the disk, a pipe or the end.
            if (passed != last_passed || waiting_ < BOTH_ENDS) {
                last_passed = passed;
                last_progress = Clock::now();
            }
            if (library_thread_failed() || Clock::now() - last_progress > LONGEST_STANDSTILL) {
                vs::video_stabilizer_stop(stabilizer_);
                return;
            }
        }
    }

    static constexpr int BOTH_ENDS = 2;

    vs::VideoStabilizer* stabilizer_;
    std::atomic<int> waiting_{0};
    std::atomic<std::uint64_t> passed_{0};
    std::mutex mutex_;  // guards ended_
    std::condition_variable wake_;
    bool ended_ = false;
    std::thread thread_;
};

// What the reading and the writing thread share.
class Stream {
  public:
    explicit Stream(const StreamParts& parts) : parts_(parts) {}

    // Reads the next picture into a frame; null at the end of the input.
    FramePtr read() {
        const Stopwatch stopwatch(reading_seconds_);
        FramePtr frame = take_spare();
        const Planes picture = parts_.layout.picture(*frame);
        PictureTag tag;
        if (!parts_.source.read(picture, tag)) return nullptr;
        if (parts_.comparison != nullptr) parts_.comparison->add_shaky(picture);
        parts_.layout.fill_border(*frame);
        frame->timestamp = tag.time;
        const std::lock_guard<std::mutex> lock(mutex_);
        tags_.push_back(std::move(tag));
        return frame;
    }

    // Writes a steady picture and keeps its frame for another one.
    void write(FramePtr frame) {
        const Stopwatch stopwatch(writing_seconds_);
        PictureTag tag = next_tag();
        tag.time = frame->timestamp;
        const Planes picture = parts_.layout.picture(*frame);
        parts_.sink.write(picture, tag);
        if (parts_.comparison != nullptr) parts_.comparison->add_steady(picture, tag);
        const std::lock_guard<std::mutex> lock(mutex_);
        spare_.push_back(std::move(frame));
    }

    // Of the threads that read and write, after they have ended.
    double reading_seconds() const { return reading_seconds_; }
    double writing_seconds() const { return writing_seconds_; }

  private:
    FramePtr take_spare() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (!spare_.empty()) {
                FramePtr frame = std::move(spare_.back());
                spare_.pop_back();
                return frame;
            }
        }
        FramePtr frame = parts_.layout.make_frame();
        if (!frame) throw LibraryError("no memory for another frame");
        return frame;
    }

    // Frames keep their order, so what belongs to them does.
    PictureTag next_tag() {
        const std::lock_guard<std::mutex> lock(mutex_);
        PictureTag tag = std::move(tags_.front());
        tags_.pop_front();
        return tag;
    }

    const StreamParts& parts_;
    double reading_seconds_ = 0;
    double writing_seconds_ = 0;
    std::mutex mutex_;  // guards the two below
    std::vector<FramePtr> spare_;
    std::deque<PictureTag> tags_;
};

// Body of the reading thread: pushes `frame` and all that follow, then ends the stream. What goes
// wrong is left in `failure`.
void push_all(Stream& stream, vs::VideoStabilizer* stabilizer, Watch& watch, FramePtr frame,
              StreamSeconds& seconds, std::exception_ptr& failure) {
    try {
        while (frame) {
            int result = vs::RESULT_OK;
            {
                const Stopwatch stopwatch(seconds.pushing);
                watch.enter();
                result = vs::video_stabilizer_push_frame(stabilizer, frame.release());
                watch.leave();
            }
            if (result == vs::RESULT_STOPPING) return;
            if (result != vs::RESULT_OK) throw library_error("the stabilizer refuses a frame");
            frame = stream.read();
        }
    } catch (...) {
        failure = std::current_exception();
    }
    vs::video_stabilizer_signal_eos(stabilizer);
    watch.enter();  // there is nothing left but to wait for the other end
}

// Writes steady frames until the stabilizer says that there are no more. Returns their number.
std::int64_t pop_all(Stream& stream, vs::VideoStabilizer* stabilizer, Watch& watch,
                     StreamSeconds& seconds, Progress& progress) {
    for (std::int64_t frames = 0;; ++frames) {
        vs::Frame* frame = nullptr;
        int result = vs::RESULT_OK;
        {
            const Stopwatch stopwatch(seconds.popping);
            watch.enter();
            result = vs::video_stabilizer_pop_frame(stabilizer, &frame);
            watch.leave();
        }
        if (result == vs::RESULT_END_OF_STREAM) return frames;
        if (result != vs::RESULT_OK) throw library_error("the stabilizer has failed");
        stream.write(FramePtr(frame));
        progress.show(frames + 1);
    }
}

bool is_input_failure(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const InputError&) {
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace

StreamResult stabilize_stream(const StreamParts& parts) {
    StreamResult result;
    const StabilizerPtr stabilizer = make_stabilizer(parts);
    const auto whole = std::make_unique<Stopwatch>(result.seconds.total);
    Stream stream(parts);

    // A stream without frames is a special case to the stabilizer, so it never gets to see one.
    FramePtr first;
    try {
        first = stream.read();
    } catch (const InputError&) {
        result.input_failure = std::current_exception();
    }
    if (!first) return result;

    if (vs::video_stabilizer_start(stabilizer.get()) != vs::RESULT_OK) {
        throw LibraryError("the stabilizer cannot start its thread");
    }
    Watch watch(stabilizer.get());
    std::exception_ptr push_failure;
    std::thread pusher([&] {
        push_all(stream, stabilizer.get(), watch, std::move(first), result.seconds, push_failure);
    });
    std::exception_ptr pop_failure;
    try {
        result.frames = pop_all(stream, stabilizer.get(), watch, result.seconds, parts.progress);
    } catch (...) {
        pop_failure = std::current_exception();
        parts.cancelled = true;  // releases the pusher if it waits for input
    }
    // The order matters: only when the watch has ended may this thread stop the stabilizer, and
    // only the stop releases a pusher that waits for room in the queue.
    watch.end();
    vs::video_stabilizer_stop(stabilizer.get());
    pusher.join();

    if (pop_failure) std::rethrow_exception(pop_failure);
    if (push_failure && !is_input_failure(push_failure)) std::rethrow_exception(push_failure);
    result.input_failure = push_failure;
    result.seconds.reading = stream.reading_seconds();
    result.seconds.writing = stream.writing_seconds();
    if (parts.path != nullptr) parts.path->check();
    return result;
}

}  // namespace apps
