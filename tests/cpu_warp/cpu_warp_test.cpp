#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>

#include "tests/cpu_warp/reference_warp.h"
#include "tests/cpu_warp/warp_variants.h"
#include "videostabilizer/warp_affine.h"

namespace videostabilizer {
namespace {

using Bytes = std::vector<unsigned char>;
using Matrix = std::array<float, 6>;

constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
constexpr float INFINITE = std::numeric_limits<float>::infinity();

struct NamedMatrix {
    const char* name;
    Matrix matrix;
};

// What a camera correction looks like: positions of the size of the picture.
constexpr NamedMatrix CAMERA[] = {
    {"identity", {1, 0, 0, 0, 1, 0}},
    {"whole pixels", {1, 0, -3, 0, 1, 2}},
    {"half pixels", {1, 0, 0.5F, 0, 1, -0.5F}},
    {"slight turn", {0.9998F, -0.0175F, 3.3F, 0.0175F, 0.9998F, -2.6F}},
    {"zoom in", {1.7F, 0, -4.2F, 0, 1.6F, -3.1F}},
    {"zoom out", {0.3F, 0.01F, 5.1F, -0.02F, 0.4F, 1.7F}},
    {"shear", {1.1F, 0.3F, -6.0F, -0.2F, 0.95F, 2.0F}},
};

constexpr NamedMatrix FAR_RIGHT_AND_BELOW = {"far right and below", {1, 0, -1e6F, 0, 1, -1e6F}};

constexpr NamedMatrix EXTREMES[] = {
    {"quarter turn", {0, -1, 20, 1, 0, 0}},
    {"half turn", {-1, 0, 30, 0, -1, 20}},
    {"mirror", {-1, 0, 15, 0, 1, 0}},
    {"far left", {1, 0, 1e6F, 0, 1, 0}},
    FAR_RIGHT_AND_BELOW,
    {"far above", {1, 0, 0, 0, 1, 1e9F}},
    {"far below", {1, 0, 0, 0, 1, -1e30F}},
    {"enormous zoom", {1e20F, 0, 0, 0, 1e10F, 3}},
    {"minute zoom", {1e-12F, 0, 5, 0, 1e-12F, 5}},
    {"overflowing determinant", {1e30F, 0, 1, 0, 1e30F, 1}},
    {"overflowing inverse", {1e-30F, 0, 1, 0, 1, 1}},
    {"denormal inverse", {3e20F, 0, 1e-3F, 0, 3e17F, 1e-3F}},
    {"denormal elements", {1e-39F, 1e-40F, 1, 1, 1e-39F, 1e-41F}},
    {"cancelling offsets", {1, 0.001F, 3e7F, -0.001F, 1, 3e7F}},
    {"singular", {1, 2, 3, 2, 4, 5}},
    {"all zero", {0, 0, 0, 0, 0, 0}},
    {"NaN a", {NOT_A_NUMBER, 0, 0, 0, 1, 0}},
    {"NaN c", {1, 0, NOT_A_NUMBER, 0, 1, 0}},
    {"NaN d", {1, 0, 0, NOT_A_NUMBER, 1, 0}},
    {"NaN f", {1, 0, 0, 0, 1, NOT_A_NUMBER}},
    {"infinite b", {1, INFINITE, 0, 0, 1, 0}},
    {"infinite c", {1, 0, -INFINITE, 0, 1, 0}},
    {"infinite f", {1, 0, 0, 0, 1, INFINITE}},
};

// Around the width of vectors and of blocks, and around everything that is halved.
constexpr struct {
    int width, height;
} SIZES[] = {{1, 1},  {1, 6},   {2, 1},   {2, 2},  {3, 5},  {7, 4},    {8, 8},   {15, 6}, {16, 1},
             {16, 2}, {16, 3},  {17, 4},  {18, 2}, {24, 6}, {30, 7},   {31, 5},  {32, 2}, {32, 18},
             {33, 9}, {48, 10}, {50, 12}, {63, 3}, {64, 4}, {80, 130}, {130, 66}};

constexpr std::size_t BORDER = 64;
constexpr unsigned char UNTOUCHED = 0xA5;

struct Warped {
    Bytes bytes;
    bool border_intact;
};

// Runs a routine on a source that starts `shift` bytes into its block and ends with it, so that
// AddressSanitizer sees every overread, and on a destination between two borders.
Warped run(WarpFunction routine, const Bytes& source, Matrix matrix, int width, int height,
           std::size_t shift) {
    const std::unique_ptr<unsigned char[]> block(new unsigned char[source.size() + shift]);
    std::copy(source.begin(), source.end(), block.get() + shift);
    Bytes target(source.size() + 2 * BORDER, UNTOUCHED);
    routine(block.get() + shift, target.data() + BORDER - shift, matrix.data(), width, height);
    const auto first = target.begin() + static_cast<std::ptrdiff_t>(BORDER - shift);
    const auto last = first + static_cast<std::ptrdiff_t>(source.size());
    const auto untouched = [](unsigned char byte) { return byte == UNTOUCHED; };
    return {Bytes(first, last), std::all_of(target.begin(), first, untouched) &&
                                    std::all_of(last, target.end(), untouched)};
}

Bytes expected_of(const WarpVariant& variant, const Bytes& source, const Matrix& matrix, int width,
                  int height) {
    Bytes expected(source.size(), UNTOUCHED);
    const bool vector = runs_vector_code(variant, width, height);
    if (vector || variant.any_size) {
        reference_warp(variant.layout,
                       vector && VECTOR_WARP ? Order::OFFSET_FIRST : Order::ROW_FIRST, source,
                       expected, matrix.data(), width, height);
    }
    return expected;
}

void expect_reference(const WarpVariant& variant, const NamedMatrix& m, int width, int height) {
    const Bytes source = noise_picture(picture_bytes(variant.layout, width, height), 7);
    const Bytes expected = expected_of(variant, source, m.matrix, width, height);
    for (const std::size_t shift : {0U, 1U}) {
        const Warped actual = run(variant.run, source, m.matrix, width, height, shift);
        const auto difference =
            std::mismatch(expected.begin(), expected.end(), actual.bytes.begin());
        EXPECT_EQ(difference.first - expected.begin(), expected.end() - expected.begin())
            << "the first wrong byte, in " << variant.name << ", " << m.name << ", " << width << "x"
            << height << ", shifted by " << shift;
        EXPECT_TRUE(actual.border_intact) << variant.name << ", " << m.name << ", " << width << "x"
                                          << height << ", shifted by " << shift;
    }
}

// Each size is another one than the call before had, for the routine that remembers its first.
TEST(CpuWarp, ComputesTheDefinedBytesForEverySizeAndMatrix) {
    for (const WarpVariant& variant : warp_variants) {
        for (const auto& size : SIZES) {
            for (const NamedMatrix& m : CAMERA) {
                expect_reference(variant, m, size.width, size.height);
            }
            for (const NamedMatrix& m : EXTREMES) {
                expect_reference(variant, m, size.width, size.height);
            }
        }
    }
}

// From here on size - 1.001 is no number of its own, and the last cell would end outside.
TEST(CpuWarp, StaysInsideWherePositionsAreSparse) {
    for (const WarpVariant& variant : warp_variants) {
        for (const int size : {32768, 32784}) {
            expect_reference(variant, FAR_RIGHT_AND_BELOW, size, 2);
            expect_reference(variant, FAR_RIGHT_AND_BELOW, 16, size);
        }
    }
}

TEST(CpuWarp, EmptyPicturesAreLeftAlone) {
    for (const WarpVariant& variant : warp_variants) {
        for (const auto& [width, height] : {std::pair(0, 4), {16, 0}, {-16, 4}, {16, -2}}) {
            Matrix identity = CAMERA[0].matrix;
            variant.run(nullptr, nullptr, identity.data(), width, height);
        }
    }
}

TEST(CpuWarp, VariantsAgreeWithThePlainRoutine) {
    constexpr int WIDTH = 320;
    constexpr int HEIGHT = 180;
    constexpr std::size_t LUMA = std::size_t{WIDTH} * HEIGHT;
    for (const WarpVariant& variant : warp_variants) {
        const Bytes source = noise_picture(picture_bytes(variant.layout, WIDTH, HEIGHT), 3);
        for (const NamedMatrix& m : CAMERA) {
            SCOPED_TRACE(std::string(variant.name) + ", " + m.name);
            const Bytes plain = run(variant.plain, source, m.matrix, WIDTH, HEIGHT, 0).bytes;
            const Bytes actual = run(variant.run, source, m.matrix, WIDTH, HEIGHT, 0).bytes;
            int largest = 0;
            std::size_t other_chroma = 0;
            for (std::size_t i = 0; i < plain.size(); ++i) {
                if (i < LUMA) {
                    largest = std::max(largest, std::abs(plain[i] - actual[i]));
                } else {
                    other_chroma += plain[i] != actual[i] ? 1U : 0U;
                }
            }
            EXPECT_LE(largest, variant.luma_tolerance);
            // Only samples halfway between two may be taken from the other one.
            EXPECT_LE(other_chroma, variant.luma_tolerance == 0 ? 0 : (plain.size() - LUMA) / 500);
        }
    }
}

TEST(CpuWarp, IdentityKeepsThePicture) {
    constexpr int WIDTH = 48;
    constexpr int HEIGHT = 20;
    for (const WarpVariant& variant : warp_variants) {
        SCOPED_TRACE(variant.name);
        const int channels = variant.layout == Layout::FOUR_CHANNELS ? 4 : 1;
        const Bytes source = noise_picture(picture_bytes(variant.layout, WIDTH, HEIGHT), 5);
        const Bytes actual = run(variant.run, source, CAMERA[0].matrix, WIDTH, HEIGHT, 0).bytes;
        int wrong = 0;
        for (int i = 0; i < static_cast<int>(source.size()); ++i) {
            const int pixel = i / channels;
            const bool luma = pixel < WIDTH * HEIGHT;
            const bool last = pixel % WIDTH == WIDTH - 1 || pixel / WIDTH == HEIGHT - 1;
            const int lowered =
                source[static_cast<std::size_t>(i)] - actual[static_cast<std::size_t>(i)];
            wrong += lowered == 0 || (luma && last && lowered == 1) ? 0 : 1;
        }
        EXPECT_EQ(wrong, 0);
    }
}

// Luma column 0 shows source column 5.6: rounded and made even 6, or truncated and halved 2.
TEST(CpuWarp, ChromaComesFromTheStatedNeighbour) {
    constexpr int WIDTH = 32;
    constexpr int HEIGHT = 2;
    constexpr int LUMA = WIDTH * HEIGHT;
    for (const WarpVariant& variant : warp_variants) {
        if (variant.layout == Layout::FOUR_CHANNELS) {
            continue;
        }
        SCOPED_TRACE(variant.name);
        Bytes source(picture_bytes(variant.layout, WIDTH, HEIGHT));
        for (std::size_t i = LUMA; i < source.size(); ++i) {
            source[i] = static_cast<unsigned char>(i - LUMA);
        }
        const Bytes actual =
            run(variant.run, source, {1, 0, -5.6F, 0, 1, 0}, WIDTH, HEIGHT, 0).bytes;
        EXPECT_EQ(actual[LUMA], variant.layout == Layout::PLANAR ? 2 : 6);
        EXPECT_EQ(actual[LUMA + 1], variant.layout == Layout::PLANAR ? 3 : 7);
    }
}

// In a process of its own these are the first calls of all, at once and of four sizes.
TEST(CpuWarp, FirstCallsMayComeAtOnce) {
    const WarpVariant& variant = warp_variants[3];
    ASSERT_STREQ(variant.name, "warpAffine_neon");
    constexpr int THREADS = 4;
    std::atomic<int> waiting{THREADS};
    std::array<bool, THREADS> right{};
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            const int width = 32 + 16 * t;
            const int height = 20 - 2 * t;
            const Bytes source = noise_picture(picture_bytes(variant.layout, width, height), 9);
            const Matrix& matrix = CAMERA[3].matrix;
            const Bytes expected = expected_of(variant, source, matrix, width, height);
            --waiting;
            while (waiting > 0) {
            }
            right[static_cast<std::size_t>(t)] =
                run(variant.run, source, matrix, width, height, 0).bytes == expected;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const bool is_right : right) {
        EXPECT_TRUE(is_right);
    }
}

}  // namespace
}  // namespace videostabilizer
