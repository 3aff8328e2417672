// SPDX-License-Identifier: Apache-2.0

#include "motion/camera_pose.h"

#include <algorithm>
#include <cmath>

namespace videostabilizer {

bool pose_of_motion(const float motion[9], PictureCentre centre, CameraPose& pose) {
    pose = {};
    if (!std::all_of(motion, motion + 6, [](float element) { return std::isfinite(element); })) {
        return false;
    }
    const auto element = [motion](int i) { return static_cast<double>(motion[i]); };
    const double a = element(0), b = element(1), c = element(2);
    const double d = element(3), e = element(4), f = element(5);
    const double det = a * e - b * d;
    if (!std::isnormal(det) || det < 0) {
        return false;
    }
    // The position that the motion maps to the centre.
    const double to_x = centre.x - c;
    const double to_y = centre.y - f;
    pose.x = (e * to_x - b * to_y) / det - centre.x;
    pose.y = (a * to_y - d * to_x) / det - centre.y;
    pose.angle = -std::atan2(d - b, a + e);  // pictures turn against the camera
    pose.zoom = 0.5 * std::log(det);
    return true;
}

void motion_of_pose(const CameraPose& pose, PictureCentre centre, float motion[9]) {
    const double scale = std::exp(pose.zoom);
    const double cosine = scale * std::cos(pose.angle);
    const double sine = scale * std::sin(pose.angle);
    const double from_x = centre.x + pose.x;
    const double from_y = centre.y + pose.y;
    const double elements[9] = {cosine, sine,   centre.x - cosine * from_x - sine * from_y,
                                -sine,  cosine, centre.y + sine * from_x - cosine * from_y,
                                0,      0,      1};
    std::transform(elements, elements + 9, motion,
                   [](double element) { return static_cast<float>(element); });
}

CameraPose pose_after(const CameraPose& pose, const CameraPose& step) {
    const double scale = std::exp(-pose.zoom);
    const double cosine = scale * std::cos(pose.angle);
    const double sine = scale * std::sin(pose.angle);
    return {pose.x + cosine * step.x - sine * step.y, pose.y + sine * step.x + cosine * step.y,
            pose.angle + step.angle, pose.zoom + step.zoom};
}

CameraPose pose_seen_from(const CameraPose& pose, const CameraPose& reference) {
    const double scale = std::exp(reference.zoom);
    const double cosine = scale * std::cos(reference.angle);
    const double sine = scale * std::sin(reference.angle);
    const double x = pose.x - reference.x;
    const double y = pose.y - reference.y;
    return {cosine * x + sine * y, cosine * y - sine * x, pose.angle - reference.angle,
            pose.zoom - reference.zoom};
}

}  // namespace videostabilizer
