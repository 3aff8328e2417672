// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/results/side_by_side.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <algorithm>
#include <new>
#include <utility>

#include "apps/stabilize_video/pictures/pixel_formats.h"

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
    PictureFormat wide = format;
    if (format.orientation.quarter_turns % 2 != 0) {
        std::swap(wide.width, wide.height);
        wide.pixel_aspect = av_inv_q(format.pixel_aspect);
    }
    wide.orientation = Orientation{};
    wide.chroma_location = turned(format.chroma_location, format.orientation);
    side_width_ = even(std::min(wide.width, WIDEST_SIDE));
    side_height_ =
        even(static_cast<int>(std::int64_t{wide.height} * side_width_ / std::max(wide.width, 1)));
    try {
        make_graph(true);
    } catch (const video_io::OutputError&) {
        make_graph(false);  // no font was found
    }
    wide.width = 2 * side_width_;
    wide.height = side_height_;
    wide.pixel_format = planar_format_for(format.pixel_format);
    try {
        sink_ = std::make_unique<MediaSink>(path, wide, options, nullptr, stop);
    } catch (const UsageError&) {  // the options are for the container of the steady video
        EncoderOptions usual;
        usual.container = options.container;
        usual.existing = options.existing;
        usual.live = options.live;
        sink_ = std::make_unique<MediaSink>(path, wide, usual, nullptr, stop);
    }
}

void SideBySide::make_graph(bool labelled) {
    graph_.reset(avfilter_graph_alloc());
    if (!graph_) {
        throw std::bad_alloc();
    }
    const std::string in = "buffer=video_size=" + size_text(format_.width, format_.height) +
                           ":pix_fmt=" + name_of(format_.pixel_format) +
                           ":time_base=" + std::to_string(format_.time_base.num) + "/" +
                           std::to_string(format_.time_base.den);
    const std::string range = format_.range == AVCOL_RANGE_JPEG ? "full" : "limited";
    const std::string format = ",format=" + name_of(planar_format_for(format_.pixel_format));
    std::string upright;
    for (const auto& [filter, arguments] : upright_filters(format_.orientation)) {
        upright += std::string(",") + filter + (*arguments == '\0' ? "" : "=") + arguments;
    }
    const std::string fit = upright + ",scale=" + std::to_string(side_width_) + ":" +
                            std::to_string(side_height_) + ":in_range=" + range +
                            ":out_range=" + range + format;
    const auto side = [&](const char* text) {
        return in + fit + (labelled ? label(text, side_height_) : "");
    };
    const std::string description =
        side("shaky") + "[l];" + side("steady") + "[r];[l][r]hstack" + format + ",buffersink";
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

// A reference to the picture, tagged with the range that all have.
AvFramePtr SideBySide::in_range(const AVFrame& picture) const {
    AvFramePtr reference = reference_to(picture);
    reference->color_range = format_.range;
    return reference;
}

void SideBySide::add_shaky(const AVFrame& picture) {
    AvFramePtr frame = in_range(picture);
    const std::lock_guard<std::mutex> lock(mutex_);
    shaky_.push_back(std::move(frame));
}

void SideBySide::add_steady(const AVFrame& picture, const PictureTag& tag) {
    const AvFramePtr steady = in_range(picture);
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
        sink_->write(*both, tag);
        av_frame_unref(both.get());
    }
}

}  // namespace apps
