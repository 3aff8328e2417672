// SPDX-License-Identifier: Apache-2.0

// The matrix library: any shapes, steps and overlaps that its headers allow. Products and solutions
// are compared with sums in double by their definitions; with values of any bits only memory and
// arithmetic are checked.

#include <algorithm>
#include <cmath>

#include "fuzz/fuzz_input.h"
#include "videostabilizer/gemm.h"
#include "videostabilizer/lu.h"
#include "videostabilizer/mat.h"

using SimpleLA::Mat;

namespace {

constexpr int MOST_PRODUCTS = 1 << 19;  // of elements in one call, except for these shapes
// Rows, inner dimension and columns of products: long dot products, wide rows also in pieces, and
// blocks with a remainder that is joined to the last one or not, in all directions.
constexpr int SHAPES[][3] = {{6, 203, 1},    {5, 403, 9},     {3, 9, 450},     {2, 5, 1203},
                             {143, 30, 200}, {144, 300, 145}, {129, 140, 137}, {70, 10001, 1}};

int dimension(fuzz::Input& input) {
    const int kind = input.byte();
    return kind < 200 ? kind % 13 : input.in_range(0, kind < 248 ? 80 : 300);
}

// A matrix in a heap block that ends with the gap behind its last row.
struct Block {
    Block(int rows, int cols, int gap)
        : memory(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols + gap)),
          view(rows, cols, memory.data(), (cols + gap) * static_cast<int>(sizeof(float))) {}

    std::vector<float> memory;
    Mat<float> view;
};

// The values of a matrix in double: a copy, or made by a function.
struct Grid {
    Grid() = default;
    template <typename Function>
    Grid(int row_count, int col_count, Function value) : rows(row_count), cols(col_count) {
        values.reserve(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols));
        for (int i = 0; i < rows; ++i) {
            for (int j = 0; j < cols; ++j) {
                values.push_back(value(i, j));
            }
        }
    }
    explicit Grid(const Mat<float>& m, double scale = 1.0)
        : Grid(m.rows, m.cols,
               [&](int i, int j) { return scale * static_cast<double>(m.at(i, j)); }) {}
    double at(int i, int j) const {
        const int index = i * cols + j;
        return values[static_cast<std::size_t>(index)];
    }
    Grid transposed(bool really = true) const {
        return really ? Grid(cols, rows, [this](int i, int j) { return at(j, i); }) : *this;
    }

    int rows = 0;
    int cols = 0;
    std::vector<double> values;
};

// a b over the inner dimension that both have.
Grid product(const Grid& a, const Grid& b) {
    return Grid(a.rows, b.cols, [&](int i, int j) {
        double sum = 0.0;
        for (int k = 0; k < std::min(a.cols, b.rows); ++k) {
            sum += a.at(i, k) * b.at(k, j);
        }
        return sum;
    });
}

Grid magnitudes(Grid m) {
    std::transform(m.values.begin(), m.values.end(), m.values.begin(),
                   [](double x) { return std::fabs(x); });
    return m;
}

// Requires d = a b + c, to one rounding to float and `sum_error` per unit of what is summed. c may
// be empty.
void require_sums(const Grid& d, const Grid& a, const Grid& b, const Grid& c, double sum_error,
                  const char* what) {
    fuzz::require(d.rows == a.rows && d.cols == b.cols, what);
    const Grid sums = product(a, b);
    const Grid sizes = product(magnitudes(a), magnitudes(b));
    for (std::size_t n = 0; n < sums.values.size(); ++n) {
        const double added = c.values.empty() ? 0.0 : c.values[n];
        const double expected = sums.values[n] + added;
        const double tolerance = std::ldexp(std::fabs(expected), -24) * 1.001 +
                                 sum_error * (sizes.values[n] + std::fabs(added));
        fuzz::require(std::fabs(d.values[n] - expected) <= tolerance, what);
    }
}

bool is_zero(const Mat<float>& m) {
    const Grid grid(m);
    return std::all_of(grid.values.begin(), grid.values.end(), [](double x) { return x == 0.0; });
}

class Values {
  public:
    explicit Values(fuzz::Input& input) : input_(input), kind_(input.byte() % 8) {}
    // Small whole numbers, which make singular matrices, or fractions in [-1, 1).
    bool are_tame() const { return kind_ != 0; }
    bool are_whole() const { return are_tame() && kind_ < 4; }
    Block make(int rows, int cols) {
        Block block(rows, cols, input_.byte() % 3);
        for (int n = 0; n < rows * cols; ++n) {
            block.view.at(n / cols, n % cols) = next();
        }
        return block;
    }

  private:
    float next() {
        if (!are_tame()) {
            return input_.number();
        }
        noise_ = (noise_ ^ static_cast<std::uint32_t>(input_.byte())) * 1664525U + 1013904223U;
        return are_whole() ? static_cast<float>(static_cast<int>(noise_ >> 28U) - 8)
                           : static_cast<float>(static_cast<int>(noise_ >> 8U) - (1 << 23)) /
                                 static_cast<float>(1 << 23);
    }

    fuzz::Input& input_;
    int kind_;
    std::uint32_t noise_ = 1;
};

void fuzz_product(fuzz::Input& input) {
    const int flags = input.byte() % 8;
    int m = dimension(input);
    int n = dimension(input);
    int len = dimension(input);
    const int shape = input.byte();
    if (std::int64_t{m} * n * len > MOST_PRODUCTS || shape < 16) {
        m = SHAPES[shape % 8][0];
        len = SHAPES[shape % 8][1];
        n = SHAPES[shape % 8][2];
    }
    const bool trans_a = (flags & SimpleLA::GEMM_TRANSPOSE_A) != 0;
    const bool trans_b = (flags & SimpleLA::GEMM_TRANSPOSE_B) != 0;
    const bool trans_c = (flags & SimpleLA::GEMM_TRANSPOSE_C) != 0;
    const int len_b = input.byte() == 255 ? dimension(input) % 80 : len;  // shapes that disagree
    const int less = std::min(input.byte() == 255 ? 1 : 0, trans_c ? n : m);
    const double alpha = input.in_range(-20, 20) / 10.0;
    const double beta = input.in_range(-2, 2) * 0.7;
    Values values(input);
    Block a = values.make(trans_a ? len : m, trans_a ? m : len);
    Block b = values.make(trans_b ? n : len_b, trans_b ? len_b : n);
    Block c = values.make((trans_c ? n : m) - less, trans_c ? m : n);
    Block shaped = values.make(m, n);

    Mat<float> fresh;
    Mat<float> window;  // somewhere on the elements of A
    const int spare = a.view.rows * a.view.cols - m * n;
    if (spare >= 0 && a.view.continuous) {
        window = Mat<float>(m, n, a.view.data + input.byte() % (spare + 1), n * 4);
    }
    Mat<float>* const results[] = {&fresh, &shaped.view, &a.view, &b.view, &c.view, &window};
    Mat<float>& d = *results[input.byte() % 6];
    // Operands of its shape may be the result itself.
    const auto operand = [&](const Mat<float>& own) -> const Mat<float>& {
        return input.byte() % 4 == 0 && own.rows == d.rows && own.cols == d.cols ? d : own;
    };
    const Mat<float>& A = operand(a.view);
    const Mat<float>& B = operand(b.view);
    const Mat<float>& C = input.flag() ? Mat<float>::noMat() : operand(c.view);
    const Grid op_a = Grid(A, alpha).transposed(trans_a);
    const Grid op_b = Grid(B).transposed(trans_b);
    const bool adds = beta != 0.0 && C.data != nullptr && less == 0;
    const Grid op_c = adds ? Grid(C, beta).transposed(trans_c) : Grid();
    SimpleLA::gemm(A, B, alpha, C, beta, d, flags);
    fuzz::require(d.rows == m && d.cols == n, "the shape of a product");
    if (values.are_tame() && d.data != nullptr) {
        const int inner = std::min(len, len_b);
        require_sums(Grid(d), op_a, op_b, op_c, inner <= 4 ? 3e-7 : 1e-14, "a product");
    }
}

void fuzz_square(fuzz::Input& input) {
    int rows = dimension(input);
    int cols = dimension(input);
    const bool ata = input.flag();
    if (std::int64_t{rows} * cols * (ata ? cols : rows) > MOST_PRODUCTS || input.byte() < 4) {
        rows = 120;
        cols = 110;
    }
    const int kind = input.byte() % 5;
    const int place = input.byte() % 8;
    Values values(input);
    Block src = values.make(rows, cols);
    Block delta = values.make((kind & 1) != 0 ? 1 : rows, (kind & 2) != 0 ? 1 : cols);
    const Grid all(src.view);
    const Grid taken(delta.view);
    const bool subtracts = kind < 4 && !taken.values.empty();
    const Grid factor(rows, cols, [&](int i, int j) {
        const int row = taken.rows == 1 ? 0 : i;
        return 0.5 * (all.at(i, j) - (subtracts ? taken.at(row, taken.cols == 1 ? 0 : j) : 0.0));
    });
    Mat<float> fresh;
    Mat<float>& dst = place == 0 ? src.view : place == 1 ? delta.view : fresh;
    SimpleLA::mulTransposed(src.view, dst, ata, kind < 4 ? delta.view : Mat<float>::noMat(), 0.25);
    if (values.are_tame() && dst.data != nullptr) {
        const Grid result(dst);
        require_sums(result, factor.transposed(ata), factor.transposed(!ata), {}, 1e-14,
                     "a square");
        fuzz::require(result.values == result.transposed().values, "symmetry");
    }
}

void fuzz_elimination(fuzz::Input& input) {
    const int order = input.in_range(0, 40);
    Values values(input);
    Block a = values.make(order, order);
    Block b = values.make(order, input.in_range(0, 5));
    const Grid old_a(a.view);
    const Grid old_b(b.view);
    const bool solve = input.byte() % 4 != 0;
    const int sign = SimpleLA::LU(a.view.data, static_cast<unsigned>(a.view.step), order,
                                  solve ? b.view.data : nullptr, static_cast<unsigned>(b.view.step),
                                  b.view.cols);
    fuzz::require(sign == 0 || sign == 1 || sign == -1, "a sign");
    if (solve && sign != 0 && values.are_tame()) {
        require_sums(old_b, old_a, Grid(b.view), {}, 4e-6, "a solution");
    }
}

void fuzz_inverse(fuzz::Input& input) {
    const int rows = input.in_range(0, 20);
    const int cols = input.byte() < 240 ? rows : input.in_range(0, 20);
    Values values(input);
    Block src = values.make(rows, cols);
    const Grid old(src.view);
    Mat<float> fresh;
    Mat<float>& dst = input.flag() ? src.view : fresh;
    const int result = SimpleLA::invert(src.view, dst);
    fuzz::require(result == 1 ? rows == cols : result == 0 && is_zero(dst), "a result");
    if (result == 1 && values.are_whole()) {
        const Grid identity(rows, rows, [](int i, int j) { return i == j ? 1.0 : 0.0; });
        require_sums(identity, old, Grid(dst), {}, 4e-6, "an inverse");
    }
}

void fuzz_solution(fuzz::Input& input) {
    const int cols = input.in_range(1, 20);
    const int rows = std::max(dimension(input), input.byte() < 240 ? cols : 0);
    Values values(input);
    Block a = values.make(rows, cols);
    Block b = values.make(input.byte() == 255 ? dimension(input) : rows, input.in_range(1, 4));
    const Grid old_a(a.view);
    const Grid old_b(b.view);
    Mat<float> fresh;
    Mat<float>* const places[] = {&fresh, &a.view, &b.view};
    Mat<float>& x = *places[input.byte() % 3];
    const int result = SimpleLA::solveLuNormal(a.view, b.view, x);
    fuzz::require(result == 1 ? rows >= cols && old_b.rows == rows : rows < cols || is_zero(x),
                  "a result");
    if (result == 1 && values.are_tame()) {
        const Grid turned = old_a.transposed();  // the normal equations, unless a is square
        const bool square = rows == cols;
        require_sums(square ? old_b : product(turned, old_b),
                     square ? old_a : product(turned, old_a), Grid(x), {}, 4e-6, "a solution");
    }
}

void fuzz_structure(fuzz::Input& input) {
    const int rows = input.in_range(0, 20);
    const int cols = input.in_range(0, 20);
    Values values(input);
    Block src = values.make(rows, cols);
    Block turned = values.make(cols, rows);
    Block other = values.make(input.in_range(0, 20), input.in_range(0, 20));
    const Grid old(src.view);
    SimpleLA::transpose(src.view, turned.view);
    SimpleLA::transpose(src.view, other.view);
    fuzz::require(!values.are_tame() || Grid(turned.view).values == old.transposed().values,
                  "a transpose");
    if (values.are_tame() && rows == cols) {
        const bool lower = input.flag();
        SimpleLA::transpose(src.view, src.view);
        SimpleLA::completeSymm(src.view, !lower);
        const Grid expected(rows, cols, [&](int i, int j) {
            return (i > j) == lower ? old.at(i, j) : old.at(j, i);
        });
        fuzz::require(Grid(src.view).values == expected.values, "a transpose made symmetric");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    constexpr void (*TARGETS[])(fuzz::Input&) = {fuzz_product,  fuzz_product,     fuzz_product,
                                                 fuzz_square,   fuzz_elimination, fuzz_inverse,
                                                 fuzz_solution, fuzz_structure};
    TARGETS[input.byte() % 8](input);
    return 0;
}
