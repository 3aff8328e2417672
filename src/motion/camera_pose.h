// SPDX-License-Identifier: Apache-2.0

#pragma once

// The camera's motion as a similarity: shift, rotation and zoom. Shear and unequal scales come from
// depth or a rolling shutter and are left in the pictures; averaged over many frames they would
// distort them.

namespace videostabilizer {

// The pose of a picture relative to a reference picture, whose own pose is the default one.
struct CameraPose {
    double x = 0;      // position of this picture's centre in the reference picture, pixels right
    double y = 0;      // of and below the centre of that
    double angle = 0;  // radians, clockwise
    double zoom = 0;   // natural logarithm of the enlargement
};

// The centre of a picture, the fixed point of rotation and zoom: the middle between the centres of
// its outermost pixels, where (0, 0) is the centre of the top left one. Everything uses this centre
// but the warp stage's own crop, which is about (width / 2, height / 2).
struct PictureCentre {
    double x;
    double y;
};

inline PictureCentre picture_centre(int width, int height) {
    return {0.5 * (width - 1), 0.5 * (height - 1)};
}

// The pose of the later picture relative to the earlier one, for a row-major 3x3 motion that maps
// positions of the earlier picture to the later. Returns false for a matrix that is not finite, is
// singular or mirrors.
bool pose_of_motion(const float motion[9], PictureCentre centre, CameraPose& pose);

// The inverse: the motion, in pixels, from the reference picture to one with this pose.
void motion_of_pose(const CameraPose& pose, PictureCentre centre, float motion[9]);

// The pose of a picture that has the pose `step` relative to another, which has `pose`.
CameraPose pose_after(const CameraPose& pose, const CameraPose& step);

// `pose` relative to the picture that has the pose `reference`; both are relative to one picture.
CameraPose pose_seen_from(const CameraPose& pose, const CameraPose& reference);

}  // namespace videostabilizer
