// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/affine_transformer_ocl.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/log.h"
#include "videostabilizer/result.h"
#include "warp/ocl.h"
#include "warp/picture_limits.h"
#include "warp/stage_internal.h"
#include "warp/transformer_thread.h"

namespace videostabilizer {

namespace {

constexpr std::int32_t INPUT_WAIT_MS = 1000;
// Luma pixels per work item: for widths that are multiples of 32, and for others.
constexpr int WIDE_RUN = 32;
constexpr int NARROW_RUN = 16;

// Bit 27 is a vendor's flag: it places the buffer in memory that the host reads fast.
constexpr cl_mem_flags DESTINATION_FLAGS = CL_MEM_WRITE_ONLY | (cl_mem_flags{1} << 27);

// Black, for the columns that the 16-pixel kernels do not write.
constexpr unsigned char BLACK_LUMA = 16;
constexpr unsigned char NEUTRAL_CHROMA = 128;

constexpr std::size_t WP_BYTES = 6 * sizeof(float);

bool is_semi_planar(PixFmt format) {
    return format == PIX_FMT_YUV420SP_0 || format == PIX_FMT_YUV420SP_1 ||
           format == PIX_FMT_YUV420SP_4;
}

const char* kernel_name(PixFmt format, int pixels_per_item) {
    if (pixels_per_item == WIDE_RUN) {
        return is_semi_planar(format) ? "warp_affine_line_yuv420sp" : "warp_affine_line_yuv420p";
    }
    return is_semi_planar(format) ? "warp_affine_line_yuv420sp_16" : "warp_affine_line_yuv420p_16";
}

bool create_kernel_and_queue(AffineTransformerOcl* t) {
    const OclRuntime& runtime = *t->runtime;
    cl_int error = CL_SUCCESS;
    // Not all drivers return null with an error.
    cl_kernel kernel =
        clCreateKernel(runtime.program, kernel_name(t->format, t->pixels_per_item), &error);
    if (!ocl_succeeded(error, "clCreateKernel")) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to create kernel: %d!!", error);
        return false;
    }
    t->kernel = kernel;
    cl_command_queue queue = clCreateCommandQueue(runtime.context, runtime.devices[0], 0, &error);
    if (!ocl_succeeded(error, "clCreateCommandQueue")) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to create command queue: %d!!", error);
        return false;
    }
    t->cmd_queue = queue;
    return true;
}

cl_mem create_buffer(cl_context context, cl_mem_flags flags, std::int64_t bytes) {
    if (bytes < 0 || bytes > LARGEST_PLANE_BYTES) {
        __android_log_print(
            LOG_INFO, WARP_OCL_TAG, "refused a plane of %lld bytes, the limit is %lld",
            static_cast<long long>(bytes), static_cast<long long>(LARGEST_PLANE_BYTES));
        return nullptr;
    }
    const auto size = static_cast<std::size_t>(bytes);
    cl_int error = CL_SUCCESS;
    cl_mem buffer = clCreateBuffer(context, flags, size, nullptr, &error);
    if (error == CL_INVALID_VALUE && flags == DESTINATION_FLAGS) {
        buffer = clCreateBuffer(context, CL_MEM_WRITE_ONLY, size, nullptr, &error);
    }
    return ocl_succeeded(error, "clCreateBuffer") ? buffer : nullptr;
}

// Fills a new destination buffer: bytes that no kernel writes are downloaded too and must not show
// previous contents of the memory.
bool fill_buffer(AffineTransformerOcl* t, cl_mem buffer, std::int64_t bytes, unsigned char value) {
    const auto size = static_cast<std::size_t>(bytes);
    void* const pattern = std::malloc(size);
    if (pattern == nullptr) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, OUT_OF_MEMORY_TEXT);
        return false;
    }
    std::memset(pattern, value, size);
    // OpenCL 1.1 has no clEnqueueFillBuffer.
    const cl_int error =
        clEnqueueWriteBuffer(t->cmd_queue, buffer, CL_TRUE, 0, size, pattern, 0, nullptr, nullptr);
    std::free(pattern);
    if (!ocl_succeeded(error, "clEnqueueWriteBuffer")) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to fill a destination buffer!");
        return false;
    }
    return true;
}

bool create_buffers(AffineTransformerOcl* t) {
    const std::int64_t y_bytes = plane_bytes(t->stride_y, t->height);
    const std::int64_t uv_bytes = plane_bytes(t->stride_uv, t->height);
    struct Plan {
        cl_mem& buffer;
        cl_mem_flags flags;
        std::int64_t bytes;
        const char* failure;
    };
    const Plan plans[] = {
        {t->mem_src_y, CL_MEM_READ_ONLY, y_bytes, "Failed to create buffer for srcY!"},
        {t->mem_src_uv, CL_MEM_READ_ONLY, uv_bytes, "Failed to create buffer for srcUV!"},
        {t->mem_dst_y, DESTINATION_FLAGS, y_bytes, "Failed to create buffer for dstY!"},
        {t->mem_dst_uv, DESTINATION_FLAGS, uv_bytes, "Failed to create buffer for dstUV!"},
        {t->mem_wp, CL_MEM_READ_ONLY, WP_BYTES, "Failed to create buffer for wp!"},
    };
    for (const Plan& plan : plans) {
        plan.buffer = create_buffer(t->runtime->context, plan.flags, plan.bytes);
        if (plan.buffer == nullptr) {
            __android_log_print(LOG_ERROR, WARP_OCL_TAG, "%s", plan.failure);
            return false;
        }
    }
    return fill_buffer(t, t->mem_dst_y, y_bytes, BLACK_LUMA) &&
           fill_buffer(t, t->mem_dst_uv, uv_bytes, NEUTRAL_CHROMA);
}

// No thread may be using the objects.
void release_objects(AffineTransformerOcl* t) {
    if (t->kernel != nullptr) {
        clReleaseKernel(t->kernel);
        t->kernel = nullptr;
    }
    for (cl_mem* buffer :
         {&t->mem_src_y, &t->mem_src_uv, &t->mem_dst_y, &t->mem_dst_uv, &t->mem_wp}) {
        if (*buffer != nullptr) {
            clReleaseMemObject(*buffer);
            *buffer = nullptr;
        }
    }
    if (t->cmd_queue != nullptr) {
        clReleaseCommandQueue(t->cmd_queue);
        t->cmd_queue = nullptr;
    }
}

// Releases the frames that a thread that ended with an error left behind.
void delete_frames_in_hand(AffineTransformerOcl* t) {
    frame_delete(t->input_in_hand);
    frame_delete(t->output_in_hand);
    t->input_in_hand = nullptr;
    t->output_in_hand = nullptr;
}

}  // namespace

AffineTransformerOcl* affine_transformer_ocl_create(int in_place, void* user,
                                                    AffineTransformerCallbacks callbacks,
                                                    int capacity) {
    OclRuntime& runtime = ocl_runtime();
    // Atomic, because another thread may be setting it up.
    if (__atomic_load_n(&runtime.initialized, __ATOMIC_ACQUIRE) == 0) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG,
                            "Ocl mudule not initialized! Please call "
                            "'affine_transformer_ocl_module_init' first!!");
        return nullptr;
    }
    void* const block = std::malloc(sizeof(AffineTransformerOcl));
    if (block == nullptr) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, OUT_OF_MEMORY_TEXT);
        return nullptr;
    }
    auto* const t = new (block) AffineTransformerOcl{};
    t->runtime = &runtime;
    t->input_capacity = capacity;
    t->in_place = in_place;
    t->user = user;
    t->callbacks = callbacks;
    t->timeout_ms = INPUT_WAIT_MS;
    t->needs_fini.store(1);
    pthread_mutex_init(&t->mutex, nullptr);
    pthread_cond_init(&t->cond, nullptr);
    fifo_reset(input_fifo(t));
    return t;
}

int affine_transformer_ocl_init(AffineTransformerOcl* t, PixFmt format, int width, int height,
                                int stride_y, int stride_uv, float crop_ratio) {
    if (!is_semi_planar(format) && format != PIX_FMT_YUV420P) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Un-supported pixel format!!");
        return RESULT_FAILED;
    }
    if (t->worker_started.load() != 0) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "AffineTransformerOcl already initialized");
        return RESULT_FAILED;
    }
    t->format = format;
    t->width = width;
    t->height = height;
    t->stride_y = stride_y;
    t->stride_uv = stride_uv;
    t->crop_ratio = crop_ratio;
    t->pixels_per_item = width % WIDE_RUN == 0 ? WIDE_RUN : NARROW_RUN;

    release_objects(t);  // of an earlier init that failed
    t->needs_fini.store(1);
    if (!create_kernel_and_queue(t) || !create_buffers(t)) {
        return RESULT_FAILED;
    }
    fifo_flush(input_fifo(t));
    t->input_eos.store(0);
    t->output_eos.store(0);
    t->quit.store(0);
    if (pthread_create(&t->worker, nullptr, transformer_thread, t) != 0) {
        return RESULT_NO_THREAD;
    }
    t->worker_started.store(1);
    __android_log_print(LOG_INFO, WARP_OCL_TAG, "AffineTransformerOcl initialized successfull!");
    return RESULT_OK;
}

int affine_transformer_ocl_send_frame(AffineTransformerOcl* t, Frame* frame) {
    if (frame == nullptr) {
        return RESULT_NO_FRAME;
    }
    return fifo_put(input_fifo(t), frame, WhenEnded::ACCEPT);
}

int affine_transformer_ocl_get_frame(AffineTransformerOcl* t, Frame** frame) {
    return fifo_take(input_fifo(t), frame);
}

int affine_transformer_ocl_full(AffineTransformerOcl* t) {
    return fifo_is_full(t->input_count, t->input_capacity);
}

int affine_transformer_ocl_empty(AffineTransformerOcl* t) {
    return fifo_is_empty(t->input_queue);
}

int affine_transformer_ocl_signal_eos(AffineTransformerOcl* t) {
    t->input_eos.store(1);
    return RESULT_OK;
}

int affine_transformer_ocl_reach_eos(AffineTransformerOcl* t) {
    return t->output_eos.load();
}

// The thread uses the frames and the OpenCL objects, so these are released after it has been
// joined.
int affine_transformer_ocl_fini(AffineTransformerOcl* t) {
    // `quit` cannot decide who cleans up: the thread sets it too at the end of the stream.
    if (t->needs_fini.exchange(0) == 0) {
        return RESULT_OK;
    }
    t->quit.store(1);
    wake_stage(t);
    if (t->worker_started.exchange(0) != 0) {
        pthread_join(t->worker, nullptr);
    }
    fifo_flush(input_fifo(t));
    delete_frames_in_hand(t);
    release_objects(t);
    return RESULT_OK;
}

void affine_transformer_ocl_delete(AffineTransformerOcl* t) {
    if (t == nullptr) {
        return;
    }
    affine_transformer_ocl_fini(t);
    std::free(t);
}

void set_failure_callback(AffineTransformerOcl* t, void (*on_failure)(void* user)) {
    t->on_failure = on_failure;
}

void wake_stage(AffineTransformerOcl* t) {
    wake_waiters(t->mutex, t->cond);
}

}  // namespace videostabilizer
