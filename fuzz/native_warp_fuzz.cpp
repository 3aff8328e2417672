// SPDX-License-Identifier: Apache-2.0

// The native warp and the stated sampling: any transforms, sizes and sample formats. Every variant
// gives the bytes of the plain one, however the rows are split, reads nothing outside the plane, and
// leaves the bytes between rows alone. And a plane whose samples are linear in their position, which any
// kernel leaves linear, shows at every output position what the map says.

#include <algorithm>
#include <cmath>
#include <iterator>

#include "fuzz/fuzz_input.h"
#include "native_warp/plane_warp.h"
#include "native_warp/stated_variants.h"

namespace {

using namespace videostabilizer;
using Bytes = std::vector<unsigned char>;

constexpr SampleFormat FORMATS[] = {{1, 8, 0, 1},  {1, 8, 0, 2},  {2, 10, 0, 1},
                                    {2, 10, 6, 2}, {2, 12, 0, 1}, {2, 16, 0, 2}};

// Near what a camera needs, or any numbers.
WarpMap take_map(fuzz::Input& input) {
    WarpMap map;
    const bool camera = input.flag();
    map.transforms.resize(static_cast<std::size_t>(input.in_range(1, 4)));
    for (Affine2& t : map.transforms) {
        for (double* const element : {&t.a, &t.b, &t.c, &t.d, &t.e, &t.f}) {
            const bool shift = element == &t.c || element == &t.f;
            const auto number = static_cast<double>(input.number());
            *element = camera ? *element + number / (shift ? 64 : 4096) : number;
        }
    }
    map.rows_apart = input.in_range(1, 40);
    map.first_row = input.in_range(0, 8) / 8.0;
    return map;
}

// Samples that rise linearly, and what a map shows of them.
void require_positions(const PlaneShape& shape, const WarpMap& map, ResamplingKernels& kernels,
                       double turn) {
    const SampleFormat& f = shape.format;
    const double largest = static_cast<double>((1 << f.depth) - 1);
    // Levels per sample: most of the range over the plane.
    const double along = std::cos(turn) * 0.4 * largest / shape.width;
    const double down = std::sin(turn) * 0.4 * largest / shape.height;
    const auto level = [&](double x, double y) {
        return 0.5 * largest + along * (x - 0.5 * shape.width) + down * (y - 0.5 * shape.height);
    };
    const std::ptrdiff_t stride = std::ptrdiff_t{shape.width} * f.channels * f.bytes;
    Bytes source(static_cast<std::size_t>(stride * shape.height));
    Bytes target(source.size());
    const auto place = [&](int x, int y) {
        return y * stride + std::ptrdiff_t{x} * f.channels * f.bytes;
    };
    for (int y = 0; y < shape.height; ++y) {
        for (int x = 0; x < shape.width; ++x) {
            const auto code = static_cast<std::uint16_t>(std::lround(level(x, y)) << f.shift);
            for (int c = 0; c < f.channels; ++c) {
                std::memcpy(&source[static_cast<std::size_t>(place(x, y) + c * f.bytes)], &code,
                            static_cast<std::size_t>(f.bytes));
            }
        }
    }
    PlaneWarp warp;
    warp.prepare(shape, map, kernels);
    WarpScratch scratch;
    warp.warp_rows(warp_variants[0], {source.data(), stride}, {target.data(), stride}, 0,
                   shape.height, scratch);
    // Kernels reach so far, and where the source ends it is not linear any more.
    constexpr double BORDER = 8;
    // Positions within a block and tables that rows share are rounded; so are samples and weights. A block
    // has one step, and that of its rows' interval: where transforms differ much, it is off.
    double bend = 0;
    for (std::size_t k = 1; k < map.transforms.size(); ++k) {
        const Affine2& p = map.transforms[k - 1];
        const Affine2& q = map.transforms[k];
        const double turned =
            std::abs(q.a - p.a) + std::abs(q.b - p.b) + std::abs(q.d - p.d) + std::abs(q.e - p.e);
        const double moved =
            turned * (shape.width + shape.height) + std::abs(q.c - p.c) + std::abs(q.f - p.f);
        bend = std::max(bend, 16 * turned + 4 * moved / map.rows_apart);
    }
    const double samples = 0.12 + (std::isfinite(bend) ? bend : largest);
    const double tolerance = 1.5 + samples * (std::abs(along) + std::abs(down)) + 6e-4 * largest;
    for (int y = 0; y < shape.height; ++y) {
        const Affine2 t = map.at(y);
        for (int x = 0; x < shape.width; ++x) {
            const double from_x = t.a * x + t.b * y + t.c;
            const double from_y = t.d * x + t.e * y + t.f;
            if (!(from_x > BORDER && from_x < shape.width - BORDER && from_y > BORDER &&
                  from_y < shape.height - BORDER)) {
                continue;
            }
            for (int c = 0; c < f.channels; ++c) {
                std::uint16_t code = 0;
                std::memcpy(&code, &target[static_cast<std::size_t>(place(x, y) + c * f.bytes)],
                            static_cast<std::size_t>(f.bytes));
                fuzz::require(std::abs((code >> f.shift) - level(from_x, from_y)) <= tolerance,
                              "what the map shows");
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const SampleFormat& format = FORMATS[input.byte() % 6];
    const PlaneShape shape{input.in_range(1, 300), input.in_range(1, 40), format};
    const Resampling resampling = input.flag() ? Resampling::LANCZOS3 : Resampling::BILINEAR;
    const WarpMap map = take_map(input);
    const int middle = input.in_range(0, 40) % (shape.height + 1);
    const int row_bytes = shape.width * format.channels * format.bytes;
    const std::ptrdiff_t stride = row_bytes + 2 * input.in_range(0, 3);
    const auto bytes = static_cast<std::size_t>(stride * (shape.height - 1) + row_bytes);
    const Bytes source = input.picture(bytes);

    const auto check = [&](const auto& variants, auto warp_rows) {
        Bytes expected(bytes, 0xA5);
        warp_rows(variants[0], TargetPlane{expected.data(), stride}, 0, shape.height);
        for (int y = 0; y + 1 < shape.height; ++y) {
            for (std::ptrdiff_t i = y * stride + row_bytes; i < (y + 1) * stride; ++i) {
                fuzz::require(expected[static_cast<std::size_t>(i)] == 0xA5,
                              "the bytes between rows");
            }
        }
        for (const auto& variant : variants) {
            if (cpu_supports(variant.level)) {
                Bytes actual(bytes, 0xA5);
                const TargetPlane target{actual.data(), stride};
                warp_rows(variant, target, middle, shape.height);
                warp_rows(variant, target, 0, middle);
                fuzz::require(actual == expected, "the bytes of the plain variant");
            }
        }
    };
    const SourcePlane from{source.data(), stride};
    ResamplingKernels kernels(resampling);
    PlaneWarp warp;
    warp.prepare(shape, map, kernels);
    WarpScratch scratch;
    check(warp_variants,
          [&](const WarpVariant& variant, const TargetPlane& target, int first, int last) {
              warp.warp_rows(variant, from, target, first, last, scratch);
          });

    require_positions(shape, map, kernels, 0.1 * middle);

    const Affine2& t = map.transforms.front();
    const double elements[] = {t.a, t.b, t.c, t.d, t.e, t.f};
    float wp[6];
    std::transform(std::begin(elements), std::end(elements), wp,
                   [](double element) { return static_cast<float>(element); });
    const PlaneGrid grid{1.0 + middle % 2, 1.0 + middle / 2 % 2, 0, 0};
    check(stated_variants,
          [&](const StatedVariant& variant, const TargetPlane& target, int first, int last) {
              if (format.channels == 1 && middle % 3 != 0) {
                  variant.luma(shape, wp, from, target, first, last);
              } else {
                  variant.chroma(shape, grid, wp, from, target, first, last);
              }
          });
    return 0;
}
