// SPDX-License-Identifier: Apache-2.0

// The four kernels in all their variants, as a stage runs them, and the native engine's counterpart.

#include <cmath>
#include <limits>
#include <map>

#include "native_warp/stated_warp.h"
#include "tests/warp/kernel_variants.h"
#include "tests/warp/warp_stage.h"
#include "warp/ocl.h"

using namespace videostabilizer;

namespace {

// Moves a buffer of an idle stage to memory of the host: devices that work on it fault when they go
// past its end.
void guard(const AffineTransformerOcl& t, cl_mem& buffer) {
    std::size_t bytes = 0;
    clGetMemObjectInfo(buffer, CL_MEM_SIZE, sizeof bytes, &bytes, nullptr);
    void* const memory = guarded_memory(bytes);
    clEnqueueReadBuffer(t.cmd_queue, buffer, CL_TRUE, 0, bytes, memory, 0, nullptr, nullptr);
    clReleaseMemObject(buffer);
    buffer = clCreateBuffer(t.runtime->context, CL_MEM_READ_WRITE | CL_MEM_USE_HOST_PTR, bytes,
                            memory, nullptr);
}

constexpr PixFmt PLANAR = PIX_FMT_YUV420P;
constexpr PixFmt SEMI = PIX_FMT_YUV420SP_0;

// Few launch sizes, since drivers compile a kernel for each.
const Geometry GEOMETRIES[] = {
    {96, 12, 96, 48, SEMI},       {96, 12, 96, 48, PLANAR},   // packed rows
    {96, 12, 112, 56, SEMI},      {96, 12, 112, 56, PLANAR},  // in longer planes
    {48, 12, 64, 32, SEMI},       {48, 12, 64, 32, PLANAR},   // strides
    {1080, 6, 1080, 540, PLANAR}, {58, 12, 101, 51, SEMI},    // rest columns
    {49, 13, 51, 27, SEMI},       {49, 13, 51, 27, PLANAR},   // odd size
    {49, 12, 49, 25, SEMI},       {49, 12, 49, 24, PLANAR},   // without padding
    {48, 2, 48, 24, SEMI},
};

// Each as wp would be, up to the rounding of an inverse.
std::vector<Affine> warps_for(float width, float height) {
    constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
    constexpr float INFINITE = std::numeric_limits<float>::infinity();
    return {
        {1.0F, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F},
        {1.0713F, 0.0F, -2.3F, 0.0F, 1.0691F, -1.9F},
        {0.8137F, -0.1219F, 3.317F, 0.1351F, 0.8363F, -1.713F},
        {0.9F, 0.0F, -9e4F, 0.0F, 0.9F, -7e5F},  // far left and above
        {0.9F, 0.0F, 9e8F, 0.0F, 0.9F, 7e7F},    // far right and below
        // Rows that fall along a run, that rise, and many of them.
        {0.9037F, 0.0313F, -7.3F, -0.0311F, 0.9041F, 3.7F},
        {0.9873F, 0.03F, width * 0.31F, 0.0317F, 0.9F, height * 0.3F},
        {0.7313F, -0.2119F, 1.7F, 0.4131F, 0.7313F, -1.3F},
        {0.6319F, -0.7129F, 4.1F, 0.7033F, 0.6277F, 1.3F},
        {0.4127F, 1.0313F, -3.1F, -0.9317F, 0.3119F, height * 0.83F},
        {1.9271F, 0.3137F, -width * 0.4191F, 0.0213F, 2.1379F, -height * 0.4337F},
        {-0.8713F, 0.6131F, width * 0.91F, 0.0719F, -0.7127F, height * 1.07F},  // half a turn
        {1.0F, 0.0F, NOT_A_NUMBER, 0.0F, 1.0F, NOT_A_NUMBER},
        {1.0F, 0.0F, INFINITE, 0.0F, 1.0F, 0.0F},
        {INFINITE, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F},
    };
}

// The luma of the kernels is within a grey level of the native engine's, and nearly all of their
// chroma is equal.
void expect_as_native(const Geometry& geometry, const Affine& wp, const unsigned char* actual) {
    const PictureLayout picture = layout_of(geometry);
    const auto& [row, step, columns, u, v] = picture.chroma;
    const Bytes source = noise_picture(picture.bytes, 7);
    Bytes native(actual, actual + picture.bytes);  // columns that the kernels leave out
    stated_luma_rows({picture.width, picture.height, {}}, wp.data(), {source.data(), picture.row},
                     {native.data(), picture.row}, 0, picture.height);
    for (const std::size_t plane : {u, v}) {
        if (step == 1 || plane == u) {
            stated_chroma_rows({columns, picture.height / 2, {1, 8, 0, step}}, {2, 2, 0, 0},
                               wp.data(), {source.data() + plane, row},
                               {native.data() + plane, row}, 0, picture.height / 2);
        }
    }
    std::size_t other = 0;
    for (std::size_t i = 0; i < picture.bytes; ++i) {
        const bool luma = i < u;
        const std::size_t x =
            luma ? i % static_cast<std::size_t>(picture.row)
                 : (i - u) % static_cast<std::size_t>(row) * 2 / static_cast<std::size_t>(step);
        if (x < static_cast<std::size_t>(picture.columns)) {
            const int difference = std::abs(native[i] - actual[i]);
            ASSERT_TRUE(!luma || difference <= 1) << i;
            other += !luma && difference > 0 ? 1U : 0U;
        }
    }
    EXPECT_LE(other, (picture.bytes - u) / 50) << "chroma bytes";
}

TEST(WarpKernels, AgreeWithTheReferenceAndWriteNothingElse) {
    ASSERT_EQ(affine_transformer_ocl_module_init(), 1);
    OclRuntime& runtime = ocl_runtime();
    cl_program as_set_up = runtime.program;
    std::map<int, Bytes> pictures;  // of all geometries and warps, by the first variant
    for (const KernelVariant& variant : kernel_variants) {
        runtime.program =
            clCreateProgramWithSource(runtime.context, 1, &kernel_source_code, nullptr, nullptr);
        ASSERT_EQ(
            clBuildProgram(runtime.program, 1, runtime.devices, variant.options, nullptr, nullptr),
            CL_SUCCESS);
        int number = 0;
        for (const Geometry& geometry : GEOMETRIES) {
            Stage stage(0);
            ASSERT_EQ(stage.init(geometry), RESULT_OK);
            AffineTransformerOcl& t = *stage.t;
            for (cl_mem* buffer : {&t.mem_src_y, &t.mem_src_uv, &t.mem_dst_y, &t.mem_dst_uv}) {
                guard(t, *buffer);
            }
            for (const Affine& warp : warps_for(static_cast<float>(geometry.width),
                                                static_cast<float>(geometry.height))) {
                SCOPED_TRACE(testing::Message()
                             << variant.name << testing::PrintToString(warp) << geometry.width
                             << " x " << geometry.height << ", format " << geometry.format);
                Affine transform = reference_inverse(warp);
                const Affine wp = reference_inverse(transform);
                Frame* const frame = noise_frame(geometry, 7);
                frame->opaque = transform.data();
                const int done = stage.delivered.load();
                ASSERT_EQ(stage.send(frame), RESULT_OK);
                stage.wait_for_frames(done + 1);
                // NaN or infinite positions may give any pixel.
                if (!std::isfinite(wp[0] + wp[2] + wp[4])) {
                    continue;
                }
                const unsigned char* const actual = stage.frames.back()->plane_y;
                const Bytes bytes(actual, actual + layout_of(geometry).bytes);
                const auto [picture, by_first_variant] = pictures.emplace(number++, bytes);
                EXPECT_EQ(bytes, picture->second);
                if (by_first_variant) {
                    expect_warped(geometry, 7, wp, actual);
                    expect_as_native(geometry, wp, actual);
                }
            }
        }
        clReleaseProgram(runtime.program);
    }
    runtime.program = as_set_up;
}

}  // namespace
