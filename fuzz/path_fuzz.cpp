// SPDX-License-Identifier: Apache-2.0

// The steady path: any motions, found or not, plausible or not, NaN included. What comes out is finite,
// and with the edge guard inside of the picture; the crop stays between its bounds and changes no faster
// than it may.

#include <algorithm>
#include <cmath>
#include <memory>

#include "fuzz/fuzz_input.h"
#include "path/crop.h"
#include "path/steady_path.h"
#include "simplela/mat_util.h"
#include "simplela/warp_parameters.h"

using namespace videostabilizer;

namespace {

// The warp clamps there; the planner keeps 0.02 away, of which single precision takes a part.
constexpr double BORDER = 0.01;  // pixels, beside what single precision costs
// Of the logarithm of an adapting crop, from frame to frame, see crop_planner.cpp.
constexpr double FASTEST_CLOSING = 0.002;
constexpr double FASTEST_OPENING = 0.0005;
constexpr double ROUNDING = 1e-9;

double share(fuzz::Input& input, double least, double most) {
    return least + (most - least) * input.byte() / 255;
}

// Mostly what cameras do, sometimes any double.
double element(fuzz::Input& input, double usual) {
    return input.byte() >= 250 ? input.take<double>() : usual * (input.byte() - 128) / 128;
}

SteadyPathSettings take_settings(fuzz::Input& input) {
    SteadyPathSettings s{};
    s.width = input.flag() ? input.in_range(16, 4000) : 640;
    s.height = input.flag() ? input.in_range(16, 4000) : 360;
    s.look_ahead = input.byte() < 240 ? input.in_range(1, 24) : input.in_range(25, 120);
    s.sigma = input.flag() ? share(input, 0.25, 40) : share(input, 0.25, 1000);
    s.crop_ratio = share(input, 0.5, 1);
    const int switches = input.byte();
    s.edge_guard = (switches & 3) != 0;
    s.repair_motions = (switches & 4) != 0;
    s.scene_cuts = (switches & 8) != 0;
    s.rolling_shutter = (switches & 16) != 0;
    s.estimates_readout = (switches & 32) != 0;
    s.columns = (switches & 64) != 0;
    s.readout = share(input, -1, 1);
    if ((switches & 128) != 0) {
        s.crop_least = share(input, 0.5, 0.99);
        s.crop_most = share(input, s.crop_least, 0.99);
    }
    return s;
}

CameraStep take_step(fuzz::Input& input, const SteadyPathSettings& s,
                     std::vector<SeenPair>& pairs) {
    CameraStep step;
    const int kind = input.byte();
    step.found = kind % 8 != 0;
    step.strange = kind % 16 == 0;
    const double size = kind < 200 ? 0.03 : 2;
    if (step.found) {
        step.pose = {element(input, size * s.width), element(input, size * s.height),
                     element(input, size), element(input, size)};
    }
    pairs.clear();
    for (int left = kind % 5 * 8; left > 0 && s.rolling_shutter; --left) {
        const auto offset = [&](int half) {
            return static_cast<float>(input.in_range(0, 2 * half) - half);
        };
        SeenPair pair{offset(s.width / 2),
                      offset(s.height / 2),
                      input.number() / 64,
                      input.number() / 64,
                      0.05F,
                      0,
                      0.05F,
                      1};
        if (kind % 7 == 0) {
            pair.vxx = std::fabs(input.number());
            pair.vxy = 0.2F * std::sqrt(pair.vxx);  // of a covariance
            pair.trust = std::fabs(input.number());
        }
        pairs.push_back(pair);
    }
    return step;
}

bool inside(const AffineSix& map, double x, double y, int width, int height) {
    const auto at = [&map](std::size_t i) { return static_cast<double>(map[i]); };
    const double from_x = at(0) * x + at(1) * y + at(2);
    const double from_y = at(3) * x + at(4) * y + at(5);
    const double border = BORDER + 4e-7 * (width + height);
    return from_x >= -border && from_x <= width - 1 + border && from_y >= -border &&
           from_y <= height - 1 + border;
}

class Stream {
  public:
    explicit Stream(const SteadyPathSettings& settings)
        : settings_(settings),
          least_crop_(settings.crop_most > 0 ? settings.crop_least : settings.crop_ratio),
          most_crop_(settings.crop_most > 0 ? settings.crop_most : settings.crop_ratio),
          filter_(gaussian_motion_filter_create(settings.look_ahead,
                                                static_cast<float>(settings.sigma)),
                  gaussian_motion_filter_delete),
          matrices_(static_cast<std::size_t>(2 * settings.look_ahead + 1)),
          logs_(matrices_.size()),
          path_(settings) {
        for (SimpleLA::Mat<float>& matrix : matrices_) {
            matrix.create(3, 3);
            SimpleLA::set_identity(matrix);
            motions_.push_back(&matrix);
        }
    }

    void run(fuzz::Input& input) {
        std::vector<SeenPair> pairs;
        std::int64_t next = 0;
        for (std::int64_t newest = 0; newest < MOST_STEPS && !input.empty(); ++newest) {
            if (newest > 0) {
                path_.add(newest - 1, take_step(input, settings_, pairs), pairs);
            }
            if (input.byte() == 255) {
                change(input);
            }
            if (newest - next >= settings_.look_ahead) {
                correct(next++, newest);
            }
            last_ = newest;
        }
        while (next <= last_) {
            correct(next++, last_);
        }
    }

  private:
    static constexpr int MOST_STEPS = 160;

    void change(fuzz::Input& input) {
        PathChange to{};
        to.sigma = share(input, 0.25, 1000);
        to.crop_ratio = share(input, 0.5, 1);
        to.crop_least = share(input, 0.5, 0.99);
        to.crop_most = share(input, to.crop_least, 0.99);
        to.crop_speed = speed_ = share(input, 0, 0.1);
        path_.change(to, share(input, -1, 1));
        // A crop on its way between the old bounds and the new ones.
        const bool adapts = settings_.crop_most > 0;
        least_crop_ = std::min(least_crop_, adapts ? to.crop_least : to.crop_ratio);
        most_crop_ = std::max(most_crop_, adapts ? to.crop_most : to.crop_ratio);
    }

    void correct(std::int64_t n, std::int64_t newest) {
        SimpleLA::Mat<float> correction(3, 3);
        const Steadied s = path_.correct(n, newest, filter_.get(), motions_, logs_, correction);
        if (!settings_.edge_guard) {
            return;
        }
        fuzz::require(std::all_of(correction.data, correction.data + 9,
                                  [](float e) { return std::isfinite(e); }),
                      "a finite correction");
        fuzz::require(s.granted >= 0 && s.granted <= 1, "the share granted");
        fuzz::require(s.confidence >= 0 && s.confidence <= 1, "the confidence");
        fuzz::require(std::fabs(s.readout) <= 1, "the readout");
        fuzz::require(
            std::isfinite(s.first_line[0] + s.first_line[1] + s.last_line[0] + s.last_line[1]),
            "the lines");
        fuzz::require(s.crop >= least_crop_ - ROUNDING && s.crop <= most_crop_ + ROUNDING,
                      "the bounds of the crop");
        if (n > 0 && !s.scene_start) {
            const double faster = std::log(s.crop / crop_);
            const bool adapts = settings_.crop_most > 0;
            fuzz::require(faster >= -(adapts ? FASTEST_CLOSING : speed_) - ROUNDING &&
                              faster <= (adapts ? FASTEST_OPENING : speed_) + ROUNDING,
                          "the speed of the crop");
        }
        crop_ = s.crop;
        require_inside(correction, s.crop);
    }

    void require_inside(SimpleLA::Mat<float>& correction, double crop) {
        const int width = settings_.width;
        const int height = settings_.height;
        fold_in_crop(picture_centre(width, height), crop, correction);
        PictureTransform transform;
        std::copy_n(correction.data, 6, transform.whole.begin());
        path_.add_rows(transform);
        const AffineSix whole = warp_parameters(transform.whole, 1.0F, width, height);
        for (std::size_t k = 0; k < PictureTransform::ROWS; ++k) {
            const double y = transform.by_rows != 0
                                 ? static_cast<double>(k) * transform.rows_apart()
                                 : static_cast<double>(k % 2) * (height - 1);
            const AffineSix& map = transform.by_rows != 0 ? transform.rows[k] : whole;
            fuzz::require(
                inside(map, 0, y, width, height) && inside(map, width - 1, y, width, height),
                "inside of the picture");
        }
    }

    SteadyPathSettings settings_;
    double least_crop_;
    double most_crop_;
    double speed_ = 0;
    double crop_ = 1;
    std::int64_t last_ = -1;
    std::unique_ptr<GaussianMotionFilter, decltype(&gaussian_motion_filter_delete)> filter_;
    std::vector<SimpleLA::Mat<float>> matrices_;
    std::vector<SimpleLA::Mat<float>*> motions_;
    std::vector<MotionLog> logs_;
    SteadyPath path_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const SteadyPathSettings settings = take_settings(input);
    Stream(settings).run(input);
    return 0;
}
