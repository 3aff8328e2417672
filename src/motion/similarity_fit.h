#pragma once

#include <vector>

#include "motion/camera_pose.h"
#include "videostabilizer/keypoint.h"

namespace videostabilizer {

// Fits the camera's step from tracked pairs as a similarity, more finely than the affine estimate
// from which it starts: with two parameters less and a tolerance of about a pixel of the analysis
// image it hardly feels the noise of single pairs, nor objects that move by themselves but stay
// within the wide tolerance of that estimate.
//
// Where that estimate leaves many pairs unexplained it draws samples of two pairs, takes the model
// with the least sum of squared errors, each capped (MSAC: P. H. S. Torr and A. Zisserman, 2000),
// the affine estimate being one of the candidates, and refines it by reweighted least squares with
// the weights of S. Geman and D. McClure (1985). The samples are the same for the same number of
// pairs, so the result repeats.
//
// Threads: one at a time.
class SimilarityFit {
  public:
    // pixel: the size of a pixel of the analysis image, in pixels of the full picture.
    SimilarityFit(PictureCentre centre, double pixel);

    // from, to: the pairs, in full-resolution pixels; the lists have the same length. `pose` is the
    // step to start from and receives the better one. Without enough pairs it stays.
    void refine(const std::vector<KeyPoint>& from, const std::vector<KeyPoint>& to,
                CameraPose& pose) const;

  private:
    PictureCentre centre_;
    double pixel_;
};

}  // namespace videostabilizer
