// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/media/picture_converter.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <new>

#include "apps/stabilize_video/pictures/pixel_formats.h"
#include "common/video_io/byte_io.h"

namespace apps {

namespace {

void check(int result) {
    if (result == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    if (result < 0) {
        throw video_io::InputError("the pictures cannot be converted: " + av_reason(result));
    }
}

AVFilterContext* add(AVFilterGraph* graph, const char* filter, const std::string& arguments,
                     AVFilterContext* after) {
    AVFilterContext* context = nullptr;
    check(avfilter_graph_create_filter(&context, avfilter_get_by_name(filter), nullptr,
                                       arguments.c_str(), nullptr, graph));
    if (after != nullptr) {
        check(avfilter_link(after, 0, context, 0));
    }
    return context;
}

std::string ratio(AVRational value) {
    return std::to_string(value.num) + "/" + std::to_string(value.den);
}

// What libswscale is to do, from pictures like `sample` to a format.
std::string scaling(const AVFrame& sample, AVPixelFormat to) {
    const auto from = static_cast<AVPixelFormat>(sample.format);
    std::string scale = "flags=bicubic+accurate_rnd+full_chroma_int";
    if (is_rgb(from)) {
        return scale + (is_rgb(to) ? "" : ":out_color_matrix=bt709:out_range=limited");
    }
    const char* range = sample.color_range == AVCOL_RANGE_JPEG ? "full" : "limited";
    scale += std::string(":in_range=") + range;
    const bool full = is_rgb(to) || without_range(to) != to;
    return scale + ":out_range=" + (full ? "full" : range);
}

}  // namespace

PictureConverter::PictureConverter(const AVFrame& sample, AVRational time_base, const Task& task)
    : width_(sample.width),
      height_(sample.height),
      format_(sample.format),
      graph_(avfilter_graph_alloc()) {
    if (!graph_) {
        throw std::bad_alloc();
    }
    AVFilterGraph* const graph = graph_.get();
    graph->nb_threads = 1;  // other threads decode and stabilise meanwhile
    source_ = add(graph, "buffer",
                  "video_size=" + size_text(width_, height_) +
                      ":pix_fmt=" + std::to_string(format_) + ":time_base=" + ratio(time_base) +
                      ":pixel_aspect=" + ratio(sample.sample_aspect_ratio),
                  nullptr);
    AVFilterContext* last = source_;
    if (task.deinterlace != Deinterlace::NONE) {
        const bool fields = task.deinterlace == Deinterlace::FULL_RATE;
        last = add(graph, "bwdif",
                   std::string("deint=interlaced:mode=") + (fields ? "send_field" : "send_frame"),
                   last);
    }
    if (format_ != task.format) {
        last = add(
            graph, "scale",
            scaling(sample, task.format) + (task.matrix_of_jpeg ? ":out_color_matrix=bt601" : ""),
            last);
        last = add(graph, "format", name_of(task.format), last);
    }
    for (const auto& [filter, arguments] : upright_filters(task.orientation)) {
        last = add(graph, filter, arguments, last);
    }
    // In case a filter prefers another.
    last = add(graph, "format", name_of(task.format), last);
    sink_ = add(graph, "buffersink", "", last);
    check(avfilter_graph_config(graph, nullptr));
}

AVRational PictureConverter::time_base() const {
    return av_buffersink_get_time_base(sink_);
}

bool PictureConverter::accepts(const AVFrame& picture) const {
    return picture.width == width_ && picture.height == height_ && picture.format == format_;
}

void PictureConverter::push(AVFrame* picture) {
    check(av_buffersrc_add_frame_flags(source_, picture, AV_BUFFERSRC_FLAG_KEEP_REF));
}

AvFramePtr PictureConverter::pull() {
    AvFramePtr picture = make_av_frame();
    const int result = av_buffersink_get_frame(sink_, picture.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
        return nullptr;
    }
    check(result);
    return picture;
}

}  // namespace apps
