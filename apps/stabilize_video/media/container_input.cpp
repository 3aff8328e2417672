// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/media/container_input.h"

extern "C" {
#include <libavdevice/avdevice.h>
}

#include <sys/stat.h>

#include <cstdint>
#include <new>

#include "apps/stabilize_video/pictures/picture_stream.h"

namespace apps {

namespace {

constexpr int STREAM_BUFFER_BYTES = 1 << 16;

bool is_character_device(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISCHR(info.st_mode);
}

bool is_regular_file(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

ContainerInput::ContainerInput(const std::string& url, const Options& options)
    : name_(url), stop_(options.stop) {
    open(url, options);
}

ContainerInput::ContainerInput(std::unique_ptr<video_io::FdSource> stream, const Options& options)
    : name_(stream->name()), stream_(std::move(stream)), stop_(options.stop) {
    open("", options);
}

// Has FFmpeg read from `stream_`.
AvioPtr ContainerInput::make_stream_io() {
    auto* buffer = static_cast<unsigned char*>(av_malloc(STREAM_BUFFER_BYTES));
    AvioPtr io(avio_alloc_context(
        buffer, STREAM_BUFFER_BYTES, 0, this,
        [](void* self, std::uint8_t* to, int size) {
            auto& source = *static_cast<ContainerInput*>(self);
            try {
                const std::size_t got =
                    source.stream_->read_available(to, static_cast<std::size_t>(size));
                return got == 0 ? AVERROR_EOF : static_cast<int>(got);
            } catch (const video_io::InputError&) {
                source.stream_failure_ = std::current_exception();
                return AVERROR(EIO);
            }
        },
        nullptr, nullptr));
    if (!io) {
        av_free(buffer);
        throw std::bad_alloc();
    }
    return io;
}

void ContainerInput::open(const std::string& url, const Options& options) {
    avdevice_register_all();
    open_once(url, options, false);
    if (seekable() && has_unknown_sound()) {  // it begins later than FFmpeg looks by itself
        context_.reset();
        open_once(url, options, true);
    }
}

// farther  look for streams farther than FFmpeg does by itself
void ContainerInput::open_once(const std::string& url, const Options& options, bool farther) {
    std::string container = options.container;
    if (container.empty() && is_character_device(url)) {
        container = "video4linux2";
    }
    const AVInputFormat* format = nullptr;
    if (!container.empty()) {
        format = av_find_input_format(container.c_str());
        if (format == nullptr) {
            throw UsageError("there is no input format '" + container + "'");
        }
    }
    Dictionary settings;
    for (const auto& [key, value] : options.options) {
        settings.set(key, value);
    }
    // A plain name is a file, even if it contains colons.
    const std::string location = is_regular_file(url) ? "file:" + url : url;

    AVFormatContext* context = avformat_alloc_context();
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    context_.reset(context);
    if (farther) {
        context->probesize = 100'000'000;  // bytes
        context->max_analyze_duration = 60 * std::int64_t{AV_TIME_BASE};
    }
    context->interrupt_callback.opaque = this;
    context->interrupt_callback.callback = [](void* self) {
        const std::atomic<bool>* stop = static_cast<ContainerInput*>(self)->stop_;
        return stop != nullptr && stop->load() ? 1 : 0;
    };
    if (stream_) {
        io_ = make_stream_io();
        context->pb = io_.get();
    }
    context = context_.release();  // freed by a failing avformat_open_input
    forget_ffmpeg_error();
    const int opened = avformat_open_input(&context, location.c_str(), format, settings.address());
    context_.reset(context);
    if (opened < 0) {
        rethrow_failure();
        const std::string cause = ffmpeg_error();
        const bool unfinished = cause.find("moov atom not found") != std::string::npos;
        throw video_io::InputError(
            "cannot read " + name_ + ": " +
            (unfinished ? "it has no index; it was cut short, or its recording never finished"
                        : av_reason(opened)));
    }
    if (const std::string key = settings.first_key(); !key.empty()) {
        throw UsageError("the input format '" + std::string(context->iformat->name) +
                         "' has no option '" + key + "'");
    }
    live_ = (context->iformat->flags & AVFMT_NOFILE) != 0 || !seekable();
    const int found = avformat_find_stream_info(context, nullptr);
    if (found < 0) {
        throw video_io::InputError("cannot read " + name_ + ": " + av_reason(found));
    }
}

bool ContainerInput::has_unknown_sound() const {
    for (unsigned i = 0; i < context_->nb_streams; ++i) {
        const AVCodecParameters& parameters = *context_->streams[i]->codecpar;
        if (parameters.codec_type == AVMEDIA_TYPE_AUDIO && parameters.sample_rate <= 0) {
            return true;
        }
    }
    return false;
}

bool ContainerInput::seekable() const {
    return context_->pb != nullptr && (context_->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0;
}

bool ContainerInput::is_broadcast() const {
    return (context_->iformat->flags & AVFMT_TS_DISCONT) != 0;
}

bool ContainerInput::read(AVPacket& packet) {
    // Not every demuxer checks the interrupt callback.
    if (stop_ != nullptr && stop_->load()) {
        throw video_io::InputError("interrupted");
    }
    const int result = av_read_frame(context_.get(), &packet);
    if (result >= 0) {
        return true;
    }
    rethrow_failure();
    if (result == AVERROR_EXIT) {
        throw video_io::InputError("interrupted");
    }
    if (result != AVERROR_EOF) {
        failure_ = av_reason(result);
    }
    return false;
}

void ContainerInput::rethrow_failure() const {
    if (stream_failure_) {
        std::rethrow_exception(stream_failure_);
    }
}

std::string ContainerInput::why_empty() const {
    // QuickTime or MP4 whose index follows pictures that have gone by.
    if (live_ && std::string(context_->iformat->name).find("mp4") != std::string::npos) {
        return "cannot read " + name_ +
               ": its index comes last, so that it cannot be read from a pipe; read a file, or put "
               "the index first (ffmpeg -i IN -c copy -movflags +faststart OUT)";
    }
    return "no picture of " + name_ + " can be decoded" + (failure_.empty() ? "" : ": " + failure_);
}

}  // namespace apps
