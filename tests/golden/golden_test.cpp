// SPDX-License-Identifier: Apache-2.0

// One table of checksums of the results of every stage, compared in every build: 32-bit and 64-bit,
// ARM and x86, optimised and sanitized give the same bits. Inputs are made with integers only, so
// that they are the same everywhere.
//
// A checksum that changes in all builds shows a changed result: put the printed one into the table
// if the change is intended. One that changes in some builds only is always a fault.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <tuple>
#include <vector>

#include "frames/picture_layout.h"
#include "native_warp/plane_warp.h"
#include "picture_warp/native_warper.h"
#include "picture_warp/stated_warper.h"
#include "tests/cpu_warp/warp_variants.h"
#include "tests/features/picture.h"
#include "videostabilizer/fast16.h"
#include "videostabilizer/gaussian_motion_filter.h"
#include "videostabilizer/gemm.h"
#include "videostabilizer/lu.h"
#include "videostabilizer/lucas_kanade.h"
#include "videostabilizer/mat.h"
#include "videostabilizer/motion_path.h"
#include "videostabilizer/ransac.h"

namespace {

std::uint32_t generator_state = 1;

std::uint32_t next_random() {
    generator_state = generator_state * 1664525U + 1013904223U;
    return generator_state >> 8U;
}

}  // namespace

// The estimator's random numbers, which it seeds with the time, made repeatable.
extern "C" void srand48(long /*seed*/) noexcept {
    generator_state = 1;
}

extern "C" long lrand48() noexcept {
    return static_cast<long>(next_random());
}

using namespace videostabilizer;
using SimpleLA::Mat;

namespace {

constexpr int WIDTH = 320;
constexpr int HEIGHT = 180;

// FNV-1a, 64 bits.
class Checksum {
  public:
    void add_bytes(const void* data, std::size_t bytes) {
        const auto* const first = static_cast<const unsigned char*>(data);
        for (std::size_t i = 0; i < bytes; ++i) {
            value_ = (value_ ^ first[i]) * 0x100000001b3U;
        }
    }
    template <typename... Values>
    void add(Values... values) {
        (add_one(values), ...);
    }
    void add_matrix(const Mat<float>& m) {
        for (int i = 0; i < m.rows * m.cols; ++i) {
            add(m.at(i / m.cols, i % m.cols));
        }
    }
    std::uint64_t value() const { return value_; }

  private:
    void add_one(float value) {  // a zero may have either sign, a NaN any bits
        value = std::isnan(value) ? -1e30F : value + 0.0F;
        add_bytes(&value, sizeof value);
    }
    void add_one(std::uint32_t value) { add_bytes(&value, sizeof value); }

    std::uint64_t value_ = 0xcbf29ce484222325U;
};

// Shifted by sixteenths of a pixel.
Picture picture(int shift_x, int shift_y) {
    return Picture(WIDTH, HEIGHT, [=](int x, int y) {
        return texture(16 * x + shift_x, 16 * y + shift_y, 0, 16 * 9);
    });
}

// Corners of one picture and where the tracker finds them in the next; lost points are left out.
struct Tracks {
    std::vector<KeyPoint> corners;
    std::vector<KeyPoint> from;
    std::vector<KeyPoint> to;
};

Tracks track() {
    const Picture prev = picture(0, 0);
    const Picture next = picture(37, -21);
    Tracks tracks;
    FastParams fast{};
    EXPECT_EQ(fast16_init(&fast, 10, 1, 16, 0, 12, 12, WIDTH, HEIGHT), 0);
    fast16(prev.pixels.data(), tracks.corners, WIDTH, HEIGHT, &fast);
    fast16_fini(&fast);

    const LK_Params params = {4, 4, 10, 0.03F, 0.03F, 40.0F, 40.0F, 12, 12};
    std::vector<KeyPoint> found(tracks.corners.size());
    std::vector<unsigned char> status(tracks.corners.size());
    lk_pyramid_image(prev.pixels.data(), next.pixels.data(), WIDTH, HEIGHT, &params, tracks.corners,
                     found, status);
    for (std::size_t i = 0; i < found.size(); ++i) {
        if (status[i] != 0) {
            tracks.from.push_back(tracks.corners[i]);
            tracks.to.push_back(found[i]);
        }
    }
    EXPECT_GT(tracks.from.size(), 50U) << "too few for a golden result";
    return tracks;
}

void add_tracks(Checksum& sum) {
    const Tracks tracks = track();
    for (const auto& points : {tracks.corners, tracks.from, tracks.to}) {
        for (const KeyPoint& p : points) {
            sum.add(p.x, p.y, p.response, p.reserved);
        }
    }
}

void add_motion(Checksum& sum) {
    Tracks tracks = track();
    for (std::size_t i = 0; i < tracks.to.size(); i += 5) {
        tracks.to[i].x += 25.0F;  // an object with a motion of its own
    }
    Mat<float> motion(3, 3);
    MotionLog log = {0, 0, 0.5F, 0};
    estimateGlobalMotionRansac(motion, log, tracks.from, tracks.to, {6, 2.0F, 0.5F, 0.99F, 293});
    EXPECT_EQ(log.status, 0);
    sum.add_matrix(motion);
    sum.add(static_cast<std::uint32_t>(log.ninliers));
}

// Small numbers of either sign, thousandths.
float thousandths(std::uint32_t limit) {
    return static_cast<float>(static_cast<std::int32_t>(next_random() % (2 * limit + 1)) -
                              static_cast<std::int32_t>(limit)) /
           1000.0F;
}

void add_smoothed_path(Checksum& sum) {
    constexpr int FRAMES = 21;
    generator_state = 5;
    std::vector<Mat<float>> store(FRAMES);
    std::vector<Mat<float>*> motions;
    std::vector<MotionLog> logs;
    for (Mat<float>& m : store) {
        m.create(3, 3);
        for (int i = 0; i < 9; ++i) {
            const float part = i < 6 ? thousandths(i % 3 == 2 ? 9000 : 20) : 0.0F;
            m.at(i / 3, i % 3) = (i % 4 == 0 ? 1.0F : 0.0F) + part;
        }
        logs.push_back({50, 40, 0.75F, motions.size() % 6 == 4 ? 1 : 0});
        motions.push_back(&m);
    }
    check_motions(motions, logs, 0, FRAMES);
    for (const float stdev : {-1.0F, 0.5F, 3.0F, 10.0F}) {
        GaussianMotionFilter* const filter = gaussian_motion_filter_create(10, stdev);
        Mat<float> correction(3, 3);
        for (int i = 0; i < FRAMES; ++i) {
            sum.add_matrix(*motions[static_cast<std::size_t>(i)]);
            gaussian_motion_filter_stabilize(filter, correction, i, motions, logs, 0, FRAMES);
            sum.add_matrix(correction);
        }
        gaussian_motion_filter_delete(filter);
    }
}

void add_matrices(Checksum& sum) {
    for (const int n : {2, 3, 4, 5, 6, 9, 17}) {
        generator_state = static_cast<std::uint32_t>(n);
        Mat<float> a(n + 3, n);
        Mat<float> b(n + 3, 2);
        for (Mat<float>* const m : {&a, &b}) {
            for (int i = 0; i < m->rows * m->cols; ++i) {
                m->at(i / m->cols, i % m->cols) = thousandths(4000);
            }
        }
        Mat<float> product;
        Mat<float> inverse;
        Mat<float> solution;
        SimpleLA::mulTransposed(a, product, true, Mat<float>::noMat(), 1.0);
        EXPECT_EQ(SimpleLA::invert(product, inverse), 1);
        EXPECT_EQ(SimpleLA::solveLuNormal(a, b, solution), 1);
        Mat<float> general;
        SimpleLA::gemm(a, inverse, 0.75, Mat<float>::noMat(), 0.0, general, 0);
        for (const Mat<float>* const m : {&product, &inverse, &solution, &general}) {
            sum.add_matrix(*m);
        }
    }
}

void add_warp(Checksum& sum, const ::WarpVariant& variant) {
    const std::array<float, 6> matrices[] = {{1, 0, 0, 0, 1, 0},
                                             {1, 0, 2.5F, 0, 1, -1.25F},
                                             {0.98F, -0.03F, 7.0F, 0.03F, 0.98F, -4.0F},
                                             {1.8F, 0.25F, -90.0F, -0.5F, 1.6F, 33.0F},
                                             {0.2F, 0.1F, 60.0F, -0.1F, 0.3F, 40.0F}};
    for (const auto& matrix : matrices) {
        auto source = noise_picture(packed_picture(variant.layout, WIDTH, HEIGHT).bytes, 11);
        std::vector<unsigned char> target(source.size());
        auto copy = matrix;
        variant.run(source.data(), target.data(), copy.data(), WIDTH, HEIGHT);
        sum.add_bytes(target.data(), target.size());
    }
}

// The native warp of interleaved samples of 8 and of 10 bits, turned and, by rows, sheared.
void add_native_warp(Checksum& sum) {
    const WarpMap maps[] = {
        {{{0.92, -0.03, 9.3, 0.03, 0.92, 2.7}}, 1, 0},
        {{{0.9, 0.01, 9, 0.02, 0.91, 5}, {0.9, -0.02, 14, 0.01, 0.93, 3}}, 180, 0}};
    for (const SampleFormat& format : {SampleFormat{1, 8, 0, 2}, SampleFormat{2, 10, 6, 1}}) {
        const auto source = noise_picture(WIDTH * HEIGHT * 2, 12);
        std::vector<unsigned char> target(source.size());
        for (const WarpMap& map : maps) {
            ResamplingKernels kernels(Resampling::LANCZOS3);
            PlaneWarp warp;
            WarpScratch scratch;
            warp.prepare({WIDTH, HEIGHT, format}, map, kernels);
            warp.warp_rows(fastest_variant(videostabilizer::warp_variants),
                           {source.data(), 2 * WIDTH}, {target.data(), 2 * WIDTH}, 0, HEIGHT,
                           scratch);
            sum.add_bytes(target.data(), target.size());
        }
    }
}

// The layouts of all families that streams have, with one depth.
std::vector<PixelLayout> layouts_of(int depth) {
    std::vector<PixelLayout> layouts;
    for (const ChromaFormat chroma :
         {CHROMA_NONE, CHROMA_420, CHROMA_422, CHROMA_444, CHROMA_411}) {
        for (int kind = 0; kind < 8; ++kind) {
            PixelLayout layout{};
            layout.chroma = chroma;
            layout.siting = static_cast<ChromaSiting>(kind % 3);
            layout.bit_depth = depth;
            layout.semi_planar = kind & 1;
            layout.high_bits = kind >> 1 & 1;
            layout.alpha = kind >> 2;
            if (layout_fault(layout) == nullptr) {
                layouts.push_back(layout);
            }
        }
    }
    return layouts;
}

// A picture of noise, or an empty one.
struct WholePicture {
    WholePicture(const PixelLayout& layout, int width, int height, std::uint32_t seed) {
        for (int k = 0; k < plane_count(layout); ++k) {
            const int row = plane_samples(width, layout, k) * sample_bytes(layout);
            const int rows = plane_rows(height, layout, k);
            auto& plane = memory[static_cast<std::size_t>(k)];
            plane = noise_picture(static_cast<std::size_t>(row) * static_cast<std::size_t>(rows),
                                  seed + static_cast<std::uint32_t>(k));
            set_plane(planes, k, plane.data(), row);
        }
    }

    PicturePlanes planes{};
    std::array<std::vector<unsigned char>, 4> memory;
};

// Whole pictures by the native engine, with 1 to 8 threads.
void add_native_engine(Checksum& sum) {
    constexpr int COLUMNS = 83;
    constexpr int ROWS = 130;
    const WarpMap one = {{{0.92, -0.03, 3.3, 0.03, 0.92, 2.7}}, 1, 0};
    const WarpMap rows = {{{0.9, 0.01, 4, 0.02, 0.91, 5}, {0.9, -0.02, 7, 0.01, 0.93, 3}}, 129, 0};
    for (int depth = 8; depth <= 16; ++depth) {
        for (const PixelLayout& layout : layouts_of(depth)) {
            const PictureShape shape = picture_shape(COLUMNS, ROWS, layout);
            const WholePicture source(layout, COLUMNS, ROWS, 12);
            for (int sampling = 0; sampling < 3; ++sampling) {
                std::array<std::vector<unsigned char>, 4> first;
                for (int threads = 1; threads <= 8; ++threads) {
                    std::unique_ptr<PictureWarper> warper;
                    if (sampling == 0) {
                        warper = std::make_unique<StatedWarper>(shape, threads);
                    } else {
                        warper = std::make_unique<NativeWarper>(
                            shape, sampling == 1 ? Resampling::BILINEAR : Resampling::LANCZOS3,
                            threads);
                    }
                    const WholePicture target(layout, COLUMNS, ROWS, 99);
                    EXPECT_EQ(
                        warper->warp(source.planes, sampling == 2 ? rows : one, target.planes), 0);
                    if (threads == 1) {
                        first = target.memory;
                    }
                    EXPECT_EQ(target.memory, first)
                        << threads << " threads, depth " << depth << ", sampling " << sampling;
                }
                for (const auto& plane : first) {
                    sum.add_bytes(plane.data(), plane.size());
                }
            }
        }
    }
}

TEST(Golden, ResultsAreTheSameOnEveryProcessor) {
    const std::tuple<const char*, void (*)(Checksum&), std::uint64_t> rows[] = {
        {"corners and tracks", add_tracks, 0xc0bd453dd19d431d},
        {"estimated motion", add_motion, 0x133c4b7ca10bb065},
        {"smoothed path", add_smoothed_path, 0xfa2107302a34bf63},
        {"matrices", add_matrices, 0xcbc913410f4b39e3},
        {"native warp", add_native_warp, 0xd22e877792a57f1c},
        {"native engine", add_native_engine, 0xf6d4d9f070c04aad},
    };
    for (const auto& [name, add, checksum] : rows) {
        Checksum sum;
        add(sum);
        EXPECT_EQ(sum.value(), checksum) << name << " has 0x" << std::hex << sum.value();
    }
    constexpr std::uint64_t warps[] = {0x076f4d83617cee04, 0xf3a401d5edb07c32, 0xb499abee1787b9b3,
                                       0x8cb1a0d8d84c537d, 0x8cb1a0d8d84c537d};
    for (std::size_t i = 0; i < (VECTOR_WARP ? 5 : 3); ++i) {
        Checksum sum;
        add_warp(sum, ::warp_variants[i]);
        EXPECT_EQ(sum.value(), warps[i]) << i << " has 0x" << std::hex << sum.value();
    }
}

}  // namespace
