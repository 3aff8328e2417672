// SPDX-License-Identifier: Apache-2.0

#include "path/crop.h"

namespace videostabilizer {

void fold_in_crop(PictureCentre centre, double crop_ratio, SimpleLA::Mat<float>& correction) {
    const double enlargement = 1.0 / crop_ratio;
    for (int r = 0; r < 2; ++r) {
        const double middle = r == 0 ? centre.x : centre.y;
        for (int c = 0; c < 3; ++c) {
            const double off = c == 2 ? middle : 0;
            const double element = static_cast<double>(correction.at(r, c));
            correction.at(r, c) = static_cast<float>(off + enlargement * (element - off));
        }
    }
}

}  // namespace videostabilizer
