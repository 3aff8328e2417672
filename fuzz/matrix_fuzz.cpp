// The matrix library: any shapes, steps and overlaps that its headers allow, in exact buffers. With
// small whole numbers every sum is exact, so products have to be right to the bit; solutions have to
// solve; with other values only memory and arithmetic are watched.

#include <algorithm>
#include <cmath>

#include "fuzz/fuzz_input.h"
#include "videostabilizer/gemm.h"
#include "videostabilizer/lu.h"
#include "videostabilizer/mat.h"

using SimpleLA::Mat;

namespace {

constexpr int MOST_PRODUCTS = 5 << 18;  // of elements in one call

int dimension(fuzz::Input& input) {
    const int kind = input.byte();
    if (kind < 200) {
        return kind % 13;
    }
    return kind < 248 ? input.in_range(0, 80) : input.in_range(0, 300);
}

// A matrix in a heap block that ends with its last element.
class Block {
  public:
    Block(int rows, int cols, int gap)
        : memory_(rows == 0
                      ? std::size_t{0}
                      : static_cast<std::size_t>(rows - 1) * static_cast<std::size_t>(cols + gap) +
                            static_cast<std::size_t>(cols)),
          view(rows, cols, memory_.data(), (cols + gap) * static_cast<int>(sizeof(float))) {}
    Block(const Block& other) : Block(other.view) {}
    explicit Block(const Mat<float>& m) : Block(m.rows, m.cols, 0) {
        for (int i = 0; i < m.rows; ++i) {
            std::copy_n(m.row(i), m.cols, view.row(i));
        }
    }
    Block& operator=(const Block&) = delete;
    ~Block() = default;

  private:
    std::vector<float> memory_;

  public:
    Mat<float> view;
};

class Values {
  public:
    Values(fuzz::Input& input, bool whole) : input_(input), whole_(whole), noise_(1) {}
    float next() {
        if (!whole_) {
            return input_.number();
        }
        if (!input_.empty()) {
            noise_ ^= static_cast<std::uint32_t>(input_.byte());
        }
        noise_ = noise_ * 1664525U + 1013904223U;
        return static_cast<float>(static_cast<int>(noise_ >> 28U) - 8);
    }
    Block make(int rows, int cols) {
        Block block(rows, cols, input_.byte() % 3);
        for (int i = 0; i < rows; ++i) {
            std::generate_n(block.view.row(i), cols, [this] { return next(); });
        }
        return block;
    }

  private:
    fuzz::Input& input_;
    bool whole_;
    std::uint32_t noise_;
};

double element(const Mat<float>& m, int i, int j, bool transposed = false) {
    return static_cast<double>(transposed ? m.at(j, i) : m.at(i, j));
}

double largest(const Mat<float>& m) {
    double result = 0.0;
    for (int i = 0; i < m.rows; ++i) {
        for (int j = 0; j < m.cols; ++j) {
            result = std::max(result, std::fabs(element(m, i, j)));
        }
    }
    return result;
}

bool is_zero(const Mat<float>& m) {
    return largest(m) == 0.0;
}

void fuzz_product(fuzz::Input& input) {
    const int flags = input.byte() % 8;
    int m = dimension(input);
    const int n = dimension(input);
    const int len = dimension(input);
    if (std::int64_t{m} * n * len > MOST_PRODUCTS) {
        m = 5;
    }
    const bool trans_a = (flags & SimpleLA::GEMM_TRANSPOSE_A) != 0;
    const bool trans_b = (flags & SimpleLA::GEMM_TRANSPOSE_B) != 0;
    const bool trans_c = (flags & SimpleLA::GEMM_TRANSPOSE_C) != 0;
    const int len_b = input.byte() == 255 ? dimension(input) % 80 : len;  // shapes that disagree
    const double alpha = input.in_range(-2, 2);
    const double beta = input.in_range(-2, 2);
    const int sharing = input.byte() % 6;
    const bool whole = input.byte() < 200;
    Values values(input, whole);
    Block a = values.make(trans_a ? len : m, trans_a ? m : len);
    Block b = values.make(trans_b ? n : len_b, trans_b ? len_b : n);
    const int more = input.byte() == 255 ? 1 : 0;
    Block c = values.make((trans_c ? n : m) + more, trans_c ? m : n);
    const Block old_a(a.view);
    const Block old_b(b.view);
    const Block old_c(c.view);

    Mat<float> fresh;
    Block shaped(m, n, input.byte() % 3);
    Mat<float>* const results[] = {&fresh, &shaped.view, &a.view, &b.view, &c.view};
    Mat<float> window;  // on elements of A, somewhere
    Mat<float>* d = &window;
    const int reach = a.view.rows * a.view.cols - m * n;
    if (sharing < 5) {
        d = results[sharing];
    } else if (reach >= 0 && a.view.continuous && m * n > 0) {
        const int at = reach == 0 ? 0 : input.byte() % (reach + 1);
        window = Mat<float>(m, n, a.view.data + at, n * static_cast<int>(sizeof(float)));
    }
    SimpleLA::gemm(a.view, b.view, alpha, input.flag() ? Mat<float>::noMat() : c.view, beta, *d,
                   flags);
    fuzz::require(d->rows == m && d->cols == n, "the shape of a product");
    if (!whole || beta != 0.0 || d->data == nullptr) {
        return;
    }
    const int inner = std::min(len, len_b);
    for (int i = 0; i < m; ++i) {
        for (int j = 0; j < n; ++j) {
            double sum = 0.0;
            for (int k = 0; k < inner; ++k) {
                sum += element(old_a.view, i, k, trans_a) * element(old_b.view, k, j, trans_b);
            }
            fuzz::require(element(*d, i, j) == alpha * sum, "an element of a product");
        }
    }
}

void fuzz_added_product(fuzz::Input& input) {
    // Small, so that C has all of its forms often.
    const int flags = input.byte() % 8;
    const int m = input.in_range(1, 6);
    const int n = input.in_range(1, 6);
    const int len = input.in_range(1, 6);
    Values values(input, true);
    const bool trans_a = (flags & SimpleLA::GEMM_TRANSPOSE_A) != 0;
    const bool trans_b = (flags & SimpleLA::GEMM_TRANSPOSE_B) != 0;
    const bool trans_c = (flags & SimpleLA::GEMM_TRANSPOSE_C) != 0;
    const Block a = values.make(trans_a ? len : m, trans_a ? m : len);
    const Block b = values.make(trans_b ? n : len, trans_b ? len : n);
    Block c = values.make(trans_c ? n : m, trans_c ? m : n);
    const Block old_c(c.view);
    const double beta = input.in_range(-2, 2);
    Mat<float> fresh;
    Mat<float>& d = input.flag() ? c.view : fresh;
    SimpleLA::gemm(a.view, b.view, 2.0, c.view, beta, d, flags);
    fuzz::require(d.rows == m && d.cols == n && d.data != nullptr, "the shape of a product");
    for (int i = 0; i < m; ++i) {
        for (int j = 0; j < n; ++j) {
            double sum = 0.0;
            for (int k = 0; k < len; ++k) {
                sum += element(a.view, i, k, trans_a) * element(b.view, k, j, trans_b);
            }
            const double added = beta == 0.0 ? 0.0 : beta * element(old_c.view, i, j, trans_c);
            fuzz::require(element(d, i, j) == 2.0 * sum + added, "an element of a sum of products");
        }
    }
}

void fuzz_square(fuzz::Input& input) {
    int rows = dimension(input);
    const int cols = dimension(input);
    const bool ata = input.flag();
    const int order = ata ? cols : rows;
    if (std::int64_t{rows} * cols * order > MOST_PRODUCTS) {
        rows = 3;
    }
    const int kind = input.byte() % 5;
    const bool whole = input.byte() < 200;
    const bool in_place = input.byte() == 255;
    Values values(input, whole);
    Block src = values.make(rows, cols);
    const Block delta = values.make((kind & 1) != 0 ? 1 : rows, (kind & 2) != 0 ? 1 : cols);
    const Block old(src.view);
    Mat<float> fresh;
    Mat<float>& dst = in_place ? src.view : fresh;
    const bool subtract = kind < 4;
    SimpleLA::mulTransposed(src.view, dst, ata, subtract ? delta.view : Mat<float>::noMat(), 2.0);
    const int n = ata ? cols : rows;
    fuzz::require(dst.rows == n && dst.cols == n, "the shape of a square");
    const auto difference = [&](int i, int j) {
        const double d =
            subtract ? element(delta.view, (kind & 1) != 0 ? 0 : i, (kind & 2) != 0 ? 0 : j) : 0.0;
        return element(old.view, i, j) - d;
    };
    for (int i = 0; whole && i < n && rows > 0 && cols > 0; ++i) {
        for (int j = 0; j < n; ++j) {
            double sum = 0.0;
            for (int k = 0; k < (ata ? rows : cols); ++k) {
                sum +=
                    ata ? difference(k, i) * difference(k, j) : difference(i, k) * difference(j, k);
            }
            fuzz::require(element(dst, i, j) == 2.0 * sum, "an element of a square");
        }
    }
}

// Whether a x = b, as far as elimination with partial pivoting promises it for orders up to 6.
void check_solution(const Mat<float>& a, const Mat<float>& x, const Mat<float>& b) {
    const double tolerance = 0.01 * largest(a) * largest(x) + 1e-6;
    for (int i = 0; i < a.rows; ++i) {
        for (int j = 0; j < x.cols; ++j) {
            double sum = 0.0;
            for (int k = 0; k < a.cols; ++k) {
                sum += element(a, i, k) * element(x, k, j);
            }
            fuzz::require(std::fabs(sum - element(b, i, j)) <= tolerance, "a solution");
        }
    }
}

void fuzz_elimination(fuzz::Input& input) {
    const int order = input.in_range(0, 24);
    const int columns = input.in_range(0, 5);
    const bool whole = input.byte() < 200;
    Values values(input, whole);
    Block a = values.make(order, order);
    Block b = values.make(order, columns);
    const Block old_a(a.view);
    const Block old_b(b.view);
    const bool solve = input.flag();
    const int sign =
        SimpleLA::LU(a.view.data, static_cast<unsigned>(a.view.step), order,
                     solve ? b.view.data : nullptr, static_cast<unsigned>(b.view.step), columns);
    fuzz::require(sign == 0 || sign == 1 || sign == -1, "a sign");
    if (solve && sign != 0 && whole && order <= 6) {
        check_solution(old_a.view, b.view, old_b.view);
    }
}

void fuzz_inverse(fuzz::Input& input) {
    const int rows = input.in_range(0, 20);
    const int cols = input.byte() < 240 ? rows : input.in_range(0, 20);
    const bool whole = input.byte() < 200;
    Values values(input, whole);
    Block src = values.make(rows, cols);
    const Block old(src.view);
    Mat<float> fresh;
    Mat<float>& dst = input.flag() ? src.view : fresh;
    const int result = SimpleLA::invert(src.view, dst);
    fuzz::require(result == 0 || result == 1, "a result");
    if (result == 0) {
        fuzz::require(is_zero(dst), "no inverse is all zeros");
    } else {
        fuzz::require(rows == cols && dst.rows == cols && dst.cols == cols, "an inverse's shape");
        Block identity(rows, rows, 0);
        for (int i = 0; i < rows; ++i) {
            identity.view.at(i, i) = 1.0F;
        }
        if (whole && rows <= 6) {
            check_solution(old.view, dst, identity.view);
        }
    }
}

void fuzz_solution(fuzz::Input& input) {
    const int rows = dimension(input);
    const int cols = input.in_range(1, 20);
    const int columns = input.in_range(1, 4);
    const int rows_b = input.byte() == 255 ? dimension(input) : rows;
    const bool whole = input.byte() < 200;
    Values values(input, whole);
    Block a = values.make(rows, cols);
    Block b = values.make(rows_b, columns);
    const Block old_a(a.view);
    const Block old_b(b.view);
    Mat<float> fresh;
    Mat<float>* const places[] = {&fresh, &a.view, &b.view};
    Mat<float>& x = *places[input.byte() % 3];
    const int result = SimpleLA::solveLuNormal(a.view, b.view, x);
    fuzz::require(x.rows == cols && x.cols == columns, "the shape of a solution");
    if (result == 0) {
        fuzz::require(rows < cols || is_zero(x), "no solution is all zeros");
    } else {
        fuzz::require(result == 1 && rows >= cols && rows_b == rows, "what has a solution");
        if (whole && rows == cols && rows <= 6) {
            check_solution(old_a.view, x, old_b.view);
        }
    }
}

void fuzz_structure(fuzz::Input& input) {
    const int rows = input.in_range(0, 20);
    const int cols = input.in_range(0, 20);
    Values values(input, true);
    Block src = values.make(rows, cols);
    const int shape = input.byte() % 4;
    Block dst = values.make(shape == 0   ? cols
                            : shape == 1 ? rows
                                         : input.in_range(0, 20),
                            shape == 0   ? rows
                            : shape == 1 ? cols
                                         : input.in_range(0, 20));
    SimpleLA::transpose(src.view, dst.view);
    for (int i = 0; shape == 0 && i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            fuzz::require(src.view.at(i, j) == dst.view.at(j, i), "a transpose");
        }
    }
    if (rows == cols) {
        const Block old(src.view);
        if (input.flag()) {
            SimpleLA::transpose(src.view, src.view);
            fuzz::require(rows < 2 || src.view.at(0, 1) == old.view.at(1, 0), "a transpose");
        }
        const bool lower_to_upper = input.flag();
        SimpleLA::completeSymm(src.view, lower_to_upper);
        for (int i = 0; i < rows; ++i) {
            for (int j = 0; j < i; ++j) {
                fuzz::require(src.view.at(i, j) == src.view.at(j, i), "symmetry");
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    switch (input.byte() % 8) {
        case 0:
        case 1:
            fuzz_product(input);
            break;
        case 2:
            fuzz_added_product(input);
            break;
        case 3:
            fuzz_square(input);
            break;
        case 4:
            fuzz_elimination(input);
            break;
        case 5:
            fuzz_inverse(input);
            break;
        case 6:
            fuzz_solution(input);
            break;
        default:
            fuzz_structure(input);
            break;
    }
    return 0;
}
