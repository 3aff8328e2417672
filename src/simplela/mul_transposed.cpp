// SPDX-License-Identifier: Apache-2.0

#include <utility>

#include "simplela/mat_util.h"
#include "videostabilizer/gemm.h"

// Products of a matrix with its own transpose. Only the upper triangle is summed: half the work of
// a general product.

namespace SimpleLA {

namespace {

constexpr int GENERAL_ABOVE = 99;  // order, rows and columns above which gemm's blocks are faster

// src as it is; element (k, j) in double.
struct Plain {
    const Mat<float>& src;

    double operator()(int k, int j) const { return static_cast<double>(src.at(k, j)); }
};

// src - delta; the strides of a delta of one row or one column are 0.
struct Centred {
    const Mat<float>& src;
    const Mat<float>& delta;
    int row_stride = delta.rows < src.rows ? 0 : 1;
    int col_stride = delta.cols < src.cols ? 0 : 1;

    double operator()(int k, int j) const {
        return static_cast<double>(src.at(k, j)) -
               static_cast<double>(delta.at(k * row_stride, j * col_stride));
    }
};

// Row i of scale * x^T x from column j on, WIDTH elements: sums over the rows k, each in order.
template <int WIDTH, typename Elements>
void sum_columns(const Elements& x, int rows, int i, int j, double scale, float* out) {
    double sums[WIDTH] = {};
    for (int k = 0; k < rows; ++k) {
        for (int w = 0; w < WIDTH; ++w) {
            sums[w] += x(k, i) * x(k, j + w);
        }
    }
    for (int w = 0; w < WIDTH; ++w) {
        out[w] = static_cast<float>(sums[w] * scale);
    }
}

// Upper triangle of scale * x^T x.
template <typename Elements>
void columns_by_columns(const Elements& x, int rows, int cols, double scale, Mat<float>& dst) {
    for (int i = 0; i < cols; ++i) {
        float* const out = dst.row(i);
        int j = i;
        for (; j <= cols - 4; j += 4) {
            sum_columns<4>(x, rows, i, j, scale, out + j);
        }
        switch (cols - j) {
            case 3:
                sum_columns<3>(x, rows, i, j, scale, out + j);
                break;
            case 2:
                sum_columns<2>(x, rows, i, j, scale, out + j);
                break;
            case 1:
                sum_columns<1>(x, rows, i, j, scale, out + j);
                break;
            default:
                break;
        }
    }
}

// Upper triangle of scale * x x^T.
template <typename Elements>
void rows_by_rows(const Elements& x, int rows, int cols, double scale, Mat<float>& dst) {
    for (int i = 0; i < rows; ++i) {
        for (int j = i; j < rows; ++j) {
            double sum = 0.0;
            for (int k = 0; k < cols; ++k) {
                sum += x(i, k) * x(j, k);
            }
            dst.at(i, j) = static_cast<float>(sum * scale);
        }
    }
}

template <typename Elements>
void multiply_direct(const Elements& x, bool ata, double scale, Mat<float>& dst) {
    if (ata) {
        columns_by_columns(x, x.src.rows, x.src.cols, scale, dst);
    } else {
        rows_by_rows(x, x.src.rows, x.src.cols, scale, dst);
    }
}

}  // namespace

void mulTransposed(const Mat<float>& src, Mat<float>& dst, bool ata, const Mat<float>& delta,
                   double scale) {
    const int order = ata ? src.cols : src.rows;
    const bool has_delta = span_bytes(delta) > 0;
    const bool is_empty = span_bytes(src) == 0;  // checked before create: dst may be src
    const bool on_src = spans_overlap(dst, src);
    const bool large =
        order > GENERAL_ABOVE && src.cols > GENERAL_ABOVE && src.rows > GENERAL_ABOVE;

    if (!has_delta && (on_src || large)) {
        gemm(src, src, scale, Mat<float>::noMat(), 0.0, dst,
             ata ? GEMM_TRANSPOSE_A : GEMM_TRANSPOSE_B);
    } else if (has_delta && (on_src || spans_overlap(dst, delta))) {
        Mat<float> product;
        mulTransposed(src, product, ata, delta, scale);
        if (product.data == nullptr || dst.data == nullptr || dst.rows != order ||
            dst.cols != order) {
            dst = std::move(product);
        } else {
            copy_elements(product, dst);
        }
        return;
    } else {
        dst.create(order, order);
        if (span_bytes(dst) == 0) {
            return;
        }
        if (is_empty) {
            set_zero(dst);  // empty sums
        } else if (has_delta) {
            multiply_direct(Centred{src, delta}, ata, scale, dst);
        } else {
            multiply_direct(Plain{src}, ata, scale, dst);
        }
    }
    // After gemm as well: its outer product, scale * a(i) * a(j), is not symmetric in its rounding.
    completeSymm(dst, false);
}

}  // namespace SimpleLA
