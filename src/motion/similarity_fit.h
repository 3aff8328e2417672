// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include "motion/camera_pose.h"
#include "videostabilizer/keypoint.h"

namespace videostabilizer {

// Fits a step of the camera to tracked pairs as a similarity, more precisely than the affine
// estimate it starts from: with two parameters fewer and a tolerance of about a pixel of the analysis
// image it is robust against noise and against moving objects that are inliers of that estimate.
//
// Where the estimate leaves a large error, samples of two pairs are drawn, and the model with the
// least truncated squared error (MSAC: P. H. S. Torr and A. Zisserman, 2000) is chosen, the estimate
// being one of the candidates. Iteratively reweighted least squares with the weights of S. Geman and
// D. McClure (1985) refines it. The samples depend on the number of pairs only, so that results
// repeat.
//
// Threads: thread-safe.
class SimilarityFit {
  public:
    // pixel: size of a pixel of the analysis image, in pixels of the full picture.
    SimilarityFit(PictureCentre centre, double pixel);

    // from, to: the pairs, in full-resolution pixels, lists of the same length. `pose` is the initial
    // step and receives the refined one; it stays as it is where the pairs do not determine one.
    void refine(const std::vector<KeyPoint>& from, const std::vector<KeyPoint>& to,
                CameraPose& pose) const;

  private:
    PictureCentre centre_;
    double pixel_;
};

}  // namespace videostabilizer
