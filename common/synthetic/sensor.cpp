// SPDX-License-Identifier: Apache-2.0

#include "common/synthetic/sensor.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/synthetic/deterministic.h"

namespace synthetic {

namespace {

constexpr double PI = 3.14159265358979323846;

constexpr int BLACK = 16;
constexpr double MIDDLE = 118;  // grey level about which the contrast changes
constexpr double VEIL = 190;    // grey level of the haze

// Of exposure and white balance: half of the change is a slow wave, half are steps.
constexpr double WAVE_SECONDS = 2.9;
constexpr double STEP_SECONDS = 1.3;

constexpr int NOISE_BITS = 16;  // size of the noise tables; each row starts at a random entry
constexpr std::size_t NOISE_MASK = (std::size_t{1} << NOISE_BITS) - 1;

constexpr int GAIN_BITS = 16;

// Approximately Gaussian: the sum of twelve uniform values has standard deviation 1.
double next_normal(Random& random) {
    double sum = -6;
    for (int i = 0; i < 12; ++i) {
        sum += random.unit();
    }
    return sum;
}

unsigned char to_byte(int value) {
    return static_cast<unsigned char>(std::clamp(value, 0, 255));
}

// Between -1 and 1.
double wave_and_steps(double seconds, std::uint64_t seed) {
    const auto step = static_cast<std::uint64_t>(std::max(0.0, seconds / STEP_SECONDS));
    Random random(mix(seed, step));
    return 0.5 * sin_turns(seconds / WAVE_SECONDS) + 0.5 * random.between(-1, 1);
}

// The 8 x 8 discrete cosine transform of a block, in rows and columns of this matrix.
struct Cosines {
    double at[8][8];
    Cosines() : at() {
        for (int k = 0; k < 8; ++k) {
            for (int i = 0; i < 8; ++i) {
                at[k][i] = (k == 0 ? std::sqrt(0.125) : 0.5) * cos_turns(k * (2 * i + 1) / 32.0);
            }
        }
    }
};

// to = m * from * transposed m, or with `back` the inverse.
void transform(const Cosines& m, const double (&from)[8][8], double (&to)[8][8], bool back) {
    const auto element = [&m, back](int i, int k) { return back ? m.at[k][i] : m.at[i][k]; };
    double half[8][8];
    for (int i = 0; i < 8; ++i) {
        for (int j = 0; j < 8; ++j) {
            double sum = 0;
            for (int k = 0; k < 8; ++k) {
                sum += element(i, k) * from[k][j];
            }
            half[i][j] = sum;
        }
    }
    for (int i = 0; i < 8; ++i) {
        for (int j = 0; j < 8; ++j) {
            double sum = 0;
            for (int k = 0; k < 8; ++k) {
                sum += half[i][k] * element(j, k);
            }
            to[i][j] = sum;
        }
    }
}

// Rounds the coefficients towards 0 by up to two thirds of a step, as encoders do.
void quantise(double (&block)[8][8], double step) {
    for (int i = 0; i < 8; ++i) {
        for (int j = 0; j < 8; ++j) {
            if (i + j == 0) {
                block[i][j] = step * std::floor(block[i][j] / step + 0.5);
                continue;
            }
            const double steps = std::floor(std::abs(block[i][j]) / step + 1.0 / 3);
            block[i][j] = block[i][j] < 0 ? -step * steps : step * steps;
        }
    }
}

// Blocks at the right and lower edge continue with the outermost samples.
void compress_plane(unsigned char* plane, std::ptrdiff_t stride, int width, int height,
                    double step) {
    static const Cosines cosines;
    double block[8][8];
    double coefficients[8][8];
    for (int y = 0; y < height; y += 8) {
        for (int x = 0; x < width; x += 8) {
            for (int i = 0; i < 8; ++i) {
                const unsigned char* row = plane + std::min(y + i, height - 1) * stride;
                for (int j = 0; j < 8; ++j) {
                    block[i][j] = row[std::min(x + j, width - 1)];
                }
            }
            transform(cosines, block, coefficients, false);
            quantise(coefficients, step);
            transform(cosines, coefficients, block, true);
            for (int i = 0; i < std::min(8, height - y); ++i) {
                for (int j = 0; j < std::min(8, width - x); ++j) {
                    plane[(y + i) * stride + x + j] =
                        to_byte(static_cast<int>(std::floor(block[i][j] + 0.5)));
                }
            }
        }
    }
}

}  // namespace

Sensor::Sensor(const SensorSettings& settings, const ShutterSettings& shutter,
               const CameraSettings& camera, double noise)
    : settings_(settings), shutter_(shutter), camera_(camera) {
    Random random(mix(camera.seed, 200));
    if (noise > 0) {
        noise_.resize(NOISE_MASK + 1);
        for (std::int8_t& value : noise_) {
            value = static_cast<std::int8_t>(
                std::clamp(std::floor(noise * next_normal(random) + 0.5), -127.0, 127.0));
        }
    }
    if (settings.shot_noise > 0) {
        normal_.resize(NOISE_MASK + 1);
        for (std::int16_t& value : normal_) {
            value = static_cast<std::int16_t>(std::floor(256 * next_normal(random) + 0.5));
        }
        for (int level = 0; level < 256; ++level) {
            // Black has some noise, too.
            const double light = std::max(level - BLACK, 2) / 219.0;
            shot_.push_back(
                static_cast<int>(std::floor(256 * settings.shot_noise * std::sqrt(light) + 0.5)));
        }
    }
}

// The lamps' light in the exposure around this time; its mean is 1.
double Sensor::lamp_light(double seconds) const {
    const double turns = settings_.lamp_hertz * shutter_.exposure / camera_.fps;
    const double left = turns > 0 ? sin_turns(0.5 * turns) / (PI * turns) : 1;
    return 1 + settings_.flicker * left * sin_turns(settings_.lamp_hertz * seconds);
}

// Of luma above black, for a line that is exposed `offset` frame intervals after the frame's middle.
// Exposure and white balance are the camera's, which changes them between frames only.
Sensor::Gain Sensor::gain_at(int frame, double offset) const {
    double light = settings_.brightness * lamp_light((frame + offset) / camera_.fps);
    if (settings_.exposure > 0) {
        light *=
            1 + settings_.exposure * wave_and_steps(frame / camera_.fps, mix(camera_.seed, 210));
    }
    const double contrast = settings_.contrast * (1 - settings_.haze);
    const double level = (1 - settings_.contrast) * (1 - settings_.haze) * (MIDDLE - BLACK) +
                         settings_.haze * (VEIL - BLACK);
    constexpr double ONE = 1 << GAIN_BITS;
    return {static_cast<int>(std::floor(ONE * light * contrast + 0.5)),
            static_cast<int>(std::floor(ONE * (BLACK + light * level) + 0.5))};
}

void Sensor::expose(int frame, const video_io::Planes& planes) const {
    const int width = camera_.width;
    const int height = camera_.height;
    // The lamps' light differs from line to line where these are read one after another.
    const int lines = std::abs(shutter_.readout) <= 0 || settings_.flicker <= 0 ? 1
                      : shutter_.by_columns                                     ? width
                                                                                : height;
    std::vector<Gain> gains;
    gains.reserve(static_cast<std::size_t>(lines));
    for (int i = 0; i < lines; ++i) {
        gains.push_back(gain_at(frame, lines > 1 ? shutter_.line_time(i, lines) : 0));
    }
    const double balance =
        settings_.white_balance > 0
            ? settings_.white_balance * wave_and_steps(frame / camera_.fps, mix(camera_.seed, 211))
            : 0;
    const int shift = static_cast<int>(std::floor(balance + 0.5));
    constexpr int ONE = 1 << GAIN_BITS;
    if (lines == 1 && gains[0].factor == ONE && gains[0].offset == BLACK * ONE && shift == 0) {
        return;  // as it is
    }
    const auto gain_of = [&](int x, int y) -> const Gain& {
        return gains[static_cast<std::size_t>(lines == 1 ? 0 : shutter_.by_columns ? x : y)];
    };
    constexpr int HALF = 1 << (GAIN_BITS - 1);
    for (int y = 0; y < height; ++y) {
        unsigned char* row = planes.y + y * planes.stride_y;
        for (int x = 0; x < width; ++x) {
            const Gain& gain = gain_of(x, y);
            row[x] = to_byte(((row[x] - BLACK) * gain.factor + gain.offset + HALF) >> GAIN_BITS);
        }
    }
    for (int y = 0; y < (height + 1) / 2; ++y) {
        for (int x = 0; x < (width + 1) / 2; ++x) {
            const Gain& gain = gain_of(2 * x, 2 * y);
            unsigned char& u = planes.u[y * planes.stride_uv + x];
            unsigned char& v = planes.v[y * planes.stride_uv + x];
            u = to_byte(128 + shift + (((u - 128) * gain.factor + HALF) >> GAIN_BITS));
            v = to_byte(128 - shift + (((v - 128) * gain.factor + HALF) >> GAIN_BITS));
        }
    }
}

void Sensor::read(int frame, const video_io::Planes& planes) const {
    if (noise_.empty() && normal_.empty()) {
        return;
    }
    for (int row = 0; row < camera_.height; ++row) {
        const auto start = static_cast<std::size_t>(
            mix(camera_.seed, static_cast<std::uint64_t>(frame), static_cast<std::uint64_t>(row)));
        unsigned char* out = planes.y + row * planes.stride_y;
        for (int column = 0; column < camera_.width; ++column) {
            const std::size_t entry = (start + static_cast<std::size_t>(column)) & NOISE_MASK;
            int value = out[column];
            if (!normal_.empty()) {
                value += (normal_[entry] * shot_[out[column]] + (1 << 15)) >> 16;
            }
            if (!noise_.empty()) {
                value += noise_[entry];
            }
            out[column] = to_byte(value);
        }
    }
}

void Sensor::compress(const video_io::Planes& planes) const {
    const int chroma_width = (camera_.width + 1) / 2;
    const int chroma_height = (camera_.height + 1) / 2;
    compress_plane(planes.y, planes.stride_y, camera_.width, camera_.height, settings_.compression);
    for (unsigned char* plane : {planes.u, planes.v}) {
        compress_plane(plane, planes.stride_uv, chroma_width, chroma_height, settings_.compression);
    }
}

}  // namespace synthetic
