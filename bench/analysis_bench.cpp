// SPDX-License-Identifier: Apache-2.0

// Every variant of the analysis routines beside the plain one, on the pictures and points of a
// stabilizer of each size. Linked with the internals, whose tables it reads.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "camera_motion/camera_motion.h"
#include "common/synthetic/scene.h"
#include "features/fast16_variants.h"
#include "features/lucas_kanade_variants.h"
#include "motion/ransac_variants.h"
#include "pipeline/decimate.h"

// Drops the tracker's log of lost points, so that no terminal is measured.
extern "C" int __android_log_print(int, const char*, const char*, ...) {
    return 0;
}

namespace {

using namespace videostabilizer;
using Plane = std::vector<unsigned char>;

// The parameters that a stabilizer of the picture size chooses.
struct Size {
    int width;
    int height;
    int scale;

    int image_width() const { return width / scale; }
    int image_height() const { return height / scale; }
    int border() const { return (scale == 1 ? 32 : 64) / scale; }
};

constexpr Size SIZES[] = {{640, 480, 1}, {1280, 720, 2}, {1920, 1080, 4}};

std::size_t area(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

// The results of all stages on two successive pictures of a sample clip.
struct Analysis {
    explicit Analysis(const Size& picture_size) : size(picture_size) {
        synthetic::ClipSettings settings;
        settings.camera.width = size.width;
        settings.camera.height = size.height;
        const synthetic::ShakyClip clip(settings);
        const std::size_t luma = area(size.width, size.height);
        for (int i = 0; i < 2; ++i) {
            pictures[i].resize(luma * 3 / 2);
            video_io::Planes planes{};
            planes.y = pictures[i].data();
            planes.u = planes.y + luma;
            planes.v = planes.u + luma / 4;
            planes.stride_y = size.width;
            planes.stride_uv = size.width / 2;
            clip.render(i, planes);
            images[i].resize(area(size.image_width(), size.image_height()));
            decimate_luma(pictures[i].data(), size.width, size.height, size.scale,
                          images[i].data());
        }
        fast16_init(&fast, 25, 1, 2 * size.border(), 0, size.border(), size.border(),
                    size.image_width(), size.image_height());
        fast16(images[0].data(), corners, size.image_width(), size.image_height(), &fast);
    }
    ~Analysis() { fast16_fini(&fast); }
    Analysis(const Analysis&) = delete;
    Analysis& operator=(const Analysis&) = delete;

    // Tracks the corners by a variant, and keeps the pairs in pixels of the full picture.
    void track(const TrackVariant& variant) {
        const GreyImage prev = {images[0].data(), size.image_width(), size.image_height()};
        const GreyImage next = {images[1].data(), size.image_width(), size.image_height()};
        const auto scale = static_cast<float>(size.scale);
        matched_prev.clear();
        matched_next.clear();
        for (const KeyPoint& corner : corners) {
            KeyPoint found{};
            unsigned char status = 0;
            track_point(variant, prev, next, tracker, corner, found, status);
            if (status != 0) {
                matched_prev.push_back({corner.x * scale, corner.y * scale, 0, 0});
                matched_next.push_back({found.x * scale, found.y * scale, 0, 0});
            }
        }
    }

    Size size;
    LK_Params tracker{5, 4, 5, 0.05F, 0.05F, 72, 72, 0, 0};
    std::vector<KeyPoint> matched_prev;
    std::vector<KeyPoint> matched_next;
    Plane pictures[2];
    Plane images[2];
    FastParams fast{};
    std::vector<KeyPoint> corners;
};

using Decimate = void(const unsigned char* luma, int width, int height, int scale,
                      unsigned char* image);

void decimate_plain(const unsigned char* luma, int width, int height, int scale,
                    unsigned char* image) {
    const int image_width = width / scale;
    for (int r = 0; r < height / scale; ++r) {
        decimate_row(luma + area(r * scale, width), scale, image + area(r, image_width),
                     image_width);
    }
}

// The lower bound: the rows that decimation reads, copied.
void copy_rows(const unsigned char* luma, int width, int height, int scale, unsigned char* copy) {
    for (int r = 0; r < height / scale; ++r) {
        std::memcpy(copy + area(r, width), luma + area(r * scale, width), area(width, 1));
    }
}

constexpr struct DecimateVariant {
    const char* name;
    CpuLevel level;
    Decimate* run;
} decimate_variants[] = {
    {"plain", CpuLevel::PLAIN, decimate_plain},
    {"packed", CpuLevel::PLAIN, decimate_luma},
    {"copy", CpuLevel::PLAIN, copy_rows},
};

void decimate(benchmark::State& state, const DecimateVariant& variant, const Size& size) {
    Analysis analysis(size);
    Plane image(area(size.width, size.height));
    for (auto _ : state) {
        variant.run(analysis.pictures[0].data(), size.width, size.height, size.scale, image.data());
        benchmark::ClobberMemory();
    }
}

void find_corners(benchmark::State& state, const CornerVariant& variant, const Size& size) {
    Analysis analysis(size);
    std::vector<KeyPoint> found;
    for (auto _ : state) {
        found.clear();
        detect_corners(variant, analysis.images[0].data(), found, size.image_width(),
                       size.image_height(), analysis.fast);
    }
    state.counters["corners"] = static_cast<double>(found.size());
}

void track(benchmark::State& state, const TrackVariant& variant, const Size& size) {
    Analysis analysis(size);
    for (auto _ : state) {
        analysis.track(variant);
    }
    state.counters["points"] = static_cast<double>(analysis.corners.size());
    state.counters["tracked"] = static_cast<double>(analysis.matched_prev.size());
}

// Every third pair is an outlier, so that no model reaches three quarters and all 293 samples are
// drawn; or none is, so that one of the first samples is the last.
template <bool ALL_DRAWS>
void estimate(benchmark::State& state, const EstimateVariant& variant, const Size& size) {
    Analysis analysis(size);
    analysis.track(track_variants[0]);
    auto& points = analysis.matched_next;
    for (std::size_t i = 0; ALL_DRAWS && i < points.size(); i += 3) {
        points[i].x += 10.0F + static_cast<float>(i % 37);
        points[i].y -= 10.0F + static_cast<float>(i % 23);
    }
    SimpleLA::Mat<float> motion(3, 3);
    MotionLog log{};
    for (auto _ : state) {
        estimate_motion(variant, motion, log, analysis.matched_prev, points, {6, 2, 0, 0, 293});
    }
    state.counters["pairs"] = log.npoints;
    state.counters["inliers"] = log.ninliers;
}

const Size& size_of(const benchmark::State& state) {
    const Size* size = SIZES;
    while (size->width != state.range(0)) {
        ++size;
    }
    return *size;
}

// A run gets the row of its table and the picture size, and the name of the row as its label.
template <typename Variant, std::size_t ROWS>
void run_row(benchmark::State& state, const Variant (&variants)[ROWS],
             void (*run)(benchmark::State&, const Variant&, const Size&)) {
    const Variant& variant = variants[static_cast<std::size_t>(state.range(2))];
    run(state, variant, size_of(state));
    state.SetLabel(variant.name);
}

template <const auto& VARIANTS>
void each_row(benchmark::internal::Benchmark* b) {
    b->ArgNames({"w", "h", "row"})->Unit(benchmark::kMicrosecond);
    for (const Size& size : SIZES) {
        for (std::size_t row = 0; row < std::size(VARIANTS); ++row) {
            if (cpu_supports(VARIANTS[row].level)) {
                b->Args({size.width, size.height, static_cast<std::int64_t>(row)});
            }
        }
    }
}

void BM_Decimate(benchmark::State& state) {
    run_row(state, decimate_variants, decimate);
}
BENCHMARK(BM_Decimate)->Apply(each_row<decimate_variants>);

void BM_Corners(benchmark::State& state) {
    run_row(state, corner_variants, find_corners);
}
BENCHMARK(BM_Corners)->Apply(each_row<corner_variants>);

void BM_Track(benchmark::State& state) {
    run_row(state, track_variants, track);
}
BENCHMARK(BM_Track)->Apply(each_row<track_variants>);

void BM_EstimateEarlyStop(benchmark::State& state) {
    run_row(state, estimate_variants, estimate<false>);
}
BENCHMARK(BM_EstimateEarlyStop)->Apply(each_row<estimate_variants>);

void BM_EstimateAllDraws(benchmark::State& state) {
    run_row(state, estimate_variants, estimate<true>);
}
BENCHMARK(BM_EstimateAllDraws)->Apply(each_row<estimate_variants>);

// The camera's step as the strengths from standard on find it, in place of all of the above.
void BM_CameraMotion(benchmark::State& state) {
    const Size& size = SIZES[state.range(0)];
    const Analysis analysis(size);
    CameraMotion motion(size.width, size.height);
    std::size_t next = 0;
    for (auto unused : state) {
        const CameraStep step = motion.add(analysis.pictures[next].data(), size.width);
        next = 1 - next;
        benchmark::DoNotOptimize(step);
    }
}
BENCHMARK(BM_CameraMotion)->ArgName("size")->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
