// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/pictures/picture_layout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace {

using apps::PictureLayout;

unsigned char sample(int x, int y) {
    return static_cast<unsigned char>(x * 7 + y * 13);
}

TEST(PictureLayout, PlacesAnyPictureInAFrameAndExtendsItsEdges) {
    const int sizes[][4] = {{1, 1, 16, 16},   {15, 9, 16, 16},      {16, 16, 16, 16},
                            {17, 17, 32, 18}, {321, 243, 336, 244}, {1080, 1920, 1088, 1920}};
    for (const auto& [width, height, frame_width, frame_height] : sizes) {
        for (const auto place : {PictureLayout::MIDDLE, PictureLayout::TOP_LEFT}) {
            SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
            const PictureLayout layout(width, height, place);
            ASSERT_EQ(layout.frame_width(), frame_width);
            ASSERT_EQ(layout.frame_height(), frame_height);
            const apps::FramePtr frame = layout.make_frame();
            const video_io::Planes picture = layout.picture(*frame);
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    picture.y[y * frame_width + x] = sample(x, y);
                    picture.v[y / 2 * frame_width / 2 + x / 2] = sample(x / 2, y / 2);
                }
            }
            layout.fill_border(*frame);

            const int left = static_cast<int>(picture.y - frame->plane_y) % frame_width;
            const int top = static_cast<int>(picture.y - frame->plane_y) / frame_width;
            const unsigned char* v = frame->plane_uv + frame_width * frame_height / 4;
            int wrong = 0;
            for (int y = 0; y < frame_height; ++y) {
                for (int x = 0; x < frame_width; ++x) {
                    const int px = std::clamp(x - left, 0, width - 1);
                    const int py = std::clamp(y - top, 0, height - 1);
                    wrong += frame->plane_y[y * frame_width + x] != sample(px, py) ? 1 : 0;
                    wrong += v[y / 2 * frame_width / 2 + x / 2] != sample(px / 2, py / 2) ? 1 : 0;
                }
            }
            EXPECT_EQ(wrong, 0);
            EXPECT_EQ(picture.u - frame->plane_uv, top / 2 * frame_width / 2 + left / 2);
            EXPECT_EQ(left % 2 + top % 2, 0);
            // Twice the distance between the centres of picture and frame.
            const int off = std::max(std::abs(2 * left + width - frame_width),
                                     std::abs(2 * top + height - frame_height));
            EXPECT_TRUE(place == PictureLayout::MIDDLE ? off <= 3 : left + top == 0);
        }
    }
}

}  // namespace
