// SPDX-License-Identifier: Apache-2.0

#include <videostabilizer/videostabilizer.h>

#include <cstdio>
#include <cstring>

int main() {
    videostabilizer::Frame* const frame =
        videostabilizer::frame_create(64, 48, 64, 32, videostabilizer::PIX_FMT_YUV420P, nullptr);
    std::printf("videostabilizer %s, frame of %d x %d\n", videostabilizer::version(), frame->width,
                frame->height);
    videostabilizer::frame_delete(frame);
    return std::strcmp(videostabilizer::version(), VIDEOSTABILIZER_VERSION);
}
