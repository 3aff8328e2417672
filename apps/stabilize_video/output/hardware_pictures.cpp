// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/output/hardware_pictures.h"

extern "C" {
#include <libavutil/hwcontext.h>
}

#include <new>
#include <string>

#include "apps/stabilize_video/pictures/pixel_formats.h"
#include "common/video_io/byte_io.h"

namespace apps {

namespace {

// Pictures that wait in an encoder for those after them.
constexpr int POOL = 32;

void check(int result, const std::string& what) {
    if (result < 0) {
        throw video_io::OutputError(what + ": " + ffmpeg_error_or(result));
    }
}

}  // namespace

bool HardwarePictures::needed(AVPixelFormat encoder_format) {
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(encoder_format);
    return descriptor != nullptr && (descriptor->flags & AV_PIX_FMT_FLAG_HWACCEL) != 0;
}

HardwarePictures::HardwarePictures(AVCodecContext& encoder, const AVCodec& codec,
                                   AVPixelFormat& plain) {
    const AVCodecHWConfig* config = nullptr;
    for (int i = 0; (config = avcodec_get_hw_config(&codec, i)) != nullptr; ++i) {
        if ((config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_FRAMES_CTX) != 0) {
            break;
        }
    }
    const std::string name = codec.name;
    if (config == nullptr) {
        throw video_io::OutputError("the encoder " + name + " takes no pictures from here");
    }
    forget_ffmpeg_error();
    AVBufferRef* made = nullptr;
    const int opened = av_hwdevice_ctx_create(&made, config->device_type, nullptr, nullptr, 0);
    const BufferPtr device(made);
    check(opened, "the encoder " + name + " finds no device (" +
                      av_hwdevice_get_type_name(config->device_type) + ")");
    frames_.reset(av_hwframe_ctx_alloc(device.get()));
    if (!frames_) {
        throw std::bad_alloc();
    }
    plain = bit_depth_of(plain) > 8 ? AV_PIX_FMT_P010LE : AV_PIX_FMT_NV12;
    auto& frames = *reinterpret_cast<AVHWFramesContext*>(frames_->data);
    frames.format = config->pix_fmt;
    frames.sw_format = plain;
    frames.width = encoder.width;
    frames.height = encoder.height;
    frames.initial_pool_size = POOL;
    check(av_hwframe_ctx_init(frames_.get()), "the device of the encoder " + name + " fails");
    encoder.pix_fmt = config->pix_fmt;
    encoder.hw_frames_ctx = av_buffer_ref(frames_.get());
}

AvFramePtr HardwarePictures::upload(const AVFrame& picture) const {
    AvFramePtr copy = make_av_frame();
    forget_ffmpeg_error();
    int result = av_hwframe_get_buffer(frames_.get(), copy.get(), 0);
    if (result >= 0) {
        result = av_hwframe_transfer_data(copy.get(), &picture, 0);
    }
    if (result >= 0) {
        result = av_frame_copy_props(copy.get(), &picture);
    }
    check(result, "a picture cannot be brought to the encoder's device");
    return copy;
}

}  // namespace apps
