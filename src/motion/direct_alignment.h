#pragma once

#include <cstddef>
#include <vector>

#include "motion/camera_pose.h"
#include "motion/similarity.h"
#include "videostabilizer/keypoint.h"

namespace videostabilizer {

// The luma of two successive pictures: packed rows of `pitch` bytes.
struct LumaPair {
    const unsigned char* earlier;
    const unsigned char* later;
    int pitch;
};

// Refines the camera's step on the full-resolution pictures themselves. Tracked pairs are good to a
// few hundredths of a pixel of the analysis image, and these errors add up along the path; the
// grey levels around the corners tell some thousandths of a pixel of the full picture.
//
// Small patches of the earlier picture are laid onto the later one where the step carries them. The
// displacement that each has left follows from the difference of the grey levels and the gradient
// (B. D. Lucas and T. Kanade, 1981), the gradient being that of the earlier picture, so that it is
// computed once (inverse compositional: S. Baker and I. Matthews, 2004). The similarity that
// explains the displacements of most patches, by reweighted least squares (S. Geman and D. McClure,
// 1985), corrects the step, and all is done once or twice again.
//
// Threads: one at a time.
class DirectAlignment {
  public:
    // The size of the picture in pixels, at most that of the luma planes. pixel: the size of a
    // pixel of the analysis image, in these. Throws std::bad_alloc; needs 190 KB.
    DirectAlignment(int width, int height, double pixel);

    // from, to: pairs near which to look, in pixels, lists of the same length; `from` has positions
    // of whole pixels. `step` is the step to start from, right to about a pixel, and receives the
    // better one. Returns false, with the step as it was, where the pictures do not tell it: too
    // few patches with texture, or no better agreement, or agreement elsewhere.
    bool refine(const LumaPair& pictures, const std::vector<KeyPoint>& from,
                const std::vector<KeyPoint>& to, CameraPose& step);

  private:
    static constexpr int SIDE = 12;  // pixels of a patch
    static constexpr int AREA = SIDE * SIDE;

    struct Patch {
        double x, y;        // the middle in the earlier picture, from the picture's centre
        float grey[AREA];   // grey levels, less their mean
        float along[AREA];  // gradient, less what a change of brightness or contrast would explain
        float down[AREA];   //
        double energy;      // sum of squares of `grey`
        double xx, xy, yy;  // sums of products of the gradient
        double turn_x, turn_y;  // what turning and growing around the middle adds to the sums of
        double grow_x, grow_y;  // gradient times grey level
        // Found by the last measure().
        bool counts;
        double dx, dy;  // displacement that is left, pixels
        double misfit;  // squared difference of the grey levels, per unit of energy
        double first_misfit;
        double weight;
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
