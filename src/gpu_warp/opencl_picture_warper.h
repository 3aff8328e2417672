// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>

#include "gpu_warp/device_plan.h"
#include "native_warp/plane_warp.h"
#include "picture_warp/picture_shape.h"
#include "picture_warp/picture_warper.h"
#include "warp/ocl.h"

namespace videostabilizer {

struct OpenclRelease {
    void operator()(cl_command_queue queue) const { clReleaseCommandQueue(queue); }
    void operator()(cl_kernel kernel) const { clReleaseKernel(kernel); }
    void operator()(cl_event event) const { clReleaseEvent(event); }
    void operator()(cl_mem buffer) const { clReleaseMemObject(buffer); }
};
template <typename Handle>
using OpenclOwner = std::unique_ptr<std::remove_pointer_t<Handle>, OpenclRelease>;

// Warps pictures on the OpenCL device of the process, sample for sample like NativeWarper. Planes
// that the two passes cannot do are computed by the calling thread.
class OpenclPictureWarper final : public PictureWarper {
  public:
    // Needs video_stabilizer_module_init. Throws std::bad_alloc.
    // Returns null with the reason in the log: OpenCL is not set up, or a call of it failed.
    static std::unique_ptr<OpenclPictureWarper> create(const PictureShape& shape,
                                                       Resampling resampling);

    // Waits for the device once, at the end. After a failure the target's samples are undefined.
    int warp(const PicturePlanes& source, const WarpMap& luma,
             const PicturePlanes& target) override;

  private:
    struct Kernel {
        OpenclOwner<cl_kernel> handle;
        bool in_groups = false;  // of the size that we choose
    };
    // Memory of the device, which grows.
    struct Buffer {
        OpenclOwner<cl_mem> memory;
        std::size_t bytes = 0;
    };
    // Of luma and alpha, or of all chroma.
    struct Plan {
        WarpMap map;
        PlaneWarp warp;
        DevicePlan device;
        Buffer numbers;
        Buffer weights;
        Buffer rows;  // intermediate
    };
    struct Plane {
        Buffer source;  // rows without gaps
        Buffer target;  // rows of whole blocks
    };

    OpenclPictureWarper(const PictureShape& shape, Resampling resampling)
        : shape_(shape), kernels_(resampling) {}
    bool create_objects();
    static bool create_kernel(const char* name, Kernel& kernel);
    static bool reserve(Buffer& buffer, std::size_t bytes, cl_mem_flags flags);
    bool write(const Buffer& buffer, const void* from, std::size_t bytes) const;
    bool upload(int k, const PicturePlanes& source) const;
    bool download(int k, const PicturePlanes& target);
    bool finish();
    bool make_plan(Plan& plan, const PicturePlane& plane);
    bool run_kernel(const Kernel& kernel, const Plan& plan, const Buffer& from, const Buffer& to,
                    bool upside_down, int blocks, int rows) const;
    bool enqueue_plane(int k, const PicturePlanes& source, const PicturePlanes& target);
    bool enqueue(const PicturePlanes& source, const WarpMap& luma, const PicturePlanes& target);
    const Plan& plan_of(int k) const { return is_chroma(k) ? chroma_ : luma_; }

    PictureShape shape_;
    ResamplingKernels kernels_;
    WarpScratch scratch_;
    OpenclOwner<cl_command_queue> queue_;
    OpenclOwner<cl_event> last_read_;
    Kernel across_;
    Kernel down_;
    Plan luma_;
    Plan chroma_;
    Plane planes_[4];
};

}  // namespace videostabilizer
