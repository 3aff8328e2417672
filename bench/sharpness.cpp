// SPDX-License-Identifier: Apache-2.0

// sharpness: how good the pixels of each sampling are. A still picture is enlarged from its middle
// nine tenths, as every stabilised frame is, and compared with the same view of a picture of twice
// the resolution, which has the detail that the enlargement should show.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "common/synthetic/town.h"
#include "common/video_io/byte_io.h"
#include "common/video_io/output_file.h"
#include "common/video_io/y4m.h"
#include "native_warp/plane_warp.h"
#include "native_warp/stated_warp.h"

namespace {

using namespace videostabilizer;

constexpr double PI = 3.14159265358979323846;
constexpr double CROP = 0.9;
constexpr int BORDER = 8;  // samples that are not compared, since they depend on what lies outside

// Samples of any precision, row by row.
struct Plane {
    Plane(int columns, int rows)
        : width(columns),
          height(rows),
          samples(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows)) {}

    double& at(int x, int y) { return samples[index(x, y)]; }
    double at(int x, int y) const { return samples[index(x, y)]; }
    std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
               static_cast<std::size_t>(x);
    }

    int width;
    int height;
    std::vector<double> samples;
};

// 4:2:0 with centred chroma.
using Picture = std::vector<Plane>;  // Y, U, V

// The transform of a plane's samples from that of luma.
Affine2 of_plane(std::size_t number, const Affine2& luma) {
    WarpMap map;
    plane_map({{luma}}, number == 0 ? PlaneGrid{} : PlaneGrid{2, 2, 0.5, 0.5}, map);
    return map.transforms[0];
}

Plane rounded(Plane plane) {
    for (double& sample : plane.samples) {
        sample = std::clamp(std::nearbyint(sample), 0.0, 255.0);
    }
    return plane;
}

// The reference samplings, in double precision.

// A kernel is a function of the distance, which is not negative.
using Kernel = double (*)(double distance);
constexpr int RADIUS = 4;  // no kernel reaches farther

double lanczos3(double x) {
    if (x == 0) {
        return 1;
    }
    return x < 3 ? 3 * std::sin(PI * x) * std::sin(PI * x / 3) / (PI * PI * x * x) : 0;
}

// The two-parameter cubics: D. Mitchell, A. Netravali, "Reconstruction filters in computer graphics",
// SIGGRAPH 1988.
double cubic(double b, double c, double x) {
    if (x < 1) {
        return ((12 - 9 * b - 6 * c) * x * x * x + (-18 + 12 * b + 6 * c) * x * x + 6 - 2 * b) / 6;
    }
    return x < 2 ? ((-b - 6 * c) * x * x * x + (6 * b + 30 * c) * x * x + (-12 * b - 48 * c) * x +
                    8 * b + 24 * c) /
                       6
                 : 0;
}
double catmull_rom(double x) {
    return cubic(0, 0.5, x);
}
double mitchell(double x) {
    return cubic(1.0 / 3, 1.0 / 3, x);
}
double b_spline(double x) {
    return cubic(1, 0, x);
}

Plane transposed(const Plane& plane) {
    Plane result(plane.height, plane.width);
    for (int y = 0; y < plane.height; ++y) {
        for (int x = 0; x < plane.width; ++x) {
            result.at(y, x) = plane.at(x, y);
        }
    }
    return result;
}

// The weights of the samples around a position along one axis, for a kernel that is `stretch` times as
// wide.
struct Taps {
    Taps(double position, Kernel kernel, double stretch)
        : first(static_cast<int>(std::ceil(position - RADIUS * stretch))) {
        for (int i = first; i <= position + RADIUS * stretch; ++i, ++count) {
            weights[count] = kernel(std::abs(i - position) / stretch);
            sum += weights[count];
        }
    }

    int first;
    int count = 0;
    double weights[4 * RADIUS + 1] = {};  // for a stretch of 2
    double sum = 0;
};

// Outside, the plane continues with its nearest sample.
Plane resampled(const Plane& source, int width, int height, const Affine2& t, Kernel kernel,
                double stretch) {
    Plane result(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const Taps across(t.a * x + t.b * y + t.c, kernel, stretch);
            const Taps down(t.d * x + t.e * y + t.f, kernel, stretch);
            double value = 0;
            for (int k = 0; k < down.count; ++k) {
                const int row = std::clamp(down.first + k, 0, source.height - 1);
                double row_value = 0;
                for (int i = 0; i < across.count; ++i) {
                    const int column = std::clamp(across.first + i, 0, source.width - 1);
                    row_value += across.weights[i] * source.at(column, row);
                }
                value += down.weights[k] * row_value;
            }
            result.at(x, y) = value / (across.sum * down.sum);
        }
    }
    return result;
}

// Turns rows into the coefficients of the cubic B-spline that passes through their samples, mirrored
// at the ends: M. Unser, "Splines: a perfect fit for signal and image processing", 1999.
Plane spline_coefficients_across(Plane plane) {
    const double pole = std::sqrt(3.0) - 2;
    const int last = plane.width - 1;
    for (int y = 0; y < plane.height; ++y) {
        double power = 1;
        double start = 0;
        for (int x = 0; x <= std::min(last, 60); ++x, power *= pole) {
            start += power * plane.at(x, y);
        }
        plane.at(0, y) = start;
        for (int x = 1; x <= last; ++x) {
            plane.at(x, y) += pole * plane.at(x - 1, y);
        }
        plane.at(last, y) =
            pole / (pole * pole - 1) * (plane.at(last, y) + pole * plane.at(last - 1, y));
        for (int x = last - 1; x >= 0; --x) {
            plane.at(x, y) = pole * (plane.at(x + 1, y) - plane.at(x, y));
        }
        for (int x = 0; x <= last; ++x) {
            plane.at(x, y) *= 6;
        }
    }
    return plane;
}
Plane spline_coefficients(const Plane& plane) {
    return transposed(spline_coefficients_across(transposed(spline_coefficients_across(plane))));
}

Picture warped_by(Kernel kernel, bool through_samples, const Picture& source,
                  const Affine2& transform) {
    Picture result;
    for (std::size_t p = 0; p < source.size(); ++p) {
        const Plane& plane = source[p];
        result.push_back(
            rounded(resampled(through_samples ? spline_coefficients(plane) : plane, plane.width,
                              plane.height, of_plane(p, transform), kernel, 1)));
    }
    return result;
}

// The library's own.

std::vector<unsigned char> bytes_of(const Plane& plane) {
    std::vector<unsigned char> bytes(plane.samples.size());
    std::transform(plane.samples.begin(), plane.samples.end(), bytes.begin(),
                   [](double sample) { return static_cast<unsigned char>(sample); });
    return bytes;
}

// Warps each plane with warp(shape, number, source, target).
template <typename Warp>
Picture warped_with(const Picture& source, Warp warp) {
    Picture result;
    for (const Plane& plane : source) {
        const std::vector<unsigned char> from = bytes_of(plane);
        std::vector<unsigned char> to(from.size());
        const PlaneShape shape{plane.width, plane.height, {}};
        warp(shape, result.size(), SourcePlane{from.data(), plane.width},
             TargetPlane{to.data(), plane.width});
        Plane& out = result.emplace_back(plane.width, plane.height);
        std::copy(to.begin(), to.end(), out.samples.begin());
    }
    return result;
}

Picture warped(Resampling resampling, const Picture& source, const Affine2& transform) {
    return warped_with(source, [&](const PlaneShape& shape, std::size_t number,
                                   const SourcePlane& from, const TargetPlane& to) {
        ResamplingKernels kernels(resampling);
        PlaneWarp warp;
        warp.prepare(shape, {{of_plane(number, transform)}}, kernels);
        WarpScratch scratch;
        warp.warp_rows(fastest_variant(warp_variants), from, to, 0, shape.height, scratch);
    });
}

Picture stated(const Picture& source, const Affine2& transform) {
    const double elements[] = {transform.a, transform.b, transform.c,
                               transform.d, transform.e, transform.f};
    float wp[6];
    std::transform(std::begin(elements), std::end(elements), wp,
                   [](double element) { return static_cast<float>(element); });
    return warped_with(source, [&](const PlaneShape& shape, std::size_t number,
                                   const SourcePlane& from, const TargetPlane& to) {
        if (number == 0) {
            stated_luma_rows(shape, wp, from, to, 0, shape.height);
        } else {
            stated_chroma_rows(shape, {2, 2, 0, 0}, wp, from, to, 0, shape.height);
        }
    });
}

// Measures.

// Calls what(index) for all samples but the border.
template <typename What>
double mean_inside(const Plane& plane, What what) {
    double sum = 0;
    for (int y = BORDER; y < plane.height - BORDER; ++y) {
        for (int x = BORDER; x < plane.width - BORDER; ++x) {
            sum += what(plane.index(x, y));
        }
    }
    return sum / ((plane.width - 2.0 * BORDER) * (plane.height - 2.0 * BORDER));
}

double psnr(const Plane& actual, const Plane& reference) {
    const double mean = mean_inside(actual, [&](std::size_t i) {
        const double error = actual.samples[i] - reference.samples[i];
        return error * error;
    });
    return 10 * std::log10(255 * 255 / mean);
}

// The root mean square of what a Gaussian filter with a standard deviation of one sample takes away.
double fine_detail(const Plane& plane) {
    const Kernel gauss = [](double x) { return std::exp(-0.5 * x * x); };
    const Plane smooth = resampled(plane, plane.width, plane.height, {}, gauss, 1);
    return std::sqrt(mean_inside(plane, [&](std::size_t i) {
        const double detail = plane.samples[i] - smooth.samples[i];
        return detail * detail;
    }));
}

using Warp = std::function<Picture(const Picture& source, const Affine2& transform)>;

// The middle nine tenths of a picture, turned.
Affine2 view_of(const Plane& luma, double degrees) {
    const double c = CROP * std::cos(degrees * PI / 180);
    const double s = CROP * std::sin(degrees * PI / 180);
    const double x = 0.5 * (luma.width - 1);
    const double y = 0.5 * (luma.height - 1);
    return {c, -s, x - c * x + s * y, s, c, y - s * x - c * y};
}

// How far the enlarged picture of steps goes beyond them, in percent of the step. The steps are far
// from each other and at many places between the output's samples.
double overshoot(const Warp& warp) {
    constexpr double LOW = 60;
    constexpr double HIGH = 180;
    double most = 0;
    for (const bool upright : {true, false}) {
        Plane steps(256, 256);
        for (int y = 0; y < 256; ++y) {
            for (int x = 0; x < 256; ++x) {
                steps.at(x, y) = (upright ? x : y) / 16 % 2 == 0 ? LOW : HIGH;
            }
        }
        const Picture enlarged = warp({steps}, view_of(steps, 0));
        for (const double sample : enlarged[0].samples) {
            most = std::max({most, sample - HIGH, LOW - sample});
        }
    }
    return 100 * most / (HIGH - LOW);
}

// Input.

Picture read_picture(const std::string& path, int skip) {
    video_io::FdSource file(path);
    video_io::Y4mReader reader(file);
    const video_io::Y4mHeader& header = reader.header();
    std::vector<unsigned char> pixels(static_cast<std::size_t>(header.frame_bytes()));
    const std::ptrdiff_t luma = std::ptrdiff_t{header.width} * header.height;
    const std::ptrdiff_t chroma = std::ptrdiff_t{header.chroma_width()} * header.chroma_height();
    unsigned char* const y = pixels.data();
    for (int i = 0; i <= skip; ++i) {
        if (!reader.read_frame(
                {y, y + luma, y + luma + chroma, header.width, header.chroma_width()})) {
            throw video_io::InputError(path + " has no frame " + std::to_string(skip));
        }
    }
    Picture picture;
    const unsigned char* from = y;
    for (int p = 0; p < 3; ++p) {
        Plane& plane = p == 0 ? picture.emplace_back(header.width, header.height)
                              : picture.emplace_back(header.chroma_width(), header.chroma_height());
        std::copy_n(from, plane.samples.size(), plane.samples.begin());
        from += plane.samples.size();
    }
    return picture;
}

Picture painted_picture(int width, int height) {
    const synthetic::Painting town = synthetic::paint_town(width, height, height / 270.0, 1);
    Picture picture = {{width, height}, {width / 2, height / 2}, {width / 2, height / 2}};
    std::copy(town.y.begin(), town.y.end(), picture[0].samples.begin());
    std::copy(town.u.begin(), town.u.end(), picture[1].samples.begin());
    std::copy(town.v.begin(), town.v.end(), picture[2].samples.begin());
    return picture;
}

// The middle of the picture, with sizes that can be halved twice.
Picture trimmed(const Picture& picture) {
    Picture result;
    for (const Plane& plane : picture) {
        const int unit = result.empty() ? 4 : 2;
        const int width = picture[0].width / 4 * 4 / (4 / unit);
        const int height = picture[0].height / 4 * 4 / (4 / unit);
        Plane& out = result.emplace_back(width, height);
        for (int y = 0; y < height; ++y) {
            std::copy_n(&plane.samples[plane.index(0, y)], width, &out.at(0, y));
        }
    }
    return result;
}

struct Row {
    const char* name;
    Warp warp;
};

Row library_row(const char* name, Resampling resampling) {
    return {name, [resampling](const Picture& source, const Affine2& transform) {
                return warped(resampling, source, transform);
            }};
}
Row reference_row(const char* name, Kernel kernel, bool through_samples = false) {
    return {name, [kernel, through_samples](const Picture& source, const Affine2& transform) {
                return warped_by(kernel, through_samples, source, transform);
            }};
}

void measure(const Picture& large, double degrees, video_io::Y4mWriter* writer) {
    // Halves of the large picture, and the view that the warps should give: sample (x, y) of a half is
    // at (2 x + 0.5, 2 y + 0.5) of the large plane, of luma and of centred chroma alike.
    const Affine2 halves = {2, 0, 0.5, 0, 2, 0.5};
    const Affine2 view = view_of(Plane(large[0].width / 2, large[0].height / 2), degrees);
    Picture source;
    Picture ideal;
    for (std::size_t p = 0; p < large.size(); ++p) {
        const Affine2 t = of_plane(p, view);
        const Affine2 in_large = {2 * t.a, 2 * t.b, 2 * t.c + 0.5, 2 * t.d, 2 * t.e, 2 * t.f + 0.5};
        const int width = large[p].width / 2;
        const int height = large[p].height / 2;
        source.push_back(rounded(resampled(large[p], width, height, halves, lanczos3, 2)));
        ideal.push_back(resampled(large[p], width, height, in_large, lanczos3, 2 * CROP));
    }
    const auto write = [&](const Picture& picture) {
        if (writer != nullptr) {
            std::vector<unsigned char> planes[3];
            std::transform(picture.begin(), picture.end(), planes, bytes_of);
            writer->write_frame({planes[0].data(), planes[1].data(), planes[2].data(),
                                 picture[0].width, picture[1].width});
        }
    };
    std::printf("%d x %d\n%-16s%10s%12s%14s%12s\n", source[0].width, source[0].height, "",
                "luma dB", "chroma dB", "fine detail", "overshoot");
    Picture rounded_ideal;
    std::transform(ideal.begin(), ideal.end(), std::back_inserter(rounded_ideal), rounded);
    write(rounded_ideal);
    const double detail = fine_detail(ideal[0]);
    const Row rows[] = {
        {"stated", stated},
        library_row("bilinear", Resampling::BILINEAR),
        library_row("sharp", Resampling::LANCZOS3),
        reference_row("(Mitchell)", mitchell),
        reference_row("(Catmull-Rom)", catmull_rom),
        reference_row("(cubic spline)", b_spline, true),
        reference_row("(Lanczos-3)", lanczos3),
    };
    for (const Row& row : rows) {
        const Picture out = row.warp(source, view);
        write(out);
        std::printf("%-16s%10.2f%12.2f%12.1f %%%10.1f %%\n", row.name, psnr(out[0], ideal[0]),
                    std::min(psnr(out[1], ideal[1]), psnr(out[2], ideal[2])),
                    100 * fine_detail(out[0]) / detail, overshoot(row.warp));
    }
    const Picture same = warped(Resampling::LANCZOS3, source, {});
    std::size_t changed = 0;
    for (std::size_t p = 0; p < same.size(); ++p) {
        for (std::size_t i = 0; i < same[p].samples.size(); ++i) {
            changed += same[p].samples[i] != source[p].samples[i] ? 1U : 0U;
        }
    }
    std::printf("sharp, nothing moved: %zu samples changed\n", changed);
}

// Returns the exit status.
int run(int argc, char** argv) {
    std::string input;
    std::string output;
    int frame = 0;
    double degrees = 0;
    CLI::App app{
        "Measures how good the pixels of each sampling are: a still picture, enlarged from its "
        "middle\nnine tenths, against the same view of a picture of twice the resolution. In "
        "brackets:\nreferences in double precision."};
    app.add_option("--input", input,
                   "YUV4MPEG2 file, 8-bit 4:2:0, with the picture of twice the resolution; - for\n"
                   "standard input. Without it, a town of 1920x1080 is painted");
    app.add_option("--frame", frame, "Frame of the input, from 0")->check(CLI::Range(0, 1000000));
    app.add_option("--turn", degrees, "Degrees by which the view is turned")
        ->check(CLI::Range(-45.0, 45.0));
    app.add_option("--output", output,
                   "YUV4MPEG2 file to write: the reference, and a frame for each row of the table");
    CLI11_PARSE(app, argc, argv);
    const Picture large =
        trimmed(input.empty() ? painted_picture(1920, 1080) : read_picture(input, frame));
    if (large[0].width < 128 || large[0].height < 128) {
        throw video_io::InputError("The picture is smaller than 128 x 128");
    }
    if (output.empty()) {
        measure(large, degrees, nullptr);
        return 0;
    }
    video_io::OutputFile file(output);
    video_io::Y4mWriter writer(
        file.sink(), video_io::make_y4m_header(large[0].width / 2, large[0].height / 2, "1:1"));
    measure(large, degrees, &writer);
    file.commit();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sharpness: %s\n", error.what());
        return 1;
    }
}
