#include "apps/stabilize_video/picture_layout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

unsigned char sample(int plane, int x, int y) {
    return static_cast<unsigned char>(plane * 85 + x * 7 + y * 13);
}

void draw(unsigned char* plane, std::ptrdiff_t stride, int number, int width, int height) {
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            plane[y * stride + x] = sample(number, x, y);
        }
    }
}

// Every sample of a plane is the picture's nearest one.
void expect_extended(const unsigned char* plane, const unsigned char* picture, int whole_width,
                     int whole_height, int number, int width, int height) {
    const int left = static_cast<int>((picture - plane) % whole_width);
    const int top = static_cast<int>((picture - plane) / whole_width);
    for (int y = 0; y < whole_height; ++y) {
        for (int x = 0; x < whole_width; ++x) {
            ASSERT_EQ(plane[y * whole_width + x], sample(number, std::clamp(x - left, 0, width - 1),
                                                         std::clamp(y - top, 0, height - 1)))
                << "plane " << number << " at " << x << ", " << y;
        }
    }
}

TEST(PictureLayout, PicturesOfAnySizeLieWholeInAFrameThatTheWarpTakesWhole) {
    const struct {
        int width, height;
        int frame_width, frame_height;
    } cases[] = {
        {1, 1, 16, 16},   {15, 9, 16, 16},      {16, 16, 16, 16},         {17, 17, 32, 18},
        {48, 20, 48, 20}, {321, 243, 336, 244}, {1080, 1920, 1088, 1920}, {1918, 1079, 1920, 1080},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height));
        for (const auto place : {apps::PictureLayout::MIDDLE, apps::PictureLayout::TOP_LEFT}) {
            const apps::PictureLayout layout(c.width, c.height, place);
            ASSERT_EQ(layout.frame_width(), c.frame_width);
            ASSERT_EQ(layout.frame_height(), c.frame_height);

            const apps::FramePtr frame = layout.make_frame();
            const apps::Planes picture = layout.picture(*frame);
            const int chroma_width = (c.width + 1) / 2;
            const int chroma_height = (c.height + 1) / 2;
            draw(picture.y, picture.stride_y, 0, c.width, c.height);
            draw(picture.u, picture.stride_uv, 1, chroma_width, chroma_height);
            draw(picture.v, picture.stride_uv, 2, chroma_width, chroma_height);
            layout.fill_border(*frame);

            const unsigned char* u = frame->plane_uv;
            const unsigned char* v = u + frame->stride_uv * (c.frame_height / 2);
            expect_extended(frame->plane_y, picture.y, c.frame_width, c.frame_height, 0, c.width,
                            c.height);
            expect_extended(u, picture.u, c.frame_width / 2, c.frame_height / 2, 1, chroma_width,
                            chroma_height);
            expect_extended(v, picture.v, c.frame_width / 2, c.frame_height / 2, 2, chroma_width,
                            chroma_height);

            const int left = static_cast<int>((picture.y - frame->plane_y) % c.frame_width);
            const int top = static_cast<int>((picture.y - frame->plane_y) / c.frame_width);
            EXPECT_EQ(picture.u - u, top / 2 * frame->stride_uv + left / 2)
                << "colour is displaced";
            EXPECT_EQ(left % 2 + top % 2, 0);
            if (place == apps::PictureLayout::TOP_LEFT) {
                EXPECT_EQ(left + top, 0);
                continue;
            }
            // Twice the distance between the centres of picture and frame.
            EXPECT_LE(std::abs(2 * left + c.width - c.frame_width), 3);
            EXPECT_LE(std::abs(2 * top + c.height - c.frame_height), 3);
        }
    }
}

}  // namespace
