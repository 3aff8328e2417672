// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/test_stabilizer.h"

#include <pthread.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "platform/log.h"
#include "videostabilizer/stabilizer.h"

namespace videostabilizer {

FrameContext frame_ctx;

namespace {

constexpr char TAG[] = "test_video_stabilizer";
constexpr char INPUT_PATH[] = "/sdcard/keypoints_90f.yuv";
constexpr char OUTPUT_PATH[] = "/sdcard/keypoints_90f_stab.yuv";
constexpr char CANNOT_OPEN_TEXT[] = "ERR: can't open file: %s\n";

constexpr int FRAMES = 90;
constexpr int WIDTH = 1280;
constexpr int HEIGHT = 720;
constexpr int STRIDE_Y = 1280;
constexpr int STRIDE_UV = 640;
constexpr std::size_t LUMA_BYTES = 921600;
constexpr std::size_t CHROMA_BYTES = 460800;
constexpr int UNUSED_ARGUMENT = 5;  // `reserved` of video_stabilizer_create

VideoStabilizerUser test_user = {&frame_ctx, create_frame_from_video_buffer};

Frame* frame_over(const Buffer& buffer) {
    return frame_create(WIDTH, HEIGHT, STRIDE_Y, STRIDE_UV, PIX_FMT_YUV420P, buffer.y, buffer.uv);
}

bool allocate(Buffer& buffer) {
    buffer.width = WIDTH;
    buffer.height = HEIGHT;
    // Zeroed, so that an input file that is too short gives reproducible pictures.
    buffer.y = static_cast<unsigned char*>(std::calloc(1, LUMA_BYTES));
    buffer.uv = static_cast<unsigned char*>(std::calloc(1, CHROMA_BYTES));
    return buffer.y != nullptr && buffer.uv != nullptr;
}

bool allocate_pools() {
    frame_ctx.output_cursor = frame_ctx.input_cursor = 0;
    bool all = true;
    for (Buffer& buffer : frame_ctx.output_buffers) {
        all = allocate(buffer) && all;
    }
    for (Buffer& buffer : frame_ctx.input_buffers) {
        all = allocate(buffer) && all;
    }
    return all;
}

void release(Buffer& buffer) {
    std::free(buffer.y);
    std::free(buffer.uv);
    buffer = Buffer{};
}

void release_pools() {
    for (Buffer& buffer : frame_ctx.output_buffers) {
        release(buffer);
    }
    for (Buffer& buffer : frame_ctx.input_buffers) {
        release(buffer);
    }
}

void read_plane(std::FILE* file, unsigned char* plane, std::size_t size) {
    const std::size_t got = std::fread(plane, 1, size, file);
    if (got < size) {
        std::printf("ERR: file size expected: %d but read: %d\n", static_cast<int>(size),
                    static_cast<int>(got));
    }
}

void write_plane(std::FILE* file, const unsigned char* plane, std::size_t size) {
    const std::size_t put = std::fwrite(plane, 1, size, file);
    if (put < size) {
        std::printf("ERR: file size expected: %d but written: %d\n", static_cast<int>(size),
                    static_cast<int>(put));
    }
}

void push_frames(std::FILE* file, VideoStabilizer* stabilizer) {
    constexpr int POOL_SIZE = static_cast<int>(std::size(frame_ctx.input_buffers));
    for (int i = 0; i < FRAMES; ++i) {
        Frame* const frame = frame_over(frame_ctx.input_buffers[frame_ctx.input_cursor]);
        if (frame == nullptr) {
            return;  // logged
        }
        read_plane(file, frame->plane_y, LUMA_BYTES);
        read_plane(file, frame->plane_uv, CHROMA_BYTES);
        video_stabilizer_push_frame(stabilizer, frame);
        frame_ctx.input_cursor = (frame_ctx.input_cursor + 1) % POOL_SIZE;
    }
}

// Pops and writes until all frames are done or a pop fails. Returns the number of frames.
int pop_frames(std::FILE* file, VideoStabilizer* stabilizer) {
    for (int i = 0; i < FRAMES; ++i) {
        Frame* frame = nullptr;
        const int code = video_stabilizer_pop_frame(stabilizer, &frame);
        if (code != RESULT_OK) {
            std::printf("failed to pop a frame(%d): %d\n", i, code);
            return i;
        }
        write_plane(file, frame->plane_y, LUMA_BYTES);
        write_plane(file, frame->plane_uv, CHROMA_BYTES);
        const auto distance =
            static_cast<std::intptr_t>(reinterpret_cast<std::uintptr_t>(frame->opaque) -
                                       reinterpret_cast<std::uintptr_t>(&frame_ctx));
        std::printf("pop(%d) value: %d, buf idx: %d\n", i, code, static_cast<int>(distance));
        frame_delete(frame);
    }
    return FRAMES;
}

// Runs the producer thread and pops its frames.
void run_stream(std::FILE* output, VideoStabilizer* stabilizer) {
    pthread_t producer{};
    if (pthread_create(&producer, nullptr, stabilizer_func, stabilizer) != 0) {
        std::printf("ERR: can't start the producer thread\n");
        return;
    }
    const std::int64_t start_ms = time_ms();
    const int popped = pop_frames(output, stabilizer);
    if (popped < FRAMES) {
        // No thread pops any more, and the producer may be blocked in push.
        video_stabilizer_stop(stabilizer);
    }
    pthread_join(producer, nullptr);
    std::printf("\ntime_video_stabilization: %d of frames: %d\n",
                static_cast<int>(time_ms() - start_ms), popped);
}

void run_test(VideoStabilizer* stabilizer) {
    const int started = video_stabilizer_start(stabilizer);
    __android_log_print(LOG_INFO, TAG, "start value: %d", started);
    std::FILE* const output = std::fopen(OUTPUT_PATH, "w");
    if (output == nullptr) {
        std::printf(CANNOT_OPEN_TEXT, OUTPUT_PATH);
    } else {
        if (started == RESULT_OK) {
            run_stream(output, stabilizer);
        } else {
            std::printf("ERR: can't start the stabilizer\n");
        }
        if (std::fclose(output) != 0) {
            std::printf("ERR: can't write file: %s\n", OUTPUT_PATH);
        }
    }
    const int stopped = video_stabilizer_stop(stabilizer);
    __android_log_print(LOG_INFO, TAG, "stop value: %d", stopped);
}

}  // namespace

int test_stabilizer() {
    if (!allocate_pools()) {
        std::printf("ERR: out of memory\n");
        release_pools();
        return 0;
    }
    video_stabilizer_module_init();
    VideoStabilizer* const stabilizer = video_stabilizer_create(
        WIDTH, HEIGHT, STRIDE_Y, STRIDE_UV, PIX_FMT_YUV420P, UNUSED_ARGUMENT, 1, &test_user);
    if (stabilizer == nullptr) {
        std::printf("ERR: can't create the stabilizer\n");
    } else {
        run_test(stabilizer);
        video_stabilizer_delete(stabilizer);
    }
    video_stabilizer_module_fini();
    release_pools();
    return 0;
}

void* stabilizer_func(void* arg) {
    auto* const stabilizer = static_cast<VideoStabilizer*>(arg);
    __android_log_print(LOG_INFO, TAG, "-------stabilizer_func 001");
    std::FILE* const input = std::fopen(INPUT_PATH, "rb");
    if (input == nullptr) {
        std::printf(CANNOT_OPEN_TEXT, INPUT_PATH);
        video_stabilizer_signal_eos(stabilizer);  // the consumer's first pop then ends the test
        return nullptr;
    }
    __android_log_print(LOG_INFO, TAG, "-------stabilizer_func 002");
    push_frames(input, stabilizer);
    video_stabilizer_signal_eos(stabilizer);
    __android_log_print(LOG_INFO, TAG, "-------stabilizer_func pushed %d frames+++++++++", FRAMES);
    std::fclose(input);
    return nullptr;
}

Frame* create_frame_from_video_buffer(void* ctx) {
    constexpr int POOL_SIZE = static_cast<int>(std::size(frame_ctx.output_buffers));
    auto* const context = static_cast<FrameContext*>(ctx);
    Buffer& buffer = context->output_buffers[context->output_cursor];
    Frame* const frame = frame_over(buffer);
    if (frame == nullptr) {
        return nullptr;
    }
    frame->opaque = &buffer;
    context->output_cursor = (context->output_cursor + 1) % POOL_SIZE;
    return frame;
}

Frame* create_frame_from_video_stab_buffer(Buffer& buffer) {
    return frame_over(buffer);
}

std::int64_t time_ms() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

}  // namespace videostabilizer

// Lets the library be started as a program on the device; a host's own main takes precedence.
extern "C++" VIDEOSTABILIZER_API int main();

int main() {
    videostabilizer::test_stabilizer();
    return 0;
}
