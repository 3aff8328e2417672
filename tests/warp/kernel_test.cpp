// The four kernels alone, in all their variants, against a computation on the host.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "tests/warp/kernel_variants.h"
#include "tests/warp/plain_warp.h"
#include "warp/ocl.h"

namespace videostabilizer {

namespace {

constexpr unsigned char PATTERN = 0xA5;  // of destination bytes before the warp

// A device buffer over memory that ends where a page begins that must not be touched; devices that
// work on the host's memory fault when they go past it.
class Buffer {
  public:
    Buffer(const void* content, std::size_t bytes) : bytes_(bytes) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t pages = (bytes + page - 1) / page * page;
        mapped_bytes_ = pages + page;
        mapping_ = static_cast<unsigned char*>(mmap(nullptr, mapped_bytes_, PROT_READ | PROT_WRITE,
                                                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(mapping_ + pages, page, PROT_NONE);
        unsigned char* const data = mapping_ + (pages - bytes);
        std::memcpy(data, content, bytes);
        cl_int error = CL_SUCCESS;
        mem_ = clCreateBuffer(ocl_runtime().context, CL_MEM_READ_WRITE | CL_MEM_USE_HOST_PTR, bytes,
                              data, &error);
        EXPECT_EQ(error, CL_SUCCESS);
    }
    ~Buffer() {
        clReleaseMemObject(mem_);
        munmap(mapping_, mapped_bytes_);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    const cl_mem& mem() const { return mem_; }
    Bytes read(cl_command_queue queue) const {
        Bytes bytes(bytes_);
        EXPECT_EQ(
            clEnqueueReadBuffer(queue, mem_, CL_TRUE, 0, bytes_, bytes.data(), 0, nullptr, nullptr),
            CL_SUCCESS);
        return bytes;
    }

  private:
    std::size_t bytes_;
    std::size_t mapped_bytes_ = 0;
    unsigned char* mapping_ = nullptr;
    cl_mem mem_ = nullptr;
};

cl_program build(const char* options) {
    cl_program program =
        clCreateProgramWithSource(ocl_runtime().context, 1, &kernel_source_code, nullptr, nullptr);
    EXPECT_EQ(clBuildProgram(program, 1, ocl_runtime().devices, options, nullptr, nullptr),
              CL_SUCCESS);
    return program;
}

Planes warp(cl_program program, cl_command_queue queue, const Geometry& geometry,
            const Planes& source, const WarpSix& wp) {
    const Buffer src_y(source.y.data(), source.y.size());
    const Buffer src_uv(source.uv.data(), source.uv.size());
    const Buffer dst_y(Bytes(geometry.y_bytes(), PATTERN).data(), geometry.y_bytes());
    const Buffer dst_uv(Bytes(geometry.uv_bytes(), PATTERN).data(), geometry.uv_bytes());
    const Buffer parameters(wp.data(), sizeof(wp));

    const std::string name = std::string("warp_affine_line_yuv420") +
                             (geometry.planar ? "p" : "sp") + (geometry.packed() ? "" : "_16");
    cl_kernel kernel = clCreateKernel(program, name.c_str(), nullptr);
    cl_uint argument = 0;
    for (const Buffer* buffer : {&src_y, &src_uv, &dst_y, &dst_uv, &parameters}) {
        clSetKernelArg(kernel, argument++, sizeof(cl_mem), &buffer->mem());
    }
    for (const int& number :
         {geometry.width, geometry.height, geometry.stride_y, geometry.stride_uv}) {
        clSetKernelArg(kernel, argument++, sizeof(number), &number);
    }
    const std::size_t items[] = {index(geometry.width / (geometry.packed() ? 32 : 16)),
                                 index(geometry.height)};
    EXPECT_EQ(
        clEnqueueNDRangeKernel(queue, kernel, 2, nullptr, items, nullptr, 0, nullptr, nullptr),
        CL_SUCCESS)
        << name;
    clReleaseKernel(kernel);
    return {dst_y.read(queue), dst_uv.read(queue)};
}

// Few launch sizes, since drivers compile a kernel anew for each.
const Geometry GEOMETRIES[] = {
    {96, 12, 96, 48, false},    {96, 12, 96, 48, true},    // packed rows
    {96, 12, 112, 56, false},   {96, 12, 112, 56, true},   // in longer planes
    {48, 12, 64, 32, false},    {48, 12, 64, 32, true},    // strides
    {1080, 6, 1080, 540, true}, {58, 12, 101, 51, false},  // rest columns
    {49, 13, 51, 27, false},    {49, 13, 51, 27, true},    // odd size
    {49, 12, 49, 25, false},    {49, 12, 49, 24, true},    // without padding
    {48, 2, 48, 24, false},
};

std::vector<WarpSix> warps_for(const Geometry& geometry) {
    const auto width = static_cast<float>(geometry.width);
    const auto height = static_cast<float>(geometry.height);
    constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
    constexpr float INFINITE = std::numeric_limits<float>::infinity();
    constexpr float LARGEST = std::numeric_limits<float>::max();
    std::vector<WarpSix> warps = {
        {1.0F, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F},
        {0.8137F, -0.1219F, 3.317F, 0.1351F, 0.8363F, -1.713F},
        {0.9F, 0.0F, -9e4F, 0.0F, 0.9F, -7e5F},  // far left and above
        {0.9F, 0.0F, 9e8F, 0.0F, 0.9F, 7e7F},    // far right and below
        {0.0F, 0.0F, width * 0.3F, 0.0F, 0.0F, height * 0.3F},
        // Rows that fall along a run, that rise, and many of them.
        {0.9037F, 0.0313F, -7.3F, -0.0311F, 0.9041F, 3.7F},
        {0.9873F, 0.03F, width * 0.31F, 0.0317F, 0.9F, height * 0.3F},
        {0.6319F, -0.7129F, 4.1F, 0.7033F, 0.6277F, 1.3F},
        {1.9271F, 0.3137F, -width * 0.4191F, 0.0213F, 2.1379F, -height * 0.4337F},
        {1.0F, 0.0F, NOT_A_NUMBER, 0.0F, NOT_A_NUMBER, 0.0F},
        {INFINITE, -INFINITE, 0.0F, -INFINITE, INFINITE, 0.0F},
        {LARGEST, LARGEST, -LARGEST, -LARGEST, -LARGEST, INFINITE},
    };
    std::mt19937 random(20240611);
    std::uniform_real_distribution<float> part(-1.3F, 1.3F);
    for (int i = 0; i < 3; ++i) {
        warps.push_back({part(random), part(random), part(random) * width, part(random) * 0.1F,
                         part(random), part(random) * height});
    }
    return warps;
}

bool is_finite(const WarpSix& wp) {
    return std::isfinite(wp[0] + wp[1] + wp[2] + wp[3] + wp[4] + wp[5]);
}

// Whatever the values are, they must stay in their places.
void expect_untouched(const Geometry& geometry, const Planes& warped) {
    const PlainResult layout = plain_warp(geometry, warped, WarpSix{});
    for (std::size_t i = 0; i < warped.y.size(); ++i) {
        ASSERT_TRUE(layout.y[i] != UNTOUCHED || warped.y[i] == PATTERN);
    }
    for (std::size_t i = 0; i < warped.uv.size(); ++i) {
        ASSERT_TRUE(layout.uv[i] != UNTOUCHED || warped.uv[i] == PATTERN);
    }
}

TEST(WarpKernels, agree_with_the_plain_warp_and_write_nothing_else) {
    ASSERT_EQ(affine_transformer_ocl_module_init(), 1);
    cl_command_queue queue =
        clCreateCommandQueue(ocl_runtime().context, ocl_runtime().devices[0], 0, nullptr);
    std::vector<cl_program> programs;
    for (const KernelVariant& variant : kernel_variants) {
        programs.push_back(build(variant.options));
    }
    for (const Geometry& geometry : GEOMETRIES) {
        const Planes source = noise_planes(geometry, 7);
        for (const WarpSix& wp : warps_for(geometry)) {
            SCOPED_TRACE(testing::Message()
                         << geometry.width << " x " << geometry.height << ", strides "
                         << geometry.stride_y << ", " << geometry.stride_uv
                         << (geometry.planar ? ", planar" : "") << testing::PrintToString(wp));
            const Planes warped = warp(programs.front(), queue, geometry, source, wp);
            for (std::size_t i = 1; i < programs.size(); ++i) {
                const Planes other = warp(programs[i], queue, geometry, source, wp);
                // What is no position leads to whichever pixel is nearest at hand.
                EXPECT_TRUE((warped.y == other.y && warped.uv == other.uv) || !is_finite(wp))
                    << kernel_variants[i].name << " differs from " << kernel_variants[0].name;
                expect_untouched(geometry, other);
            }
            if (std::isfinite(wp[2] + wp[5] + wp[0])) {
                expect_agreement(plain_warp(geometry, source, wp), warped, PATTERN, PATTERN);
            } else {
                expect_untouched(geometry, warped);
            }
        }
    }
    for (cl_program program : programs) {
        clReleaseProgram(program);
    }
    clReleaseCommandQueue(queue);
}

}  // namespace

}  // namespace videostabilizer
