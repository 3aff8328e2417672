// Every variant of the analysis routines beside the plain one, on the pictures and points that a
// stabilizer of the size has. Linked with the internals, whose tables it walks.

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "apps/scene.h"
#include "features/fast16_variants.h"
#include "features/lucas_kanade_variants.h"
#include "pipeline/decimate.h"

// The tracker reports lost points; a benchmark of it is not to measure a terminal.
extern "C" int __android_log_print(int, const char*, const char*, ...) {
    return 0;
}

namespace {

using namespace videostabilizer;
using Plane = std::vector<unsigned char>;

// As a stabilizer of the picture size chooses them.
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
        apps::ClipSettings settings;
        settings.camera.width = size.width;
        settings.camera.height = size.height;
        const apps::ShakyClip clip(settings);
        const std::size_t luma = area(size.width, size.height);
        for (int i = 0; i < 2; ++i) {
            pictures[i].resize(luma * 3 / 2);
            apps::Planes planes{};
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

    // Follows the corners by a variant, and keeps the pairs in pixels of the full picture.
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

// The floor: the rows that decimation reads, copied.
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

// Name/variant/width/height, the variants of one size next to each other.
template <typename Variant, std::size_t COUNT>
void add(const char* name, const Variant (&variants)[COUNT],
         void (*run)(benchmark::State&, const Variant&, const Size&)) {
    for (const Size& size : SIZES) {
        for (const Variant& variant : variants) {
            if (!cpu_supports(variant.level)) {
                continue;
            }
            const std::string title = std::string(name) + "/" + variant.name + "/" +
                                      std::to_string(size.width) + "/" +
                                      std::to_string(size.height);
            benchmark::RegisterBenchmark(title.c_str(), [run, &variant,
                                                         &size](benchmark::State& state) {
                run(state, variant, size);
            })->Unit(benchmark::kMicrosecond);
        }
    }
}

[[maybe_unused]] const bool registered = [] {
    add("Decimate", decimate_variants, decimate);
    add("Corners", corner_variants, find_corners);
    add("Track", track_variants, track);
    return true;
}();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
