// SPDX-License-Identifier: Apache-2.0

#include "native_stage/native_stage.h"

#include <algorithm>
#include <new>

#include "platform/log.h"
#include "simplela/affine_inverse.h"
#include "videostabilizer/result.h"

namespace videostabilizer {

namespace {

constexpr char TAG[] = "native_warp";

// Copies the transform as the frame leaves the queue: afterwards its owner may reuse the memory.
void copy_transform(void* to, Frame* frame) {
    auto& copy = *static_cast<std::array<float, 6>*>(to);
    copy = {1, 0, 0, 0, 1, 0};
    if (frame->opaque != nullptr) {
        std::copy_n(static_cast<const float*>(frame->opaque), copy.size(), copy.begin());
    }
}

// Output to source position, as the OpenCL stage has it: the inverse of the transform, restricted
// to the centred part of the picture.
Affine2 source_position(const std::array<float, 6>& transform, float crop_ratio,
                        const Frame& frame) {
    float inverse[6];
    SimpleLA::invert_affine(transform.data(), inverse);
    const auto r = static_cast<double>(crop_ratio);
    const double margin = 0.5 * (1 - r);
    return {r * static_cast<double>(inverse[0]),
            r * static_cast<double>(inverse[1]),
            r * static_cast<double>(inverse[2]) + margin * frame.width,
            r * static_cast<double>(inverse[3]),
            r * static_cast<double>(inverse[4]),
            r * static_cast<double>(inverse[5]) + margin * frame.height};
}

std::size_t bytes(int stride, int rows) {
    return static_cast<std::size_t>(stride) * static_cast<std::size_t>(rows);
}

}  // namespace

NativeStage::NativeStage(const NativeStageSettings& settings, const NativeStageCallbacks& callbacks)
    : settings_(settings),
      callbacks_(callbacks),
      kernels_(settings.resampling),
      capacity_(settings.capacity) {
    fifo_reset(fifo());
}

NativeStage::~NativeStage() {
    end();
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&mutex_);
}

FrameFifo NativeStage::fifo() {
    return {queue_, count_, capacity_, mutex_, cond_, quit_, eos_, timeout_ms_};
}

int NativeStage::start() {
    if (pthread_create(&thread_, nullptr, thread, this) != 0) {
        return RESULT_NO_THREAD;
    }
    started_ = true;
    return RESULT_OK;
}

int NativeStage::send(Frame* frame) {
    return fifo_put(fifo(), frame, WhenEnded::ACCEPT);
}

void NativeStage::signal_eos() {
    eos_.store(1);
    wake_waiters(mutex_, cond_);
}

void NativeStage::end() {
    quit_.store(1);
    wake_waiters(mutex_, cond_);
    if (started_) {
        pthread_join(thread_, nullptr);
        started_ = false;
    }
    fifo_flush(fifo());
}

void* NativeStage::thread(void* stage) {
    static_cast<NativeStage*>(stage)->run();
    return nullptr;
}

void NativeStage::run() {
    int result = RESULT_OK;
    while (result == RESULT_OK && quit_.load() == 0) {
        result = process_frame();
    }
    if (result == RESULT_END_OF_STREAM) {
        callbacks_.on_eos(callbacks_.owner);
    } else if (result != RESULT_OK && result != RESULT_STOPPING) {
        __android_log_print(LOG_ERROR, TAG, "the warp stage met an error: %d", result);
        callbacks_.on_failure(callbacks_.owner);
    }
}

// Takes, warps and delivers one frame. Returns RESULT_OK, or the code that ends the thread.
int NativeStage::process_frame() {
    Frame* input = nullptr;
    Six transform{};
    const int taken = fifo_take(fifo(), &input, copy_transform, &transform);
    if (taken != RESULT_OK) {
        return taken;
    }
    Frame* output = input;
    int result = settings_.in_place ? RESULT_OK : make_output(*input, &output);
    if (result == RESULT_OK) {
        try {
            warp(*input, transform, *output);
        } catch (const std::bad_alloc&) {
            __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
            result = RESULT_NO_MEMORY;
            frame_delete(settings_.in_place ? nullptr : output);
        }
    }
    if (result != RESULT_OK) {
        frame_delete(input);
        return result;
    }
    callbacks_.on_frame(callbacks_.owner, output);
    if (!settings_.in_place) {
        frame_delete(input);
    }
    return RESULT_OK;
}

int NativeStage::make_output(const Frame& input, Frame** output) {
    Frame* made = nullptr;
    if (callbacks_.create_frame != nullptr) {
        made = callbacks_.create_frame(callbacks_.ctx);
        if (made == nullptr) {
            __android_log_print(LOG_ERROR, TAG, "Failed to create external frame!!");
            return RESULT_NO_FRAME;
        }
    } else {
        made = frame_create(input.width, input.height, input.stride_y, input.stride_uv,
                            input.format, nullptr);
        if (made == nullptr) {
            __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
            return RESULT_NO_MEMORY;
        }
    }
    made->timestamp = input.timestamp;
    *output = made;
    return RESULT_OK;
}

// The input, or a copy of its planes where the output lies in the same memory.
Frame NativeStage::without_overlap(const Frame& input, const Frame& output) {
    Frame source = input;
    if (output.plane_y == input.plane_y || output.plane_uv == input.plane_uv) {
        const std::size_t luma = bytes(input.stride_y, input.height);
        const std::size_t chroma = bytes(input.stride_uv, input.height);
        copy_.resize(luma + chroma);
        std::copy_n(input.plane_y, luma, copy_.data());
        std::copy_n(input.plane_uv, chroma, copy_.data() + luma);
        source.plane_y = copy_.data();
        source.plane_uv = copy_.data() + luma;
    }
    return source;
}

void NativeStage::warp(const Frame& input, const Six& transform, Frame& output) {
    constexpr PlaneGrid CHROMA = {2, 2, 0, 0.5};
    const Frame source = without_overlap(input, output);
    luma_map_.transforms.assign(1, source_position(transform, settings_.crop_ratio, input));
    plane_warp_.prepare({input.width, input.height, {}}, luma_map_, kernels_);
    warp_plane(input.height, {source.plane_y, input.stride_y}, {output.plane_y, input.stride_y});

    plane_map(luma_map_, CHROMA, chroma_map_);
    const bool planar = settings_.format == PIX_FMT_YUV420P;
    PlaneShape shape{input.width / 2, input.height / 2, {}};
    shape.format.channels = planar ? 1 : 2;
    plane_warp_.prepare(shape, chroma_map_, kernels_);
    const int stride = planar ? input.stride_uv : input.stride_y;
    warp_plane(shape.height, {source.plane_uv, stride}, {output.plane_uv, stride});
    if (planar) {
        const std::size_t to_v = bytes(input.stride_uv, input.height) / 2;
        warp_plane(shape.height, {source.plane_uv + to_v, stride},
                   {output.plane_uv + to_v, stride});
    }
}

void NativeStage::warp_plane(int height, const SourcePlane& source, const TargetPlane& target) {
    plane_warp_.warp_rows(fastest_variant(warp_variants), source, target, 0, height, scratch_);
}

}  // namespace videostabilizer
