// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <vector>

#include "camera_motion/block_search.h"
#include "camera_motion/camera_step.h"
#include "camera_motion/luma_pyramid.h"
#include "camera_motion/patch.h"
#include "camera_motion/scene_layers.h"
#include "camera_motion/seen_pair.h"
#include "camera_motion/similarity_consensus.h"
#include "camera_motion/texture_sites.h"
#include "motion/camera_pose.h"
#include "motion/similarity.h"

namespace videostabilizer {

// Finds the camera's steps in the pictures themselves, coarse to fine. Sizes are those of the longer
// side; narrow pictures are reduced less.
//
// 1. In a picture of at most 80 pixels, blocks are looked for within a fifth of its size. The motions
//    on which most of them agree, the next best ones, and the continuation of the last step are the
//    hypotheses.
// 2. In one of twice the size, patches all over the picture are followed from each hypothesis. The motion
//    that most of the trusted picture agrees on wins; what is trusted is what SceneLayers knows.
// 3. Places with texture are followed, each on its own, in a picture of at most 320 pixels, and the
//    winner is fitted to them.
// 4. They are followed on in the full picture, or one of at most 1280 pixels, to some hundredths of a
//    pixel. Where blur or noise leave nothing to be followed there, the result of 3 holds, and
//    where there is none either, that of 2.
//
// Threads: owner only.
class CameraMotion {
  public:
    CameraMotion(int width, int height);  // of the pictures, pixels; throws std::bad_alloc

    // Adds a picture of 8-bit grey levels and finds the step from the one before; that of the first
    // one is not found. The picture must stay until the next call has returned.
    CameraStep add(const unsigned char* luma, int pitch);

    // Says how much further lines of a picture usually move than the ones before, pixels, because the sensor
    // is read line by line; 0, as at first: not at all. Holds from the next picture on.
    void expect_shear(double deviation, bool by_columns);

    // What the last step was found from, also what does not agree with it; nothing if that was
    // only a few patches, or the step was not found.
    const std::vector<SeenPair>& pairs() const { return pairs_; }

  private:
    // A motion in a level's pixels, relative to the picture's centre, and how well it is supported.
    struct Estimate {
        Similarity motion{1, 0, 0, 0};
        Similarity assumed{1, 0, 0, 0};  // that the sightings are relative to
        LineShear shear;
        double support = 0;  // 0..1
        double scatter = 0;  // standard deviation of what agrees, pixels of the level
        std::size_t agreeing = 0;
        bool valid = false;
        std::size_t part = 0;  // which of parts_ tells where it agrees, of one of the patch level
    };
    struct Hypothesis {
        Estimate estimate;  // in pixels of the patch level
        double rating;
    };
    struct FollowedSite {
        double x, y;  // in pixels of the site level, of that level's picture
        std::size_t cell;
        double rx, ry;  // where it is seen beyond the motion, likewise
        bool followed;
        double deviation;  // of rx and ry, likewise
    };
    struct PlacedPatch {
        int x, y;  // its top left pixel
        std::size_t cell;
    };

    const LumaPyramid& earlier() const { return pyramids_[1 - newest_]; }
    const LumaPyramid& later() const { return pyramids_[newest_]; }

    void find_hypotheses();
    bool is_new(const Similarity& motion) const;
    double continuation(const Similarity& motion) const;
    void rate_from(const Similarity& hypothesis);
    void rate_hypotheses();
    Estimate follow_sites(const Estimate& coarse);
    Estimate follow_best(Estimate& coarse);
    void share_votes();
    double part_at(std::size_t part, double x, double y) const;
    void sum_up(Estimate& estimate) const;
    Estimate follow_on(const Estimate& from);
    double reach(const Similarity& field, std::size_t level) const;
    double rolling_scatter(std::size_t level) const;
    void learn(const Estimate& sites);
    CameraStep describe(const Estimate& coarse, const Estimate& sites) const;
    void take(const Similarity& motion, std::size_t level, CameraStep& step) const;
    Similarity going_on(std::size_t level) const;
    void keep_pairs(const Similarity& assumed, std::size_t level);

    LumaPyramid pyramids_[2];
    std::size_t newest_ = 0;
    std::size_t block_level_, patch_level_, site_level_;
    BlockSearch blocks_;
    TextureSites textures_;
    SceneLayers layers_;
    SimilarityConsensus consensus_;
    bool has_picture_ = false;
    CameraPose last_step_;
    LineShear shear_;  // that is expected

    std::vector<Similarity> hypotheses_;  // in pixels of the patch level
    std::vector<Hypothesis> rated_;       // the best first
    std::vector<PlacedPatch> places_;
    int columns_ = 0;                        // of places_
    int spacing_ = 1;                        // pixels from one to the next
    std::vector<std::vector<float>> parts_;  // by rated motion and place: 0, none, to 1
    std::size_t part_count_ = 0;
    std::vector<Patch> patches_;
    std::vector<FollowedSite> sites_;
    std::vector<Sighting> sightings_;
    std::vector<SeenPair> pairs_;
};

}  // namespace videostabilizer
