// SPDX-License-Identifier: Apache-2.0

#pragma once

// fitAffine for as many sets of pairs at once as a vector type has lanes, or for one with OneFloat.
// The results equal those of fitAffine bit for bit: all operations that can change a value are done
// in the same order and precision. What is left out changes nothing:
//
// - The normal matrix of the interleaved equations for x' and y' consists of zeros and twice the
//   same symmetric 3x3 matrix M on its diagonal. Elimination in one block adds zeros to the other,
//   and pivots of a block come from its own rows.
// - The sums of A^T b are four interleaved partial sums over the equations. Every other term is
//   zero, which leaves the pairs with even and those with odd index.
// - The normalising transforms and their inverses contain zeros, whose products are added to sums
//   that began at 0 and so are never a negative zero.
//
// This holds for finite values: a fit whose result is not finite must be repeated with fitAffine.
// And for 4 to 5000 pairs: for three fitAffine forms no normal equations, for more than 5000 it sums
// in blocks.

#include <cstddef>

namespace videostabilizer {

// float as a vector of one lane.
struct OneFloat {
    struct Wide {
        double v;

        static Wide zero() { return {0.0}; }
        friend Wide operator+(Wide a, Wide b) { return {a.v + b.v}; }
        friend Wide operator*(Wide a, Wide b) { return {a.v * b.v}; }
    };
    using Mask = bool;
    static constexpr int LANES = 1;
    float v;

    static OneFloat load(const float* from) { return {*from}; }
    static OneFloat splat(float value) { return {value}; }
    friend void store(float* to, OneFloat a) { *to = a.v; }
    friend OneFloat operator+(OneFloat a, OneFloat b) { return {a.v + b.v}; }
    friend OneFloat operator-(OneFloat a, OneFloat b) { return {a.v - b.v}; }
    friend OneFloat operator*(OneFloat a, OneFloat b) { return {a.v * b.v}; }
    friend OneFloat operator/(OneFloat a, OneFloat b) { return {a.v / b.v}; }
    friend OneFloat root(OneFloat a) { return {__builtin_sqrtf(a.v)}; }
    friend OneFloat absolute(OneFloat a) { return {__builtin_fabsf(a.v)}; }
    friend Mask less(OneFloat a, OneFloat b) { return a.v < b.v; }
    friend OneFloat pick(Mask mask, OneFloat yes, OneFloat no) { return mask ? yes : no; }
    friend Wide widen(OneFloat a) { return {static_cast<double>(a.v)}; }
    static OneFloat narrow(Wide a) { return {static_cast<float>(a.v)}; }
};

// The coordinates of n pairs for each lane: those of pair i in lane l are at [i * LANES + l].
struct PairLanes {
    float* src_x;
    float* src_y;
    float* dst_x;
    float* dst_y;
    int n;
};

// [[scale, 0, x], [0, scale, y], [0, 0, 1]]
template <typename Floats>
struct Normalising {
    Floats scale;
    Floats x;
    Floats y;
};

// normalizePoints.
template <typename Floats>
Normalising<Floats> normalise_lanes(float* xs, float* ys, int n) {
    constexpr std::ptrdiff_t LANES = Floats::LANES;
    const Floats zero = Floats::splat(0.0F);
    const Floats count = Floats::splat(static_cast<float>(n));
    Floats sum_x = zero;
    Floats sum_y = zero;
    for (int i = 0; i < n; ++i) {
        sum_x = sum_x + Floats::load(xs + i * LANES);
        sum_y = sum_y + Floats::load(ys + i * LANES);
    }
    const Floats mx = sum_x / count;
    const Floats my = sum_y / count;

    Floats sum_distance = zero;
    for (int i = 0; i < n; ++i) {
        const Floats x = Floats::load(xs + i * LANES) - mx;
        const Floats y = Floats::load(ys + i * LANES) - my;
        store(xs + i * LANES, x);
        store(ys + i * LANES, y);
        sum_distance = sum_distance + root(x * x + y * y);
    }
    const Floats scale = Floats::splat(1.4142135F) / (sum_distance / count);
    for (int i = 0; i < n; ++i) {
        store(xs + i * LANES, Floats::load(xs + i * LANES) * scale);
        store(ys + i * LANES, Floats::load(ys + i * LANES) * scale);
    }
    return {scale, zero - mx * scale, zero - my * scale};
}

// M and its two right sides, A^T b for x' and for y', row by row: [M(i, 0 .. 2), b_x, b_y].
template <typename Floats>
struct NormalEquations {
    Floats row[3][5];
};

template <typename Floats>
NormalEquations<Floats> normal_equations(const PairLanes& pairs) {
    using Doubles = typename Floats::Wide;
    constexpr std::ptrdiff_t LANES = Floats::LANES;
    const Doubles zero = Doubles::zero();
    Doubles xx = zero;
    Doubles xy = zero;
    Doubles yy = zero;
    Doubles x1 = zero;
    Doubles y1 = zero;
    Doubles right[2][3][2];  // index even or odd; x, y, 1; x', y'
    for (auto& half : right) {
        for (auto& row : half) {
            row[0] = zero;
            row[1] = zero;
        }
    }
    const auto add_pair = [&](int i, Doubles(&sums)[3][2]) {
        const Doubles x = widen(Floats::load(pairs.src_x + i * LANES));
        const Doubles y = widen(Floats::load(pairs.src_y + i * LANES));
        const Doubles to_x = widen(Floats::load(pairs.dst_x + i * LANES));
        const Doubles to_y = widen(Floats::load(pairs.dst_y + i * LANES));
        xx = xx + x * x;
        xy = xy + x * y;
        yy = yy + y * y;
        x1 = x1 + x;
        y1 = y1 + y;
        sums[0][0] = sums[0][0] + x * to_x;
        sums[0][1] = sums[0][1] + x * to_y;
        sums[1][0] = sums[1][0] + y * to_x;
        sums[1][1] = sums[1][1] + y * to_y;
        sums[2][0] = sums[2][0] + to_x;
        sums[2][1] = sums[2][1] + to_y;
    };
    int i = 0;
    for (; i < pairs.n - 1; i += 2) {
        add_pair(i, right[0]);
        add_pair(i + 1, right[1]);
    }
    if (i < pairs.n) {
        add_pair(i, right[0]);
    }
    const auto side = [&right](int row, int column) {
        return Floats::narrow(right[0][row][column] + right[1][row][column]);
    };
    const Floats m01 = Floats::narrow(xy);
    const Floats m02 = Floats::narrow(x1);
    const Floats m12 = Floats::narrow(y1);
    return {{{Floats::narrow(xx), m01, m02, side(0, 0), side(0, 1)},
             {m01, Floats::narrow(yy), m12, side(1, 0), side(1, 1)},
             {m02, m12, Floats::splat(static_cast<float>(pairs.n)), side(2, 0), side(2, 1)}}};
}

template <typename Floats>
void swap_rows_where(typename Floats::Mask mask, Floats (&a)[5], Floats (&b)[5]) {
    for (int c = 0; c < 5; ++c) {
        const Floats old = a[c];
        a[c] = pick(mask, b[c], old);
        b[c] = pick(mask, old, b[c]);
    }
}

// LU with row pivoting and its two solutions p(0 .. 2) and p(3 .. 5); zeros where a pivot is below
// LU's limit for singular matrices.
template <typename Floats>
void solve_lanes(NormalEquations<Floats>& m, Floats p[6]) {
    const Floats zero = Floats::splat(0.0F);
    const Floats one = Floats::splat(1.0F);
    const Floats smallest = Floats::splat(0x1p-23F);
    Floats regular = one;  // 0 where the matrix is singular
    Floats reciprocal[3];
    for (int i = 0; i < 3; ++i) {
        // The first of the largest elements becomes the pivot: a later row only if it is larger.
        if (i == 0) {
            const auto second = less(absolute(m.row[0][0]), absolute(m.row[1][0]));
            const Floats larger = pick(second, m.row[1][0], m.row[0][0]);
            const auto third = less(absolute(larger), absolute(m.row[2][0]));
            for (int c = 0; c < 5; ++c) {
                const Floats first = m.row[0][c];
                m.row[0][c] = pick(third, m.row[2][c], pick(second, m.row[1][c], first));
                m.row[1][c] = pick(third, m.row[1][c], pick(second, first, m.row[1][c]));
                m.row[2][c] = pick(third, first, m.row[2][c]);
            }
        } else if (i == 1) {
            swap_rows_where<Floats>(less(absolute(m.row[1][1]), absolute(m.row[2][1])), m.row[1],
                                    m.row[2]);
        }
        const Floats pivot = m.row[i][i];
        regular = pick(less(absolute(pivot), smallest), zero, regular);
        const Floats d = Floats::splat(-1.0F) / pivot;
        for (int j = i + 1; j < 3; ++j) {
            const Floats alpha = m.row[j][i] * d;
            for (int c = i + 1; c < 5; ++c) {
                m.row[j][c] = m.row[j][c] + alpha * m.row[i][c];
            }
        }
        reciprocal[i] = zero - d;
    }
    const auto singular = less(regular, one);
    for (int side = 0; side < 2; ++side) {
        const int c = 3 + side;
        const Floats p2 = m.row[2][c] * reciprocal[2];
        const Floats p1 = (m.row[1][c] - m.row[1][2] * p2) * reciprocal[1];
        const Floats p0 = ((m.row[0][c] - m.row[0][1] * p1) - m.row[0][2] * p2) * reciprocal[0];
        p[3 * side] = pick(singular, zero, p0);
        p[3 * side + 1] = pick(singular, zero, p1);
        p[3 * side + 2] = pick(singular, zero, p2);
    }
}

// Fits the motions of all lanes: element e of the upper two rows is written to
// models[e * LANES + l]. The pairs are left normalised.
template <typename Floats>
void fit_affine_lanes(const PairLanes& pairs, float* models) {
    constexpr std::ptrdiff_t LANES = Floats::LANES;
    const Floats zero = Floats::splat(0.0F);
    const Normalising<Floats> ts = normalise_lanes<Floats>(pairs.src_x, pairs.src_y, pairs.n);
    const Normalising<Floats> td = normalise_lanes<Floats>(pairs.dst_x, pairs.dst_y, pairs.n);
    NormalEquations<Floats> equations = normal_equations<Floats>(pairs);
    Floats p[6];
    solve_lanes(equations, p);

    // Td^-1 by cofactors: [[scale, 0, x], [0, scale, y], ...].
    const Floats r = Floats::splat(1.0F) / (td.scale * td.scale);
    const Floats inverse_scale = td.scale * r;
    const Floats inverse_shift[2] = {(zero - td.x * td.scale) * r, (zero - td.scale * td.y) * r};
    for (int row = 0; row < 2; ++row) {
        const Floats m0 = zero + inverse_scale * p[3 * row];
        const Floats m1 = zero + inverse_scale * p[3 * row + 1];
        const Floats m2 = (zero + inverse_scale * p[3 * row + 2]) + inverse_shift[row];
        float* const out = models + 3 * row * LANES;
        store(out, zero + m0 * ts.scale);
        store(out + LANES, zero + m1 * ts.scale);
        store(out + 2 * LANES, ((zero + m0 * ts.x) + m1 * ts.y) + m2);
    }
}

}  // namespace videostabilizer
