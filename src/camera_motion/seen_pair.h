// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace videostabilizer {

// A place of a picture, and how far from it the next picture shows it. Pixels of the pictures; positions
// are relative to their centre.
struct SeenPair {
    float x, y;
    float dx, dy;
    float vxx, vxy, vyy;  // covariance of dx, dy
    float trust;          // 0 and more: that it moves with the camera
};

}  // namespace videostabilizer
