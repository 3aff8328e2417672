// SPDX-License-Identifier: Apache-2.0

// The native warp and the stated sampling: any transforms, sizes and sample formats. Every variant
// gives the bytes of the plain one, however the rows are split, reads nothing outside the plane, and
// leaves the bytes between rows alone.

#include <algorithm>
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
