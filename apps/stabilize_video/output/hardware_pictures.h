// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "apps/stabilize_video/pictures/ffmpeg.h"

namespace apps {

// Pictures in the memory of a device, for encoders that take no others. Threads: owner only.
class HardwarePictures {
  public:
    // For pictures of `plain`, which is set to the format that the device takes. Sets the encoder's
    // pixel format and frames. Throws OutputError where there is no such device.
    HardwarePictures(AVCodecContext& encoder, const AVCodec& codec, AVPixelFormat& plain);

    // Whether the encoder takes nothing else.
    static bool needed(AVPixelFormat encoder_format);

    // A copy on the device. Throws OutputError.
    AvFramePtr upload(const AVFrame& picture) const;

  private:
    BufferPtr frames_;
};

}  // namespace apps
