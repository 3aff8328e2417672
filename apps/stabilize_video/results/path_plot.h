#pragma once

#include <string>
#include <vector>

#include "apps/stabilize_video/path_follower.h"

namespace apps {

// Draws the camera path before and after: x, y and angle over time.
class PathPlot {
  public:
    // frame_rate  frames per second, or 0: the time is then in frames
    // title       a line above the drawing
    PathPlot(double frame_rate, std::string title)
        : frame_rate_(frame_rate), title_(std::move(title)) {}

    void add(const FollowedFrame& point);

    // The line below the title, told when all points are known.
    void set_summary(std::string summary) { summary_ = std::move(summary); }

    // Whether a file of this name would be PNG or SVG, which can be drawn.
    static bool knows(const std::string& path);

    // Throws OutputError if the plotting library cannot write such files here.
    static void check_available(const std::string& path);

    // Draws into the file `to`; `name` is that under which the user knows it, whose ending selects
    // PNG or SVG. Throws OutputError.
    void draw(const std::string& to, const std::string& name) const;

  private:
    double frame_rate_;
    std::string title_;
    std::string summary_;
    std::vector<CameraView> shaky_;
    std::vector<CameraView> steady_;
};

}  // namespace apps
