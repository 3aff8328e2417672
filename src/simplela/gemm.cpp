// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/gemm.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "simplela/mat_util.h"
#include "simplela/scratch.h"

// The general product in three forms, chosen by size: unrolled for inner dimensions 2 to 4; direct
// for small or thin operands, the whole workload of the stabilizer; in cache-sized blocks else.

namespace SimpleLA {

namespace {

// The direct product serves results of at most DIRECT_THIN rows or columns (with sums of at most
// DIRECT_LONGEST terms), sums of at most DIRECT_SHORT terms, and three dimensions of at most
// DIRECT_SQUARE.
constexpr int DIRECT_THIN = 64;
constexpr int DIRECT_SHORT = 10;
constexpr int DIRECT_SQUARE = 128;
constexpr int DIRECT_LONGEST = 10000;

constexpr int COLUMNS_AT_ONCE_MAX = 1600 / sizeof(float);  // widest result summed by columns

constexpr int BLOCK_LIMIT = 128;       // rows or columns of a block of the result
constexpr int BLOCK_AREA = 128 * 128;  // elements of a block of a factor: 64 KiB, for the L2 cache

constexpr std::size_t GATHERED_ON_STACK = 256;   // floats
constexpr std::size_t TEMPORARY_ON_STACK = 256;  // floats

// op(X): element (i, j) is data[i * row + j * col]. Transposition exchanges the two strides, so
// that the routines need no flags. At least one stride of a factor is 1.
struct Operand {
    const float* data = nullptr;
    std::ptrdiff_t row = 0;
    std::ptrdiff_t col = 0;

    const float* at(int i, int j) const { return data + i * row + j * col; }
    Operand from(int i, int j) const { return {at(i, j), row, col}; }
};

Operand make_operand(const Mat<float>& m, bool transposed) {
    const std::ptrdiff_t step = m.step / static_cast<int>(sizeof(float));
    return transposed ? Operand{m.data, 1, step} : Operand{m.data, step, 1};
}

// d (rows x cols, rows d_step elements apart) = alpha a b + beta c; len is the inner dimension.
// d overlaps neither a nor b, unless the routine allows it. c is absent if its data is null.
struct Product {
    Operand a;
    Operand b;
    Operand c;
    double alpha = 1.0;
    double beta = 0.0;
    int rows = 0;
    int cols = 0;
    int len = 0;
    float* d = nullptr;
    std::ptrdiff_t d_step = 0;

    // d(i, j) = scaled + beta c(i, j). If c is absent nothing is added: -0 stays -0.
    void store_scaled(int i, int j, double scaled) const {
        if (c.data != nullptr) {
            scaled += beta * static_cast<double>(*c.at(i, j));
        }
        d[i * d_step + j] = static_cast<float>(scaled);
    }
    void store(int i, int j, double sum) const { store_scaled(i, j, alpha * sum); }
    // For the unrolled forms, which take an absent c for zeros: -0 becomes +0.
    void store_unrolled(int i, int j, float sum) const {
        const double scaled = alpha * static_cast<double>(sum);
        store_scaled(i, j, c.data != nullptr ? scaled : scaled + 0.0);
    }
};

// The two unrolled forms give the same values: a sum of LEN float products, scaled in double. Both
// take factors whose rows are contiguous.
// By rows, d may be a itself: row i of a is read before row i of d is written.
template <int LEN>
void multiply_unrolled_by_rows(const Product& p) {
    for (int i = 0; i < p.rows; ++i) {
        float a[LEN];
        std::copy(p.a.at(i, 0), p.a.at(i, 0) + LEN, a);
        for (int j = 0; j < p.cols; ++j) {
            const float* b = p.b.data + j;
            float sum = a[0] * b[0];
            for (int k = 1; k < LEN; ++k) {
                sum += a[k] * b[k * p.b.row];
            }
            p.store_unrolled(i, j, sum);
        }
    }
}

// By columns, d may be b itself.
template <int LEN>
void multiply_unrolled_by_columns(const Product& p) {
    for (int j = 0; j < p.cols; ++j) {
        float b[LEN];
        for (int k = 0; k < LEN; ++k) {
            b[k] = *p.b.at(k, j);
        }
        for (int i = 0; i < p.rows; ++i) {
            const float* a = p.a.at(i, 0);
            float sum = a[0] * b[0];
            for (int k = 1; k < LEN; ++k) {
                sum += a[k] * b[k];
            }
            p.store_unrolled(i, j, sum);
        }
    }
}

void multiply_unrolled(const Product& p, bool by_rows) {
    switch (p.len) {
        case 2:
            by_rows ? multiply_unrolled_by_rows<2>(p) : multiply_unrolled_by_columns<2>(p);
            break;
        case 3:
            by_rows ? multiply_unrolled_by_rows<3>(p) : multiply_unrolled_by_columns<3>(p);
            break;
        default:
            by_rows ? multiply_unrolled_by_rows<4>(p) : multiply_unrolled_by_columns<4>(p);
            break;
    }
}

double product_of(float x, float y) {
    return static_cast<double>(x) * static_cast<double>(y);  // exact: 24 + 24 bits of 53
}

// Dot products of WIDTH neighbours (x[w], x[x_stride + w], ...) with y, each in four interleaved
// partial sums, so that additions do not wait for each other.
template <int WIDTH>
void dot(const float* x, std::ptrdiff_t x_stride, const float* y, int len, double* sums) {
    constexpr int PARTS = 4;
    double partial[PARTS][WIDTH] = {};
    int k = 0;
    for (; k <= len - PARTS; k += PARTS) {
        for (int part = 0; part < PARTS; ++part) {
            for (int w = 0; w < WIDTH; ++w) {
                partial[part][w] += product_of(x[(k + part) * x_stride + w], y[k + part]);
            }
        }
    }
    for (; k < len; ++k) {
        for (int w = 0; w < WIDTH; ++w) {
            partial[0][w] += product_of(x[k * x_stride + w], y[k]);
        }
    }
    for (int w = 0; w < WIDTH; ++w) {
        sums[w] = partial[0][w] + partial[1][w] + partial[2][w] + partial[3][w];
    }
}

// Sums over k of x(k) y(k, w) for WIDTH neighbouring columns w, each in order of k.
template <int WIDTH>
void sum_columns(const float* x, std::ptrdiff_t x_stride, const float* y, std::ptrdiff_t y_step,
                 int len, double* sums) {
    double partial[WIDTH] = {};
    for (int k = 0; k < len; ++k) {
        for (int w = 0; w < WIDTH; ++w) {
            partial[w] += product_of(x[k * x_stride], y[k * y_step + w]);
        }
    }
    std::copy(partial, partial + WIDTH, sums);
}

// Three forms of the sums over k of a(i, k) b(k, j), passed to store(i, j, sum). They differ in the
// order of summation; the strides of b choose the form.

// For contiguous columns of b. If a is a transpose, four of its rows are read at once, which share
// cache lines.
template <typename Store>
void sum_by_dot_products(const Operand& a, const Operand& b, int rows, int cols, int len,
                         Store store) {
    double sums[4];
    int i = 0;
    for (; a.row == 1 && i <= rows - 4; i += 4) {
        for (int j = 0; j < cols; ++j) {
            dot<4>(a.at(i, 0), a.col, b.at(0, j), len, sums);
            for (int w = 0; w < 4; ++w) {
                store(i + w, j, sums[w]);
            }
        }
    }
    for (; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            dot<1>(a.at(i, 0), a.col, b.at(0, j), len, sums);
            store(i, j, sums[0]);
        }
    }
}

// The sums of row i of a product, read from x, four columns of b at a time.
template <typename Store>
void sum_row_by_columns(const float* x, std::ptrdiff_t x_stride, const Operand& b, int i, int cols,
                        int len, Store store) {
    double sums[4];
    int j = 0;
    for (; j <= cols - 4; j += 4) {
        sum_columns<4>(x, x_stride, b.at(0, j), b.row, len, sums);
        for (int w = 0; w < 4; ++w) {
            store(i, j + w, sums[w]);
        }
    }
    for (; j < cols; ++j) {
        sum_columns<1>(x, x_stride, b.at(0, j), b.row, len, sums);
        store(i, j, sums[0]);
    }
}

// The same for wide rows: b is read along its rows, in pieces whose sums stay in the L1 cache.
template <typename Store>
void sum_row_by_rows(const float* x, std::ptrdiff_t x_stride, const Operand& b, int i, int cols,
                     int len, Store store) {
    double sums[COLUMNS_AT_ONCE_MAX];
    for (int j0 = 0; j0 < cols; j0 += COLUMNS_AT_ONCE_MAX) {
        const int width = std::min(COLUMNS_AT_ONCE_MAX, cols - j0);
        std::fill(sums, sums + width, 0.0);
        for (int k = 0; k < len; ++k) {
            const float* y = b.at(k, j0);
            for (int j = 0; j < width; ++j) {
                sums[j] += product_of(x[k * x_stride], y[j]);
            }
        }
        for (int j = 0; j < width; ++j) {
            store(i, j0 + j, sums[j]);
        }
    }
}

template <typename Store>
void sum_products(const Operand& a, const Operand& b, int rows, int cols, int len, Store store) {
    if (b.row == 1) {
        sum_by_dot_products(a, b, rows, cols, len, store);
        return;
    }
    // A row of a transposed a is gathered once for all columns of b; without memory for that, it is
    // read in place.
    const bool strided = a.col != 1 && len > 1;
    Scratch<float, GATHERED_ON_STACK> gathered(strided ? static_cast<std::size_t>(len) : 0);
    for (int i = 0; i < rows; ++i) {
        const float* x = a.at(i, 0);
        std::ptrdiff_t x_stride = a.col;
        if (strided && gathered.data() != nullptr) {
            for (int k = 0; k < len; ++k) {
                gathered.data()[k] = x[k * x_stride];
            }
            x = gathered.data();
            x_stride = 1;
        }
        if (cols <= COLUMNS_AT_ONCE_MAX) {
            sum_row_by_columns(x, x_stride, b, i, cols, len, store);
        } else {
            sum_row_by_rows(x, x_stride, b, i, cols, len, store);
        }
    }
}

void multiply_direct(const Product& p) {
    if (p.len <= 0) {  // factors without elements may have no data
        for (int i = 0; i < p.rows; ++i) {
            for (int j = 0; j < p.cols; ++j) {
                p.store(i, j, 0.0);
            }
        }
        return;
    }
    if (p.len == 1) {  // outer product
        for (int i = 0; i < p.rows; ++i) {
            const double scaled = p.alpha * static_cast<double>(*p.a.at(i, 0));
            for (int j = 0; j < p.cols; ++j) {
                p.store_scaled(i, j, scaled * static_cast<double>(*p.b.at(0, j)));
            }
        }
        return;
    }
    sum_products(p.a, p.b, p.rows, p.cols, p.len,
                 [&p](int i, int j, double sum) { p.store(i, j, sum); });
}

// Size of the block that starts at `start`: the nominal one, or all that is left if less than an
// eighth of a block would remain after it.
int block_size(int start, int nominal, int total) {
    const long long end = static_cast<long long>(start) + nominal;
    return end >= total || 8 * end + nominal > 8LL * total ? total - start : nominal;
}

// Elements of a block of rows x cols grown by the largest remainder, an eighth of each.
std::size_t block_capacity(int rows, int cols) {
    return static_cast<std::size_t>(rows + rows / 8 + 1) *
           static_cast<std::size_t>((cols + cols / 8 + 2) / 2 * 2);
}

// Copies rows x cols elements of x to `block` such that rows of the copy are contiguous.
Operand copy_block(const Operand& x, int rows, int cols, float* block) {
    for (int i = 0; i < rows; ++i) {
        const float* from = x.at(i, 0);
        float* to = block + std::ptrdiff_t{i} * cols;
        for (int j = 0; j < cols; ++j) {
            to[j] = from[j * x.col];
        }
    }
    return {block, cols, 1};
}

Operand exchange_strides(const Operand& x) {
    return {x.data, x.col, x.row};
}

// The blocked product: nominal block sizes and scratch memory.
struct Blocks {
    int di;          // rows of a block of the result
    int dj;          // its columns
    int dk;          // di x dk blocks of a and dk x dj blocks of b have at most BLOCK_AREA elements
    double* sums;    // di x dj, only used if dk is below the inner dimension
    float* b_block;  // null if b is read in place
    float* a_block;  // null if a is read in place
};

// One block of the result, from its whole rows of a and columns of b.
void multiply_block(const Product& p, const Blocks& blocks) {
    Product piece = p;
    for (int k = 0, dk = 0; k < p.len; k += dk) {
        dk = block_size(k, blocks.dk, p.len);
        piece.len = dk;
        piece.a = p.a.from(0, k);
        piece.b = p.b.from(k, 0);
        if (blocks.a_block != nullptr) {
            piece.a = copy_block(piece.a, p.rows, dk, blocks.a_block);
        }
        if (blocks.b_block != nullptr) {
            // A transposed b is copied along k, as it is stored.
            piece.b = p.b.row == 1 ? exchange_strides(copy_block(exchange_strides(piece.b), p.cols,
                                                                 dk, blocks.b_block))
                                   : copy_block(piece.b, dk, p.cols, blocks.b_block);
        }
        if (dk == p.len) {
            multiply_direct(piece);
            return;
        }
        sum_products(piece.a, piece.b, p.rows, p.cols, dk,
                     [sums = blocks.sums, cols = p.cols, k](int row, int col, double sum) {
                         double& total = sums[std::ptrdiff_t{row} * cols + col];
                         total = k == 0 ? sum : total + sum;
                     });
    }
    for (int row = 0; row < p.rows; ++row) {
        for (int col = 0; col < p.cols; ++col) {
            p.store(row, col, blocks.sums[std::ptrdiff_t{row} * p.cols + col]);
        }
    }
}

// False, with nothing done, if there is no memory for the blocks.
bool multiply_blocked(const Product& p) {
    Blocks blocks{};
    blocks.di = std::min(BLOCK_LIMIT, p.rows);
    blocks.dj = std::min(BLOCK_LIMIT, p.cols);
    blocks.dk = std::min({BLOCK_AREA / blocks.di, BLOCK_AREA / blocks.dj, p.len});
    const bool copies_a = p.a.col != 1;
    const bool copies_b = p.cols > blocks.dj;

    // If k takes several steps, dk is at least BLOCK_LIMIT, so that the sums of a block of the
    // result need no more room than a block of b.
    const std::size_t b_capacity = block_capacity(blocks.dk, blocks.dj);
    const std::size_t a_capacity = copies_a ? block_capacity(blocks.di, blocks.dk) : 0;
    constexpr std::size_t FLOATS = sizeof(double) / sizeof(float);
    Scratch<double, 1> scratch(b_capacity + (b_capacity + a_capacity) / FLOATS + 1);
    if (scratch.data() == nullptr) {
        return false;
    }
    blocks.sums = scratch.data();
    auto* const floats = static_cast<float*>(static_cast<void*>(blocks.sums + b_capacity));
    blocks.b_block = copies_b ? floats : nullptr;
    blocks.a_block = copies_a ? floats + b_capacity : nullptr;

    for (int i = 0, di = 0; i < p.rows; i += di) {
        di = block_size(i, blocks.di, p.rows);
        for (int j = 0, dj = 0; j < p.cols; j += dj) {
            dj = block_size(j, blocks.dj, p.cols);
            Product block = p;
            block.a = p.a.from(i, 0);
            block.b = p.b.from(0, j);
            block.c = p.c.data != nullptr ? p.c.from(i, j) : Operand{};
            block.d = p.d + i * p.d_step + j;
            block.rows = di;
            block.cols = dj;
            multiply_block(block, blocks);
        }
    }
    return true;
}

void multiply(const Product& p) {
    const bool thin = (p.rows <= DIRECT_THIN || p.cols <= DIRECT_THIN) && p.len <= DIRECT_LONGEST;
    const bool small = p.rows <= DIRECT_SQUARE && p.cols <= DIRECT_SQUARE && p.len <= DIRECT_SQUARE;
    if (thin || p.len <= DIRECT_SHORT || small || !multiply_blocked(p)) {
        multiply_direct(p);
    }
}

// What gemm is to compute, but for the result's place.
Product make_product(const Mat<float>& A, const Mat<float>& B, double alpha, const Mat<float>& C,
                     double beta, int flags) {
    const bool transpose_a = (flags & GEMM_TRANSPOSE_A) != 0;
    const bool transpose_b = (flags & GEMM_TRANSPOSE_B) != 0;
    const bool transpose_c = (flags & GEMM_TRANSPOSE_C) != 0;
    Product p;
    p.rows = transpose_a ? A.cols : A.rows;
    p.cols = transpose_b ? B.rows : B.cols;
    p.len = std::min(transpose_a ? A.rows : A.cols, transpose_b ? B.cols : B.rows);
    if (A.data == nullptr || B.data == nullptr) {
        p.len = 0;
    }
    p.a = make_operand(A, transpose_a);
    p.b = make_operand(B, transpose_b);
    p.alpha = alpha;
    if (beta != 0.0 && C.data != nullptr && (transpose_c ? C.cols : C.rows) >= p.rows &&
        (transpose_c ? C.rows : C.cols) >= p.cols) {
        p.c = make_operand(C, transpose_c);
        p.beta = beta;
    }
    return p;
}

// Through a temporary, for a result that overlaps its operands. Without memory d stays as it is.
void multiply_beside(Product p, Mat<float>& D) {
    const std::size_t count = static_cast<std::size_t>(p.rows) * static_cast<std::size_t>(p.cols);
    Scratch<float, TEMPORARY_ON_STACK> temporary(count);
    if (temporary.data() == nullptr) {
        return;
    }
    p.d = temporary.data();
    p.d_step = p.cols;
    multiply(p);
    const int step_bytes = p.cols * static_cast<int>(sizeof(float));
    copy_elements(Mat<float>(p.rows, p.cols, temporary.data(), step_bytes), D);
}

}  // namespace

void gemm(const Mat<float>& A, const Mat<float>& B, double alpha, const Mat<float>& C, double beta,
          Mat<float>& D, int flags) {
    Product p = make_product(A, B, alpha, C, beta, flags);
    const bool has_c = p.c.data != nullptr;
    if (create_would_drop(D, p.rows, p.cols, A) || create_would_drop(D, p.rows, p.cols, B) ||
        (has_c && create_would_drop(D, p.rows, p.cols, C))) {
        Mat<float> reshaped;
        gemm(A, B, alpha, C, beta, reshaped, flags);
        D = std::move(reshaped);
        return;
    }
    D.create(p.rows, p.cols);
    if (D.data == nullptr || p.rows <= 0 || p.cols <= 0) {
        return;
    }
    p.d = D.data;
    p.d_step = D.step / static_cast<int>(sizeof(float));

    const bool on_a = spans_overlap(A, D);
    const bool on_b = spans_overlap(B, D);
    // Each element of c is read before that of d is written, so c may be d itself.
    const bool on_c =
        has_c && spans_overlap(C, D) && ((flags & GEMM_TRANSPOSE_C) != 0 || !same_place(C, D));

    if (flags == 0 && p.len >= 2 && p.len <= 4 && (p.len == p.cols || p.len == p.rows) && !on_c) {
        const bool rows_work = p.len == p.cols && !on_b && (!on_a || same_place(A, D));
        const bool columns_work = !on_a && (!on_b || same_place(B, D));
        if (rows_work || columns_work) {
            multiply_unrolled(p, rows_work);
            return;
        }
    }

    // A column, or a row of one element each, is contiguous: read as the transpose of a row, it
    // takes the dot product.
    if ((flags & GEMM_TRANSPOSE_B) == 0 && B.continuous && (p.cols == 1 || p.len == 1)) {
        p.b.row = 1;
        p.b.col = 1;
    }
    if (on_a || on_b || on_c) {
        multiply_beside(p, D);
    } else {
        multiply(p);
    }
}

}  // namespace SimpleLA
