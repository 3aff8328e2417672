// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/results/side_by_side.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <new>

namespace apps {

namespace {

constexpr int WIDEST_SIDE = 1280;

int even(int value) {
    return std::max(2, value / 2 * 2);
}

void check(int result) {
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result < 0) {
        throw video_io::OutputError("the pictures cannot be put side by side: " +
                                    av_reason(result));
    }
}

std::string label(const char* text, int height) {
    return std::string(",drawtext=font=Sans:text=") + text +
           ":x=h/30:y=h/30:fontsize=h/16:fontcolor=white:box=1:boxcolor=black@0.5:boxborderw=" +
           std::to_string(height / 80);
}

}  // namespace

SideBySide::SideBySide(const std::string& path, const PictureFormat& format,
                       const EncoderOptions& options, const std::atomic<bool>* stop)
    : format_(format) {
    side_width_ = even(std::min(format.width, WIDEST_SIDE));
    side_height_ = even(
        static_cast<int>(std::int64_t{format.height} * side_width_ / std::max(format.width, 1)));
    try {
        make_graph(true);
    } catch (const video_io::OutputError&) {
        make_graph(false);  // no font was found
    }
    PictureFormat wide = format;
    wide.width = 2 * side_width_;
    wide.height = side_height_;
    sink_ = std::make_unique<MediaSink>(path, wide, options, nullptr, stop);
}

void SideBySide::make_graph(bool labelled) {
    graph_.reset(avfilter_graph_alloc());
    if (!graph_) {
        throw std::bad_alloc();
    }
    const std::string in = "buffer=video_size=" + size_text(format_.width, format_.height) +
                           ":pix_fmt=yuv420p:time_base=" + std::to_string(format_.time_base.num) +
                           "/" + std::to_string(format_.time_base.den);
    const std::string fit =
        ",scale=" + std::to_string(side_width_) + ":" + std::to_string(side_height_);
    const auto side = [&](const char* text) {
        return in + fit + (labelled ? label(text, side_height_) : "");
    };
    const std::string description =
        side("shaky") + "[l];" + side("steady") + "[r];[l][r]hstack,buffersink";
    AVFilterInOut* inputs = nullptr;
    AVFilterInOut* outputs = nullptr;
    const int parsed = avfilter_graph_parse2(graph_.get(), description.c_str(), &inputs, &outputs);
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    check(parsed);
    check(avfilter_graph_config(graph_.get(), nullptr));
    left_ = right_ = both_ = nullptr;
    for (unsigned i = 0; i < graph_->nb_filters; ++i) {
        AVFilterContext* filter = graph_->filters[i];
        const std::string kind = filter->filter->name;
        if (kind == "buffersink") {
            both_ = filter;
        }
        if (kind == "buffer") {
            (left_ == nullptr ? left_ : right_) = filter;
        }
    }
}

AvFramePtr SideBySide::copied(const video_io::Planes& picture) const {
    AvFramePtr frame = make_picture(AV_PIX_FMT_YUV420P, format_.width, format_.height);
    const int chroma_width = (format_.width + 1) / 2;
    const int chroma_height = (format_.height + 1) / 2;
    av_image_copy_plane(frame->data[0], frame->linesize[0], picture.y,
                        static_cast<int>(picture.stride_y), format_.width, format_.height);
    av_image_copy_plane(frame->data[1], frame->linesize[1], picture.u,
                        static_cast<int>(picture.stride_uv), chroma_width, chroma_height);
    av_image_copy_plane(frame->data[2], frame->linesize[2], picture.v,
                        static_cast<int>(picture.stride_uv), chroma_width, chroma_height);
    return frame;
}

void SideBySide::add_shaky(const video_io::Planes& picture) {
    AvFramePtr frame = copied(picture);
    const std::lock_guard<std::mutex> lock(mutex_);
    shaky_.push_back(std::move(frame));
}

void SideBySide::add_steady(const video_io::Planes& picture, const PictureTag& tag) {
    const AvFramePtr steady = copied(picture);
    AvFramePtr shaky;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        shaky = std::move(shaky_.front());
        shaky_.pop_front();
    }
    shaky->pts = steady->pts = tag.time;
    check(av_buffersrc_add_frame_flags(left_, shaky.get(), AV_BUFFERSRC_FLAG_KEEP_REF));
    check(av_buffersrc_add_frame_flags(right_, steady.get(), AV_BUFFERSRC_FLAG_KEEP_REF));
    write_pairs(tag.duration);
}

void SideBySide::finish() {
    check(av_buffersrc_add_frame(left_, nullptr));
    check(av_buffersrc_add_frame(right_, nullptr));
    write_pairs(0);
    sink_->finish();
}

// Writes the pairs that the filter graph has completed.
void SideBySide::write_pairs(std::int64_t duration) {
    const AvFramePtr both = make_av_frame();
    for (;;) {
        const int result = av_buffersink_get_frame(both_, both.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return;
        }
        check(result);
        PictureTag tag;
        tag.time = av_rescale_q(both->pts, av_buffersink_get_time_base(both_), format_.time_base);
        tag.duration = duration;
        const video_io::Planes planes{both->data[0], both->data[1], both->data[2],
                                      both->linesize[0], both->linesize[1]};
        sink_->write(planes, tag);
        av_frame_unref(both.get());
    }
}

}  // namespace apps
