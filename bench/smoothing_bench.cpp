// SPDX-License-Identifier: Apache-2.0

// The cost of the path per frame for several look-aheads: the mean over neighbouring frames, and
// the planned path with and without the picture's edge coming into view. Linked with the internals.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

#include "common/synthetic/camera_path.h"
#include "motion/camera_pose.h"
#include "path/path_planner.h"
#include "videostabilizer/gaussian_motion_filter.h"
#include "videostabilizer/mat.h"
#include "videostabilizer/ransac.h"

namespace {

using namespace videostabilizer;

constexpr int WIDTH = 1280;
constexpr int HEIGHT = 720;

// The true motion from frame i to i + 1 of a shaky camera, row-major 3x3.
void motion_of(const synthetic::CameraPath& path, int i, float motion[9]) {
    const synthetic::Affine m =
        synthetic::true_motion(path.shaky(i), path.shaky(i + 1), WIDTH, HEIGHT);
    const double values[9] = {m.a, m.b, m.c, m.d, m.e, m.f, 0, 0, 1};
    for (int k = 0; k < 9; ++k) {
        motion[k] = static_cast<float>(values[k]);
    }
}

struct FilterDeleter {
    void operator()(GaussianMotionFilter* filter) const { gaussian_motion_filter_delete(filter); }
};

void BM_Filter(benchmark::State& state) {
    const int radius = static_cast<int>(state.range(0));
    const int ring = 2 * radius + 1;
    const synthetic::CameraPath path{synthetic::CameraSettings{}};
    std::vector<SimpleLA::Mat<float>> storage;
    std::vector<SimpleLA::Mat<float>*> motions;
    for (int i = 0; i < ring; ++i) {
        storage.emplace_back(3, 3);
        motion_of(path, i, storage.back().data);
    }
    motions.reserve(storage.size());
    for (auto& motion : storage) {
        motions.push_back(&motion);
    }
    std::vector<MotionLog> logs(static_cast<std::size_t>(ring));
    const std::unique_ptr<GaussianMotionFilter, FilterDeleter> filter(
        gaussian_motion_filter_create(radius, 0));
    SimpleLA::Mat<float> out(3, 3);
    for (auto _ : state) {
        gaussian_motion_filter_stabilize(filter.get(), out, radius, motions, logs, 0, ring);
        benchmark::DoNotOptimize(out.data);
    }
}
BENCHMARK(BM_Filter)
    ->ArgName("look_ahead")
    ->Arg(10)
    ->Arg(30)
    ->Arg(120)
    ->Unit(benchmark::kMicrosecond);

// `shake` times as much as usual, so that edges come into view or never do.
void plan(benchmark::State& state, double shake) {
    const int look_ahead = static_cast<int>(state.range(0));
    synthetic::CameraSettings camera;
    camera.shake = shake;
    const synthetic::CameraPath path(camera);
    PathPlanner planner({WIDTH, HEIGHT, look_ahead, 0.7 * look_ahead, 0.9});
    const PictureCentre centre = picture_centre(WIDTH, HEIGHT);
    std::deque<CameraPose> steps;
    int next = 0;
    const auto add_step = [&] {
        float motion[9];
        motion_of(path, next++, motion);
        CameraPose step;
        pose_of_motion(motion, centre, step);
        steps.push_back(step);
    };
    for (int i = 0; i < look_ahead; ++i) {
        add_step();
    }
    std::vector<CameraPose> seen(static_cast<std::size_t>(look_ahead) + 1);
    double guarded = 0;
    for (auto _ : state) {
        CameraPose pose;
        for (std::size_t k = 0; k < seen.size(); ++k) {
            seen[k] = pose;
            if (k < steps.size()) pose = pose_after(pose, steps[k]);
        }
        guarded += planner.plan(seen.data(), look_ahead + 1).guarded ? 1 : 0;
        planner.advance(steps.front());
        state.PauseTiming();
        steps.pop_front();
        add_step();
        state.ResumeTiming();
    }
    state.counters["guarded_%"] =
        benchmark::Counter(100 * guarded, benchmark::Counter::kAvgIterations);
}

void BM_PlanFreely(benchmark::State& state) {
    plan(state, 0.3);
}
void BM_PlanAtTheEdge(benchmark::State& state) {
    plan(state, 4);
}
BENCHMARK(BM_PlanFreely)
    ->ArgName("look_ahead")
    ->Arg(10)
    ->Arg(30)
    ->Arg(120)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlanAtTheEdge)
    ->ArgName("look_ahead")
    ->Arg(10)
    ->Arg(30)
    ->Arg(120)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
