// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "tests/cpu_warp/reference_warp.h"
#include "tests/faults/library_calls.h"
#include "tests/pipeline/stream_helpers.h"
#include "tests/support/log_capture.h"

// A warp stage with callbacks for the tests, and the check of its pictures.

namespace videostabilizer {

using test_support::Geometry;

constexpr Geometry SEMI_PLANAR = {48, 12, 48, 24, PIX_FMT_YUV420SP_0};

// As the kernels take it: rows are packed if the width is a multiple of 32.
inline PictureLayout layout_of(const Geometry& geometry) {
    const auto& [width, height, stride_y, stride_uv, format] = geometry;
    const bool planar = format == PIX_FMT_YUV420P;
    const bool packed = width % 32 == 0;
    const int row = packed ? width : stride_y;
    const int chroma_row = !planar ? row : packed ? width / 2 : stride_uv;
    const int step = planar ? 1 : 2;
    // An odd width ends in half a sample, which only a longer row holds.
    const int chroma_columns = std::min((width + 1) / 2, chroma_row / step);
    const auto rows = static_cast<std::size_t>(height);
    const std::size_t luma = geometry.luma_bytes();
    const std::size_t v = luma + (planar ? static_cast<std::size_t>(chroma_row) * rows / 2 : 1);
    return {luma + geometry.chroma_bytes(),
            width,
            height,
            width / 16 * 16,
            1,
            row,
            {chroma_row, step, chroma_columns, luma, v}};
}

// Fails the current test unless `actual` is a frame of noise_frame, warped. Luma may differ by a grey
// level in one byte of a hundred (the kernels' relaxed maths); chroma may be that of positions a
// thousandth to either side.
inline void expect_warped(const Geometry& geometry, std::uint32_t seed, const Affine& wp,
                          const unsigned char* actual) {
    const PictureLayout picture = layout_of(geometry);
    const Bytes source = noise_picture(picture.bytes, seed);
    const std::size_t luma = picture.chroma.u;
    Bytes black(picture.bytes, 128);  // what stays unwarped
    std::fill_n(black.begin(), luma, 16);
    Bytes wanted[] = {black, black, black};
    for (int i = 0; i < 3; ++i) {
        const WarpRules rules = {WarpRules::OFFSET_FIRST, 0.499F + 0.001F * static_cast<float>(i)};
        reference_warp(picture, rules, wp, source.data(), wanted[i].data());
    }
    std::size_t off_by_one = 0;
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < picture.bytes; ++i) {
        const int value = actual[i];
        if (i < luma && std::abs(value - wanted[1][i]) <= 1) {
            off_by_one += value != wanted[1][i] ? 1U : 0U;
        } else if (value != wanted[0][i] && value != wanted[1][i] && value != wanted[2][i]) {
            ++wrong;
        }
    }
    EXPECT_EQ(wrong, 0U) << "bytes";
    EXPECT_LE(off_by_one, luma / 100) << "luma bytes a grey level off";
}

inline Frame* noise_frame(const Geometry& g = SEMI_PLANAR, std::uint32_t seed = 1) {
    Frame* const frame = test_support::blank_frame(g);
    const Bytes content = noise_picture(layout_of(g).bytes, seed);
    std::copy(content.begin(), content.end(), frame->plane_y);
    return frame;
}

// Fails the current test after a minute.
template <typename Condition>
void wait_until(Condition met) {
    for (int ms = 0; ms < 60000 && !met(); ++ms) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(met());
}

// A stage whose callback keeps the frames and can block.
struct Stage {
    explicit Stage(int in_place = 1, int capacity = 1, Frame* (*create_frame)(void*) = nullptr) {
        EXPECT_EQ(affine_transformer_ocl_module_init(), 1);
        test_support::clear_log();
        t = affine_transformer_ocl_create(
            in_place, this,
            {on_frame, on_eos, create_frame != nullptr ? this : nullptr, create_frame}, capacity);
        blocks = test_support::live_blocks();
    }
    ~Stage() {
        affine_transformer_ocl_delete(t);
        for (Frame* frame : frames) {
            frame_delete(frame);
        }
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    int init(const Geometry& geometry = SEMI_PLANAR, float crop_ratio = 1.0F) const {
        const auto& [width, height, stride_y, stride_uv, format] = geometry;
        return affine_transformer_ocl_init(t, format, width, height, stride_y, stride_uv,
                                           crop_ratio);
    }
    int send(Frame* frame = noise_frame()) const {
        return affine_transformer_ocl_send_frame(t, frame);
    }
    int live_frames() const { return test_support::live_blocks() - blocks; }
    int fini() const { return affine_transformer_ocl_fini(t); }
    void wait_for_frames(int count) const {
        wait_until([&] { return delivered.load() >= count; });
    }

    static int on_frame(void* self, Frame* frame) {
        auto& stage = *static_cast<Stage*>(self);
        stage.frames.push_back(frame);
        ++stage.delivered;
        // Must return when the stage is stopped.
        wait_until([&] { return !stage.held.load() || stage.t->quit.load() != 0; });
        return 0;
    }
    static void on_eos(void* self) {
        auto& stage = *static_cast<Stage*>(self);
        EXPECT_EQ(affine_transformer_ocl_reach_eos(stage.t), 1);
        stage.frames_at_end.push_back(stage.delivered.load());
    }

    AffineTransformerOcl* t = nullptr;
    int blocks;  // without frames
    std::atomic<bool> held{false};
    std::atomic<int> delivered{0};
    std::vector<Frame*> frames;  // this and the next belong to the stage's thread until fini
    std::vector<int> frames_at_end;
};

}  // namespace videostabilizer
