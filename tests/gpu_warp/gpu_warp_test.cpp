// SPDX-License-Identifier: Apache-2.0

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "frames/picture_layout.h"
#include "gpu_warp/opencl_device.h"
#include "gpu_warp/opencl_picture_warper.h"
#include "picture_warp/native_warper.h"
#include "tests/faults/library_calls.h"
#include "videostabilizer/affine_transformer_ocl.h"
#include "videostabilizer/result.h"

using namespace videostabilizer;

namespace {

// The planes of a picture, with bytes between the rows.
struct Picture {
    Picture(const PictureShape& shape, int gap, bool upside_down) {
        for (int k = 0; k < shape.planes; ++k) {
            const PlaneShape& plane = shape.plane[k].shape;
            const int stride = plane.width * plane.format.channels * plane.format.bytes + gap;
            bytes[k].assign(
                static_cast<std::size_t>(stride) * static_cast<std::size_t>(plane.height), 0xA5);
            const int first = upside_down ? (plane.height - 1) * stride : 0;
            set_plane(planes, k, bytes[k].data() + first, upside_down ? -stride : stride);
        }
    }
    void fill_with_noise(unsigned int seed, const SampleFormat& format) {
        std::mt19937 random(seed);
        for (std::vector<unsigned char>& plane : bytes) {
            for (std::size_t i = 0; i < plane.size(); i += format.bytes == 2 ? 2 : 1) {
                const auto sample = (random() & ((1U << format.depth) - 1)) << format.shift;
                plane[i] = static_cast<unsigned char>(sample);
                if (format.bytes == 2) {
                    plane[i + 1] = static_cast<unsigned char>(sample >> 8);
                }
            }
        }
    }

    std::vector<unsigned char> bytes[4];
    PicturePlanes planes{};
};

Affine2 turned(double degrees, double zoom, double x, double y) {
    const double angle = degrees * 3.14159265358979323846 / 180;
    const double c = zoom * std::cos(angle);
    const double s = zoom * std::sin(angle);
    return {c, -s, x, s, c, y};
}

struct Row {
    const char* name;
    PixelLayout layout;
    int width;
    int height;
    int source_gap;
    int target_gap;
    bool source_upside_down;
    bool target_upside_down;
};
constexpr Row ROWS[] = {
    {"yuv420p", {CHROMA_420, CHROMA_SITING_LEFT, 8, 0, 0, 0, {}}, 640, 96, 0, 0, false, false},
    {"nv12 odd", {CHROMA_420, CHROMA_SITING_CENTRE, 8, 1, 0, 0, {}}, 301, 77, 5, 9, false, true},
    {"yuv422p10", {CHROMA_422, CHROMA_SITING_LEFT, 10, 0, 0, 0, {}}, 333, 65, 2, 0, true, false},
    {"p010", {CHROMA_420, CHROMA_SITING_TOP_LEFT, 10, 1, 1, 0, {}}, 258, 50, 0, 6, true, true},
    {"yuv411p", {CHROMA_411, CHROMA_SITING_LEFT, 8, 0, 0, 0, {}}, 301, 70, 0, 0, false, false},
    {"yuva444p12", {CHROMA_444, CHROMA_SITING_LEFT, 12, 0, 0, 1, {}}, 47, 90, 4, 4, false, false},
    {"p016", {CHROMA_420, CHROMA_SITING_LEFT, 16, 1, 0, 0, {}}, 130, 33, 0, 0, false, false},
    {"grey", {CHROMA_NONE, CHROMA_SITING_LEFT, 8, 0, 0, 0, {}}, 16, 16, 0, 0, false, false},
};

struct Map {
    const char* name;
    WarpMap map;
};
const std::vector<Map>& maps() {
    static const std::vector<Map> all = {
        {"identity", {{{}}}},
        {"usual", {{turned(0.7, 0.9, 9.3, 4.1)}}},
        {"steep", {{turned(-11, 0.85, 3, 40)}}},
        {"reduced", {{turned(1, 1.7, -60, -20)}}},
        {"far away", {{turned(0, 1, 5e5, -9e5)}}},
        {"not in two passes", {{turned(25, 0.8, 20, -9)}}},
        {"two transforms", {{turned(1, 0.9, 5, 4), turned(1.2, 0.9, 6, 3.5)}, 60, 2}},
        {"rolling shutter",
         {{turned(1, 0.9, 5, 4), turned(1.1, 0.92, 6, 3.5), turned(0.9, 0.91, 4, 4),
           turned(0.8, 0.9, 5, 4.5)},
          17,
          0.25}},
    };
    return all;
}

TEST(GpuWarp, IsSampleForSampleTheNativeWarp) {
    ASSERT_EQ(affine_transformer_ocl_module_init(), 1);
    for (const Row& row : ROWS) {
        const PictureShape shape = picture_shape(row.width, row.height, row.layout);
        Picture source(shape, row.source_gap, row.source_upside_down);
        source.fill_with_noise(7, shape.plane[0].shape.format);
        for (const Resampling resampling : {Resampling::BILINEAR, Resampling::LANCZOS3}) {
            NativeWarper native(shape, resampling, 1);
            const auto device = OpenclPictureWarper::create(shape, resampling);
            ASSERT_NE(device, nullptr);
            for (const Map& map : maps()) {
                Picture expected(shape, row.target_gap, row.target_upside_down);
                Picture actual(shape, row.target_gap, row.target_upside_down);
                native.warp(source.planes, map.map, expected.planes);
                ASSERT_EQ(device->warp(source.planes, map.map, actual.planes), RESULT_OK);
                for (int k = 0; k < shape.planes; ++k) {
                    EXPECT_TRUE(actual.bytes[k] == expected.bytes[k])
                        << row.name << ", " << map.name << ", plane " << k << ", kernel "
                        << static_cast<int>(resampling);
                }
            }
        }
    }
}

TEST(FailingOpencl, EndsTheWarpWithACodeAndLeavesNothing) {
    ASSERT_EQ(affine_transformer_ocl_module_init(), 1);
    const PictureShape shape = picture_shape(80, 48, ROWS[0].layout);
    const Picture source(shape, 4, false);
    Picture target(shape, 0, false);  // its luma rows are whole blocks
    ASSERT_NE(OpenclPictureWarper::create(shape, Resampling::LANCZOS3), nullptr);  // builds
    test_support::watch_library();
    for (const char* const call :
         {"clCreateKernel", "clGetKernelWorkGroupInfo", "clCreateCommandQueue", "clCreateBuffer",
          "clEnqueueWriteBuffer", "clEnqueueWriteBufferRect", "clSetKernelArg",
          "clEnqueueNDRangeKernel", "clEnqueueReadBuffer", "clEnqueueReadBufferRect", "clFlush",
          "clWaitForEvents", "clFinish"}) {
        bool failed = true;
        int n = 0;
        while (failed) {
            test_support::fail({call, ++n});
            auto warper = OpenclPictureWarper::create(shape, Resampling::LANCZOS3);
            const bool done = warper != nullptr && warper->warp(source.planes, maps()[1].map,
                                                                target.planes) == RESULT_OK;
            failed = test_support::let_all_succeed();
            EXPECT_EQ(done, !failed) << call << ' ' << n;
            if (warper != nullptr) {
                EXPECT_EQ(warper->warp(source.planes, maps()[1].map, target.planes), RESULT_OK);
            }
            warper.reset();
            EXPECT_EQ(test_support::live_opencl_objects(), 0) << call << ' ' << n;
        }
        EXPECT_GT(n, 1) << call << " is never called";
    }
}

TEST(GpuWarp, NoSoftwareDeviceIsAGpu) {
    affine_transformer_ocl_module_init();
    cl_device_type type = 0;
    char name[256] = {};
    cl_device_id device = ocl_runtime().devices[0];
    clGetDeviceInfo(device, CL_DEVICE_TYPE, sizeof(type), &type, nullptr);
    clGetDeviceInfo(device, CL_DEVICE_NAME, sizeof(name) - 1, name, nullptr);
    const bool software = std::string(name).find("llvmpipe") != std::string::npos;
    EXPECT_EQ(opencl_device_is_gpu(), type == CL_DEVICE_TYPE_GPU && !software) << name;
}

}  // namespace
