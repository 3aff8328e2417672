#include "tests/cpu_warp/reference_warp.h"

#include <algorithm>
#include <cmath>

namespace {

struct Inverse {
    explicit Inverse(const float* m) {
        const float det = m[0] * m[4] - m[1] * m[3];
        const float inv = det == 0.0F ? 0.0F : 1.0F / det;
        wp[0] = m[4] * inv;
        wp[1] = -m[1] * inv;
        wp[3] = -m[3] * inv;
        wp[4] = m[0] * inv;
        wp[2] = -(m[5] * wp[1]) - m[2] * wp[0];
        wp[5] = -(m[5] * wp[4]) - m[2] * wp[3];
    }
    // Coordinate 0 (x) or 1 (y) of the source position; `extra` is added to the offset.
    float map(int coordinate, Order order, int x, int y, float extra) const {
        const float* const row = wp + 3 * coordinate;
        const float column_term = row[0] * static_cast<float>(x);
        const float row_term = row[1] * static_cast<float>(y);
        return order == Order::ROW_FIRST ? row[2] + (row_term + column_term)
                                         : ((row[2] + extra) + row_term) + column_term;
    }
    float wp[6];
};

// One plane, or one channel of it.
struct Plane {
    const unsigned char* first;
    int width;
    int height;
    int channels;
    int at(int x, int y) const {  // neighbours that do not exist have no weight
        x = std::min(x, width - 1);
        y = std::min(y, height - 1);
        return first[(static_cast<std::ptrdiff_t>(y) * width + x) * channels];
    }
};

float clamp_for_sampling(float position, int size) {
    if (std::isnan(position) || position < 0.0F) {
        position = 0.0F;
    }
    if (position >= static_cast<float>(size) - 1.0F) {
        position = static_cast<float>(size) - 1.001F;
    }
    return position;
}

int sample(const Plane& plane, float xs, float ys) {
    xs = clamp_for_sampling(xs, plane.width);
    ys = clamp_for_sampling(ys, plane.height);
    const int xi = static_cast<int>(xs);
    const int yi = static_cast<int>(ys);
    const float fx = xs - static_cast<float>(xi);
    const float fy = ys - static_cast<float>(yi);
    const int p00 = plane.at(xi, yi);
    const int p10 = plane.at(xi, yi + 1);
    const float top = static_cast<float>(p00) + fx * static_cast<float>(plane.at(xi + 1, yi) - p00);
    const float bottom =
        static_cast<float>(p10) + fx * static_cast<float>(plane.at(xi + 1, yi + 1) - p10);
    return std::clamp(static_cast<int>(top + fy * (bottom - top)), 0, 255);
}

// The luma column or row that chroma is taken from, made a chroma one.
int chroma_position(float position, int size, Layout layout, Order order) {
    int whole = 0;
    if (std::isnan(position) || position < 0.0F) {
        whole = 0;
    } else if (order == Order::OFFSET_FIRST) {  // rounding is in the position
        whole = static_cast<int>(std::min(position, static_cast<float>(size) - 1.0F));
    } else if (position >= static_cast<float>(size) - 1.0F) {
        whole = size - 1;
    } else {
        whole = static_cast<int>(layout == Layout::PLANAR ? position : position + 0.5F);
    }
    return std::min(whole / 2, size / 2 - 1);
}

}  // namespace

void reference_warp(Layout layout, Order order, const std::vector<unsigned char>& source,
                    std::vector<unsigned char>& destination, const float* matrix, int width,
                    int height) {
    const Inverse inverse(matrix);
    const int channels = layout == Layout::FOUR_CHANNELS ? 4 : 1;
    const std::ptrdiff_t luma = static_cast<std::ptrdiff_t>(width) * height;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float xs = inverse.map(0, order, x, y, 0.0F);
            const float ys = inverse.map(1, order, x, y, 0.0F);
            for (int c = 0; c < channels; ++c) {
                const Plane plane = {source.data() + c, width, height, channels};
                const std::ptrdiff_t to =
                    (static_cast<std::ptrdiff_t>(y) * width + x) * channels + c;
                destination[static_cast<std::size_t>(to)] =
                    static_cast<unsigned char>(sample(plane, xs, ys));
            }
            const bool has_chroma = x % 2 == 0 && y % 2 == 0 && x + 1 < width && y + 1 < height;
            if (!has_chroma || layout == Layout::FOUR_CHANNELS) {
                continue;
            }
            const int sx = chroma_position(inverse.map(0, order, x, y, 0.5F), width, layout, order);
            const int sy =
                chroma_position(inverse.map(1, order, x, y, 0.5F), height, layout, order);
            const bool planar = layout == Layout::PLANAR;
            const std::ptrdiff_t row_bytes = planar ? width / 2 : width;
            const std::ptrdiff_t step = planar ? 1 : 2;
            for (const std::ptrdiff_t plane : {luma, luma + (planar ? luma / 4 : 1)}) {
                destination[static_cast<std::size_t>(plane + row_bytes * (y / 2) +
                                                     step * (x / 2))] =
                    source[static_cast<std::size_t>(plane + row_bytes * sy + step * sx)];
            }
        }
    }
}
