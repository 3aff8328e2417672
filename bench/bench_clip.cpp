// SPDX-License-Identifier: Apache-2.0

#include "bench/bench_clip.h"

#include <stdexcept>

#include "common/synthetic/scene.h"
#include "pipeline/decimate.h"

using namespace videostabilizer;

namespace bench {

Clip::Clip(int clip_width, int clip_height, int count) : width(clip_width), height(clip_height) {
    synthetic::ClipSettings settings;
    settings.camera.width = width;
    settings.camera.height = height;
    const synthetic::ShakyClip clip(settings);
    for (int i = 0; i < count; ++i) {
        auto& pixels = frames.emplace_back(luma_bytes() * 3 / 2);
        video_io::Planes planes{};
        planes.y = pixels.data();
        planes.u = planes.y + luma_bytes();
        planes.v = planes.u + luma_bytes() / 4;
        planes.stride_y = width;
        planes.stride_uv = width / 2;
        clip.render(i, planes);
    }
}

Frame* Clip::frame(int number) {
    auto& pixels = frames[static_cast<std::size_t>(number) % frames.size()];
    return frame_create(width, height, width, width / 2, PIX_FMT_YUV420P, pixels.data());
}

std::size_t Clip::luma_bytes() const {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

Analysis::Analysis(Clip& clip)
    : stabilizer(video_stabilizer_create(clip.width, clip.height, clip.width, clip.width / 2,
                                         PIX_FMT_YUV420P, 0, 0, nullptr)),
      width(clip.width / stabilizer->scale),
      height(clip.height / stabilizer->scale) {
    const auto size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    prev.resize(size);
    next.resize(size);
    decimate(clip, 0, prev);
    decimate(clip, 1, next);
    find_corners();
    track();
    match();
    estimate();
    if (stabilizer->motion_logs[0].status != 0) {
        // The times of stages without input would be meaningless.
        throw std::runtime_error("no motion found in the clip");
    }
}

Analysis::~Analysis() {
    video_stabilizer_delete(stabilizer);
}

void Analysis::decimate(const Clip& clip, int number, std::vector<unsigned char>& image) const {
    const auto& pixels = clip.frames[static_cast<std::size_t>(number) % clip.frames.size()];
    decimate_luma(pixels.data(), clip.width, clip.height, stabilizer->scale, image.data());
}

void Analysis::find_corners() {
    fast16(prev.data(), stabilizer->prev_points, width, height, &stabilizer->fast_params);
}

void Analysis::track() {
    VideoStabilizer* const s = stabilizer;
    s->next_points.resize(s->prev_points.size());
    s->track_status.resize(s->prev_points.size());
    lk_pyramid_image(prev.data(), next.data(), width, height, &s->lk_params, s->prev_points,
                     s->next_points, s->track_status);
}

void Analysis::match() {
    VideoStabilizer* const s = stabilizer;
    s->matched_prev.clear();
    s->matched_next.clear();
    const auto scale = static_cast<float>(s->scale);
    for (std::size_t i = 0; i < s->prev_points.size(); ++i) {
        if (s->track_status[i] != 0) {
            KeyPoint from = s->prev_points[i];
            KeyPoint to = s->next_points[i];
            from.x *= scale;
            from.y *= scale;
            to.x *= scale;
            to.y *= scale;
            s->matched_prev.push_back(from);
            s->matched_next.push_back(to);
        }
    }
}

void Analysis::estimate() {
    VideoStabilizer* const s = stabilizer;
    estimateGlobalMotionRansac(*s->motions[0], s->motion_logs[0], s->matched_prev, s->matched_next,
                               s->ransac_params);
}

void Analysis::smooth() {
    VideoStabilizer* const s = stabilizer;
    gaussian_motion_filter_stabilize(s->filter, *s->warp_pool[0], 50, s->motions, s->motion_logs, 0,
                                     60);
}

}  // namespace bench
