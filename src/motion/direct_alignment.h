// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <vector>

#include "motion/camera_pose.h"
#include "motion/similarity.h"
#include "videostabilizer/keypoint.h"

namespace videostabilizer {

// The luma planes of two successive pictures, and the bytes from row to row of each.
struct LumaPair {
    const unsigned char* earlier;
    const unsigned char* later;
    int earlier_pitch;
    int later_pitch;
};

// Refines a step of the camera on the full-resolution pictures. Tracked pairs are good to a few
// hundredths of a pixel of the analysis image, and these errors add up along the path; grey levels
// around the corners give thousandths of a pixel of the full picture.
//
// Small patches of the earlier picture are compared with the later one where the step maps them to.
// The remaining displacement of each follows from the difference of the grey levels and the gradient
// (B. D. Lucas and T. Kanade, 1981); the gradient is that of the earlier picture, and so computed
// once (inverse compositional: S. Baker and I. Matthews, 2004). The similarity that fits the
// displacements best, by reweighted least squares (S. Geman and D. McClure, 1985), corrects the
// step. This is iterated until the correction is small.
//
// Threads: owner only.
class DirectAlignment {
  public:
    // width, height: size of the picture, pixels, at most that of the luma planes. pixel: size of a
    // pixel of the analysis image, in these. Throws std::bad_alloc; needs 190 KB.
    DirectAlignment(int width, int height, double pixel);

    // from, to: tracked pairs, in pixels, lists of the same length; `from` has whole coordinates.
    // `step` is the initial step, accurate to about a pixel, and receives the refined one. Returns
    // false and leaves it as it is where too few patches have texture, the pictures do not match
    // better than before, or the change is too large.
    bool refine(const LumaPair& pictures, const std::vector<KeyPoint>& from,
                const std::vector<KeyPoint>& to, CameraPose& step);

  private:
    static constexpr int SIDE = 12;  // pixels of a patch; measured: see docs/strength.md
    static constexpr int AREA = SIDE * SIDE;

    struct Patch {
        double x, y;        // its middle in the earlier picture, relative to the picture's centre
        float grey[AREA];   // grey levels minus their mean
        float along[AREA];  // horizontal gradient, orthogonal to brightness and contrast changes
        float down[AREA];   // vertical gradient, likewise
        double energy;      // sum of squares of `grey`
        double xx, xy, yy;  // sums of products of the gradients
        double turn_x, turn_y;  // sums of gradient times the change of grey level by rotation and
        double grow_x, grow_y;  // by zoom about the patch's middle
        // Results of measure().
        bool counts;          // dx, dy are valid
        double dx, dy;        // remaining displacement, pixels
        double misfit;        // squared difference of the grey levels, relative to the energy
        double first_misfit;  // that of the initial step
        double weight;        // in the last fit
    };

    void choose_patches(const LumaPair& pictures, const std::vector<KeyPoint>& from,
                        const std::vector<KeyPoint>& to, const Similarity& motion);
    bool has_room(int x, int y) const;
    void make_patch(const LumaPair& pictures, int x, int y, Patch& patch) const;
    void measure(const LumaPair& pictures, const Similarity& motion, Patch& patch) const;
    bool fit_change(Similarity& change);
    double scatter(const Similarity& change);
    double reach(const Similarity& field) const;
    bool agrees_better() const;

    int width_;
    int height_;
    PictureCentre centre_;
    double pixel_;
    std::vector<Patch> patches_;
    std::size_t count_ = 0;       // of these in use
    std::vector<double> errors_;  // scratch
};

}  // namespace videostabilizer
