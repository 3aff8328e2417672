// SPDX-License-Identifier: Apache-2.0

#include "common/synthetic/town.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/synthetic/deterministic.h"

namespace synthetic {

namespace {

struct Colour {
    int y, u, v;
};

// BT.601 in video range, from 8-bit red, green and blue.
constexpr Colour rgb(int r, int g, int b) {
    return {16 + (66 * r + 129 * g + 25 * b + 128) / 256,
            128 + (-38 * r - 74 * g + 112 * b + 128) / 256,
            128 + (112 * r - 94 * g - 18 * b + 128) / 256};
}

constexpr Colour WALLS[] = {
    rgb(236, 226, 202), rgb(226, 188, 146), rgb(214, 148, 116), rgb(240, 214, 132),
    rgb(182, 202, 190), rgb(168, 192, 216), rgb(232, 196, 190), rgb(206, 204, 200),
    rgb(188, 110, 84),  rgb(150, 168, 128),
};
constexpr Colour ROOFS[] = {rgb(150, 70, 48), rgb(120, 56, 44), rgb(92, 82, 80), rgb(168, 96, 60)};
constexpr Colour PANES[] = {rgb(38, 44, 58), rgb(52, 60, 66), rgb(30, 30, 36), rgb(70, 84, 96)};
constexpr Colour SHUTTERS[] = {rgb(62, 104, 84), rgb(70, 92, 140), rgb(126, 60, 50)};
constexpr Colour WINDOW_FRAME = rgb(244, 242, 234);
constexpr Colour DOOR = rgb(88, 54, 38);
constexpr Colour MEADOW = rgb(104, 128, 70);
constexpr Colour TREE = rgb(58, 84, 46);
constexpr Colour TREE_LIGHT = rgb(112, 138, 72);

constexpr double ROW_UNITS = 36;      // between rows of houses
constexpr double TALLEST_UNITS = 95;  // of a house with its chimney

std::uint8_t to_byte(int value) {
    return static_cast<std::uint8_t>(std::clamp(value, 0, 255));
}

// Full-resolution canvas; coordinates in units.
class Canvas {
  public:
    Canvas(int width, int height, double unit)
        : width_(width),
          height_(height),
          unit_(unit),
          pixels_(static_cast<std::size_t>(width) * static_cast<std::size_t>(height)) {}

    int width() const { return width_; }
    int height() const { return height_; }
    double unit() const { return unit_; }

    Colour& at(int x, int y) {
        return pixels_[static_cast<std::size_t>(std::ptrdiff_t{y} * width_ + x)];
    }

    // Fills a trapezoid between the rows `top` (left0 to right0) and `bottom` (left1 to right1).
    void fill(double top, double bottom, double left0, double right0, double left1, double right1,
              Colour colour) {
        for (int y = pixel(top, height_); y < pixel(bottom, height_); ++y) {
            const double s = ((y + 0.5) / unit_ - top) / (bottom - top);
            const int end = pixel(right0 + s * (right1 - right0), width_);
            for (int x = pixel(left0 + s * (left1 - left0), width_); x < end; ++x) {
                at(x, y) = colour;
            }
        }
    }
    void rectangle(double x, double y, double width, double height, Colour colour) {
        fill(y, y + height, x, x + width, x, x + width, colour);
    }
    void disc(double x, double y, double radius, Colour colour) {
        for (int row = pixel(y - radius, height_); row < pixel(y + radius, height_); ++row) {
            const double dy = (row + 0.5) / unit_ - y;
            const double half = std::sqrt(std::max(0.0, radius * radius - dy * dy));
            for (int column = pixel(x - half, width_); column < pixel(x + half, width_); ++column) {
                at(column, row) = colour;
            }
        }
    }

  private:
    // First pixel whose centre is at or behind the position, clamped to the canvas.
    int pixel(double units, int limit) const {
        return static_cast<int>(
            std::clamp(std::ceil(units * unit_ - 0.5), 0.0, static_cast<double>(limit)));
    }

    int width_;
    int height_;
    double unit_;
    std::vector<Colour> pixels_;
};

Colour lighter(Colour colour, int by) {
    return {colour.y + by, colour.u, colour.v};
}

template <std::size_t N>
Colour any_of(const Colour (&colours)[N], Random& random) {
    return colours[random.below(static_cast<int>(N))];
}

void paint_window(Canvas& canvas, double x, double y, double width, double height, bool shutters,
                  Colour shutter, Random& random) {
    canvas.rectangle(x - 1.2, y - 1.2, width + 2.4, height + 2.4, WINDOW_FRAME);
    canvas.rectangle(x, y, width, height, any_of(PANES, random));
    if (shutters) {
        canvas.rectangle(x - 4.2, y - 0.5, 3, height + 1, shutter);
        canvas.rectangle(x + width + 1.2, y - 0.5, 3, height + 1, shutter);
    }
}

// A house that stands on row `base`.
void paint_house(Canvas& canvas, double x, double base, double width, Random& random) {
    const double body = random.between(34, 62);
    const double gable = random.between(12, 22);
    const double top = base - body;
    const int weathering = random.below(31) - 20;
    const Colour wall = lighter(any_of(WALLS, random), weathering);
    const Colour roof = any_of(ROOFS, random);

    canvas.rectangle(x, top, width, body, wall);
    canvas.rectangle(x + width - 4, top, 4, body, lighter(wall, -38));  // shaded side
    const double ridge = random.between(0.3, 0.7) * width;
    const double flat = random.below(2) == 0 ? 0 : 0.15 * width;
    canvas.fill(top - gable, top + 2, x + ridge - flat, x + ridge + flat, x - 3, x + width + 3,
                roof);
    canvas.rectangle(x, top + 2, width, 2, lighter(wall, -60));  // shadow of the eaves
    if (random.below(3) != 0) {
        const double chimney = x + ridge + random.between(4, 8);
        canvas.rectangle(chimney, top - gable - 2, 6, 12, lighter(wall, -30));
        canvas.rectangle(chimney - 1, top - gable - 4, 8, 3, lighter(roof, -30));
    }

    const bool shutters = random.below(2) == 0;
    const Colour shutter = any_of(SHUTTERS, random);
    const double pane_width = random.between(6.5, 9);
    const double pane_height = random.between(8, 11);
    const double pitch = pane_width + (shutters ? 12 : random.between(6, 9));
    const int columns = static_cast<int>((width - 10) / pitch);
    const double first = x + 0.5 * (width - 4 - columns * pitch + pitch - pane_width);
    for (double y = top + 9; y + pane_height < base - 4; y += pane_height + random.between(6, 8)) {
        for (int column = 0; column < columns; ++column) {
            if (random.below(9) == 0) {
                continue;
            }
            paint_window(canvas, first + column * pitch, y, pane_width, pane_height, shutters,
                         shutter, random);
        }
    }
    if (random.below(2) == 0) {
        canvas.rectangle(x + random.between(4, width - 14), base - 14, 8, 14, DOOR);
    }
}

void paint_tree(Canvas& canvas, double x, double base, Random& random) {
    const double size = random.between(6, 12);
    canvas.rectangle(x - 1, base - 4, 2.5, 6, DOOR);
    for (int clump = 0; clump < 9; ++clump) {
        const double dx = random.between(-0.8, 0.8) * size;
        const double dy = random.between(-1.2, 0.2) * size;
        const Colour green =
            random.below(3) == 0 ? TREE_LIGHT : lighter(TREE, random.below(25) - 12);
        canvas.disc(x + dx, base - size + dy, random.between(0.25, 0.5) * size, green);
    }
}

void paint_row(Canvas& canvas, double base, Random& random) {
    const double end = canvas.width() / canvas.unit();
    for (double x = random.between(-60, -20); x < end;) {
        const double width = random.between(32, 66);
        paint_house(canvas, x, base + random.between(-9, 9), width, random);
        x += width + random.between(2, 16);
        if (random.below(3) == 0) {
            paint_tree(canvas, x - 4, base + 6, random);
        }
    }
}

// Adds value noise to the luma: random values on a lattice, interpolated smoothly.
void add_noise(Canvas& canvas, double period_pixels, double amplitude, std::uint64_t seed) {
    const auto lattice = [seed](int x, int y) {
        const auto cell = mix(seed, static_cast<std::uint64_t>(x), static_cast<std::uint64_t>(y));
        return static_cast<double>(cell >> 11U) * 0x1p-52 - 1;
    };
    const int cells = static_cast<int>(canvas.width() / period_pixels) + 2;
    std::vector<double> column(static_cast<std::size_t>(cells));
    for (int y = 0; y < canvas.height(); ++y) {
        const double row = y / period_pixels;
        const int row0 = static_cast<int>(row);
        const double t = row - row0;
        const double blend = t * t * (3 - 2 * t);
        for (int cell = 0; cell < cells; ++cell) {
            const double above = lattice(cell, row0);
            column[static_cast<std::size_t>(cell)] =
                above + blend * (lattice(cell, row0 + 1) - above);
        }
        for (int x = 0; x < canvas.width(); ++x) {
            const double position = x / period_pixels;
            const auto cell = static_cast<std::size_t>(position);
            const double s = position - static_cast<double>(cell);
            const double left = column[cell];
            const double value = left + s * s * (3 - 2 * s) * (column[cell + 1] - left);
            canvas.at(x, y).y += static_cast<int>(std::floor(amplitude * value + 0.5));
        }
    }
}

// Softens the luma as a lens would (binomial 3 x 3) and halves the chroma.
Painting finish(Canvas& canvas) {
    Painting painting;
    painting.width = canvas.width();
    painting.height = canvas.height();
    painting.y.reserve(static_cast<std::size_t>(std::ptrdiff_t{canvas.width()} * canvas.height()));
    std::vector<int> sums(static_cast<std::size_t>(canvas.width()));
    for (int y = 0; y < canvas.height(); ++y) {
        const int above = std::max(y - 1, 0);
        const int below = std::min(y + 1, canvas.height() - 1);
        for (int x = 0; x < canvas.width(); ++x) {
            sums[static_cast<std::size_t>(x)] =
                canvas.at(x, above).y + 2 * canvas.at(x, y).y + canvas.at(x, below).y;
        }
        for (int x = 0; x < canvas.width(); ++x) {
            const int left = sums[static_cast<std::size_t>(std::max(x - 1, 0))];
            const int right = sums[static_cast<std::size_t>(std::min(x + 1, canvas.width() - 1))];
            painting.y.push_back(
                to_byte((left + 2 * sums[static_cast<std::size_t>(x)] + right + 8) / 16));
        }
    }
    for (int y = 0; y < canvas.height(); y += 2) {
        for (int x = 0; x < canvas.width(); x += 2) {
            const Colour& a = canvas.at(x, y);
            const Colour& b = canvas.at(x + 1, y);
            const Colour& c = canvas.at(x, y + 1);
            const Colour& d = canvas.at(x + 1, y + 1);
            painting.u.push_back(to_byte((a.u + b.u + c.u + d.u + 2) / 4));
            painting.v.push_back(to_byte((a.v + b.v + c.v + d.v + 2) / 4));
        }
    }
    return painting;
}

}  // namespace

Painting paint_town(int width, int height, double unit, std::uint64_t seed) {
    Canvas canvas(width, height, unit);
    canvas.rectangle(0, 0, width / unit, height / unit, MEADOW);
    Random random(mix(seed, 100));
    // From back to front, until the last row stands below the lower edge.
    const int rows = static_cast<int>((height / unit + TALLEST_UNITS) / ROW_UNITS) + 1;
    for (int row = 0; row < rows; ++row) {
        paint_row(canvas, row * ROW_UNITS, random);
    }
    add_noise(canvas, 150 * unit, 22, mix(seed, 101));  // cloud shadows
    add_noise(canvas, 40 * unit, 10, mix(seed, 102));
    add_noise(canvas, 9 * unit, 7, mix(seed, 103));
    add_noise(canvas, 2.2 * unit, 7, mix(seed, 104));  // plaster and leaves
    add_noise(canvas, 1.9, 4, mix(seed, 105));         // finest detail
    return finish(canvas);
}

Painting paint_walls(int width, int height, double unit, std::uint64_t seed) {
    constexpr Colour WALL = rgb(150, 142, 130);
    Canvas canvas(width, height, unit);
    canvas.rectangle(0, 0, width / unit, height / unit, WALL);
    Random random(mix(seed, 110));
    // Doors, pictures, corners: some 100 units apart.
    constexpr double APART = 100;
    const int columns = static_cast<int>(width / unit / APART) + 1;
    const int rows = static_cast<int>(height / unit / APART) + 1;
    for (int i = 0; i < columns * rows; ++i) {
        const int row = i / columns;
        const double x = (i - row * columns) * APART + random.between(-30, 30);
        const double y = row * APART + random.between(-30, 30);
        const double panel_width = random.between(15, 70);
        const double panel_height = random.between(15, 70);
        canvas.rectangle(x, y, panel_width, panel_height, lighter(WALL, random.below(17) - 8));
    }
    add_noise(canvas, 220 * unit, 30, mix(seed, 111));
    add_noise(canvas, 60 * unit, 8, mix(seed, 112));
    add_noise(canvas, 14 * unit, 2, mix(seed, 113));
    return finish(canvas);
}

Painting paint_paper(int width, int height, double unit, std::uint64_t seed) {
    Canvas canvas(width, height, unit);
    canvas.rectangle(0, 0, width / unit, height / unit, rgb(150, 150, 148));
    canvas.disc(0.5 * width / unit, 0.5 * height / unit, 14, rgb(40, 40, 44));
    add_noise(canvas, 300 * unit, 6, mix(seed, 120));  // shading
    add_noise(canvas, 3 * unit, 0.7, mix(seed, 121));  // fibres
    return finish(canvas);
}

}  // namespace synthetic
