// SPDX-License-Identifier: Apache-2.0

// The native warp: any transforms, sizes and sample formats. Every variant gives the bytes of the
// plain one, however the rows are split, reads nothing outside the plane, and leaves the bytes between
// rows alone.

#include "fuzz/fuzz_input.h"
#include "native_warp/plane_warp.h"

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

    ResamplingKernels kernels(resampling);
    PlaneWarp warp;
    warp.prepare(shape, map, kernels);
    Bytes expected(bytes, 0xA5);
    WarpScratch scratch;
    warp.warp_rows(warp_variants[0], {source.data(), stride}, {expected.data(), stride}, 0,
                   shape.height, scratch);
    for (int y = 0; y + 1 < shape.height; ++y) {
        for (std::ptrdiff_t i = y * stride + row_bytes; i < (y + 1) * stride; ++i) {
            fuzz::require(expected[static_cast<std::size_t>(i)] == 0xA5, "the bytes between rows");
        }
    }
    for (const WarpVariant& variant : warp_variants) {
        if (cpu_supports(variant.level)) {
            Bytes actual(bytes, 0xA5);
            const auto warp_rows = [&](int first, int last) {
                warp.warp_rows(variant, {source.data(), stride}, {actual.data(), stride}, first,
                               last, scratch);
            };
            warp_rows(middle, shape.height);
            warp_rows(0, middle);
            fuzz::require(actual == expected, "the bytes of the plain variant");
        }
    }
    return 0;
}
