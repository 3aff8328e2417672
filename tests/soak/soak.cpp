// SPDX-License-Identifier: Apache-2.0

// Long runs: one stream of many frames, one of the C interface with all that the strong path has, then many
// short streams through each interface, with the memory, threads, descriptors and processor time of the
// process.
//
//   soak FRAMES STREAMS
//
// Ends with 1, and the reason, if any of them grows or a stream does not give every frame in order.

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "common/synthetic/scene.h"
#include "videostabilizer/stream.h"
#include "videostabilizer/videostabilizer.h"

using namespace videostabilizer;

namespace {

constexpr int TENTHS = 10;
constexpr int WIDTH = 640;
constexpr int HEIGHT = 480;
constexpr int STRONG_WIDTH = 160;
constexpr int STRONG_HEIGHT = 96;
constexpr int CLIP_FRAMES = 30;

// Growth that is no leak. Resident: what the C library and the OpenCL driver
// keep of freed memory. Heap: while a stream runs, its frames; between streams, the driver's own
// book-keeping. Threads: those of the driver come and go.
constexpr double RESIDENT_MB = WATCH_MEMORY ? 32 : 1e9;
constexpr double RUNNING_HEAP_MB = WATCH_MEMORY ? 10 : 1e9;
constexpr double IDLE_HEAP_MB = WATCH_MEMORY ? 1 : 1e9;
constexpr double THREADS = 2;
// The processor time of a tenth against the first, and from how many seconds on it is judged.
constexpr double SLOWER = 1.5;
constexpr double LONG_ENOUGH = 2;

std::atomic<bool> set_up{false};  // the set-up reports its success as an error
std::atomic<bool> failed{false};

void fail(const char* what, double first, double last) {
    std::printf("FAILED: %s: %.1f at first, %.1f at last\n", what, first, last);
    failed = true;
}

int entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<int>(std::distance(begin(all), end(all)));
}

constexpr const char* MEASURES[] = {"resident MB", "heap MB", "threads", "descriptors"};
using Usage = std::array<double, std::size(MEASURES)>;

Usage usage_now() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    const struct mallinfo2 heap = mallinfo2();  // of it what is allocated and not freed
    return {1e-6 * static_cast<double>(pages * sysconf(_SC_PAGESIZE)),
            1e-6 * static_cast<double>(heap.uordblks + heap.hblkhd),
            static_cast<double>(entries("/proc/self/task")),
            static_cast<double>(entries("/proc/self/fd"))};
}

// The usage of every tenth of a run, printed as it goes. The first one is the warm-up.
class Watch {
  public:
    Watch(const char* what, int total, const Usage& margins)
        : what_(what), total_(total), margins_(margins) {}

    void done(int count) {
        if (static_cast<long>(count) * TENTHS / total_ <= static_cast<long>(usages_.size())) {
            return;
        }
        const Usage& usage = usages_.emplace_back(usage_now());
        const double now = static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
        seconds_.push_back(now - since_);
        since_ = now;
        std::printf("%d %s, %.2f s of the processors", count, what_, seconds_.back());
        for (std::size_t i = 0; i < usage.size(); ++i) {
            std::printf(", %.2f %s", usage[i], MEASURES[i]);
        }
        std::puts("");
        std::fflush(stdout);
    }

    void judge() const {
        for (std::size_t i = 0; !usages_.empty() && i < margins_.size(); ++i) {
            if (usages_.back()[i] > usages_.front()[i] + margins_[i]) {
                fail(MEASURES[i], usages_.front()[i], usages_.back()[i]);
            }
        }
        if (!seconds_.empty() && seconds_.front() > LONG_ENOUGH &&
            seconds_.back() > SLOWER * seconds_.front()) {
            fail("processor time", seconds_.front(), seconds_.back());
        }
    }

  private:
    const char* what_;
    int total_;
    Usage margins_;
    std::vector<Usage> usages_;
    double since_ = static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
    std::vector<double> seconds_;
};

using Clip = std::vector<std::vector<unsigned char>>;

Clip make_clip(int width, int height) {
    synthetic::ClipSettings settings;
    settings.camera.width = width;
    settings.camera.height = height;
    const synthetic::ShakyClip shaky(settings);
    const int luma = width * height;
    Clip clip(CLIP_FRAMES, std::vector<unsigned char>(static_cast<std::size_t>(luma * 3 / 2)));
    for (int i = 0; i < CLIP_FRAMES; ++i) {
        unsigned char* const y = clip[static_cast<std::size_t>(i)].data();
        shaky.render(i, {y, y + luma, y + luma * 5 / 4, width, width / 2});
    }
    return clip;
}

// The clip is played forwards and backwards, so that its camera never jumps.
std::size_t picture_of(int number) {
    const int phase = number % (2 * CLIP_FRAMES - 2);
    return static_cast<std::size_t>(std::min(phase, 2 * CLIP_FRAMES - 2 - phase));
}

// A frame with its number as timestamp.
Frame* make_frame(const Clip& clip, int number, PixFmt format) {
    const std::size_t picture = picture_of(number);
    Frame* const frame = frame_create(WIDTH, HEIGHT, WIDTH, WIDTH / 2, format, nullptr);
    if (frame != nullptr) {
        std::copy(clip[picture].begin(), clip[picture].end(), frame->plane_y);
        frame->timestamp = number;
    }
    return frame;
}

struct StreamPlan {
    int frames;
    int in_place;
    PixFmt format;
    int stop_after;  // frames popped
};

// One stream from create to delete; `watch`, if any, hears of every frame.
void run_stream(const Clip& clip, const StreamPlan& plan, Watch* watch) {
    VideoStabilizer* const s = video_stabilizer_create(WIDTH, HEIGHT, WIDTH, WIDTH / 2, plan.format,
                                                       0, plan.in_place, nullptr);
    if (s == nullptr || video_stabilizer_start(s) != 0) {
        fail("a stream cannot start", 0, 0);
        video_stabilizer_delete(s);
        return;
    }
    std::thread producer([&] {
        int code = 0;
        for (int i = 0; i < plan.frames && code == 0; ++i) {
            code = video_stabilizer_push_frame(s, make_frame(clip, i, plan.format));
        }
        video_stabilizer_signal_eos(s);
    });
    int popped = 0;
    Frame* frame = nullptr;
    while (popped < plan.stop_after && video_stabilizer_pop_frame(s, &frame) == 0) {
        if (frame->timestamp != popped) {
            fail("frames out of order", popped, static_cast<double>(frame->timestamp));
        }
        frame_delete(frame);
        ++popped;
        if (watch != nullptr) {
            watch->done(popped);
        }
    }
    if (popped != plan.stop_after ||
        (popped == plan.frames && video_stabilizer_pop_frame(s, &frame) == 0)) {
        fail("frames of a stream", plan.stop_after, popped);
    }
    video_stabilizer_stop(s);
    producer.join();
    video_stabilizer_delete(s);
}

// A stream of the C interface with all that the strong path has, of a host of one thread, which closes it
// when it has pulled so many pictures.
void run_strong_stream(const Clip& clip, int frames, int pulled, Watch* watch) {
    VideoStabilizerStreamOptions options;
    videostabilizer_stream_options_init(&options, sizeof(options), VIDEOSTABILIZER_STRONG);
    options.width = STRONG_WIDTH;
    options.height = STRONG_HEIGHT;
    options.format = VIDEOSTABILIZER_FORMAT_YUV420P;
    options.engine = VIDEOSTABILIZER_ENGINE_NATIVE;
    options.auto_crop = 1;
    options.shutter = VIDEOSTABILIZER_SHUTTER_AUTO;
    options.threads = 2;
    VideoStabilizerStream* stream = nullptr;
    if (videostabilizer_stream_open(&options, &stream, nullptr, 0) != VIDEOSTABILIZER_OK) {
        fail("a stream cannot be opened", 0, 0);
        return;
    }
    constexpr int LUMA = STRONG_WIDTH * STRONG_HEIGHT;
    int count = 0;
    for (int i = 0, next = 0; next < pulled; ++i) {
        if (i < frames) {
            auto* const y = const_cast<unsigned char*>(clip[picture_of(i)].data());
            VideoStabilizerInput input{};
            input.size = sizeof(input);
            input.planes = {{y, y + LUMA, y + LUMA * 5 / 4},
                            {STRONG_WIDTH, STRONG_WIDTH / 2, STRONG_WIDTH / 2}};
            input.timestamp = i;
            count += videostabilizer_stream_push(stream, &input, -1) == VIDEOSTABILIZER_OK ? 1 : 0;
        } else if (i == frames) {
            videostabilizer_stream_drain(stream);
        }
        if (i < frames && i < options.look_ahead) {
            continue;
        }
        VideoStabilizerPicture* picture = nullptr;
        VideoStabilizerOutput output{};
        output.size = sizeof(output);
        if (videostabilizer_stream_pull(stream, &picture, -1) != VIDEOSTABILIZER_OK) {
            break;
        }
        videostabilizer_picture_get(picture, &output);
        if (output.timestamp != next) {
            fail("pictures out of order", next, static_cast<double>(output.timestamp));
        }
        videostabilizer_picture_unref(picture);
        ++next;
        count -= 1;
        if (watch != nullptr) {
            watch->done(next);
        }
    }
    if (count != frames - pulled && pulled == frames) {
        fail("pictures of a stream", frames, count);
    }
    videostabilizer_stream_close(stream);
}

void wait_for_threads(int idle_threads) {
    // A thread that was joined may stay listed for a moment.
    for (int tries = 0; tries < 100 && entries("/proc/self/task") > idle_threads; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    constexpr int ERROR = 6;
    if (set_up && priority >= ERROR && std::strcmp(tag, "lk_pyradmid") != 0) {  // a lost point
        std::printf("FAILED: error in the log, %s: ", tag);
        va_list arguments;
        va_start(arguments, format);
        std::vprintf(format, arguments);
        va_end(arguments);
        std::puts("");
        failed = true;
    }
    return 0;
}

int main(int argc, char** argv) {
    const int frames = argc == 3 ? std::atoi(argv[1]) : 0;
    const int streams = argc == 3 ? std::atoi(argv[2]) : 0;
    if (frames < TENTHS || streams < TENTHS) {
        std::fprintf(stderr, "usage: soak FRAMES STREAMS, at least %d of each\n", TENTHS);
        return 2;
    }
    if (video_stabilizer_module_init() != 0) {
        std::fputs("no OpenCL device\n", stderr);
        return 1;
    }
    set_up = true;
    const Clip clip = make_clip(WIDTH, HEIGHT);
    const Clip small = make_clip(STRONG_WIDTH, STRONG_HEIGHT);
    const StreamPlan plans[] = {
        {16, 1, PIX_FMT_YUV420P, 16},
        {25, 0, PIX_FMT_YUV420SP_0, 25},
        {60, 1, PIX_FMT_YUV420P, 7},  // stopped with every queue full
        {5, 0, PIX_FMT_YUV420P, 5},   // shorter than the delay
    };
    for (const StreamPlan& plan : plans) {  // allocations of the first stream of its kind
        run_stream(clip, plan, nullptr);
    }
    run_strong_stream(small, 25, 25, nullptr);

    Watch long_watch("frames", frames, {RESIDENT_MB, RUNNING_HEAP_MB, THREADS, 0});
    run_stream(clip, {frames, 0, PIX_FMT_YUV420P, frames}, &long_watch);
    long_watch.judge();

    Watch strong_watch("frames of the strong path", frames,
                       {RESIDENT_MB, RUNNING_HEAP_MB, THREADS, 0});
    run_strong_stream(small, frames, frames, &strong_watch);
    strong_watch.judge();

    Watch short_watch("streams", streams, {RESIDENT_MB, IDLE_HEAP_MB, THREADS, 0});
    const int idle_threads = entries("/proc/self/task");
    for (int i = 0; i < streams; ++i) {
        run_stream(clip, plans[static_cast<std::size_t>(i) % std::size(plans)], nullptr);
        wait_for_threads(idle_threads);
        short_watch.done(i + 1);
    }
    short_watch.judge();

    Watch c_watch("streams of the C interface", streams, {RESIDENT_MB, IDLE_HEAP_MB, THREADS, 0});
    for (int i = 0; i < streams; ++i) {  // every other one is closed with pictures inside
        run_strong_stream(small, 25, i % 2 == 0 ? 25 : 3, nullptr);
        wait_for_threads(idle_threads);
        c_watch.done(i + 1);
    }
    c_watch.judge();
    return failed ? 1 : 0;
}
