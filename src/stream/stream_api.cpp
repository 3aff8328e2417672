// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/stream.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "frames/picture_layout.h"
#include "platform/log.h"
#include "stream/record.h"
#include "stream/stream.h"
#include "videostabilizer/version.h"

using namespace videostabilizer;

struct VideoStabilizerStream : public Stream {
    using Stream::Stream;
};

namespace {

// Of a stream that was not opened.
void give_reason(const char* text, char* reason, std::size_t size) {
    if (reason != nullptr && size > 0) {
        const std::size_t length = std::min(std::strlen(text), size - 1);
        std::memcpy(reason, text, length);
        reason[length] = '\0';
    }
}

int refuse_stream(const VideoStabilizerStreamOptions& options, int code, const char* text,
                  char* reason, std::size_t size) {
    give_reason(text, reason, size);
    if (options.log != nullptr && options.log_level <= LOG_ERROR) {
        options.log(options.log_context, LOG_ERROR, "stream", text);
    }
    return code;
}

}  // namespace

const char* videostabilizer_strerror(int code) {
    switch (code) {
        case VIDEOSTABILIZER_OK:
            return "no error";
        case VIDEOSTABILIZER_AGAIN:
            return "not possible now; try again later";
        case VIDEOSTABILIZER_END:
            return "all pictures have been pulled";
        case VIDEOSTABILIZER_INVALID:
            return "an argument, option or picture is refused";
        case VIDEOSTABILIZER_NO_MEMORY:
            return "there is not enough memory";
        case VIDEOSTABILIZER_NO_THREAD:
            return "the system gives no thread or descriptor";
        case VIDEOSTABILIZER_NO_DEVICE:
            return "OpenCL cannot be used";
        case VIDEOSTABILIZER_DRAINING:
            return "no pictures are taken after drain";
        case VIDEOSTABILIZER_NEEDS_REOPEN:
            return "an open stream cannot change this";
        case VIDEOSTABILIZER_FAILED:
            return "the stream has ended with an error";
        default:
            return "unknown code";
    }
}

const char* videostabilizer_library_version(void) {
    return version();
}

int32_t videostabilizer_format_by_name(const char* name) {
    return name != nullptr ? format_by_name(name) : -1;
}

int videostabilizer_format_plane(int32_t format, int32_t width, int32_t height, int plane,
                                 VideoStabilizerPlaneShape* shape) {
    const std::optional<StreamFormat> known = stream_format(format, VIDEOSTABILIZER_SITING_LEFT);
    if (!known || width < 1 || height < 1 || width > LARGEST_PICTURE || height > LARGEST_PICTURE) {
        return VIDEOSTABILIZER_INVALID;
    }
    const int planes = host_planes(*known);
    if (shape == nullptr) {
        return planes;
    }
    if (plane < 0 || plane >= planes) {
        return VIDEOSTABILIZER_INVALID;
    }
    const VideoStabilizerPlaneShape values{sizeof(values), host_row_bytes(*known, width, plane),
                                           host_rows(*known, height, plane)};
    return write_record(values, SMALLEST_SHAPE, shape) ? planes : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_options_init(VideoStabilizerStreamOptions* options, size_t size,
                                        int strength) {
    VideoStabilizerStreamOptions values{};
    if (options == nullptr || size < SMALLEST_OPTIONS || size > LARGEST_RECORD ||
        !options_of_strength(strength, values)) {
        return VIDEOSTABILIZER_INVALID;
    }
    options->size = size;
    write_record(values, SMALLEST_OPTIONS, options);
    return VIDEOSTABILIZER_OK;
}

int videostabilizer_strength_by_name(const char* name) {
    constexpr const char* NAMES[] = {"gentle", "standard", "strong", "maximum"};
    for (int strength = VIDEOSTABILIZER_GENTLE; strength <= VIDEOSTABILIZER_MAXIMUM; ++strength) {
        if (name != nullptr && std::strcmp(name, NAMES[strength]) == 0) {
            return strength;
        }
    }
    return -1;
}

int videostabilizer_stream_open(const VideoStabilizerStreamOptions* options,
                                VideoStabilizerStream** stream, char* reason, size_t reason_size) {
    give_reason("", reason, reason_size);
    if (stream == nullptr) {
        return VIDEOSTABILIZER_INVALID;
    }
    *stream = nullptr;
    StreamSettings settings{};
    const char* const fault = read_settings(options, settings);
    if (fault != nullptr) {
        return refuse_stream(settings.given, VIDEOSTABILIZER_INVALID, fault, reason, reason_size);
    }
    VideoStabilizerStream* opened = nullptr;
    int code = VIDEOSTABILIZER_NO_MEMORY;
    try {
        opened = new VideoStabilizerStream(settings);
        code = opened->start();
    } catch (const std::bad_alloc&) {
        code = VIDEOSTABILIZER_NO_MEMORY;
    }
    if (code == VIDEOSTABILIZER_OK) {
        *stream = opened;
        return code;
    }
    char text[512] = "";
    if (opened != nullptr && code == VIDEOSTABILIZER_NO_DEVICE) {
        opened->message(text, sizeof(text));
    }
    delete opened;
    return refuse_stream(settings.given, code,
                         text[0] != '\0' ? text : videostabilizer_strerror(code), reason,
                         reason_size);
}

void videostabilizer_stream_close(VideoStabilizerStream* stream) {
    if (stream != nullptr) {
        stream->end();
        delete stream;
    }
}

int videostabilizer_stream_push(VideoStabilizerStream* stream, const VideoStabilizerInput* input,
                                int timeout_ms) {
    return stream != nullptr ? stream->push(input, timeout_ms) : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_drain(VideoStabilizerStream* stream) {
    return stream != nullptr ? stream->drain() : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_pull(VideoStabilizerStream* stream, VideoStabilizerPicture** picture,
                                int timeout_ms) {
    return stream != nullptr ? stream->pull(picture, timeout_ms) : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_pull_into(VideoStabilizerStream* stream, VideoStabilizerOutput* output,
                                     VideoStabilizerStreamReport* report, int timeout_ms) {
    return stream != nullptr ? stream->pull_into(output, report, timeout_ms)
                             : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_flush(VideoStabilizerStream* stream) {
    return stream != nullptr ? stream->flush() : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_change(VideoStabilizerStream* stream,
                                  const VideoStabilizerStreamOptions* options) {
    return stream != nullptr ? stream->change(options) : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_get_options(VideoStabilizerStream* stream,
                                       VideoStabilizerStreamOptions* options) {
    return stream != nullptr && write_record(stream->options(), SMALLEST_OPTIONS, options)
               ? VIDEOSTABILIZER_OK
               : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_latency(const VideoStabilizerStream* stream) {
    return stream != nullptr ? stream->latency() : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_stream_ready(VideoStabilizerStream* stream) {
    return stream != nullptr ? stream->ready() : 0;
}

int videostabilizer_stream_descriptor(VideoStabilizerStream* stream) {
    return stream != nullptr ? stream->descriptor() : VIDEOSTABILIZER_INVALID;
}

size_t videostabilizer_stream_message(VideoStabilizerStream* stream, char* text, size_t size) {
    return stream != nullptr ? stream->message(text, size) : 0;
}

VideoStabilizerPicture* videostabilizer_picture_ref(VideoStabilizerPicture* picture) {
    picture->references.fetch_add(1, std::memory_order_relaxed);
    return picture;
}

void videostabilizer_picture_unref(VideoStabilizerPicture* picture) {
    if (picture != nullptr && picture->references.fetch_sub(1) == 1) {
        picture->memory->give_back(picture);
    }
}

int videostabilizer_picture_get(const VideoStabilizerPicture* picture,
                                VideoStabilizerOutput* output) {
    const VideoStabilizerOutput values{sizeof(values), picture->planes, picture->timestamp,
                                       picture->host};
    return write_record(values, SMALLEST_OUTPUT, output) ? VIDEOSTABILIZER_OK
                                                         : VIDEOSTABILIZER_INVALID;
}

int videostabilizer_picture_report(const VideoStabilizerPicture* picture,
                                   VideoStabilizerStreamReport* report) {
    return write_record(picture->report, SMALLEST_REPORT, report) ? VIDEOSTABILIZER_OK
                                                                  : VIDEOSTABILIZER_INVALID;
}
