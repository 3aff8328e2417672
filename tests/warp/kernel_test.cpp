// The four kernels alone, against the plain warp, in both address spaces of the source planes.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>

#include "tests/warp/plain_warp.h"
#include "warp/ocl.h"

namespace videostabilizer {

namespace {

constexpr unsigned char PATTERN = 0xA5;  // of destination bytes before the warp

// Memory that ends where a page begins that must not be touched; devices that work on the host's
// memory fault when they go past it.
class GuardedBlock {
  public:
    explicit GuardedBlock(std::size_t bytes) : bytes_(bytes) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t pages = (bytes + page - 1) / page * page;
        mapped_bytes_ = pages + page;
        mapping_ = static_cast<unsigned char*>(mmap(nullptr, mapped_bytes_, PROT_READ | PROT_WRITE,
                                                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(mapping_ + pages, page, PROT_NONE);
        data_ = mapping_ + (pages - bytes);
    }
    ~GuardedBlock() { munmap(mapping_, mapped_bytes_); }
    GuardedBlock(const GuardedBlock&) = delete;
    GuardedBlock& operator=(const GuardedBlock&) = delete;

    unsigned char* data() const { return data_; }
    std::size_t size() const { return bytes_; }

  private:
    std::size_t bytes_;
    std::size_t mapped_bytes_ = 0;
    unsigned char* mapping_ = nullptr;
    unsigned char* data_ = nullptr;
};

// A device buffer over guarded memory.
class Buffer {
  public:
    Buffer(const void* content, std::size_t bytes) : host_(bytes) {
        std::memcpy(host_.data(), content, bytes);
        cl_int error = CL_SUCCESS;
        mem_ = clCreateBuffer(ocl_runtime().context, CL_MEM_READ_WRITE | CL_MEM_USE_HOST_PTR, bytes,
                              host_.data(), &error);
        EXPECT_EQ(error, CL_SUCCESS);
    }
    ~Buffer() { clReleaseMemObject(mem_); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    const cl_mem& mem() const { return mem_; }
    Bytes read(cl_command_queue queue) const {
        Bytes bytes(host_.size());
        EXPECT_EQ(clEnqueueReadBuffer(queue, mem_, CL_TRUE, 0, bytes.size(), bytes.data(), 0,
                                      nullptr, nullptr),
                  CL_SUCCESS);
        return bytes;
    }

  private:
    GuardedBlock host_;
    cl_mem mem_ = nullptr;
};

class WarpKernels : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(affine_transformer_ocl_module_init(), 1);
        queue_ = clCreateCommandQueue(ocl_runtime().context, ocl_runtime().devices[0], 0, nullptr);
        constant_program_ = build("-cl-mad-enable -cl-fast-relaxed-math");
        global_program_ = build("-cl-mad-enable -cl-fast-relaxed-math -D SOURCE_PLANES_GLOBAL");
    }
    void TearDown() override {
        clReleaseProgram(global_program_);
        clReleaseProgram(constant_program_);
        clReleaseCommandQueue(queue_);
    }

    // Warps in both address spaces, which must give the same bytes; returns those.
    Planes warp(const Geometry& geometry, const Planes& source, const WarpSix& wp) const {
        Planes constant = run(constant_program_, geometry, source, wp);
        const Planes global = run(global_program_, geometry, source, wp);
        EXPECT_TRUE(constant.y == global.y && constant.uv == global.uv)
            << "__constant and __global const planes give different pictures";
        return constant;
    }

  private:
    static cl_program build(const char* options) {
        cl_program program = clCreateProgramWithSource(ocl_runtime().context, 1,
                                                       &kernel_source_code, nullptr, nullptr);
        EXPECT_EQ(clBuildProgram(program, 1, ocl_runtime().devices, options, nullptr, nullptr),
                  CL_SUCCESS);
        return program;
    }

    Planes run(cl_program program, const Geometry& geometry, const Planes& source,
               const WarpSix& wp) const {
        const Buffer src_y(source.y.data(), source.y.size());
        const Buffer src_uv(source.uv.data(), source.uv.size());
        const Buffer dst_y(Bytes(geometry.y_bytes(), PATTERN).data(), geometry.y_bytes());
        const Buffer dst_uv(Bytes(geometry.uv_bytes(), PATTERN).data(), geometry.uv_bytes());
        const Buffer parameters(wp.data(), sizeof(wp));

        const std::string name = std::string("warp_affine_line_yuv420") +
                                 (geometry.planar ? "p" : "sp") + (geometry.packed() ? "" : "_16");
        cl_kernel kernel = clCreateKernel(program, name.c_str(), nullptr);
        cl_uint index = 0;
        for (const Buffer* buffer : {&src_y, &src_uv, &dst_y, &dst_uv, &parameters}) {
            clSetKernelArg(kernel, index++, sizeof(cl_mem), &buffer->mem());
        }
        for (const int& number :
             {geometry.width, geometry.height, geometry.stride_y, geometry.stride_uv}) {
            clSetKernelArg(kernel, index++, sizeof(number), &number);
        }
        const std::size_t items[] = {
            static_cast<std::size_t>(geometry.width / (geometry.packed() ? 32 : 16)),
            static_cast<std::size_t>(geometry.height)};
        EXPECT_EQ(
            clEnqueueNDRangeKernel(queue_, kernel, 2, nullptr, items, nullptr, 0, nullptr, nullptr),
            CL_SUCCESS)
            << name;
        clReleaseKernel(kernel);
        return {dst_y.read(queue_), dst_uv.read(queue_)};
    }

    cl_command_queue queue_ = nullptr;
    cl_program constant_program_ = nullptr;
    cl_program global_program_ = nullptr;
};

struct NamedGeometry {
    const char* name;
    Geometry geometry;
};

// Few launch sizes, since drivers compile a kernel anew for each.
const NamedGeometry GEOMETRIES[] = {
    {"packed rows, semi-planar", {96, 12, 96, 48, false}},
    {"packed rows, planar", {96, 12, 96, 48, true}},
    {"packed rows in longer planes, semi-planar", {96, 12, 112, 56, false}},
    {"packed rows in longer planes, planar", {96, 12, 112, 56, true}},
    {"strides, semi-planar", {48, 12, 64, 32, false}},
    {"strides, planar", {48, 12, 64, 32, true}},
    {"rest columns, semi-planar", {1080, 6, 1080, 540, false}},
    {"rest columns, planar", {1080, 6, 1080, 540, true}},
    {"odd strides, semi-planar", {58, 12, 101, 51, false}},
    {"odd strides, planar", {58, 12, 101, 51, true}},
    {"odd size, semi-planar", {49, 13, 51, 27, false}},
    {"odd size, planar", {49, 13, 51, 27, true}},
    {"odd size without padding, semi-planar", {49, 12, 49, 25, false}},
    {"odd size without padding, planar", {49, 12, 49, 24, true}},
    {"two rows", {48, 2, 48, 24, false}},
};

struct NamedWarp {
    std::string name;
    WarpSix wp;
};

std::vector<NamedWarp> warps_for(const Geometry& geometry) {
    const auto width = static_cast<float>(geometry.width);
    const auto height = static_cast<float>(geometry.height);
    std::vector<NamedWarp> warps = {
        {"rotation and zoom", {0.8137F, -0.1219F, 3.317F, 0.1351F, 0.8363F, -1.713F}},
        {"far left and above", {0.9F, 0.0F, -9e4F, 0.0F, 0.9F, -7e5F}},
        {"far right and below", {0.9F, 0.0F, 9e8F, 0.0F, 0.9F, 7e7F}},
        {"singular", {0.0F, 0.0F, width * 0.3F, 0.0F, 0.0F, height * 0.3F}},
        {"half outside", {1.9271F, 0.3137F, -width * 0.4191F, 0.0213F, 2.1379F, -height * 0.4337F}},
    };
    std::mt19937 random(20240611);
    std::uniform_real_distribution<float> part(-1.3F, 1.3F);
    for (int i = 0; i < 3; ++i) {
        warps.push_back({"random " + std::to_string(i),
                         {part(random), part(random), part(random) * width, part(random) * 0.1F,
                          part(random), part(random) * height}});
    }
    return warps;
}

TEST_F(WarpKernels, agree_with_the_plain_warp_and_write_nothing_else) {
    for (const NamedGeometry& entry : GEOMETRIES) {
        const Planes source = noise_planes(entry.geometry, 7);
        for (const NamedWarp& warp_entry : warps_for(entry.geometry)) {
            SCOPED_TRACE(std::string(entry.name) + ", " + warp_entry.name);
            expect_agreement(plain_warp(entry.geometry, source, warp_entry.wp),
                             warp(entry.geometry, source, warp_entry.wp), PATTERN, PATTERN);
        }
    }
}

TEST_F(WarpKernels, give_the_source_back_under_the_identity) {
    for (const NamedGeometry& entry : GEOMETRIES) {
        SCOPED_TRACE(entry.name);
        const Geometry& geometry = entry.geometry;
        const Planes source = noise_planes(geometry, 11);
        const WarpSix identity = {1.0F, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F};
        const Planes warped = warp(geometry, source, identity);
        for (int y = 0; y < geometry.height; ++y) {
            for (int x = 0; x < geometry.width / 16 * 16; ++x) {
                const std::size_t i = index(y * geometry.luma_row() + x);
                // The margin of the clamp mixes a thousandth of the neighbour into the last ones.
                const bool mixed = x == geometry.width - 1 || y == geometry.height - 1;
                ASSERT_NEAR(warped.y[i], source.y[i], mixed ? 1 : 0) << "at " << x << ", " << y;
            }
        }
        const PlainResult expected = plain_warp(geometry, source, identity);
        for (std::size_t i = 0; i < source.uv.size(); ++i) {
            const bool written = expected.uv[i] != UNTOUCHED;
            ASSERT_EQ(warped.uv[i], written ? source.uv[i] : PATTERN) << "chroma byte " << i;
        }
    }
}

TEST_F(WarpKernels, stay_in_the_planes_whatever_the_parameters) {
    constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
    constexpr float INFINITE = std::numeric_limits<float>::infinity();
    constexpr float HUGE = std::numeric_limits<float>::max();
    const WarpSix parameters[] = {
        {NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER},
        {1.0F, 0.0F, NOT_A_NUMBER, 0.0F, 1.0F, 0.0F},
        {1.0F, 0.0F, 0.0F, 0.0F, NOT_A_NUMBER, 0.0F},
        {INFINITE, -INFINITE, 0.0F, -INFINITE, INFINITE, 0.0F},
        {HUGE, HUGE, -HUGE, -HUGE, -HUGE, HUGE},
        {-HUGE, -HUGE, -HUGE, HUGE, HUGE, HUGE},
        {3e9F, 0.0F, 0.0F, 0.0F, -3e9F, 0.0F},
    };
    for (const NamedGeometry& entry : GEOMETRIES) {
        const Geometry& geometry = entry.geometry;
        const Planes source = noise_planes(geometry, 5);
        const PlainResult layout = plain_warp(geometry, source, WarpSix{});
        for (const WarpSix& wp : parameters) {
            SCOPED_TRACE(std::string(entry.name) + ", " + testing::PrintToString(wp));
            const Planes warped = warp(geometry, source, wp);  // the guard pages watch the reads
            for (std::size_t i = 0; i < warped.y.size(); ++i) {
                ASSERT_TRUE(layout.y[i] != UNTOUCHED || warped.y[i] == PATTERN);
            }
            for (std::size_t i = 0; i < warped.uv.size(); ++i) {
                ASSERT_TRUE(layout.uv[i] != UNTOUCHED || warped.uv[i] == PATTERN);
            }
        }
    }
}

}  // namespace

}  // namespace videostabilizer
