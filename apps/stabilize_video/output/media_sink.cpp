// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/output/media_sink.h"

extern "C" {
#include <libavutil/avstring.h>
}

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "apps/stabilize_video/output/container_support.h"

namespace apps {

namespace {

void add_hdr(const PictureFormat& format, AVStream& to) {
    if (format.mastering) {
        add_side_data(to, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, &*format.mastering,
                      sizeof *format.mastering);
    }
    if (format.light) {
        add_side_data(to, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, &*format.light, sizeof *format.light);
    }
}

void copy_side_data(const AVStream& from, AVStream& to, bool turn) {
    for (const AVPacketSideDataType type :
         {AV_PKT_DATA_DISPLAYMATRIX, AV_PKT_DATA_STEREO3D, AV_PKT_DATA_SPHERICAL}) {
        if (type == AV_PKT_DATA_DISPLAYMATRIX && !turn) {
            continue;
        }
        std::size_t size = 0;
        const std::uint8_t* data = av_stream_get_side_data(&from, type, &size);
        if (data != nullptr) {
            add_side_data(to, type, data, size);
        }
    }
}

// Those within the part that is kept. Times count from its start.
void copy_chapters(const AVFormatContext& from, AVFormatContext& to, std::int64_t offset_us) {
    for (unsigned i = 0; i < from.nb_chapters; ++i) {
        const AVChapter& chapter = *from.chapters[i];
        const std::int64_t offset = av_rescale_q(offset_us, MICROSECONDS, chapter.time_base);
        if (chapter.end <= offset && chapter.end > chapter.start) {
            continue;
        }
        auto* copy = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
        auto** grown = static_cast<AVChapter**>(
            av_realloc_array(to.chapters, to.nb_chapters + 1, sizeof(AVChapter*)));
        if (copy == nullptr || grown == nullptr) {
            av_free(copy);
            throw std::bad_alloc();
        }
        copy->id = chapter.id;
        copy->time_base = chapter.time_base;
        copy->start = std::max<std::int64_t>(0, chapter.start - offset);
        copy->end = chapter.end - offset;
        av_dict_copy(&copy->metadata, chapter.metadata, 0);
        to.chapters = grown;
        to.chapters[to.nb_chapters++] = copy;
    }
}

// Whether the metadata has keys of makers of cameras, such as com.apple.quicktime.model, for which the
// usual places for metadata have no room.
bool has_makers_keys(const AVOutputFormat& muxer, const AVDictionary* metadata) {
    const bool is_mov = std::strcmp(muxer.name, "mov") == 0;
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(metadata, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        const std::string key = entry->key;
        if (key.rfind("com.", 0) == 0 || key == "firmware" ||
            (!is_mov && (key == "make" || key == "model"))) {
            return true;
        }
    }
    return false;
}

// Matroska has all keys in capitals, QuickTime not.
void use_small_letters(AVDictionary*& metadata) {
    AVDictionary* changed = nullptr;
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(metadata, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        std::string key = entry->key;
        if (av_tolower(key[0]) != key[0]) {
            std::transform(key.begin(), key.end(), key.begin(),
                           [](char c) { return static_cast<char>(av_tolower(c)); });
            constexpr const char* STANDARD = "ISO6709";  // the only capitals that there are
            const std::size_t at = key.find("iso6709");
            if (at != std::string::npos) {
                key.replace(at, std::strlen(STANDARD), STANDARD);
            }
        }
        av_dict_set(&changed, key.c_str(), entry->value, 0);
    }
    av_dict_free(&metadata);
    metadata = changed;
}

// A name such as f%03d.png stands for a file for each picture.
bool is_sequence(const AVOutputFormat& muxer, const std::string& path) {
    return std::strcmp(muxer.name, "image2") == 0 && path.find('%') != std::string::npos;
}

bool is_file(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

// The first file of numbered pictures; "" if there is no number in the name.
std::string first_of(const std::string& sequence) {
    std::array<char, 4096> first{};
    const int made = av_get_frame_filename(first.data(), first.size(), sequence.c_str(), 1);
    return made < 0 ? "" : first.data();
}

void refuse_existing(const std::string& sequence, video_io::Existing existing) {
    const std::string first = first_of(sequence);
    if (first.empty()) {
        throw UsageError("the name " + sequence +
                         " needs one number, such as %04d, for the pictures");
    }
    if (existing == video_io::Existing::KEEP && is_file(first)) {
        throw video_io::ExistsError(first + " exists already; --overwrite replaces it");
    }
    const std::string folder = first.substr(0, first.rfind('/') + 1);
    if (access(folder.empty() ? "." : folder.c_str(), W_OK) != 0) {
        throw video_io::OutputError("cannot write " + first + ": " + av_reason(AVERROR(errno)));
    }
}

}  // namespace

const AVOutputFormat* output_format_for(const std::string& path, const std::string& container) {
    const AVOutputFormat* format = container.empty()
                                       ? av_guess_format(nullptr, path.c_str(), nullptr)
                                       : av_guess_format(container.c_str(), nullptr, nullptr);
    if (format == nullptr) {
        throw UsageError(container.empty()
                             ? "the name " + path +
                                   " does not tell the output format; use an ending such as "
                                   ".mp4, or --output-format"
                             : "there is no output format '" + container + "'");
    }
    const bool picture = std::strcmp(format->name, "image2") == 0 && !is_sequence(*format, path);
    if (picture || format->video_codec == AV_CODEC_ID_NONE) {
        throw UsageError(path + " would not be a video (" + format->long_name + ")");
    }
    return format;
}

bool is_output_there(const std::string& path) {
    return path != "-" && path.find("://") == std::string::npos &&
           (is_file(path) || is_file(first_of(path)));
}

bool keeps_rotation(const AVOutputFormat& format) {
    return is_quicktime(format);
}

MediaSink::MediaSink(const std::string& path, const PictureFormat& format,
                     const EncoderOptions& options, const MediaSource* original,
                     const std::atomic<bool>* stop)
    : path_(path == "-" ? "standard output" : path), stop_(stop), offset_us_(format.zero_us) {
    const AVOutputFormat* muxer = output_format_for(path, options.container);
    const bool sequence = is_sequence(*muxer, path);
    const bool url = path.find("://") != std::string::npos;
    if (sequence) {
        refuse_existing(path, options.existing);
    } else if (!url && !video_io::is_direct_output(path)) {
        pending_ = std::make_unique<video_io::PendingFile>(path, options.existing);
    }
    std::string location = path == "-" ? "pipe:1" : path;
    if (pending_) {
        location = "file:" + pending_->temporary();
    }

    AVFormatContext* context = nullptr;
    const int made = avformat_alloc_output_context2(&context, muxer, nullptr, location.c_str());
    if (made < 0) {
        fail(made);
    }
    context_.reset(context);
    context->interrupt_callback.opaque = this;
    context->interrupt_callback.callback = [](void* self) {
        const std::atomic<bool>* flag = static_cast<MediaSink*>(self)->stop_;
        return flag != nullptr && flag->load() ? 1 : 0;
    };
    if (options.live) {
        context->flags |= AVFMT_FLAG_FLUSH_PACKETS;
        context->max_interleave_delta = AV_TIME_BASE / 2;
    } else {
        // What a receiver of broadcasts gets ahead of time; 0 by default, which leaves it no buffer.
        constexpr int AHEAD_US = AV_TIME_BASE / 10 * 7;
        context->max_delay = AHEAD_US;
    }

    encoder_ = std::make_unique<VideoEncoder>(*muxer, path, format, options, notes_);
    add_video(format);
    if (original != nullptr) {
        add_original(*original, options);
    }
    if ((muxer->flags & AVFMT_NOFILE) == 0) {
        const int opened = avio_open2(&context->pb, location.c_str(), AVIO_FLAG_WRITE,
                                      &context->interrupt_callback, nullptr);
        if (opened < 0) {
            fail(opened);
        }
    }
    write_header(options);
}

void MediaSink::fail(int result) const {
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result == AVERROR(EPIPE)) {
        throw video_io::OutputError("cannot write " + path_ + ": the reader has closed it");
    }
    std::string reason = result == AVERROR_EXIT ? "interrupted" : av_reason(result);
    // The muxer knows better.
    if (result == AVERROR(EINVAL) || result == AVERROR_INVALIDDATA || result == AVERROR(EPERM)) {
        reason = ffmpeg_error_or(result);
    }
    throw video_io::OutputError("cannot write " + path_ + ": " + reason);
}

void MediaSink::add_video(const PictureFormat& format) {
    video_ = avformat_new_stream(context_.get(), nullptr);
    if (video_ == nullptr) {
        throw std::bad_alloc();
    }
    encoder_->describe(*video_->codecpar);
    video_->time_base = encoder_->time_base();
    video_->avg_frame_rate = format.frame_rate;
    video_->sample_aspect_ratio = format.pixel_aspect;
    add_hdr(format, *video_);
    // Players of Apple take HEVC under this tag only.
    if (encoder_->codec_id() == AV_CODEC_ID_HEVC && is_quicktime(*context_->oformat)) {
        video_->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');
    }
}

void MediaSink::add_original(const MediaSource& original, const EncoderOptions& options) {
    const AVFormatContext& container = original.container();
    const AVStream& video = original.video();
    av_dict_copy(&context_->metadata, container.metadata, 0);
    for (const char* about_the_file :
         {"major_brand", "minor_version", "compatible_brands", "encoder"}) {
        av_dict_set(&context_->metadata, about_the_file, nullptr, 0);
    }
    if (is_quicktime(*context_->oformat)) {
        use_small_letters(context_->metadata);
    }
    const std::string lost = lost_facts(*context_->oformat, container);
    if (!lost.empty()) {
        notes_.push_back("left out, since " + std::string(context_->oformat->long_name) +
                         " has no place for it: " + lost);
    }
    const AVProgram* program =
        av_find_program_from_stream(&const_cast<AVFormatContext&>(container), nullptr, video.index);
    if (program != nullptr && is_transport(*context_->oformat)) {  // the name of the channel
        av_dict_copy(&context_->metadata, program->metadata, 0);
    }
    copy_chapters(container, *context_, offset_us_);
    av_dict_copy(&video_->metadata, video.metadata, 0);
    av_dict_set(&video_->metadata, "encoder", nullptr, 0);
    const bool vpx =
        encoder_->codec_id() == AV_CODEC_ID_VP8 || encoder_->codec_id() == AV_CODEC_ID_VP9;
    av_dict_set(&video_->metadata, "alpha_mode", vpx && encoder_->writes_alpha() ? "1" : nullptr,
                0);
    video_->disposition = video.disposition;
    copy_side_data(video, *video_, keeps_rotation(*context_->oformat));
    others_ = std::make_unique<OtherStreams>(*context_, original, options.audio, notes_);
}

void MediaSink::write_header(const EncoderOptions& options) {
    Dictionary settings;
    if (keeps_rotation(*context_->oformat)) {
        std::string flags = !options.live && pending_ ? "+faststart" : "";
        if (has_makers_keys(*context_->oformat, context_->metadata)) {
            flags += "+use_metadata_tags";
        }
        if (!flags.empty()) {
            settings.set("movflags", flags);
        }
    }
    if (std::strcmp(context_->oformat->name, "image2") == 0) {
        settings.set("atomic_writing", "1");
    }
    forget_ffmpeg_error();
    const int result = avformat_write_header(context_.get(), settings.address());
    if (result < 0 && context_->pb != nullptr && context_->pb->error >= 0 &&
        (context_->pb->seekable & AVIO_SEEKABLE_NORMAL) == 0 && is_quicktime(*context_->oformat)) {
        throw video_io::OutputError("cannot write " + path_ + ": " + context_->oformat->long_name +
                                    " needs a file, not a pipe; write a file, or choose "
                                    "--output-format matroska or mpegts");
    }
    if (result < 0) {
        fail(result);
    }
}

void MediaSink::write_packet(AVPacket& packet) {
    const std::lock_guard<std::mutex> lock(mutex_);
    forget_ffmpeg_error();
    int result = av_interleaved_write_frame(context_.get(), &packet);
    if (result >= 0 && context_->pb != nullptr) {
        result = context_->pb->error;
    }
    if (result < 0) {
        fail(result);
    }
}

void MediaSink::write_encoded(AVPacket& packet) {
    const std::int64_t offset = av_rescale_q(offset_us_, MICROSECONDS, encoder_->time_base());
    packet.pts -= offset;
    packet.dts -= offset;
    packet.stream_index = video_->index;
    av_packet_rescale_ts(&packet, encoder_->time_base(), video_->time_base);
    write_packet(packet);
}

void MediaSink::write(const AVFrame& picture, const PictureTag& tag) {
    encoder_->write(picture, tag, [this](AVPacket& packet) { write_encoded(packet); });
}

void MediaSink::copy(const AVPacket& packet) {
    if (others_) {
        others_->transfer(packet, [this](AVPacket& out) { write_packet(out); });
    }
}

void MediaSink::finish() {
    encoder_->finish([this](AVPacket& packet) { write_encoded(packet); });
    if (others_) {
        others_->finish([this](AVPacket& out) { write_packet(out); });
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    int result = av_write_trailer(context_.get());
    if (result >= 0 && context_->pb != nullptr) {
        result = context_->pb->error;
    }
    if (result < 0) {
        fail(result);
    }
    if ((context_->oformat->flags & AVFMT_NOFILE) == 0) {
        // Some file systems report a full disk only on closing.
        result = avio_closep(&context_->pb);
        if (result < 0) {
            fail(result);
        }
    }
}

void MediaSink::commit() {
    if (pending_) {
        pending_->commit();
    }
}

std::string MediaSink::keep_partial() {
    return pending_ ? pending_->keep_partial() : "";
}

}  // namespace apps
