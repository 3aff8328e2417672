#pragma once

// Where the camera looks, as far as the steadying of pictures goes: a similarity. Shear and unequal
// scales, which a moving camera gives only to pictures with depth or a rolling shutter, are left in
// the pictures: averaged over a long span they would bend them.

namespace videostabilizer {

// Seen from a reference picture, whose own pose is the default one.
struct CameraPose {
    double x = 0;      // where in the reference picture the centre of this one lies, pixels from
    double y = 0;      // the centre, right and down
    double angle = 0;  // radians, clockwise
    double zoom = 0;   // natural logarithm of the enlargement
};

// The centre of a picture: the position that zoom and rotation leave in place, pixels.
struct PictureCentre {
    double x;
    double y;
};

inline PictureCentre picture_centre(int width, int height) {
    return {0.5 * (width - 1), 0.5 * (height - 1)};
}

// The pose of the later picture seen from the earlier one, for a row-major 3x3 motion that carries
// positions of the earlier picture to the later. False when no camera moves like that.
bool pose_of_motion(const float motion[9], PictureCentre centre, CameraPose& pose);

// The other way about: the motion, in pixels, from the reference picture to one with this pose.
void motion_of_pose(const CameraPose& pose, PictureCentre centre, float motion[9]);

// The pose of a picture that has `step` seen from another, which has `pose`.
CameraPose pose_after(const CameraPose& pose, const CameraPose& step);

// `pose` seen from the picture that has the pose `reference`; both seen from the same picture.
CameraPose pose_seen_from(const CameraPose& pose, const CameraPose& reference);

}  // namespace videostabilizer
