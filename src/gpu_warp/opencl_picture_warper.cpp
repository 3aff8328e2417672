// SPDX-License-Identifier: Apache-2.0

#include "gpu_warp/opencl_picture_warper.h"

#include <cstdlib>
#include <vector>

#include "frames/picture_layout.h"
#include "gpu_warp/picture_program.h"
#include "platform/log.h"
#include "videostabilizer/result.h"

namespace videostabilizer {

namespace {

// Work groups, where the device can have so many items in one; else the driver chooses.
constexpr std::size_t GROUP[] = {32, 8};
constexpr int SAMPLES_PER_ITEM = 4;

std::size_t rounded_up(int count, std::size_t multiple) {
    return (static_cast<std::size_t>(count) + multiple - 1) / multiple * multiple;
}

std::size_t row_bytes(const PlaneShape& shape) {
    return static_cast<std::size_t>(shape.width) *
           static_cast<std::size_t>(shape.format.channels * shape.format.bytes);
}

// Of a plane on the device.
std::size_t padded_row_bytes(const PlaneShape& shape) {
    return static_cast<std::size_t>(row_blocks(shape)) *
           static_cast<std::size_t>(BLOCK * shape.format.bytes);
}

// The host's rows from the lowest address on; with a negative stride this is upside down.
template <typename Byte>
struct RowsInMemory {
    Byte* first;
    std::size_t pitch;
    std::size_t rows;

    RowsInMemory(Byte* data, std::ptrdiff_t stride, int height)
        : first(stride < 0 ? data + (height - 1) * stride : data),
          pitch(static_cast<std::size_t>(std::abs(stride))),
          rows(static_cast<std::size_t>(height)) {}
};

// Whether the device can have work groups of our shape, whatever the kernel.
bool device_has_group(cl_device_id device) {
    cl_uint dimensions = 0;
    if (clGetDeviceInfo(device, CL_DEVICE_MAX_WORK_ITEM_DIMENSIONS, sizeof(dimensions), &dimensions,
                        nullptr) != CL_SUCCESS ||
        dimensions < 2) {
        return false;
    }
    std::vector<std::size_t> most(dimensions);
    return clGetDeviceInfo(device, CL_DEVICE_MAX_WORK_ITEM_SIZES, dimensions * sizeof(std::size_t),
                           most.data(), nullptr) == CL_SUCCESS &&
           most[0] >= GROUP[0] && most[1] >= GROUP[1];
}

}  // namespace

std::unique_ptr<OpenclPictureWarper> OpenclPictureWarper::create(const PictureShape& shape,
                                                                 Resampling resampling) {
    std::unique_ptr<OpenclPictureWarper> warper(new OpenclPictureWarper(shape, resampling));
    if (!warper->create_objects()) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to set up the warp of pictures");
        return nullptr;
    }
    return warper;
}

bool OpenclPictureWarper::create_kernel(const char* name, Kernel& kernel) {
    cl_program program = picture_program();
    if (program == nullptr) {
        return false;
    }
    cl_int error = CL_SUCCESS;
    cl_kernel made = clCreateKernel(program, name, &error);
    if (!ocl_succeeded(error, "clCreateKernel")) {
        return false;  // not all drivers return null with an error
    }
    kernel.handle.reset(made);
    std::size_t most = 0;
    if (!ocl_succeeded(
            clGetKernelWorkGroupInfo(made, ocl_runtime().devices[0], CL_KERNEL_WORK_GROUP_SIZE,
                                     sizeof(most), &most, nullptr),
            "clGetKernelWorkGroupInfo")) {
        return false;
    }
    kernel.in_groups = most >= GROUP[0] * GROUP[1] && device_has_group(ocl_runtime().devices[0]);
    return true;
}

bool OpenclPictureWarper::create_objects() {
    const bool bytes = shape_.plane[0].shape.format.bytes == 1;
    if (!create_kernel(bytes ? "across_bytes" : "across_words", across_) ||
        !create_kernel(bytes ? "down_bytes" : "down_words", down_)) {
        return false;
    }
    const OclRuntime& runtime = ocl_runtime();
    cl_int error = CL_SUCCESS;
    cl_command_queue queue = clCreateCommandQueue(runtime.context, runtime.devices[0], 0, &error);
    if (!ocl_succeeded(error, "clCreateCommandQueue")) {
        return false;
    }
    queue_.reset(queue);
    for (int k = 0; k < shape_.planes; ++k) {
        const PlaneShape& shape = shape_.plane[k].shape;
        const auto rows = static_cast<std::size_t>(shape.height);
        if (!reserve(planes_[k].source, rows * row_bytes(shape), CL_MEM_READ_ONLY) ||
            !reserve(planes_[k].target, rows * padded_row_bytes(shape), CL_MEM_WRITE_ONLY)) {
            return false;
        }
    }
    return true;
}

// With room for more, since the next frames need a little more or less.
bool OpenclPictureWarper::reserve(Buffer& buffer, std::size_t bytes, cl_mem_flags flags) {
    if (buffer.bytes >= bytes) {
        return true;
    }
    const std::size_t room = buffer.bytes == 0 ? bytes : bytes + bytes / 8;
    buffer.memory.reset();
    buffer.bytes = 0;
    cl_int error = CL_SUCCESS;
    cl_mem memory = clCreateBuffer(ocl_runtime().context, flags, room, nullptr, &error);
    if (!ocl_succeeded(error, "clCreateBuffer")) {
        return false;
    }
    buffer.memory.reset(memory);
    buffer.bytes = room;
    return true;
}

bool OpenclPictureWarper::write(const Buffer& buffer, const void* from, std::size_t bytes) const {
    return ocl_succeeded(clEnqueueWriteBuffer(queue_.get(), buffer.memory.get(), CL_FALSE, 0, bytes,
                                              from, 0, nullptr, nullptr),
                         "clEnqueueWriteBuffer");
}

bool OpenclPictureWarper::upload(int k, const PicturePlanes& source) const {
    const PlaneShape& shape = shape_.plane[k].shape;
    const RowsInMemory<const unsigned char> host(plane_data(source, k), plane_stride(source, k),
                                                 shape.height);
    const std::size_t bytes = row_bytes(shape);
    if (host.pitch == bytes || host.rows == 1) {
        return write(planes_[k].source, host.first, host.rows * bytes);
    }
    const std::size_t origin[] = {0, 0, 0};
    const std::size_t region[] = {bytes, host.rows, 1};
    return ocl_succeeded(clEnqueueWriteBufferRect(queue_.get(), planes_[k].source.memory.get(),
                                                  CL_FALSE, origin, origin, region, bytes, 0,
                                                  host.pitch, 0, host.first, 0, nullptr, nullptr),
                         "clEnqueueWriteBufferRect");
}

bool OpenclPictureWarper::download(int k, const PicturePlanes& target) {
    const PlaneShape& shape = shape_.plane[k].shape;
    const RowsInMemory<unsigned char> host(plane_data(target, k), plane_stride(target, k),
                                           shape.height);
    const std::size_t bytes = row_bytes(shape);
    const std::size_t padded = padded_row_bytes(shape);
    cl_mem memory = planes_[k].target.memory.get();
    cl_event event = nullptr;
    bool enqueued = false;
    if (host.rows == 1 || (host.pitch == bytes && padded == bytes)) {
        enqueued =
            ocl_succeeded(clEnqueueReadBuffer(queue_.get(), memory, CL_FALSE, 0, host.rows * bytes,
                                              host.first, 0, nullptr, &event),
                          "clEnqueueReadBuffer");
    } else {
        const std::size_t origin[] = {0, 0, 0};
        const std::size_t region[] = {bytes, host.rows, 1};
        enqueued = ocl_succeeded(
            clEnqueueReadBufferRect(queue_.get(), memory, CL_FALSE, origin, origin, region, padded,
                                    0, host.pitch, 0, host.first, 0, nullptr, &event),
            "clEnqueueReadBufferRect");
    }
    if (enqueued) {
        last_read_.reset(event);
    }
    return enqueued;
}

// Nothing of the last frame is still being read.
bool OpenclPictureWarper::make_plan(Plan& plan, const PicturePlane& plane) {
    plan.warp.prepare(plane.shape, plan.map, kernels_);
    if (!plan.warp.two_passes()) {
        return true;
    }
    plan.device.make(plane.shape, plan.warp);
    const std::size_t number_bytes = plan.device.numbers().size() * sizeof(std::int32_t);
    const std::size_t weight_bytes = plan.device.weights().size() * sizeof(std::int16_t);
    const std::size_t row = static_cast<std::size_t>(row_blocks(plane.shape)) * BLOCK;
    const std::size_t rows_bytes =
        static_cast<std::size_t>(plan.device.intermediate_rows()) * row * sizeof(std::int16_t);
    return reserve(plan.numbers, number_bytes, CL_MEM_READ_ONLY) &&
           reserve(plan.weights, weight_bytes, CL_MEM_READ_ONLY) &&
           reserve(plan.rows, rows_bytes, CL_MEM_READ_WRITE) &&
           write(plan.numbers, plan.device.numbers().data(), number_bytes) &&
           write(plan.weights, plan.device.weights().data(), weight_bytes);
}

bool OpenclPictureWarper::run_kernel(const Kernel& kernel, const Plan& plan, const Buffer& from,
                                     const Buffer& to, bool upside_down, int blocks,
                                     int rows) const {
    cl_uint index = 0;
    for (const Buffer* buffer : {&plan.numbers, &plan.weights, &from, &to}) {
        cl_mem memory = buffer->memory.get();
        // NOLINTNEXTLINE(bugprone-sizeof-expression): OpenCL's handles are pointers
        if (!ocl_succeeded(clSetKernelArg(kernel.handle.get(), index++, sizeof(memory), &memory),
                           "clSetKernelArg")) {
            return false;
        }
    }
    const cl_int turned = upside_down ? 1 : 0;
    if (!ocl_succeeded(clSetKernelArg(kernel.handle.get(), index, sizeof(turned), &turned),
                       "clSetKernelArg")) {
        return false;
    }
    const std::size_t items[] = {rounded_up(BLOCK / SAMPLES_PER_ITEM * blocks, GROUP[0]),
                                 rounded_up(rows, GROUP[1])};
    return ocl_succeeded(
        clEnqueueNDRangeKernel(queue_.get(), kernel.handle.get(), 2, nullptr, items,
                               kernel.in_groups ? GROUP : nullptr, 0, nullptr, nullptr),
        "clEnqueueNDRangeKernel");
}

bool OpenclPictureWarper::enqueue_plane(int k, const PicturePlanes& source,
                                        const PicturePlanes& target) {
    const PlaneShape& shape = shape_.plane[k].shape;
    const Plan& plan = plan_of(k);
    const int blocks = row_blocks(shape);
    return run_kernel(across_, plan, planes_[k].source, plan.rows, plane_stride(source, k) < 0,
                      blocks, plan.device.intermediate_rows()) &&
           run_kernel(down_, plan, plan.rows, planes_[k].target, plane_stride(target, k) < 0,
                      blocks, shape.height) &&
           download(k, target) && ocl_succeeded(clFlush(queue_.get()), "clFlush");
}

// The device is at work on a plane while the next one is prepared.
bool OpenclPictureWarper::enqueue(const PicturePlanes& source, const WarpMap& luma,
                                  const PicturePlanes& target) {
    for (int k = 0; k < shape_.planes; ++k) {
        if (k < 2) {
            Plan& plan = k == 0 ? luma_ : chroma_;
            plane_map(luma, shape_.plane[k].grid, plan.map);
            if (!make_plan(plan, shape_.plane[k])) {
                return false;
            }
        }
        if (plan_of(k).warp.two_passes() &&
            (!upload(k, source) || !enqueue_plane(k, source, target))) {
            return false;
        }
    }
    return true;
}

// There are drivers whose clFinish does not wait for what a clFlush has sent off, hence the event.
bool OpenclPictureWarper::finish() {
    bool done = true;
    if (last_read_ != nullptr) {
        cl_event event = last_read_.get();
        done = ocl_succeeded(clWaitForEvents(1, &event), "clWaitForEvents");
        last_read_.reset();
    }
    return ocl_succeeded(clFinish(queue_.get()), "clFinish") && done;
}

int OpenclPictureWarper::warp(const PicturePlanes& source, const WarpMap& luma,
                              const PicturePlanes& target) {
    // Transfers must not outlive the planes, whatever happens.
    struct Finish {
        OpenclPictureWarper& warper;
        bool done = false;
        ~Finish() {
            if (!done) {
                warper.finish();
            }
        }
    } end{*this};
    if (!enqueue(source, luma, target)) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to enqueue the warp of a picture");
        return RESULT_FAILED;
    }
    for (int k = 0; k < shape_.planes; ++k) {
        const PlaneWarp& warp = plan_of(k).warp;
        if (!warp.two_passes()) {
            warp.warp_rows(fastest_variant(warp_variants),
                           {plane_data(source, k), plane_stride(source, k)},
                           {plane_data(target, k), plane_stride(target, k)}, 0,
                           shape_.plane[k].shape.height, scratch_);
        }
    }
    end.done = true;
    if (!finish()) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to warp a picture");
        return RESULT_FAILED;
    }
    return RESULT_OK;
}

}  // namespace videostabilizer
