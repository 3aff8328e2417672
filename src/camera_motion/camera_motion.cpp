// SPDX-License-Identifier: Apache-2.0

#include "camera_motion/camera_motion.h"

#include <algorithm>
#include <cmath>

namespace videostabilizer {

namespace {

// What half and twice of these do is in docs/strength.md.

// Hypotheses, in the block level.
constexpr double REACH = 0.22;      // of the longer side: the largest shift that is looked for
constexpr int FURTHEST_RANGE = 24;  // pixels: narrow pictures are not reduced so far
constexpr int NEAR_RANGE = 4;       // pixels around the last step
// Share of the votes that must agree near the last step; otherwise all of the reach is searched.
constexpr double WELL_SEEN = 0.5;
constexpr double BLOCK_CAP = 0.6;         // pixels
constexpr double BLOCK_VARIANCE = 0.04;   // square pixels: places are good to a fifth of one
constexpr double LEAST_CERTAINTY = 0.25;  // of a block
constexpr double OTHER_SUPPORT = 0.12;    // of the votes, to be a hypothesis
constexpr std::size_t MOST_HYPOTHESES = 4;

// Rating them, in the patch level.
constexpr double USUAL_PATCHES = 110;
constexpr int CLOSEST_PATCHES = 6;  // pixels from one to the next
constexpr double PATCH_CAP = 0.3;   // pixels
constexpr std::size_t LAYERS = 2;   // motions that one hypothesis can lead to
constexpr double SAME = 0.7;        // pixels: motions that differ by less are one
// The continuation of the last step is believed to be right where two motions are about equal.
constexpr double CONTINUATION = 0.15;
constexpr double CONTINUED = 0.03;  // of the diagonal: how far it may be off

// Following, in the site level and the finest one.
constexpr std::size_t MOST_FOLLOWED = 3;  // motions
constexpr double COMPARABLE = 0.9;        // of the best rating
// Weight of places where patches do not agree with the motion. Large patches see what is faint, which is
// little among the places with the best texture.
constexpr double OTHER_PART = 0.2;
constexpr double UNKNOWN_PART = 0.5;   // where patches have no texture
constexpr double CLEAR_SUPPORT = 0.5;  // no other motion can be better
constexpr std::size_t FINEST = 0;      // level
constexpr std::size_t MOST_FINE_SITES = 120;
constexpr double FURTHEST = 4;      // pixels from a hypothesis
constexpr double LONGEST_STEP = 2;  // pixels: the gradient predicts no longer one
// In pixels of a picture of 640. A rolling shutter moves the borders of one picture against each other:
// a tight gate would take in another part of it in each frame.
constexpr double SITE_CAP = 1.5;
constexpr double SITE_GATE = 2;  // of the cap
constexpr double FINE_GATE = 1;
// Pictures that are blurred differently agree better where they are small.
constexpr double NO_WORSE = 1.5;  // scatter in a level, relative to that in the level before
// What a rolling shutter makes scatter in all levels: of what it moves the outer lines by.
constexpr double ROLLING_SCATTER = 0.05;

// What is found.
// A handheld camera turns by at most 0.03 radians from frame to frame, and zooms by 0.025 while walking.
constexpr double LARGEST_TURN = 0.5;
constexpr double LARGEST_ZOOM = 0.4;  // logarithm
constexpr double AGREES = 0.25;       // of a sighting's agreement
// As many make a motion; or, in a picture with hardly anything to be followed, most of a few.
constexpr std::size_t ENOUGH_SITES = 12;
constexpr std::size_t FEWEST_SITES = 3;
constexpr double MOST_OF_FEW = 0.6;
constexpr double LEAST_SITE_SUPPORT = 0.08;
constexpr double LEAST_PATCH_SUPPORT = 0.15;
constexpr std::size_t STRANGE_SITES = 24;
constexpr double STRANGE_SUPPORT = 0.05;

// A pixel of a picture of 640, in which the constants were measured, in those of this one.
double usual_pixel(const LumaView& picture) {
    return std::max(picture.width, picture.height) / 640.0;
}

Similarity scaled(const Similarity& s, double factor) {
    return {s.a, s.b, factor * s.c, factor * s.d};
}

// Sees a patch of the earlier picture in the later one, on its own: where `motion` takes it, moved on by
// (dx, dy) of the sighting, and from there on by what is found, until that is less than `close` pixels.
struct Following {
    const LumaView& later;
    PictureCentre centre;
    const Similarity& motion;
    int most_steps;
    double close;
    double longest_step;  // pixels; a longer one is an error
};

void follow(const Patch& patch, const Following& f, Sighting& s) {
    const double x = f.motion.map_x(s.x, s.y) + f.centre.x - Patch::MIDDLE;
    const double y = f.motion.map_y(s.x, s.y) + f.centre.y - Patch::MIDDLE;
    s.counts = false;
    for (int k = 0; k < f.most_steps; ++k) {
        const Patch::Match match = patch.match(f.later, x + s.dx, y + s.dy, f.motion);
        const double step = std::hypot(match.dx, match.dy);
        if (!match.leads_on || !(step < f.longest_step)) {
            s.counts = false;
            return;
        }
        s.counts = match.counts;
        s.dx += match.dx;
        s.dy += match.dy;
        s.vxx = match.vxx;
        s.vxy = match.vxy;
        s.vyy = match.vyy;
        s.likeness = match.likeness;
        if (step < f.close) {
            return;
        }
    }
}

bool is_enough(std::size_t agreeing, std::size_t sites) {
    return agreeing >= ENOUGH_SITES ||
           (agreeing >= FEWEST_SITES &&
            static_cast<double>(agreeing) >= MOST_OF_FEW * static_cast<double>(sites));
}

std::size_t above(std::size_t levels, std::size_t steps) {
    return levels > steps ? levels - 1 - steps : 0;
}

}  // namespace

CameraMotion::CameraMotion(int width, int height)
    : pyramids_{LumaPyramid(width, height), LumaPyramid(width, height)},
      block_level_(above(pyramids_[0].levels(), 0)),
      patch_level_(above(pyramids_[0].levels(), 1)),
      site_level_(above(pyramids_[0].levels(), 2)),
      blocks_(pyramids_[0].level(block_level_).width, pyramids_[0].level(block_level_).height),
      textures_(pyramids_[0].level(site_level_).width, pyramids_[0].level(site_level_).height),
      layers_(pyramids_[0].level(site_level_).width, pyramids_[0].level(site_level_).height) {
    const LumaView& picture = pyramids_[0].level(patch_level_);
    const double area = static_cast<double>(picture.width) * picture.height;
    const int spacing =
        std::max(CLOSEST_PATCHES, static_cast<int>(std::sqrt(area / USUAL_PATCHES)));
    const auto to_site = pyramids_[0].pixel(patch_level_) / pyramids_[0].pixel(site_level_);
    for (int y = 1; Patch::has_room(picture, 1, y); y += spacing) {
        for (int x = 1; Patch::has_room(picture, x, y); x += spacing) {
            places_.push_back({x, y,
                               layers_.cell_at((x + Patch::MIDDLE + 0.5) * to_site,
                                               (y + Patch::MIDDLE + 0.5) * to_site)});
        }
    }
    patches_.resize(places_.size());
    columns_ = static_cast<int>(
        std::count_if(places_.begin(), places_.end(),
                      [this](const PlacedPatch& place) { return place.y == places_[0].y; }));
    spacing_ = spacing;
    parts_.assign(LAYERS * (MOST_HYPOTHESES + 1), std::vector<float>(places_.size(), 1));
    sites_.reserve(textures_.grid().count());
    hypotheses_.reserve(MOST_HYPOTHESES + 1);
    rated_.reserve(LAYERS * (MOST_HYPOTHESES + 1));
    pairs_.reserve(textures_.grid().count());
    sightings_.reserve(std::max(places_.size(), textures_.grid().count()));
}

void CameraMotion::expect_shear(double deviation, bool by_columns) {
    shear_.deviation = deviation;
    shear_.by_columns = by_columns;
}

double CameraMotion::rolling_scatter(std::size_t level) const {
    const PictureCentre centre = later().centre(level);
    return ROLLING_SCATTER * shear_.deviation * (shear_.by_columns ? centre.x : centre.y);
}

double CameraMotion::reach(const Similarity& field, std::size_t level) const {
    const PictureCentre centre = later().centre(level);
    double most = 0;
    for (const double x : {-centre.x, centre.x}) {
        for (const double y : {-centre.y, centre.y}) {
            most = std::max(most, std::hypot(field.map_x(x, y), field.map_y(x, y)));
        }
    }
    return most;
}

// Whether none that is rated leads to the same.
bool CameraMotion::is_new(const Similarity& motion) const {
    return std::none_of(rated_.begin(), rated_.end(), [&](const Hypothesis& other) {
        return reach(motion - other.estimate.motion, patch_level_) < SAME;
    });
}

void CameraMotion::find_hypotheses() {
    const LumaView& picture = later().level(block_level_);
    const PictureCentre centre = later().centre(block_level_);
    const double to_site = later().pixel(block_level_) / later().pixel(site_level_);
    const double to_patch = later().pixel(block_level_) / later().pixel(patch_level_);
    const int longer = std::max(picture.width, picture.height);
    const ConsensusSettings settings = {BLOCK_CAP, 2 * BLOCK_CAP, BLOCK_CAP / 3, 0.2 * longer};
    const Similarity expected = going_on(block_level_);

    hypotheses_.clear();
    const auto search = [&](double dx, double dy, int range) {
        sightings_.clear();
        for (const BlockSearch::Block& block : blocks_.search(
                 static_cast<int>(std::lround(dx)), static_cast<int>(std::lround(dy)), range)) {
            Sighting s;
            s.x = block.x - centre.x;
            s.y = block.y - centre.y;
            s.dx = block.dx;
            s.dy = block.dy;
            s.vxx = s.vyy = BLOCK_VARIANCE;
            s.counts = block.certainty > LEAST_CERTAINTY;
            s.trust = block.certainty * layers_.trust(layers_.cell_at((block.x + 0.5) * to_site,
                                                                      (block.y + 0.5) * to_site));
            s.vote = s.trust;
            sightings_.push_back(s);
        }
        double first = 0;
        while (hypotheses_.size() < MOST_HYPOTHESES) {
            Similarity change{0, 0, 0, 0};
            double scatter = 0;
            const double agreed = consensus_.sample(sightings_, settings, change);
            LineShear shear = shear_;
            if (agreed < OTHER_SUPPORT ||
                !consensus_.refine(sightings_, {1, 0, 0, 0}, settings, change, shear, scatter)) {
                break;
            }
            first = first > 0 ? first : agreed;  // later ones are shares of the rest
            hypotheses_.push_back(scaled(Similarity{1, 0, 0, 0} + change, to_patch));
            // The next one is that of the rest.
            bool left = false;
            for (Sighting& s : sightings_) {
                s.counts = s.counts && s.agreement < AGREES;
                left = left || s.counts;
            }
            if (!left) {
                break;
            }
        }
        return first;
    };
    const double near = search(expected.c, expected.d, NEAR_RANGE);
    if (near < WELL_SEEN) {
        hypotheses_.clear();
        search(0, 0, std::min(FURTHEST_RANGE, static_cast<int>(std::lround(REACH * longer))));
    }
    hypotheses_.push_back(scaled(expected, to_patch));
}

// Follows the patches of the patch level from a hypothesis, and rates the motions on which most of them
// and most of the rest agree.
void CameraMotion::rate_from(const Similarity& hypothesis) {
    const LumaView& picture = later().level(patch_level_);
    const PictureCentre centre = later().centre(patch_level_);
    const Following following = {picture, centre, hypothesis, 5, 0.1, LONGEST_STEP};
    sightings_.clear();
    for (std::size_t i = 0; i < places_.size(); ++i) {
        if (patches_[i].has_texture()) {
            Sighting s;
            s.x = places_[i].x + Patch::MIDDLE - centre.x;
            s.y = places_[i].y + Patch::MIDDLE - centre.y;
            s.trust = layers_.trust(places_[i].cell);
            s.vote = s.trust;
            follow(patches_[i], following, s);
            s.counts = s.counts && std::hypot(s.dx, s.dy) < FURTHEST;
            sightings_.push_back(s);
        }
    }
    const double longer = std::max(picture.width, picture.height);
    const ConsensusSettings settings = {PATCH_CAP, 2 * PATCH_CAP, 0.05, 0.2 * longer};
    for (std::size_t k = 0; k < LAYERS; ++k) {
        Estimate estimate;
        Similarity change{0, 0, 0, 0};
        const double agreed = consensus_.sample(sightings_, settings, change);
        estimate.shear = shear_;
        if ((k > 0 && agreed < OTHER_SUPPORT) ||
            !consensus_.refine(sightings_, hypothesis, settings, change, estimate.shear,
                               estimate.scatter)) {
            return;
        }
        estimate.motion = hypothesis + change;
        estimate.valid = true;
        sum_up(estimate);
        if (is_new(estimate.motion)) {
            estimate.part = part_count_++;
            std::size_t next = 0;
            for (std::size_t i = 0; i < places_.size(); ++i) {
                const bool seen = patches_[i].has_texture();
                parts_[estimate.part][i] =
                    static_cast<float>(seen ? sightings_[next++].agreement : UNKNOWN_PART);
            }
            const double rating = estimate.support * continuation(estimate.motion);
            const auto place =
                std::find_if(rated_.begin(), rated_.end(),
                             [rating](const Hypothesis& h) { return h.rating < rating; });
            rated_.insert(place, {estimate, rating});
        }
        for (Sighting& s : sightings_) {
            s.counts = s.counts && s.agreement < AGREES;
        }
    }
}

// More than 1 for a motion that is about the same as the last one.
double CameraMotion::continuation(const Similarity& motion) const {
    const LumaView& picture = later().level(patch_level_);
    const double off = reach(motion - going_on(patch_level_), patch_level_) /
                       (CONTINUED * std::hypot(picture.width, picture.height));
    return 1 + CONTINUATION / (1 + off * off);
}

// How far the patches around a place of the site level agree with a rated motion.
double CameraMotion::part_at(std::size_t part, double x, double y) const {
    const PictureCentre centre = later().centre(patch_level_);
    const double scale = later().pixel(site_level_) / later().pixel(patch_level_);
    const auto index = [&](double position, double middle, int count) {
        const double place = (position * scale + middle - Patch::MIDDLE - 1) / spacing_;
        return std::clamp(static_cast<int>(std::lround(place)), 0, count - 1);
    };
    const int rows = static_cast<int>(places_.size()) / std::max(1, columns_);
    if (rows == 0) {
        return 1;
    }
    const std::size_t place =
        packed_index(columns_, index(x, centre.x, columns_), index(y, centre.y, rows));
    return std::max(OTHER_PART, static_cast<double>(parts_[part][place]));
}

// How much of the trusted picture agrees with the estimate, and looks alike.
void CameraMotion::sum_up(Estimate& estimate) const {
    double all = 0;
    double agreed = 0;
    for (const Sighting& s : sightings_) {
        all += s.vote;
        agreed += s.vote * s.agreement * s.likeness;
        estimate.agreeing += s.agreement > AGREES ? 1 : 0;
    }
    estimate.support = all > 0 ? agreed / all : 0;
}

void CameraMotion::rate_hypotheses() {
    const LumaView& picture = earlier().level(patch_level_);
    for (std::size_t i = 0; i < places_.size(); ++i) {
        patches_[i].take(picture, places_[i].x, places_[i].y);
    }
    rated_.clear();
    part_count_ = 0;
    for (const Similarity& hypothesis : hypotheses_) {
        if (is_new(hypothesis)) {
            rate_from(hypothesis);
        }
    }
}

// Follows the sites with the best hypothesis; where few agree, also with others that are rated about
// as high. `coarse` receives the one that most agree with.
CameraMotion::Estimate CameraMotion::follow_best(Estimate& coarse) {
    textures_.find(earlier().level(site_level_));
    sites_.clear();
    Estimate best;
    std::size_t tried = 0;
    std::size_t chosen = 0;
    std::size_t followed = 0;
    for (std::size_t i = 0; i < rated_.size() && tried < MOST_FOLLOWED; ++i) {
        const Hypothesis& h = rated_[i];
        if (h.rating < COMPARABLE * rated_[0].rating) {
            break;
        }
        const Estimate estimate = follow_sites(h.estimate);
        if (tried == 0 || estimate.support > best.support) {
            best = estimate;
            chosen = i;
        }
        followed = i;
        ++tried;
        if (best.support > CLEAR_SUPPORT) {
            break;
        }
    }
    if (tried > 0) {
        coarse = rated_[chosen].estimate;
        if (chosen != followed) {
            best = follow_sites(coarse);
        }
    }
    return best;
}

// Each part of the picture counts the same, whether much or little in it can be followed: a person
// with a checked shirt is not the camera, and a plain wall around him is.
void CameraMotion::share_votes() {
    const PictureCentre centre = later().centre(site_level_);
    constexpr int PARTS = 4;  // across and down
    constexpr double FEW = 3;
    const auto part_of = [&centre](const Sighting& s) {
        const auto index = [](double position, double half) {
            return std::clamp(static_cast<int>(PARTS * (0.5 + 0.5 * position / (half + 1))), 0,
                              PARTS - 1);
        };
        return packed_index(PARTS, index(s.x, centre.x), index(s.y, centre.y));
    };
    double seen[PARTS * PARTS] = {};
    for (const Sighting& s : sightings_) {
        seen[part_of(s)] += s.counts ? 1 : 0;
    }
    for (Sighting& s : sightings_) {
        s.vote = s.trust / std::max(FEW, seen[part_of(s)]);
    }
}

// Follows the places with texture in the site level.
CameraMotion::Estimate CameraMotion::follow_sites(const Estimate& coarse) {
    const LumaView& from = earlier().level(site_level_);
    const LumaView& to = later().level(site_level_);
    const PictureCentre centre = later().centre(site_level_);
    const double pixel = usual_pixel(to);
    Estimate estimate;
    estimate.motion =
        scaled(coarse.motion, later().pixel(patch_level_) / later().pixel(site_level_));
    estimate.assumed = estimate.motion;
    const Following following = {to, centre, estimate.motion, 5, 0.1, LONGEST_STEP};
    sites_.clear();
    sightings_.clear();
    Patch patch;
    for (const TextureSites::Site& found : textures_.sites()) {
        const int left = found.x - Patch::SIDE / 2;
        const int top = found.y - Patch::SIDE / 2;
        patch.take(from, left, top);
        FollowedSite site{left + Patch::MIDDLE, top + Patch::MIDDLE, found.cell, 0, 0, false, 0};
        Sighting s;
        s.x = site.x - centre.x;
        s.y = site.y - centre.y;
        s.trust = layers_.trust(site.cell) * part_at(coarse.part, s.x, s.y);
        follow(patch, following, s);
        site.followed = s.counts && std::hypot(s.dx, s.dy) < FURTHEST;
        s.counts = site.followed;
        site.deviation = std::sqrt(0.5 * (s.vxx + s.vyy));
        sites_.push_back(site);
        sightings_.push_back(s);
    }
    const double cap = SITE_CAP * std::max(1.0 / 3, pixel);
    const ConsensusSettings settings = {cap, SITE_GATE * cap, std::max(0.05, 0.1 * pixel),
                                        0.08 * std::max(to.width, to.height)};
    share_votes();
    Similarity change{0, 0, 0, 0};
    consensus_.sample(sightings_, settings, change);
    estimate.shear = coarse.shear;
    if (!consensus_.refine(sightings_, estimate.motion, settings, change, estimate.shear,
                           estimate.scatter)) {
        return estimate;
    }
    estimate.motion = estimate.motion + change;
    for (std::size_t i = 0; i < sites_.size(); ++i) {
        const Sighting& s = sightings_[i];
        sites_[i].rx = s.dx - change.map_x(s.x, s.y);
        sites_[i].ry = s.dy - change.map_y(s.x, s.y);
    }
    sum_up(estimate);
    estimate.valid = is_enough(estimate.agreeing, sites_.size());
    return estimate;
}

// Follows the sites that agree with the motion on in the finest level.
CameraMotion::Estimate CameraMotion::follow_on(const Estimate& from) {
    const LumaView& earlier_picture = earlier().level(FINEST);
    const LumaView& picture = later().level(FINEST);
    const PictureCentre centre = later().centre(FINEST);
    const double pixel = usual_pixel(picture);
    const double finer = later().pixel(site_level_) / later().pixel(FINEST);
    Estimate estimate;
    estimate.motion = scaled(from.motion, finer);
    estimate.assumed = estimate.motion;
    const Following following = {picture, centre, estimate.motion, 3, 0.1, LONGEST_STEP};
    const std::size_t agreeing = std::max<std::size_t>(1, from.agreeing);
    std::size_t seen = 0;
    std::size_t taken = 0;
    const std::size_t wanted = std::min(agreeing, MOST_FINE_SITES);
    Patch patch;
    for (std::size_t i = 0; i < sites_.size(); ++i) {
        Sighting& s = sightings_[i];
        s.counts = false;
        // Evenly from those that agree.
        if (!(s.agreement > AGREES) || ++seen * wanted / agreeing <= taken) {
            continue;
        }
        ++taken;
        const int left =
            static_cast<int>(std::lround(finer * (sites_[i].x + 0.5) - 0.5 - Patch::MIDDLE));
        const int top =
            static_cast<int>(std::lround(finer * (sites_[i].y + 0.5) - 0.5 - Patch::MIDDLE));
        if (!Patch::has_room(earlier_picture, left, top)) {
            continue;
        }
        patch.take(earlier_picture, left, top);
        s.x = left + Patch::MIDDLE - centre.x;
        s.y = top + Patch::MIDDLE - centre.y;
        s.dx = finer * sites_[i].rx;
        s.dy = finer * sites_[i].ry;
        follow(patch, following, s);
    }
    const ConsensusSettings settings = {SITE_CAP * pixel, FINE_GATE * pixel, 0.1 * pixel, 0};
    Similarity change{0, 0, 0, 0};
    estimate.shear = from.shear;
    if (!consensus_.refine(sightings_, estimate.motion, settings, change, estimate.shear,
                           estimate.scatter)) {
        return estimate;
    }
    estimate.motion = estimate.motion + change;
    estimate.agreeing = static_cast<std::size_t>(
        std::count_if(sightings_.begin(), sightings_.end(),
                      [](const Sighting& s) { return s.agreement > AGREES; }));
    constexpr double LARGEST_CHANGE = 0.5;  // pixels of the site level: a larger one is an error
    const double most = LARGEST_CHANGE * std::max(finer, 2 * pixel);
    estimate.valid = is_enough(estimate.agreeing, taken) && 3 * estimate.agreeing >= taken &&
                     reach(change, FINEST) < most &&
                     estimate.scatter < NO_WORSE * finer * from.scatter + rolling_scatter(FINEST);
    return estimate;
}

void CameraMotion::learn(const Estimate& sites) {
    constexpr double CAMERA = 0.5;  // pixels of the site level
    constexpr double FIXED = 0.15;  // likewise
    constexpr double MOVING = 0.4;
    constexpr double DEVIATIONS = 4;  // of a place that is seen badly
    const PictureCentre centre = later().centre(site_level_);
    for (const FollowedSite& site : sites_) {
        const double x = site.x - centre.x;
        const double y = site.y - centre.y;
        const double line = sites.shear.by_columns ? x : y;
        const double off =
            std::hypot(site.rx - line * sites.shear.x, site.ry - line * sites.shear.y);
        const double shift_x = sites.motion.map_x(x, y) - x;
        const double shift_y = sites.motion.map_y(x, y) - y;
        const bool moves = std::hypot(shift_x, shift_y) > MOVING;
        const bool stays = std::hypot(shift_x + site.rx, shift_y + site.ry) < FIXED;
        SceneLayers::Seen seen = SceneLayers::Seen::OTHER;
        if (site.followed && moves && stays) {
            seen = SceneLayers::Seen::FIXED;
        } else if (site.followed && off < CAMERA + DEVIATIONS * site.deviation) {
            seen = SceneLayers::Seen::CAMERA;
        }
        layers_.tell(site.cell, seen, moves);
    }
}

// All about the step but the motion.
CameraStep CameraMotion::describe(const Estimate& coarse, const Estimate& sites) const {
    CameraStep step;
    step.sites = static_cast<int>(textures_.sites().size());
    step.followed = static_cast<int>(std::count_if(
        sites_.begin(), sites_.end(), [](const FollowedSite& site) { return site.followed; }));
    step.agreeing = static_cast<int>(sites.agreeing);
    step.strange = textures_.sites().size() >= STRANGE_SITES && sites.support < STRANGE_SUPPORT &&
                   coarse.support < STRANGE_SUPPORT;
    return step;
}

// A motion of a level becomes the step, if it can be one of a camera.
void CameraMotion::take(const Similarity& motion, std::size_t level, CameraStep& step) const {
    const CameraPose pose = step_of_similarity(scaled(motion, later().pixel(level)));
    step.found = std::isfinite(pose.x) && std::isfinite(pose.y) &&
                 std::abs(pose.angle) <= LARGEST_TURN && std::abs(pose.zoom) <= LARGEST_ZOOM;
    if (step.found) {
        step.pose = pose;
    }
}

// The last step once more, in pixels of a level.
Similarity CameraMotion::going_on(std::size_t level) const {
    return scaled(similarity_of_step(last_step_), 1 / later().pixel(level));
}

// The sightings of a level, which are relative to a motion.
void CameraMotion::keep_pairs(const Similarity& assumed, std::size_t level) {
    const double pixel = later().pixel(level);
    pairs_.clear();
    const auto scaled_to = [](double value, double by) { return static_cast<float>(value * by); };
    for (const Sighting& s : sightings_) {
        if (s.counts && s.trust > 0) {
            pairs_.push_back({scaled_to(s.x, pixel), scaled_to(s.y, pixel),
                              scaled_to(assumed.map_x(s.x, s.y) - s.x + s.dx, pixel),
                              scaled_to(assumed.map_y(s.x, s.y) - s.y + s.dy, pixel),
                              scaled_to(s.vxx, pixel * pixel), scaled_to(s.vxy, pixel * pixel),
                              scaled_to(s.vyy, pixel * pixel), static_cast<float>(s.trust)});
        }
    }
}

CameraStep CameraMotion::add(const unsigned char* luma, int pitch) {
    newest_ = 1 - newest_;
    pyramids_[newest_].build(luma, pitch);
    blocks_.add(later().level(block_level_));
    if (!has_picture_) {
        has_picture_ = true;
        return {};
    }
    find_hypotheses();
    rate_hypotheses();
    Estimate coarse;
    const Estimate sites = follow_best(coarse);
    const double finer = later().pixel(patch_level_) / later().pixel(site_level_);
    const bool by_sites =
        sites.valid && sites.support >= LEAST_SITE_SUPPORT &&
        sites.scatter < NO_WORSE * finer * coarse.scatter + rolling_scatter(site_level_);
    Estimate fine;
    pairs_.clear();
    if (by_sites) {
        learn(sites);
        keep_pairs(sites.assumed, site_level_);
        fine = follow_on(sites);
    }
    CameraStep step = describe(coarse, sites);
    if (fine.valid) {
        take(fine.motion, FINEST, step);
        keep_pairs(fine.assumed, FINEST);
    } else if (by_sites) {
        take(sites.motion, site_level_, step);
    } else if (coarse.valid && coarse.support >= LEAST_PATCH_SUPPORT) {
        take(coarse.motion, patch_level_, step);
    }
    if (!step.found) {
        pairs_.clear();
    }
    if (step.strange) {
        layers_.begin_scene();
    }
    last_step_ = step.pose;
    return step;
}

}  // namespace videostabilizer
