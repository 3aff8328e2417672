#include "tests/motion/test_support.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace videostabilizer {

Mat<float>* new_motion(const Affine& affine) {
    auto* m = new Mat<float>(3, 3);
    std::copy(affine.begin(), affine.end(), m->data);
    std::copy_n(std::array<float, 3>{0, 0, 1}.data(), 3, m->row(2));
    return m;
}

testing::AssertionResult is_motion(const Mat<float>& m, const Affine& affine, float linear,
                                   float pixels) {
    const float wanted[3][3] = {
        {affine[0], affine[1], affine[2]}, {affine[3], affine[4], affine[5]}, {0, 0, 1}};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            const float tolerance = i < 2 && j == 2 ? pixels : linear;
            if (!(std::abs(m.at(i, j) - wanted[i][j]) <= tolerance)) {  // a NaN is wrong, too
                return testing::AssertionFailure() << "element (" << i << ", " << j << ") is "
                                                   << m.at(i, j) << ", not " << wanted[i][j];
            }
        }
    }
    return testing::AssertionSuccess();
}

KeyPoint move_point(const Affine& affine, const KeyPoint& p) {
    return {affine[0] * p.x + affine[1] * p.y + affine[2],
            affine[3] * p.x + affine[4] * p.y + affine[5], p.response, p.reserved};
}

std::vector<KeyPoint> spread_points(int n) {
    std::mt19937 generator(1);
    const auto coordinate = [&generator](unsigned int limit) {
        return static_cast<float>(generator() % limit);
    };
    std::vector<KeyPoint> points;
    for (int i = 0; i < n; ++i) {
        const float x = coordinate(1920);
        points.push_back({x, coordinate(1080), static_cast<float>(i), static_cast<unsigned>(i)});
    }
    return points;
}

History::History(const std::vector<Affine>& affines) {
    for (const Affine& affine : affines) {
        owned_.emplace_back(new_motion(affine));
        motions.push_back(owned_.back().get());
    }
}

}  // namespace videostabilizer
