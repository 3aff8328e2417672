// SPDX-License-Identifier: Apache-2.0

#include "picture_stage/picture_stage.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "frames/picture_layout.h"
#include "platform/log.h"
#include "platform/log_sink.h"
#include "videostabilizer/result.h"

namespace videostabilizer {

namespace {

constexpr char TAG[] = "picture_warp";

// Copies the transform as the frame leaves the queue: afterwards its owner may reuse the memory.
void copy_transform(void* to, Frame* frame) {
    auto& copy = *static_cast<PictureTransform*>(to);
    copy = frame->opaque != nullptr ? *static_cast<const PictureTransform*>(frame->opaque)
                                    : PictureTransform{};
}

Affine2 in_doubles(const AffineSix& t) {
    return {static_cast<double>(t[0]), static_cast<double>(t[1]), static_cast<double>(t[2]),
            static_cast<double>(t[3]), static_cast<double>(t[4]), static_cast<double>(t[5])};
}

std::size_t row_bytes_of(const PictureStageSettings& settings, int k) {
    return static_cast<std::size_t>(plane_samples(settings.width, settings.layout, k)) *
           static_cast<std::size_t>(sample_bytes(settings.layout));
}

// Throws std::bad_alloc where that is more than the address space, which 32 bits are soon.
std::size_t picture_bytes(const PictureStageSettings& settings) {
    std::uint64_t bytes = 0;
    for (int k = 0; k < plane_count(settings.layout); ++k) {
        bytes += std::uint64_t{row_bytes_of(settings, k)} *
                 static_cast<std::uint64_t>(plane_rows(settings.height, settings.layout, k));
    }
    if (bytes > PTRDIFF_MAX) {
        throw std::bad_alloc();
    }
    return static_cast<std::size_t>(bytes);
}

// The addresses of a plane, with what is between its rows.
struct Extent {
    std::uintptr_t begin;
    std::uintptr_t end;
};
Extent extent_of(const PictureStageSettings& settings, const PicturePlanes& planes, int k) {
    const int rows = plane_rows(settings.height, settings.layout, k);
    const unsigned char* const first_row = plane_data(planes, k);
    const unsigned char* const last_row =
        first_row + static_cast<std::ptrdiff_t>(rows - 1) * plane_stride(planes, k);
    const auto first = reinterpret_cast<std::uintptr_t>(first_row);
    const auto last = reinterpret_cast<std::uintptr_t>(last_row);
    return {std::min(first, last), std::max(first, last) + row_bytes_of(settings, k)};
}

bool overlap(const PictureStageSettings& settings, const PicturePlanes& a, const PicturePlanes& b) {
    const int planes = plane_count(settings.layout);
    for (int k = 0; k < planes; ++k) {
        const Extent one = extent_of(settings, a, k);
        for (int j = 0; j < planes; ++j) {
            const Extent other = extent_of(settings, b, j);
            if (one.begin < other.end && other.begin < one.end) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

PictureStage::PictureStage(const PictureStageSettings& settings,
                           const PictureStageCallbacks& callbacks,
                           std::unique_ptr<PictureWarper> warper)
    : settings_(settings),
      callbacks_(callbacks),
      warper_(std::move(warper)),
      capacity_(settings.capacity) {
    fifo_reset(fifo());
    if (settings.in_place) {
        copy_.reserve(picture_bytes(settings));
    }
}

PictureStage::~PictureStage() {
    end();
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&mutex_);
}

FrameFifo PictureStage::fifo() {
    return {queue_, count_, capacity_, mutex_, cond_, quit_, eos_, timeout_ms_};
}

int PictureStage::start() {
    if (start_thread(&thread_, thread, this) != 0) {
        return RESULT_NO_THREAD;
    }
    started_ = true;
    return RESULT_OK;
}

int PictureStage::send(Frame* frame) {
    return fifo_put(fifo(), frame, WhenEnded::ACCEPT);
}

void PictureStage::signal_eos() {
    eos_.store(1);
    wake_waiters(mutex_, cond_);
}

void PictureStage::end() {
    quit_.store(1);
    wake_waiters(mutex_, cond_);
    if (started_) {
        pthread_join(thread_, nullptr);
        started_ = false;
    }
    warper_.reset();  // with its OpenCL objects
    fifo_flush(fifo());
}

void* PictureStage::thread(void* stage) {
    static_cast<PictureStage*>(stage)->run();
    return nullptr;
}

void PictureStage::run() {
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
int PictureStage::process_frame() {
    Frame* input = nullptr;
    PictureTransform transform{};
    const int taken = fifo_take(fifo(), &input, copy_transform, &transform);
    if (taken != RESULT_OK) {
        return taken;
    }
    Frame* output = settings_.in_place ? input : nullptr;
    int result = settings_.in_place ? RESULT_OK : make_output(*input, &output);
    if (result == RESULT_OK) {
        result = warp(*input, transform, *output);
    }
    if (!settings_.in_place || result != RESULT_OK) {
        frame_delete(input);
    }
    if (result == RESULT_OK) {
        callbacks_.on_frame(callbacks_.owner, output);
    } else if (!settings_.in_place && output != nullptr) {
        frame_delete(output);
    }
    return result;
}

Frame* PictureStage::new_output(const Frame& input) const {
    return input.format == PIX_FMT_PICTURE
               ? picture_frame_create(input.width, input.height, &settings_.layout, nullptr)
               : frame_create(input.width, input.height, input.stride_y, input.stride_uv,
                              input.format, nullptr);
}

// Whether a picture can be written to a frame of the host, for input of that format. Other frames
// than pictures do not tell how large their planes are.
bool PictureStage::fits_stream(const Frame& output, PixFmt format) const {
    return format == PIX_FMT_PICTURE || output.format == PIX_FMT_PICTURE
               ? is_picture_of(output, settings_.width, settings_.height, settings_.layout)
               : output.plane_y != nullptr && output.plane_uv != nullptr;
}

int PictureStage::make_output(const Frame& input, Frame** output) {
    if (callbacks_.create_frame == nullptr) {
        *output = new_output(input);
        if (*output == nullptr) {
            __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
            return RESULT_NO_MEMORY;
        }
    } else {
        *output = callbacks_.create_frame(callbacks_.ctx);
        if (*output == nullptr) {
            __android_log_print(LOG_ERROR, TAG, "Failed to create external frame!!");
            return RESULT_NO_FRAME;
        }
        if (!fits_stream(**output, input.format)) {
            __android_log_print(LOG_ERROR, TAG, "create_frame made a frame of another kind");
            return RESULT_NO_FRAME;
        }
    }
    (*output)->timestamp = input.timestamp;
    return RESULT_OK;
}

// Where the planes of a frame are, with the strides of one that may be another.
PicturePlanes PictureStage::planes_of(const Frame& frame, const Frame& strides) const {
    PicturePlanes planes{};
    if (picture_frame_planes(&frame, &planes) == 0) {
        return planes;
    }
    planes.data[0] = frame.plane_y;
    planes.stride[0] = strides.stride_y;
    planes.data[1] = frame.plane_uv;
    planes.stride[1] = settings_.layout.semi_planar != 0 ? strides.stride_y : strides.stride_uv;
    planes.data[2] =
        frame.plane_uv + static_cast<std::ptrdiff_t>(strides.stride_uv) * strides.height / 2;
    planes.stride[2] = strides.stride_uv;
    return planes;
}

// Takes a copy for the source where it shares memory with the target, so that hosts may reuse theirs.
void PictureStage::copy_overlapping(PicturePlanes& source, const PicturePlanes& target) {
    if (!overlap(settings_, source, target)) {
        return;
    }
    copy_.resize(picture_bytes(settings_));
    unsigned char* copy = copy_.data();
    for (int k = 0; k < plane_count(settings_.layout); ++k) {
        const std::size_t row_bytes = row_bytes_of(settings_, k);
        const int rows = plane_rows(settings_.height, settings_.layout, k);
        const unsigned char* const from = plane_data(source, k);
        const std::ptrdiff_t stride = plane_stride(source, k);
        for (int row = 0; row < rows; ++row) {
            std::copy_n(from + row * stride, row_bytes,
                        copy + static_cast<std::size_t>(row) * row_bytes);
        }
        set_plane(source, k, copy, static_cast<std::int32_t>(row_bytes));
        copy += row_bytes * static_cast<std::size_t>(rows);
    }
}

void PictureStage::set_map(const PictureTransform& transform) {
    map_.transforms.clear();
    if (transform.by_rows != 0) {
        for (const AffineSix& row : transform.rows) {
            map_.transforms.push_back(in_doubles(row));
        }
        map_.rows_apart = transform.rows_apart();
    } else {
        map_.transforms.push_back(in_doubles(warp_parameters(transform.whole, settings_.crop_ratio,
                                                             settings_.width, settings_.height)));
    }
}

int PictureStage::warp(const Frame& input, const PictureTransform& transform, const Frame& output) {
    try {
        PicturePlanes source = planes_of(input, input);
        const PicturePlanes target = planes_of(output, input);
        copy_overlapping(source, target);
        set_map(transform);
        return warper_->warp(source, map_, target);
    } catch (const std::bad_alloc&) {
        __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
        return RESULT_NO_MEMORY;
    }
}

}  // namespace videostabilizer
