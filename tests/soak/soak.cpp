// A long run: one stream of many frames, then many short streams, and what the process has of
// memory, threads and descriptors meanwhile.
//
//   soak FRAMES STREAMS
//
// Ends with 1, and the reason, if any of them grows or a stream does not give every frame in order.

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

#include "apps/scene.h"
#include "videostabilizer/videostabilizer.h"

using namespace videostabilizer;

namespace {

constexpr int TENTHS = 10;
constexpr int WIDTH = 640;
constexpr int HEIGHT = 480;
constexpr int CLIP_FRAMES = 30;

// What may come and go without being a leak. Resident: what the C library and the OpenCL driver keep
// of freed memory. Heap: while a stream runs, its frames; between streams, the driver's own
// book-keeping.
constexpr double RESIDENT_MARGIN_MB = 32.0;
constexpr double RUNNING_HEAP_MARGIN_MB = 10.0;
constexpr double IDLE_HEAP_MARGIN_MB = 1.0;

std::atomic<bool> set_up{false};  // the report of the set-up comes as an error, whatever it says
std::atomic<int> errors_logged{0};
bool failed = false;

void fail(const char* what, double first, double last) {
    std::printf("FAILED: %s: %.1f at first, %.1f at last\n", what, first, last);
    failed = true;
}

int entries(const char* folder) {
    int count = 0;
    if (DIR* const dir = opendir(folder)) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the folder is this thread's
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count - 2;  // . and ..
}

struct Usage {
    double resident_mb = 0;
    double heap_mb = 0;  // allocated and not freed
    int threads = 0;
    int descriptors = 0;
};

Usage usage_now() {
    Usage usage;
    long pages = 0;
    if (std::FILE* const file = std::fopen("/proc/self/statm", "r")) {
        char text[128] = {};
        const std::size_t read = std::fread(text, 1, sizeof text - 1, file);
        const char* const resident = read > 0 ? std::strchr(text, ' ') : nullptr;
        pages = resident != nullptr ? std::strtol(resident, nullptr, 10) : 0;
        std::fclose(file);
    }
    usage.resident_mb = 1e-6 * static_cast<double>(pages * sysconf(_SC_PAGESIZE));
    const struct mallinfo2 heap = mallinfo2();
    usage.heap_mb = 1e-6 * static_cast<double>(heap.uordblks + heap.hblkhd);
    usage.threads = entries("/proc/self/task");
    usage.descriptors = entries("/proc/self/fd") - 1;  // that of the listing
    return usage;
}

// The usage of every tenth of a run, printed as it goes. The first one is taken to be the warm-up.
class Watch {
  public:
    Watch(const char* what, int total, double heap_margin_mb)
        : total_(total), heap_margin_mb_(heap_margin_mb), start_(Clock::now()) {
        std::printf("%10s %10s %8s %12s %9s %8s %12s\n", what, "per second", "cpu ms",
                    "resident MB", "heap MB", "threads", "descriptors");
    }

    void done(int count) {
        const int tenth = static_cast<int>(std::int64_t{count} * TENTHS / total_);
        if (tenth <= tenths_) {
            return;
        }
        tenths_ = tenth;
        const auto now = Clock::now();
        const double seconds = std::chrono::duration<double>(now - start_).count();
        const double cpu_ms = 1e3 * static_cast<double>(std::clock() - cpu_start_) / CLOCKS_PER_SEC;
        const Usage usage = usage_now();
        const int items = count - counted_;
        std::printf("%10d %10.1f %8.2f %12.1f %9.2f %8d %12d\n", count, items / seconds,
                    cpu_ms / items, usage.resident_mb, usage.heap_mb, usage.threads,
                    usage.descriptors);
        std::fflush(stdout);
        usages_.push_back(usage);
        counted_ = count;
        start_ = Clock::now();
        cpu_start_ = std::clock();
    }

    void judge() const {
        if (usages_.size() < 2) {
            return;
        }
        const Usage& first = usages_.front();
        const Usage& last = usages_.back();
        constexpr int DRIVERS_OWN = 2;  // that start or end at either moment
        if (last.threads > first.threads + DRIVERS_OWN) {
            fail("threads", first.threads, last.threads);
        }
        if (last.descriptors > first.descriptors) {
            fail("descriptors", first.descriptors, last.descriptors);
        }
        if (WATCH_MEMORY && last.resident_mb > first.resident_mb + RESIDENT_MARGIN_MB) {
            fail("resident memory in MB", first.resident_mb, last.resident_mb);
        }
        if (WATCH_MEMORY && last.heap_mb > first.heap_mb + heap_margin_mb_) {
            fail("heap in MB", first.heap_mb, last.heap_mb);
        }
    }

  private:
    using Clock = std::chrono::steady_clock;
    int total_;
    double heap_margin_mb_;
    Clock::time_point start_;
    std::clock_t cpu_start_ = std::clock();
    int tenths_ = 0;
    int counted_ = 0;
    std::vector<Usage> usages_;
};

// A clip in memory that is played forwards and backwards, so that its camera never jumps.
class Clip {
  public:
    Clip() : pixels_(CLIP_FRAMES) {
        apps::ClipSettings settings;
        settings.camera.width = WIDTH;
        settings.camera.height = HEIGHT;
        const apps::ShakyClip clip(settings);
        constexpr int LUMA = WIDTH * HEIGHT;
        for (int i = 0; i < CLIP_FRAMES; ++i) {
            std::vector<unsigned char>& pixels = pixels_[static_cast<std::size_t>(i)];
            pixels.resize(LUMA * 3 / 2);
            clip.render(i, {pixels.data(), pixels.data() + LUMA, pixels.data() + LUMA * 5 / 4,
                            WIDTH, WIDTH / 2});
        }
    }

    // A frame of its own, with the picture of that number, which is its timestamp.
    Frame* frame(int number, PixFmt format) const {
        constexpr int PERIOD = 2 * CLIP_FRAMES - 2;
        const int phase = number % PERIOD;
        const int picture = phase < CLIP_FRAMES ? phase : PERIOD - phase;
        Frame* const frame = frame_create(WIDTH, HEIGHT, WIDTH, WIDTH / 2, format, nullptr);
        if (frame != nullptr) {
            const auto& pixels = pixels_[static_cast<std::size_t>(picture)];
            std::memcpy(frame->plane_y, pixels.data(), pixels.size());
            frame->timestamp = number;
        }
        return frame;
    }

  private:
    std::vector<std::vector<unsigned char>> pixels_;
};

Frame* make_output(void* /*ctx*/) {
    return frame_create(WIDTH, HEIGHT, WIDTH, WIDTH / 2, PIX_FMT_YUV420P, nullptr);
}

struct StreamPlan {
    int frames;
    bool in_place;
    bool own_frame_maker;
    PixFmt format;
    int stop_after;  // frames popped; -1: at the end of the stream
};

// One stream from create to delete; `watch`, if any, hears of every frame.
void run_stream(const Clip& clip, const StreamPlan& plan, Watch* watch) {
    VideoStabilizerUser user = {&user, make_output};
    VideoStabilizer* const s =
        video_stabilizer_create(WIDTH, HEIGHT, WIDTH, WIDTH / 2, plan.format, 0,
                                plan.in_place ? 1 : 0, plan.own_frame_maker ? &user : nullptr);
    if (s == nullptr || video_stabilizer_start(s) != 0) {
        fail("a stream cannot start", 0, 0);
        video_stabilizer_delete(s);
        return;
    }
    std::thread producer([&] {
        int number = 0;
        while (number < plan.frames &&
               video_stabilizer_push_frame(s, clip.frame(number, plan.format)) == 0) {
            ++number;
        }
        video_stabilizer_signal_eos(s);
    });
    int popped = 0;
    Frame* frame = nullptr;
    while (popped != plan.stop_after && video_stabilizer_pop_frame(s, &frame) == 0) {
        if (!plan.own_frame_maker && frame->timestamp != popped) {
            fail("frames out of order", popped, static_cast<double>(frame->timestamp));
        }
        frame_delete(frame);
        ++popped;
        if (watch != nullptr) {
            watch->done(popped);
        }
    }
    video_stabilizer_stop(s);
    producer.join();
    video_stabilizer_delete(s);
    const int wanted = plan.stop_after < 0 ? plan.frames : plan.stop_after;
    if (popped != wanted) {
        fail("frames of a stream", wanted, popped);
    }
}

// A thread that was joined may stay listed for a moment.
void settle(int threads) {
    for (int i = 0; i < 100 && entries("/proc/self/task") > threads; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    constexpr int ERROR = 6;
    if (set_up && priority >= ERROR &&
        std::strcmp(tag, "lk_pyradmid") != 0) {  // a lost point is none
        char text[512];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        std::printf("error in the log, %s: %s\n", tag, text);
        ++errors_logged;
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
    const Clip clip;
    const StreamPlan plans[] = {
        {16, true, false, PIX_FMT_YUV420P, -1},
        {12, false, false, PIX_FMT_YUV420SP_0, -1},
        {25, false, true, PIX_FMT_YUV420P, -1},
        {60, true, false, PIX_FMT_YUV420P, 7},   // stopped with every queue full
        {5, false, false, PIX_FMT_YUV420P, -1},  // shorter than the delay
    };
    for (const StreamPlan& plan : plans) {  // what only the first stream of its kind takes
        run_stream(clip, plan, nullptr);
    }

    Watch long_watch("frames", frames, RUNNING_HEAP_MARGIN_MB);
    run_stream(clip, {frames, false, false, PIX_FMT_YUV420P, -1}, &long_watch);
    long_watch.judge();

    Watch short_watch("streams", streams, IDLE_HEAP_MARGIN_MB);
    const int idle_threads = usage_now().threads;
    for (int i = 0; i < streams; ++i) {
        run_stream(clip, plans[static_cast<std::size_t>(i) % std::size(plans)], nullptr);
        settle(idle_threads);
        short_watch.done(i + 1);
    }
    short_watch.judge();
    if (errors_logged != 0) {
        fail("errors in the log", 0, errors_logged);
    }
    return failed ? 1 : 0;
}
