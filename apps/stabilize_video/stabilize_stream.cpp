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

StabilizerPtr make_stabilizer(const PictureLayout& layout, PathRecorder* recorder) {
    forget_library_errors();
    if (vs::video_stabilizer_module_init() != 0) {
        throw library_error("OpenCL cannot be used");
    }
    forget_library_errors();
    const int width = layout.frame_width();
    StabilizerPtr stabilizer(vs::video_stabilizer_create(
        width, layout.frame_height(), width, width / 2, vs::PIX_FMT_YUV420P, 0, 1, nullptr));
    if (!stabilizer) throw library_error("the stabilizer cannot be made");
    if (recorder != nullptr) {
        const vs::VideoStabilizerObserver observer =
            recorder->observer(static_cast<double>(stabilizer->transformer->crop_ratio));
        vs::video_stabilizer_set_observer(stabilizer.get(), &observer);
    }
    return stabilizer;
}

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
    Stream(Y4mReader& reader, Y4mWriter& writer, const PictureLayout& layout)
        : reader_(reader), writer_(writer), layout_(layout) {}

    // Reads the next picture into a frame; null at the end of the input.
    FramePtr read() {
        FramePtr frame = take_spare();
        if (!reader_.read_frame(layout_.picture(*frame))) return nullptr;
        layout_.fill_border(*frame);
        const std::lock_guard<std::mutex> lock(mutex_);
        parameters_.push_back(reader_.frame_parameters());
        return frame;
    }

    // Writes a steady picture and keeps its frame for another one.
    void write(FramePtr frame) {
        writer_.write_frame(layout_.picture(*frame), next_parameters());
        const std::lock_guard<std::mutex> lock(mutex_);
        spare_.push_back(std::move(frame));
    }

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
        FramePtr frame = layout_.make_frame();
        if (!frame) throw LibraryError("no memory for another frame");
        return frame;
    }

    // Frames keep their order, so the lines before them do.
    std::string next_parameters() {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::string parameters = std::move(parameters_.front());
        parameters_.pop_front();
        return parameters;
    }

    Y4mReader& reader_;
    Y4mWriter& writer_;
    const PictureLayout& layout_;
    std::mutex mutex_;  // guards the two below
    std::vector<FramePtr> spare_;
    std::deque<std::string> parameters_;
};

// Body of the reading thread: pushes `frame` and all that follow, then ends the stream. What goes
// wrong is left in `failure`.
void push_all(Stream& stream, vs::VideoStabilizer* stabilizer, Watch& watch, FramePtr frame,
              std::exception_ptr& failure) {
    try {
        while (frame) {
            watch.enter();
            const int result = vs::video_stabilizer_push_frame(stabilizer, frame.release());
            watch.leave();
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
                     Progress& progress) {
    for (std::int64_t frames = 0;; ++frames) {
        vs::Frame* frame = nullptr;
        watch.enter();
        const int result = vs::video_stabilizer_pop_frame(stabilizer, &frame);
        watch.leave();
        if (result == vs::RESULT_END_OF_STREAM) return frames;
        if (result != vs::RESULT_OK) throw library_error("the stabilizer has failed");
        stream.write(FramePtr(frame));
        progress.show(frames + 1);
    }
}

bool is_input_failure(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const Y4mError&) {
        return true;
    } catch (const InputError&) {
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace

StreamResult stabilize_stream(Y4mReader& reader, Y4mWriter& writer, const PictureLayout& layout,
                              PathRecorder* recorder, Progress& progress,
                              std::atomic<bool>& cancelled) {
    StreamResult result;
    Stream stream(reader, writer, layout);
    const StabilizerPtr stabilizer = make_stabilizer(layout, recorder);

    // A stream without frames is a special case to the stabilizer, so it never gets to see one.
    FramePtr first;
    try {
        first = stream.read();
    } catch (const Y4mError&) {
        result.input_failure = std::current_exception();
    } catch (const InputError&) {
        result.input_failure = std::current_exception();
    }
    if (!first) return result;

    if (vs::video_stabilizer_start(stabilizer.get()) != vs::RESULT_OK) {
        throw LibraryError("the stabilizer cannot start its thread");
    }
    Watch watch(stabilizer.get());
    std::exception_ptr push_failure;
    std::thread pusher(
        [&] { push_all(stream, stabilizer.get(), watch, std::move(first), push_failure); });
    std::exception_ptr pop_failure;
    try {
        result.frames = pop_all(stream, stabilizer.get(), watch, progress);
    } catch (...) {
        pop_failure = std::current_exception();
        cancelled = true;  // releases the pusher if it waits for input
    }
    // The order matters: only when the watch has ended may this thread stop the stabilizer, and
    // only the stop releases a pusher that waits for room in the queue.
    watch.end();
    vs::video_stabilizer_stop(stabilizer.get());
    pusher.join();

    if (pop_failure) std::rethrow_exception(pop_failure);
    if (push_failure && !is_input_failure(push_failure)) std::rethrow_exception(push_failure);
    result.input_failure = push_failure;
    if (recorder != nullptr) recorder->check();
    return result;
}

}  // namespace apps
