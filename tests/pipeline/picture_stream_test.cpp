// SPDX-License-Identifier: Apache-2.0

// Streams of frames of any layout.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tests/faults/leak_test.h"
#include "tests/pipeline/stream_helpers.h"

using namespace test_support;

namespace {

using Pictures = LeakTest;

constexpr int ODD_WIDTH = 449;
constexpr int ODD_HEIGHT = 321;

// Places of samples that the layout itself defines, written down once more.
struct Plane {
    int width, height, channels;
    double step_x, step_y, first_x, first_y;  // luma position of a sample
};
Plane plane_of(const PixelLayout& layout, int k) {
    Plane p{ODD_WIDTH, ODD_HEIGHT, 1, 1, 1, 0, 0};
    if (k == 3) {
        return p;
    }
    if (k > 0 && layout.chroma != CHROMA_444) {
        p.step_x = layout.chroma == CHROMA_411 ? 4 : 2;
        p.width = static_cast<int>(std::ceil(p.width / p.step_x));
        p.first_x = layout.siting == CHROMA_SITING_CENTRE ? 0.5 * (p.step_x - 1) : 0;
    }
    if (k > 0 && layout.chroma == CHROMA_420) {
        p.height = (p.height + 1) / 2;
        p.step_y = 2;
        p.first_y = layout.siting == CHROMA_SITING_TOP_LEFT ? 0 : 0.5;
    }
    p.channels = k > 0 && layout.semi_planar != 0 ? 2 : 1;
    return p;
}
int planes_of(const PixelLayout& layout) {
    return layout.chroma == CHROMA_NONE ? 1 : (layout.semi_planar != 0 ? 2 : 3 + layout.alpha);
}

unsigned char* sample_at(const PixelLayout& layout, const PicturePlanes& planes, int k, int x,
                         int y) {
    const bool alpha = k == 3;
    return (alpha ? planes.alpha : planes.data[k]) +
           static_cast<std::ptrdiff_t>(y) * (alpha ? planes.alpha_stride : planes.stride[k]) +
           static_cast<std::ptrdiff_t>(x) * (layout.bit_depth > 8 ? 2 : 1);
}
int shift_of(const PixelLayout& layout) {
    return layout.high_bits != 0 ? 16 - layout.bit_depth : 0;
}

// Grey levels of 0 to 255, with fractions, at a luma position; `channel` counts Y, U, V.
double waves_at(double x, double y, int channel) {
    return 128 + 100 * std::sin(x * 0.11 + y * 0.16 + channel * 2);
}

// A picture in memory with a margin after each row; upside down where asked.
struct HostPicture {
    HostPicture(const PixelLayout& pixels, bool upside_down) : layout(pixels) {
        for (int k = 0; k < planes_of(layout); ++k) {
            const Plane p = plane_of(layout, k);
            const int row = p.width * p.channels * (layout.bit_depth > 8 ? 2 : 1) + 14;
            memory[k].assign(static_cast<std::size_t>(row) * static_cast<std::size_t>(p.height),
                             0xEE);
            (k < 3 ? planes.data[k] : planes.alpha) =
                memory[k].data() + (upside_down ? (p.height - 1) * row : 0);
            (k < 3 ? planes.stride[k] : planes.alpha_stride) = upside_down ? -row : row;
        }
    }
    template <typename Level>
    void fill(Level level) {
        for (int k = 0; k < planes_of(layout); ++k) {
            const Plane p = plane_of(layout, k);
            for (int y = 0; y < p.height; ++y) {
                for (int x = 0; x < p.width * p.channels; ++x) {
                    const int column = x / p.channels;
                    const double value = level(column * p.step_x + p.first_x,
                                               y * p.step_y + p.first_y, k + x % p.channels);
                    const auto code = static_cast<std::uint16_t>(
                        std::lround(std::ldexp(value, layout.bit_depth - 8)) << shift_of(layout));
                    std::memcpy(sample_at(layout, planes, k, x, y), &code,
                                layout.bit_depth > 8 ? 2 : 1);
                }
            }
        }
    }
    Frame* frame(int number) {
        Frame* const frame = picture_frame_create(ODD_WIDTH, ODD_HEIGHT, &layout, &planes);
        frame->timestamp = number;
        return frame;
    }

    PixelLayout layout;
    PicturePlanes planes{};
    std::vector<unsigned char> memory[4];
};

StabilizerPtr make_stream(const PixelLayout& layout, bool in_place,
                          const VideoStabilizerOptions* options = nullptr,
                          VideoStabilizerUser* user = nullptr) {
    return StabilizerPtr(video_stabilizer_create_for_pictures(ODD_WIDTH, ODD_HEIGHT, &layout,
                                                              in_place ? 1 : 0, user, options));
}

// A frame over the memory of a HostPicture, upside down.
Frame* turned_frame(void* host_picture) {
    const auto& picture = *static_cast<HostPicture*>(host_picture);
    PicturePlanes planes = picture.planes;
    for (int k = 0; k < planes_of(picture.layout); ++k) {
        planes.data[k] += (plane_of(picture.layout, k).height - 1) * planes.stride[k];
        planes.stride[k] = -planes.stride[k];
    }
    return picture_frame_create(ODD_WIDTH, ODD_HEIGHT, &picture.layout, &planes);
}

// The largest difference, in levels of 8 bits, of a frame from the waves enlarged by two.
double worst_error(const Frame* frame, const PixelLayout& layout) {
    PicturePlanes planes;
    EXPECT_EQ(picture_frame_planes(frame, &planes), 0);
    double worst = 0;
    for (int k = 0; k < planes_of(layout); ++k) {
        const Plane p = plane_of(layout, k);
        for (int y = 0; y < p.height; ++y) {
            for (int x = 0; x < p.width * p.channels; ++x) {
                std::uint16_t code = 0;
                std::memcpy(&code, sample_at(layout, planes, k, x, y),
                            layout.bit_depth > 8 ? 2 : 1);
                const double level = std::ldexp(code >> shift_of(layout), 8 - layout.bit_depth);
                const int column = x / p.channels;
                const double from_x = ODD_WIDTH / 4.0 + 0.5 * (column * p.step_x + p.first_x);
                const double from_y = ODD_HEIGHT / 4.0 + 0.5 * (y * p.step_y + p.first_y);
                worst =
                    std::max(worst, std::abs(level - waves_at(from_x, from_y, k + x % p.channels)));
            }
        }
    }
    return worst;
}

TEST_F(Pictures, OfAllLayoutsAreWarpedWhereTheirSamplesLie) {
    const struct {
        const char* name;
        PixelLayout layout;
        bool in_place;
        bool upside_down;
        bool over_input = false;  // the output is written to the input's memory, upside down
    } cases[] = {
        {"4:2:0", {CHROMA_420, CHROMA_SITING_LEFT, 8, 0, 0, 0, {}}, false, false},
        {"NV12, turned", {CHROMA_420, CHROMA_SITING_LEFT, 8, 1, 0, 0, {}}, false, false, true},
        {"NV12, JPEG", {CHROMA_420, CHROMA_SITING_CENTRE, 8, 1, 0, 0, {}}, true, false},
        {"4:1:1", {CHROMA_411, CHROMA_SITING_CENTRE, 8, 0, 0, 0, {}}, false, false},
        {"4:2:0 with alpha", {CHROMA_420, CHROMA_SITING_LEFT, 10, 0, 0, 1, {}}, true, false},
        {"P010", {CHROMA_420, CHROMA_SITING_TOP_LEFT, 10, 1, 1, 0, {}}, false, true},
        {"4:2:2", {CHROMA_422, CHROMA_SITING_LEFT, 8, 0, 0, 0, {}}, true, true},
        {"P212", {CHROMA_422, CHROMA_SITING_LEFT, 12, 1, 1, 0, {}}, false, false},
        {"4:4:4, 10 bits", {CHROMA_444, CHROMA_SITING_LEFT, 10, 0, 0, 0, {}}, false, false},
        {"grey, 9 bits", {CHROMA_NONE, CHROMA_SITING_LEFT, 9, 0, 0, 0, {}}, true, false},
        {"4:2:0, 16 bits", {CHROMA_420, CHROMA_SITING_LEFT, 16, 0, 0, 0, {}}, true, false},
    };
    VideoStabilizerOptions options = options_for(STABILIZER_GENTLE);
    options.engine = STABILIZER_ENGINE_NATIVE;
    options.sampling = STABILIZER_SAMPLING_SHARP;
    options.crop_ratio = 0.5F;
    options.look_ahead = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HostPicture picture(c.layout, c.upside_down);
        picture.fill(waves_at);
        VideoStabilizerUser user{&picture, turned_frame};
        const StabilizerPtr s =
            make_stream(c.layout, c.in_place, &options, c.over_input ? &user : nullptr);
        ASSERT_NE(s, nullptr);
        double worst = 0;
        const Ending ending = run_stream(
            s.get(), c.in_place || c.over_input ? 1 : 3, [&](int i) { return picture.frame(i); },
            [&](const Frame* frame) { worst = std::max(worst, worst_error(frame, c.layout)); });
        EXPECT_EQ(ending.code, RESULT_END_OF_STREAM);
        // Positions are rounded, and so are source and output. Wrong siting costs five levels.
        EXPECT_LT(worst, 0.7 + std::ldexp(1.3, 8 - c.layout.bit_depth));
        for (int k = 0; k < planes_of(c.layout); ++k) {
            const std::size_t row = static_cast<std::size_t>(
                std::abs(k < 3 ? picture.planes.stride[k] : picture.planes.alpha_stride));
            for (std::size_t at = row - 14; at < picture.memory[k].size(); at += row) {
                EXPECT_EQ(std::count(&picture.memory[k][at], &picture.memory[k][at] + 14, 0xEE),
                          14);
            }
        }
    }
}

// What a picture's depth, its layout, the engine and the number of threads must not change.
TEST_F(Pictures, AreStabilizedTheSameWhateverTheirDepth) {
    const PixelLayout eight = {CHROMA_420, CHROMA_SITING_LEFT, 8, 0, 0, 0, {}};
    const struct {
        PixelLayout layout;
        int threads;
        VideoStabilizerEngine engine;
    } cases[] = {{eight, 1, STABILIZER_ENGINE_NATIVE},
                 {eight, 3, STABILIZER_ENGINE_NATIVE},
                 {eight, 0, STABILIZER_ENGINE_OPENCL},
                 {{CHROMA_NONE, CHROMA_SITING_LEFT, 10, 0, 0, 0, {}}, 2, STABILIZER_ENGINE_NATIVE},
                 {{CHROMA_422, CHROMA_SITING_LEFT, 12, 1, 1, 0, {}}, 0, STABILIZER_ENGINE_OPENCL}};
    std::vector<Matrix> corrections;
    std::vector<std::vector<unsigned char>> luma;
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        VideoStabilizerOptions options = options_for(STABILIZER_STANDARD);
        options.engine = c.engine;
        options.threads = c.threads;
        const StabilizerPtr s = make_stream(c.layout, false, &options);
        std::vector<HostPicture> pictures(30, HostPicture(c.layout, false));
        std::vector<std::vector<unsigned char>> outputs;
        const Ending ending = run_stream(
            s.get(), 30,
            [&](int i) {
                HostPicture& picture = pictures[static_cast<std::size_t>(i)];
                picture = HostPicture(c.layout, false);
                picture.fill([i](double x, double y, int) {
                    return shaking_texture(static_cast<int>(x), static_cast<int>(y), i);
                });
                return picture.frame(i);
            },
            [&](const Frame* frame) {
                outputs.emplace_back(frame->plane_y, frame->plane_y + frame->stride_y * ODD_HEIGHT);
            });
        EXPECT_GT(ending.estimated, 15);
        EXPECT_EQ(live_opencl_objects() > 0, c.engine == STABILIZER_ENGINE_OPENCL);
        EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
        EXPECT_EQ(live_opencl_objects(), 0);
        if (corrections.empty()) {
            corrections = ending.corrections;
            luma = outputs;
        }
        EXPECT_EQ(ending.corrections, corrections);
        if (c.layout.bit_depth == 8) {
            for (std::size_t i = 0; i < outputs.size(); ++i) {
                for (std::size_t y = 0; y < ODD_HEIGHT; ++y) {
                    const auto row =
                        static_cast<std::ptrdiff_t>(y * outputs[i].size() / ODD_HEIGHT);
                    ASSERT_TRUE(std::equal(outputs[i].begin() + row,
                                           outputs[i].begin() + row + ODD_WIDTH,
                                           luma[i].begin() + row));
                }
            }
        }
    }
}

TEST_F(Pictures, AreRefusedWhereTheyDoNotFit) {
    const PixelLayout good = {CHROMA_420, CHROMA_SITING_LEFT, 10, 1, 1, 0, {}};
    const PixelLayout bad[] = {{static_cast<ChromaFormat>(5), CHROMA_SITING_LEFT, 8, 0, 0, 0, {}},
                               {CHROMA_420, static_cast<ChromaSiting>(6), 8, 0, 0, 0, {}},
                               {CHROMA_420, CHROMA_SITING_LEFT, 7, 0, 0, 0, {}},
                               {CHROMA_420, CHROMA_SITING_LEFT, 17, 0, 0, 0, {}},
                               {CHROMA_420, CHROMA_SITING_LEFT, 8, 2, 0, 0, {}},
                               {CHROMA_420, CHROMA_SITING_LEFT, 8, 0, 0, 2, {}},
                               {CHROMA_NONE, CHROMA_SITING_LEFT, 8, 0, 0, 1, {}},
                               {CHROMA_420, CHROMA_SITING_LEFT, 8, 1, 0, 1, {}},
                               {CHROMA_420, CHROMA_SITING_LEFT, 8, 0, 0, 0, {1, 0}}};
    for (const PixelLayout& layout : bad) {
        SCOPED_TRACE(&layout - bad);
        EXPECT_EQ(make_stream(layout, true), nullptr);
        EXPECT_EQ(picture_frame_create(64, 64, &layout, nullptr), nullptr);
    }
    VideoStabilizerOptions stated_kernels;
    video_stabilizer_options_init(&stated_kernels);
    EXPECT_EQ(make_stream(good, true, &stated_kernels), nullptr);
    EXPECT_NE(make_stream(good, true), nullptr);
    EXPECT_EQ(picture_frame_create(64, 64, nullptr, nullptr), nullptr);
    EXPECT_EQ(picture_frame_create(64, 0, &good, nullptr), nullptr);
    std::vector<unsigned char> memory(1 << 16);
    for (const std::int32_t stride : {0, 126, -126, 129}) {
        const PicturePlanes planes = {
            {memory.data(), memory.data(), nullptr}, {128, stride, 0}, nullptr, 0};
        EXPECT_EQ(picture_frame_create(64, 64, &good, &planes), nullptr) << stride;
    }

    const StabilizerPtr s = make_stream(good, true);
    PixelLayout other = good;
    other.high_bits = 0;
    Frame* const misfits[] = {picture_frame_create(ODD_WIDTH, ODD_HEIGHT, &other, nullptr),
                              picture_frame_create(ODD_WIDTH + 1, ODD_HEIGHT, &good, nullptr),
                              blank_frame(packed(ODD_WIDTH - 1, ODD_HEIGHT - 1))};
    for (Frame* const frame : misfits) {
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(video_stabilizer_push_frame(s.get(), frame), RESULT_FAILED);
    }
    const StabilizerPtr stated = make_stabilizer();
    EXPECT_EQ(video_stabilizer_push_frame(stated.get(),
                                          picture_frame_create(WIDTH, HEIGHT, &good, nullptr)),
              RESULT_FAILED);
}

// Frames of create_frame that the picture would not fit end the stream.
TEST_F(Pictures, AreNotWrittenToFramesOfAnotherKind) {
    using Make = Frame* (*)(void*);
    static constexpr PixelLayout PLANAR = {CHROMA_420, CHROMA_SITING_LEFT, 8, 0, 0, 0, {}};
    const Make no_picture = [](void*) { return blank_frame(packed()); };
    const Make smaller = [](void*) {
        return picture_frame_create(WIDTH, HEIGHT - 2, &PLANAR, nullptr);
    };
    const Make no_chroma = [](void*) {
        Frame* const frame = blank_frame(packed());
        frame->plane_uv = nullptr;
        return frame;
    };
    const struct {
        bool pictures;
        Make make;
    } cases[] = {{true, no_picture}, {true, smaller}, {false, smaller}, {false, no_chroma}};
    VideoStabilizerOptions options = options_for(STABILIZER_STANDARD);
    options.engine = STABILIZER_ENGINE_NATIVE;
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        VideoStabilizerUser user{&user, c.make};
        const StabilizerPtr s = c.pictures ? StabilizerPtr(video_stabilizer_create_for_pictures(
                                                 WIDTH, HEIGHT, &PLANAR, 0, &user, &options))
                                           : make_stabilizer(packed(), false, &options, &user);
        const Ending ending = run_stream(s.get(), 12, [&](int i) {
            Frame* const frame = c.pictures ? picture_frame_create(WIDTH, HEIGHT, &PLANAR, nullptr)
                                            : blank_frame(packed());
            frame->timestamp = i;
            return frame;
        });
        EXPECT_EQ(ending.popped, 0);
        EXPECT_EQ(ending.code, RESULT_STOPPING);
    }
}

}  // namespace
