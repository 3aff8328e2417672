// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <vector>

#include "apps/stabilize_video/results/path_follower.h"

namespace apps {

// Plot of the camera path before and after: x, y and angle over time; beside them the crop, where it
// changes. Threads: owner only.
class PathPlot {
  public:
    // frame_rate  frames per second; 0: the time axis is in frames
    // title       a line above the plot
    PathPlot(double frame_rate, std::string title)
        : frame_rate_(frame_rate), title_(std::move(title)) {}

    void add(const FollowedFrame& point);

    // The line below the title.
    void set_summary(std::string summary) { summary_ = std::move(summary); }

    // Whether the name ends in .png or .svg.
    static bool knows(const std::string& path);

    // Throws OutputError if the plotting library cannot write such files here.
    static void check_available(const std::string& path);

    // Draws into the file `to`. The ending of `name`, its final name, selects PNG or SVG. Throws
    // OutputError.
    void draw(const std::string& to, const std::string& name) const;

  private:
    std::vector<double> times() const;
    void draw_panels(const std::vector<double>& times) const;
    void draw_texts() const;

    double frame_rate_;
    std::string title_;
    std::string summary_;
    std::vector<CameraView> shaky_;
    std::vector<CameraView> steady_;
    std::vector<double> crops_;
    std::vector<double> readouts_;
};

}  // namespace apps
