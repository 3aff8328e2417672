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
            // Who does not wait is busy with the disk, a pipe or the end.
            if (passed != last_passed || waiting_ < THREADS) {
                last_passed = passed;
                last_progress = Clock::now();
            }
            if (library_thread_failed() || Clock::now() - last_progress > LONGEST_STANDSTILL) {
                vs::video_stabilizer_stop(stabilizer_);
                return;
            }
        }
    }

    static constexpr int THREADS = 3;  // that read and push, pop, and write

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

// The frames between the reading and the writing thread. A full queue of the stabilizer makes whoever
// waits for it look 20,000 times a second, which costs when the writer is an encoder that wants both
// cores. So no more frames are let in than it can hold without that, and they leave it at once.
class Passage {
  public:
    explicit Passage(int look_ahead) : room_(look_ahead + CIRCULATING) {}

    // Waits for room for one frame more. Returns false when closed.
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

    // The next steady frame; null when closed and there is none.
    FramePtr take() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return !steady_.empty() || closed_; });
        if (steady_.empty()) return nullptr;
        FramePtr frame = std::move(steady_.front());
        steady_.pop_front();
        return frame;
    }

    // A frame that was taken is done with.
    void leave() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ++room_;
        }
        changed_.notify_all();
    }

    // No frame will be put any more, and none let in.
    void close() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
        }
        changed_.notify_all();
    }

  private:
    // Besides those that the look-ahead holds back: one each being read, analysed, warped and
    // written, and one or two on the way.
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
    Run(const StreamParts& parts, vs::VideoStabilizer* stabilizer, StreamSeconds& seconds)
        : parts_(parts),
          stabilizer_(stabilizer),
          seconds_(seconds),
          stream_(parts),
          passage_(parts.options.look_ahead),
          watch_(stabilizer) {}

    Stream& stream() { return stream_; }

    // Passes `first` and all that follow through the stabilizer. Returns the number of frames
    // written; what stopped the reading is left in `read_failure`.
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
        // Lets go of the others, wherever they wait, if this is not the end of the stream. The
        // order matters: only when the watch has ended may this thread stop the stabilizer.
        if (write_failure || pop_failure) parts_.cancelled = true;
        passage_.close();
        watch_.end();
        vs::video_stabilizer_stop(stabilizer_);
        if (pusher.joinable()) pusher.join();
        if (popper.joinable()) popper.join();
        for (const auto& failure : {write_failure, pop_failure}) {
            if (failure) std::rethrow_exception(failure);
        }
        return frames;
    }

  private:
    // Body of the reading thread.
    void push_all(FramePtr frame, std::exception_ptr& failure) {
        try {
            while (frame) {
                watch_.enter();
                const int result = push(std::move(frame));
                watch_.leave();
                if (result == vs::RESULT_STOPPING) return;
                if (result != vs::RESULT_OK) throw library_error("the stabilizer refuses a frame");
                frame = stream_.read();
            }
        } catch (...) {
            failure = std::current_exception();
        }
        vs::video_stabilizer_signal_eos(stabilizer_);
        watch_.enter();  // there is nothing left but to wait for the others
    }

    int push(FramePtr frame) {
        const Stopwatch stopwatch(seconds_.pushing);
        if (!passage_.enter()) return vs::RESULT_STOPPING;
        return vs::video_stabilizer_push_frame(stabilizer_, frame.release());
    }

    // Body of the thread that takes steady frames from the stabilizer until there are no more.
    void pop_all(std::exception_ptr& failure) {
        try {
            for (;;) {
                vs::Frame* frame = nullptr;
                watch_.enter();
                const int result = vs::video_stabilizer_pop_frame(stabilizer_, &frame);
                watch_.leave();
                if (result == vs::RESULT_END_OF_STREAM) break;
                if (result != vs::RESULT_OK) throw library_error("the stabilizer has failed");
                passage_.put(FramePtr(frame));
            }
        } catch (...) {
            failure = std::current_exception();
        }
        watch_.enter();
        passage_.close();
    }

    std::int64_t write_all() {
        for (std::int64_t frames = 0;; ++frames) {
            FramePtr frame = take();
            if (!frame) return frames;
            stream_.write(std::move(frame));
            passage_.leave();
            parts_.progress.show(frames + 1);
        }
    }

    FramePtr take() {
        const Stopwatch stopwatch(seconds_.popping);
        watch_.enter();
        FramePtr frame = passage_.take();
        watch_.leave();
        return frame;
    }

    const StreamParts& parts_;
    vs::VideoStabilizer* stabilizer_;
    StreamSeconds& seconds_;
    Stream stream_;
    Passage passage_;
    Watch watch_;
};

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
    const auto start = std::chrono::steady_clock::now();
    Run run(parts, stabilizer.get(), result.seconds);

    // A stream without frames is a special case to the stabilizer, so it never gets to see one.
    FramePtr first;
    try {
        first = run.stream().read();
    } catch (const InputError&) {
        result.input_failure = std::current_exception();
    }
    if (!first) return result;

    if (vs::video_stabilizer_start(stabilizer.get()) != vs::RESULT_OK) {
        throw LibraryError("the stabilizer cannot start its thread");
    }
    std::exception_ptr read_failure;
    result.frames = run.pass_all(std::move(first), read_failure);
    if (read_failure && !is_input_failure(read_failure)) std::rethrow_exception(read_failure);
    result.input_failure = read_failure;
    result.seconds.reading = run.stream().reading_seconds();
    result.seconds.writing = run.stream().writing_seconds();
    result.seconds.total =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (parts.path != nullptr) parts.path->check();
    return result;
}

}  // namespace apps
