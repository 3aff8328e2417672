// SPDX-License-Identifier: Apache-2.0

#include "common/synthetic/deterministic.h"

#include <cmath>
#include <initializer_list>

namespace synthetic {

namespace {

constexpr double PI = 3.14159265358979323846;

}  // namespace

double sin_turns(double turns) {
    double t = turns - std::floor(turns + 0.5);  // [-1/2, 1/2)
    if (t > 0.25) {
        t = 0.5 - t;
    }
    if (t < -0.25) {
        t = -0.5 - t;
    }
    const double x = 2 * PI * t;  // [-pi/2, pi/2]
    const double q = x * x;
    // Taylor series to x^15; the next term is below 1e-11 at pi/2.
    double sum = -1.0 / 1307674368000;
    for (const double term :
         {1.0 / 6227020800, -1.0 / 39916800, 1.0 / 362880, -1.0 / 5040, 1.0 / 120, -1.0 / 6, 1.0}) {
        sum = sum * q + term;
    }
    return sum * x;
}

double cos_turns(double turns) {
    return sin_turns(turns + 0.25);
}

}  // namespace synthetic
