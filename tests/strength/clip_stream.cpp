#include "tests/strength/clip_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <thread>

using namespace videostabilizer;

namespace test_support {

namespace {

apps::Affine inverse(const apps::Affine& m) {
    const double det = m.a * m.e - m.b * m.d;
    apps::Affine result;
    result.a = m.e / det;
    result.b = -m.b / det;
    result.d = -m.d / det;
    result.e = m.a / det;
    result.c = -(result.a * m.c + result.b * m.f);
    result.f = -(result.d * m.c + result.e * m.f);
    return result;
}

Frame* make_frame(int number, int width, int height, const Renderer& render) {
    Frame* const frame = frame_create(width, height, width, width / 2, PIX_FMT_YUV420P, nullptr);
    apps::Planes planes{};
    planes.y = frame->plane_y;
    planes.u = frame->plane_uv;
    planes.v = frame->plane_uv + width * height / 4;
    planes.stride_y = width;
    planes.stride_uv = width / 2;
    render(number, planes);
    frame->timestamp = number;
    return frame;
}

}  // namespace

int Stabilized::count(std::int32_t VideoStabilizerReport::*flag) const {
    return static_cast<int>(std::count_if(reports.begin(), reports.end(),
                                          [flag](const auto& r) { return r.*flag != 0; }));
}

VideoStabilizerOptions strength(VideoStabilizerStrength strength) {
    VideoStabilizerOptions options;
    EXPECT_EQ(video_stabilizer_options_for_strength(&options, strength), 0);
    return options;
}

Stabilized stabilize(int width, int height, int frames, const VideoStabilizerOptions& options,
                     const Renderer& render) {
    Stabilized result{options, width, height, {}, {}};
    EXPECT_EQ(video_stabilizer_module_init(), 0);
    const std::unique_ptr<VideoStabilizer, void (*)(VideoStabilizer*)> s(
        video_stabilizer_create_with_options(width, height, width, width / 2, PIX_FMT_YUV420P, 1,
                                             nullptr, &options),
        video_stabilizer_delete);
    if (s == nullptr) {
        ADD_FAILURE() << "no stabilizer";
        return result;
    }
    VideoStabilizerObserver observer{};
    observer.ctx = &result;
    observer.on_correction = [](void* ctx, std::int32_t, const float m[9]) {
        apps::Affine correction;
        correction.a = static_cast<double>(m[0]);
        correction.b = static_cast<double>(m[1]);
        correction.c = static_cast<double>(m[2]);
        correction.d = static_cast<double>(m[3]);
        correction.e = static_cast<double>(m[4]);
        correction.f = static_cast<double>(m[5]);
        static_cast<Stabilized*>(ctx)->corrections.push_back(correction);
    };
    observer.on_report = [](void* ctx, const VideoStabilizerReport* report) {
        static_cast<Stabilized*>(ctx)->reports.push_back(*report);
    };
    video_stabilizer_set_observer(s.get(), &observer);
    EXPECT_EQ(video_stabilizer_start(s.get()), 0);
    std::thread producer([&] {
        for (int frame = 0; frame < frames; ++frame) {
            video_stabilizer_push_frame(s.get(), make_frame(frame, width, height, render));
        }
        video_stabilizer_signal_eos(s.get());
    });
    Frame* frame = nullptr;
    while (video_stabilizer_pop_frame(s.get(), &frame) == 0) {
        frame_delete(frame);
    }
    producer.join();
    EXPECT_EQ(result.corrections.size(), static_cast<std::size_t>(frames));
    return result;
}

Stabilized stabilize(const apps::ShakyClip& clip, int frames,
                     const VideoStabilizerOptions& options) {
    return stabilize(
        clip.width(), clip.height(), frames, options,
        [&clip](int frame, const apps::Planes& planes) { clip.render(frame, planes); });
}

std::vector<apps::PathPoint> true_path(const apps::ShakyClip& clip, int frames) {
    std::vector<apps::PathPoint> path;
    for (int frame = 0; frame < frames; ++frame) {
        const apps::Pose pose = clip.path().shaky(frame);
        path.push_back({pose.x, pose.y, pose.angle});
    }
    return path;
}

std::vector<apps::PathPoint> steady_path(const apps::ShakyClip& clip,
                                         const Stabilized& stabilized) {
    std::vector<apps::PathPoint> path;
    const double centre_x = 0.5 * clip.width();
    const double centre_y = 0.5 * clip.height();
    const double shift = stabilized.options.whole_shift != 0
                             ? 1
                             : static_cast<double>(stabilized.options.crop_ratio);
    for (const apps::Affine& correction : stabilized.corrections) {
        const apps::Pose pose = clip.path().shaky(static_cast<int>(path.size()));
        // The position of the shaky picture that becomes the centre of the steady one.
        const apps::Affine back = inverse(correction);
        const double x = centre_x + shift * (back.map_x(centre_x, centre_y) - centre_x);
        const double y = centre_y + shift * (back.map_y(centre_x, centre_y) - centre_y);
        const apps::Affine view = apps::picture_to_scene(pose, clip.width(), clip.height());
        path.push_back(
            {view.map_x(x, y), view.map_y(x, y),
             pose.angle - std::atan2(correction.d - correction.b, correction.a + correction.e)});
    }
    return path;
}

double outside(const Stabilized& stabilized) {
    const double ratio = static_cast<double>(stabilized.options.crop_ratio);
    const double last_x = stabilized.width - 1;
    const double last_y = stabilized.height - 1;
    double most = 0;
    for (const apps::Affine& correction : stabilized.corrections) {
        const apps::Affine back = inverse(correction);
        for (const double corner_x : {0.0, last_x}) {
            for (const double corner_y : {0.0, last_y}) {
                const double x = 0.5 * last_x + ratio * (corner_x - 0.5 * last_x);
                const double y = 0.5 * last_y + ratio * (corner_y - 0.5 * last_y);
                const double from_x = back.map_x(x, y);
                const double from_y = back.map_y(x, y);
                most = std::max({most, -from_x, -from_y, from_x - last_x, from_y - last_y});
            }
        }
    }
    return most;
}

}  // namespace test_support
