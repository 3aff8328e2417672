// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/motion_path.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <new>
#include <utility>

#include "motion/product3x3.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

namespace {

using SimpleLA::Mat;

constexpr float NEIGHBOUR_SHARE = 0.25F;  // weight of a neighbour with a track ratio of 1

// The slot of frame i in a ring of `slots`.
std::size_t slot_of(int i, std::size_t slots) {
    return static_cast<unsigned int>(i) % slots;
}

// m += weight * other, for 3x3 matrices.
void add_weighted(Mat<float>& m, float weight, const Mat<float>& other) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            m.at(i, j) += weight * other.at(i, j);
        }
    }
}

void print_line() {
    std::printf("Mat---------------------------------------------\n");
}

}  // namespace

// With each factor the running product moves between m and a spare matrix, so after an odd number of
// them it is in the spare one. That is on the stack: half of the calls need no new matrix.
Mat<float>* getMotion(Mat<float>* m, int from, int to, const std::vector<Mat<float>*>& motions) {
    SimpleLA::set_identity(*m);
    if (motions.empty()) {
        return m;
    }

    std::array<float, 9> spare_elements{};
    Mat<float> spare(3, 3, spare_elements.data(), 3 * static_cast<int>(sizeof(float)));
    Mat<float>* product = m;
    Mat<float>* other = &spare;
    const int last = std::max(from, to);
    for (int i = std::min(from, to); i < last; ++i) {
        multiply_3x3(*motions[slot_of(i, motions.size())], *product, *other);
        std::swap(product, other);
    }
    if (to < from) {
        invert_motion(*product);
    }
    if (product != &spare) {
        return m;
    }

    auto* result = new (std::nothrow) Mat<float>(3, 3);
    if (result == nullptr || result->data == nullptr) {
        delete result;
        result = m;
    } else {
        delete m;
    }
    SimpleLA::copy_elements(spare, *result);
    return result;
}

void check_motions(std::vector<Mat<float>*>& motions, std::vector<MotionLog>& logs, int from,
                   int to) {
    const std::size_t slots = motions.size();
    if (slots == 0 || logs.size() != slots) {
        return;
    }
    for (int i = from; i < to; ++i) {
        MotionLog& log = logs[slot_of(i, slots)];
        if (log.status != 1) {
            continue;
        }
        Mat<float>& motion = *motions[slot_of(i, slots)];
        float sum = 1.0F;
        const auto blend_with = [&](int neighbour) {
            const std::size_t slot = slot_of(neighbour, slots);
            if (logs[slot].status == 0) {
                const float weight = NEIGHBOUR_SHARE * logs[slot].track_ratio;
                add_weighted(motion, weight, *motions[slot]);
                sum += weight;
            }
        };
        if (i > from) {
            blend_with(i - 1);
        }
        if (i + 1 < to) {
            blend_with(i + 1);
        }
        const float scale = 1.0F / sum;
        for (int r = 0; r < 3; ++r) {
            std::for_each_n(motion.row(r), 3, [scale](float& element) { element *= scale; });
        }
        log.status = 2;
    }
}

void print_mat(Mat<float>& m) {
    print_line();
    for (int i = 0; i < m.rows; ++i) {
        for (int j = 0; j < m.cols; ++j) {
            std::printf("%f, ", static_cast<double>(m.at(i, j)));
        }
        std::printf("\n");
    }
    print_line();
}

}  // namespace videostabilizer
