// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/output/transcoder.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "common/video_io/byte_io.h"

namespace apps {

namespace {

void check(int result) {
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result < 0) {
        throw video_io::OutputError("sound or subtitles cannot be converted: " +
                                    ffmpeg_error_or(result));
    }
}

struct AudioFifoDeleter {
    void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
};

CodecContextPtr open_decoder(const AVStream& original) {
    const AVCodec* codec = avcodec_find_decoder(original.codecpar->codec_id);
    CodecContextPtr decoder(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
    if (!decoder || avcodec_parameters_to_context(decoder.get(), original.codecpar) < 0) {
        return nullptr;
    }
    decoder->pkt_timebase = original.time_base;
    return avcodec_open2(decoder.get(), codec, nullptr) < 0 ? nullptr : std::move(decoder);
}

CodecContextPtr make_encoder(AVCodecID id, const AVOutputFormat& muxer) {
    const AVCodec* codec =
        id == AV_CODEC_ID_OPUS ? avcodec_find_encoder_by_name("libopus") : avcodec_find_encoder(id);
    CodecContextPtr encoder(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
    if (encoder && (muxer.flags & AVFMT_GLOBALHEADER) != 0) {
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    constexpr int RATE_OF_MXF = 48000;
    if (encoder && std::strncmp(muxer.name, "mxf", 3) == 0) {
        encoder->sample_rate = RATE_OF_MXF;
    }
    return encoder;
}

// The rate of the encoder's list, which ends with 0, that loses least.
int nearest_rate(const int* rates, int wanted) {
    int best = rates == nullptr || *rates == 0 ? wanted : *rates;
    for (; rates != nullptr && *rates != 0; ++rates) {
        const bool enough = *rates >= wanted;
        if (best >= wanted ? enough && *rates < best : *rates > best) {
            best = *rates;
        }
    }
    return best;
}

// Transparent, or close to it.
std::int64_t sound_bitrate(AVCodecID codec, int channels) {
    constexpr std::int64_t MP2_STEREO = 256000;
    constexpr std::int64_t AC3_STEREO = 256000;
    constexpr std::int64_t AC3_SURROUND = 448000;
    constexpr std::int64_t PER_CHANNEL = 96000;
    switch (codec) {
        case AV_CODEC_ID_MP2:
            return channels > 1 ? MP2_STEREO : MP2_STEREO / 2;
        case AV_CODEC_ID_AC3:
            return channels > 2 ? AC3_SURROUND : AC3_STEREO;
        default:
            return PER_CHANNEL * channels;
    }
}

class SoundTranscoder : public Transcoder {
  public:
    SoundTranscoder(CodecContextPtr decoder, CodecContextPtr encoder, AVRational unit)
        : decoder_(std::move(decoder)), encoder_(std::move(encoder)), unit_(unit) {}

    void begin_with_silence(std::int64_t from_us) { silence_from_us_ = from_us; }

    // Returns false if the encoder cannot be used for this sound.
    bool open() {
        const AVCodec& codec = *encoder_->codec;
        const AVChannelLayout* layouts = codec.ch_layouts;
        AVChannelLayout layout{};
        av_channel_layout_default(&layout, std::max(decoder_->ch_layout.nb_channels, 1));
        const AVChannelLayout* best = layouts == nullptr ? &layout : layouts;
        for (; layouts != nullptr && layouts->nb_channels != 0; ++layouts) {
            const int wanted = layout.nb_channels;
            if (av_channel_layout_compare(layouts, &layout) == 0 ||
                (best->nb_channels != wanted && layouts->nb_channels <= wanted &&
                 layouts->nb_channels > best->nb_channels)) {
                best = layouts;
            }
        }
        if (av_channel_layout_copy(&encoder_->ch_layout, best) < 0) {
            throw std::bad_alloc();
        }
        if (encoder_->sample_rate == 0) {
            encoder_->sample_rate =
                nearest_rate(codec.supported_samplerates, decoder_->sample_rate);
        }
        encoder_->sample_fmt =
            codec.sample_fmts == nullptr ? decoder_->sample_fmt : codec.sample_fmts[0];
        encoder_->time_base = {1, encoder_->sample_rate};
        encoder_->bit_rate = sound_bitrate(codec.id, encoder_->ch_layout.nb_channels);
        if (decoder_->sample_rate <= 0 || avcodec_open2(encoder_.get(), &codec, nullptr) < 0) {
            return false;
        }
        fifo_.reset(av_audio_fifo_alloc(encoder_->sample_fmt, encoder_->ch_layout.nb_channels, 1));
        if (!fifo_) {
            throw std::bad_alloc();
        }
        return true;
    }

    const AVCodecContext& encoder() const override { return *encoder_; }

    void push(const AVPacket* packet, const Receiver& receiver) override {
        forget_ffmpeg_error();
        avcodec_send_packet(decoder_.get(), packet);
        const AvFramePtr sound = make_av_frame();
        while (avcodec_receive_frame(decoder_.get(), sound.get()) >= 0) {
            if (!graph_ || sound->sample_rate != rate_ || sound->format != format_ ||
                sound->ch_layout.nb_channels != channels_) {
                filter(nullptr, receiver);
                make_graph(*sound);
            }
            sound->pts = sound->best_effort_timestamp;
            filter(sound.get(), receiver);
        }
        if (packet == nullptr) {
            filter(nullptr, receiver);
            encode_ready(1, receiver);
            encode_frame(nullptr, receiver);
        }
    }

  private:
    // For sound of this format. Gaps become silence, so that what follows keeps its time.
    void make_graph(const AVFrame& sound) {
        rate_ = sound.sample_rate;
        format_ = sound.format;
        channels_ = sound.ch_layout.nb_channels;
        graph_.reset(avfilter_graph_alloc());
        if (!graph_) {
            throw std::bad_alloc();
        }
        const std::string in =
            "abuffer=sample_rate=" + std::to_string(rate_) +
            ":sample_fmt=" + av_get_sample_fmt_name(static_cast<AVSampleFormat>(format_)) +
            ":channel_layout=" + layout_name(sound.ch_layout) +
            ":time_base=" + std::to_string(unit_.num) + "/" + std::to_string(unit_.den);
        const std::string description =
            in + ",aresample=async=1" + first_time() +
            ",aformat=sample_fmts=" + av_get_sample_fmt_name(encoder_->sample_fmt) +
            ":sample_rates=" + std::to_string(encoder_->sample_rate) +
            ":channel_layouts=" + layout_name(encoder_->ch_layout) + ",abuffersink";
        AVFilterInOut* inputs = nullptr;
        AVFilterInOut* outputs = nullptr;
        const int parsed =
            avfilter_graph_parse2(graph_.get(), description.c_str(), &inputs, &outputs);
        avfilter_inout_free(&inputs);
        avfilter_inout_free(&outputs);
        check(parsed);
        check(avfilter_graph_config(graph_.get(), nullptr));
        source_ = graph_->filters[0];
        for (unsigned i = 0; i < graph_->nb_filters; ++i) {
            if (std::strcmp(graph_->filters[i]->filter->name, "abuffersink") == 0) {
                sink_ = graph_->filters[i];
            }
        }
    }

    // Where the sound before ends, for the resampler, which counts samples of what it gets.
    std::string first_time() const {
        if (!next_ && !silence_from_us_) {
            return "";
        }
        const std::int64_t first = next_ ? av_rescale(*next_, rate_, encoder_->sample_rate)
                                         : av_rescale(*silence_from_us_, rate_, AV_TIME_BASE);
        return ":first_pts=" + std::to_string(first);
    }

    static std::string layout_name(const AVChannelLayout& layout) {
        std::array<char, 128> name{};
        AVChannelLayout known{};
        if (layout.order == AV_CHANNEL_ORDER_UNSPEC) {
            av_channel_layout_default(&known, layout.nb_channels);
        }
        av_channel_layout_describe(layout.order == AV_CHANNEL_ORDER_UNSPEC ? &known : &layout,
                                   name.data(), name.size());
        return name.data();
    }

    void filter(AVFrame* sound, const Receiver& receiver) {
        if (!graph_) {
            return;
        }
        check(av_buffersrc_add_frame_flags(source_, sound, AV_BUFFERSRC_FLAG_KEEP_REF));
        const AvFramePtr ready = make_av_frame();
        while (av_buffersink_get_frame(sink_, ready.get()) >= 0) {
            if (!next_) {
                next_ = ready->pts == AV_NOPTS_VALUE
                            ? 0
                            : av_rescale_q(ready->pts, av_buffersink_get_time_base(sink_),
                                           encoder_->time_base);
            }
            auto** samples = reinterpret_cast<void**>(ready->extended_data);
            check(av_audio_fifo_write(fifo_.get(), samples, ready->nb_samples));
            *next_ += ready->nb_samples;
            av_frame_unref(ready.get());
            encode_ready(std::max(encoder_->frame_size, 1), receiver);
        }
        if (sound == nullptr) {
            graph_.reset();
        }
    }

    // Encodes what there is in frames of the encoder's size, as long as there are so many samples: only
    // its last frame may be shorter.
    void encode_ready(int least, const Receiver& receiver) {
        for (int waiting = 0; (waiting = av_audio_fifo_size(fifo_.get())) >= least;) {
            const AvFramePtr sound = make_av_frame();
            sound->nb_samples =
                encoder_->frame_size > 0 ? std::min(encoder_->frame_size, waiting) : waiting;
            sound->format = encoder_->sample_fmt;
            sound->sample_rate = encoder_->sample_rate;
            check(av_channel_layout_copy(&sound->ch_layout, &encoder_->ch_layout));
            check(av_frame_get_buffer(sound.get(), 0));
            sound->pts = next_.value_or(0) - waiting;
            check(av_audio_fifo_read(fifo_.get(), reinterpret_cast<void**>(sound->extended_data),
                                     sound->nb_samples));
            encode_frame(sound.get(), receiver);
        }
    }

    void encode_frame(const AVFrame* sound, const Receiver& receiver) {
        const PacketPtr packet = make_packet();
        check(encode(*encoder_, sound, *packet, [&](AVPacket& made) {
            receiver(made);
            return 0;
        }));
    }

    CodecContextPtr decoder_;
    CodecContextPtr encoder_;
    AVRational unit_;  // of the original's times
    FilterGraphPtr graph_;
    AVFilterContext* source_ = nullptr;  // both owned by the graph
    AVFilterContext* sink_ = nullptr;
    std::unique_ptr<AVAudioFifo, AudioFifoDeleter> fifo_;  // of the encoder's format
    std::optional<std::int64_t> next_;  // time of the sample after it, in units of the encoder
    std::optional<std::int64_t> silence_from_us_;
    int rate_ = 0;  // of the sound that the graph takes
    int format_ = 0;
    int channels_ = 0;
};

class SubtitleTranscoder : public Transcoder {
  public:
    SubtitleTranscoder(CodecContextPtr decoder, CodecContextPtr encoder, AVRational unit)
        : decoder_(std::move(decoder)), encoder_(std::move(encoder)), unit_(unit) {}

    // Returns false if the encoder cannot be used for these subtitles.
    bool open() {
        encoder_->time_base = MICROSECONDS;
        encoder_->width = decoder_->width;
        encoder_->height = decoder_->height;
        if (decoder_->subtitle_header != nullptr) {
            const auto size = static_cast<std::size_t>(decoder_->subtitle_header_size);
            encoder_->subtitle_header = static_cast<std::uint8_t*>(av_mallocz(size + 1));
            if (encoder_->subtitle_header == nullptr) {
                throw std::bad_alloc();
            }
            std::memcpy(encoder_->subtitle_header, decoder_->subtitle_header, size);
            encoder_->subtitle_header_size = decoder_->subtitle_header_size;
        }
        return avcodec_open2(encoder_.get(), encoder_->codec, nullptr) >= 0;
    }

    const AVCodecContext& encoder() const override { return *encoder_; }

    void push(const AVPacket* packet, const Receiver& receiver) override {
        if (packet == nullptr) {
            return;
        }
        AVSubtitle subtitle{};
        int got = 0;
        const PacketPtr input = copy_of(*packet);
        if (avcodec_decode_subtitle2(decoder_.get(), &subtitle, &got, input.get()) < 0 ||
            got == 0) {
            return;
        }
        try {
            if (subtitle.pts == AV_NOPTS_VALUE) {
                subtitle.pts = av_rescale_q(packet->pts, unit_, MICROSECONDS);
            }
            encode(subtitle, *packet, receiver);
        } catch (...) {
            avsubtitle_free(&subtitle);
            throw;
        }
        avsubtitle_free(&subtitle);
    }

  private:
    static constexpr std::int64_t MILLISECOND = AV_TIME_BASE / 1000;

    void encode(AVSubtitle& subtitle, const AVPacket& original, const Receiver& receiver) {
        subtitle.pts += subtitle.start_display_time * MILLISECOND;
        subtitle.end_display_time -= subtitle.start_display_time;
        subtitle.start_display_time = 0;
        std::int64_t duration = subtitle.end_display_time * MILLISECOND;
        if (subtitle.end_display_time == 0 || subtitle.end_display_time == UINT32_MAX) {
            duration = av_rescale_q(original.duration, unit_, MICROSECONDS);
        }
        deliver(subtitle, subtitle.pts, duration, receiver);
        // Broadcast subtitles are cleared by an empty one.
        if (encoder_->codec_id == AV_CODEC_ID_DVB_SUBTITLE && subtitle.num_rects > 0 &&
            duration > 0) {
            const unsigned shown = subtitle.num_rects;
            subtitle.num_rects = 0;
            deliver(subtitle, subtitle.pts + duration, 0, receiver);
            subtitle.num_rects = shown;
        }
    }

    void deliver(const AVSubtitle& subtitle, std::int64_t time, std::int64_t duration,
                 const Receiver& receiver) {
        constexpr int LARGEST_BYTES = 1 << 20;
        if (buffer_.empty()) {
            buffer_.resize(LARGEST_BYTES);
        }
        const int size =
            avcodec_encode_subtitle(encoder_.get(), buffer_.data(), LARGEST_BYTES, &subtitle);
        if (size <= 0) {
            return;
        }
        const PacketPtr packet = make_packet();
        check(av_new_packet(packet.get(), size));
        std::memcpy(packet->data, buffer_.data(), static_cast<std::size_t>(size));
        packet->pts = packet->dts = time;
        packet->duration = duration;
        packet->flags |= AV_PKT_FLAG_KEY;
        receiver(*packet);
    }

    CodecContextPtr decoder_;
    CodecContextPtr encoder_;
    AVRational unit_;  // of the original's times
    std::vector<std::uint8_t> buffer_;
};

}  // namespace

std::unique_ptr<Transcoder> make_transcoder(const AVStream& original, AVCodecID codec,
                                            const AVOutputFormat& muxer,
                                            std::optional<std::int64_t> silence_from_us) {
    CodecContextPtr decoder = open_decoder(original);
    CodecContextPtr encoder = make_encoder(codec, muxer);
    if (!decoder || !encoder) {
        return nullptr;
    }
    if (original.codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
        auto sound = std::make_unique<SoundTranscoder>(std::move(decoder), std::move(encoder),
                                                       original.time_base);
        if (silence_from_us) {
            sound->begin_with_silence(*silence_from_us);
        }
        return sound->open() ? std::move(sound) : nullptr;
    }
    auto subtitles = std::make_unique<SubtitleTranscoder>(std::move(decoder), std::move(encoder),
                                                          original.time_base);
    return subtitles->open() ? std::move(subtitles) : nullptr;
}

}  // namespace apps
