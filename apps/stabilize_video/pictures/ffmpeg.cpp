// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/pictures/ffmpeg.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace apps {

namespace {

std::atomic<bool> log_shown{false};
thread_local std::string first_error;

void receive_log(void* source, int level, const char* format, va_list arguments) {
    if (level <= AV_LOG_ERROR && first_error.empty()) {
        va_list again;
        va_copy(again, arguments);
        std::array<char, 512> text{};
        std::vsnprintf(text.data(), text.size(), format, again);
        va_end(again);
        first_error = text.data();
        first_error.erase(first_error.find_last_not_of(" .\n") + 1);
    }
    if (log_shown) {
        av_log_default_callback(source, level, format, arguments);
    }
}

}  // namespace

PacketPtr make_packet() {
    PacketPtr packet(av_packet_alloc());
    if (!packet) {
        throw std::bad_alloc();
    }
    return packet;
}

PacketPtr copy_of(const AVPacket& packet) {
    PacketPtr copy(av_packet_clone(&packet));
    if (!copy) {
        throw std::bad_alloc();
    }
    return copy;
}

AvFramePtr make_av_frame() {
    AvFramePtr frame(av_frame_alloc());
    if (!frame) {
        throw std::bad_alloc();
    }
    return frame;
}

AvFramePtr make_picture(AVPixelFormat format, int width, int height) {
    AvFramePtr frame = make_av_frame();
    frame->format = format;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) {
        throw std::bad_alloc();
    }
    return frame;
}

AvFramePtr reference_to(const AVFrame& picture) {
    AvFramePtr reference(av_frame_clone(&picture));
    if (!reference) {
        throw std::bad_alloc();
    }
    return reference;
}

void add_side_data(AVStream& to, AVPacketSideDataType type, const void* data, std::size_t size) {
    std::uint8_t* copy = av_stream_new_side_data(&to, type, size);
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(copy, data, size);
}

std::string Dictionary::first_key() const {
    const AVDictionaryEntry* entry = av_dict_get(dictionary_, "", nullptr, AV_DICT_IGNORE_SUFFIX);
    return entry == nullptr ? "" : entry->key;
}

std::string av_reason(int error) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

std::string size_text(int width, int height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

void show_ffmpeg_log(bool show) {
    log_shown = show;
    av_log_set_level(show ? AV_LOG_WARNING : AV_LOG_QUIET);
    av_log_set_callback(receive_log);
    if (!show) {
        // This encoder writes to the terminal by itself. No thread runs yet.
        setenv("SVT_LOG", "0", 0);  // NOLINT(concurrency-mt-unsafe)
    }
}

std::string ffmpeg_error() {
    return first_error;
}

void forget_ffmpeg_error() {
    first_error.clear();
}

std::string ffmpeg_error_or(int code) {
    return first_error.empty() ? av_reason(code) : first_error;
}

}  // namespace apps
