// SPDX-License-Identifier: Apache-2.0

#include "common/synthetic/camera_path.h"

#include <algorithm>
#include <cmath>

#include "common/synthetic/deterministic.h"

namespace synthetic {

namespace {

constexpr double PI = 3.14159265358979323846;

// The intended path: amplitudes in picture sizes, and periods.
constexpr double PAN_X = 0.15;
constexpr double PAN_Y = 0.10;
constexpr double PAN_X_SECONDS = 17;
constexpr double PAN_Y_SECONDS = 11;
constexpr double ROLL_SECONDS = 4;
constexpr double ZOOM_SECONDS = 5;

constexpr double WHIP_SECONDS = 0.3;
constexpr double WHIP_EVERY_SECONDS = 2;

// Root mean square of the shake at strength 1.
constexpr double SHAKE_POSITION = 0.006;  // picture widths
constexpr double SHAKE_ANGLE = 0.006;     // radians
constexpr double SHAKE_ZOOM = 0.002;

// Body sway, steps and hand tremor.
constexpr double SHAKE_HERTZ[] = {1.1, 1.8, 2.7, 3.9, 5.3, 7.0, 9.2, 11.7};

constexpr double SET_OFF_SECONDS = 1;  // from rest to full movement

// Integral of set_off() from 0 to t.
double moving_seconds(double t) {
    if (t <= 0) {
        return 0;
    }
    if (t >= SET_OFF_SECONDS) {
        return t - 0.5 * SET_OFF_SECONDS;
    }
    const double s = t / SET_OFF_SECONDS;
    return SET_OFF_SECONDS * s * s * s * (1 - 0.5 * s);
}

// Smooth step from 0 at t = 0 to 1 at t = `seconds`: 3 s^2 - 2 s^3.
double smooth_step(double t, double seconds) {
    const double s = std::clamp(t / seconds, 0.0, 1.0);
    return s * s * (3 - 2 * s);
}

double set_off(double t) {
    return smooth_step(t, SET_OFF_SECONDS);
}

// Position of the whipped camera, -1/2 to 1/2.
double whipped(double t) {
    const double whips = std::floor(std::max(t, 0.0) / WHIP_EVERY_SECONDS);  // begun so far
    if (whips == 0) {
        return -0.5;
    }
    const double to = std::fmod(whips, 2) == 0 ? -0.5 : 0.5;
    return to * (2 * smooth_step(t - whips * WHIP_EVERY_SECONDS, WHIP_SECONDS) - 1);
}

}  // namespace

Affine picture_to_scene(const Pose& pose, int width, int height) {
    const double turns = pose.angle / (2 * PI);
    const double cosine = cos_turns(turns) / pose.zoom;
    const double sine = sin_turns(turns) / pose.zoom;
    const double centre_x = 0.5 * width;
    const double centre_y = 0.5 * height;
    Affine view;
    view.a = cosine;
    view.b = -sine;
    view.c = pose.x - cosine * centre_x + sine * centre_y;
    view.d = sine;
    view.e = cosine;
    view.f = pose.y - sine * centre_x - cosine * centre_y;
    return view;
}

Affine true_motion(const Pose& from, const Pose& to, int width, int height) {
    const Affine there = picture_to_scene(from, width, height);
    const Affine back = picture_to_scene(to, width, height);
    const double det = back.a * back.e - back.b * back.d;
    // inverse(back) * there
    Affine motion;
    motion.a = (back.e * there.a - back.b * there.d) / det;
    motion.b = (back.e * there.b - back.b * there.e) / det;
    motion.c = (back.e * (there.c - back.c) - back.b * (there.f - back.f)) / det;
    motion.d = (back.a * there.d - back.d * there.a) / det;
    motion.e = (back.a * there.e - back.d * there.b) / det;
    motion.f = (back.a * (there.f - back.f) - back.d * (there.c - back.c)) / det;
    return motion;
}

CameraPath::Waves CameraPath::make_waves(double rms, std::uint64_t seed) {
    Random random(seed);
    Waves waves;
    double power = 0;
    for (const double nominal : SHAKE_HERTZ) {
        Wave wave{};
        wave.hertz = nominal * random.between(0.95, 1.05);
        wave.turns = random.unit();
        wave.amplitude = 1 / wave.hertz;  // the same speed for every wave
        power += 0.5 * wave.amplitude * wave.amplitude;
        waves.push_back(wave);
    }
    for (Wave& wave : waves) {
        wave.amplitude *= rms / std::sqrt(power);
    }
    return waves;
}

double CameraPath::sum_at(const Waves& waves, double seconds) {
    double sum = 0;
    for (const Wave& wave : waves) {
        sum += wave.amplitude * sin_turns(wave.hertz * seconds + wave.turns);
    }
    return sum;
}

double CameraPath::bound(const Waves& waves) {
    double sum = 0;
    for (const Wave& wave : waves) {
        sum += wave.amplitude;
    }
    return sum;
}

CameraPath::CameraPath(const CameraSettings& settings)
    : settings_(settings),
      x_(make_waves(settings.shake * SHAKE_POSITION * settings.width, mix(settings.seed, 1))),
      y_(make_waves(settings.shake * SHAKE_POSITION * settings.width, mix(settings.seed, 2))),
      angle_(make_waves(settings.shake * settings.shake_roll * SHAKE_ANGLE, mix(settings.seed, 3))),
      zoom_(make_waves(settings.shake * SHAKE_ZOOM, mix(settings.seed, 4))) {}

Pose CameraPath::steady(double frame) const {
    const double seconds = frame / settings_.fps;
    const double t =
        settings_.hold_seconds > 0 ? moving_seconds(seconds - settings_.hold_seconds) : seconds;
    Pose pose;
    const double panned = settings_.pan_speed * t;
    pose.x = settings_.pan * PAN_X * settings_.width * sin_turns(panned / PAN_X_SECONDS);
    pose.y = settings_.pan * PAN_Y * settings_.height * sin_turns(panned / PAN_Y_SECONDS);
    if (settings_.whip > 0) {
        pose.x += settings_.whip * settings_.width * whipped(t);
    }
    pose.angle = settings_.roll * sin_turns(t / ROLL_SECONDS);
    pose.zoom = 1 + settings_.zoom_swing * sin_turns(t / ZOOM_SECONDS);
    return pose;
}

Pose CameraPath::shaky(double frame) const {
    const double seconds = frame / settings_.fps;
    const double share =
        settings_.hold_seconds > 0 ? set_off(seconds - settings_.hold_seconds) : 1.0;
    Pose pose = steady(frame);
    pose.x += share * sum_at(x_, seconds);
    pose.y += share * sum_at(y_, seconds);
    pose.angle += share * sum_at(angle_, seconds);
    pose.zoom += share * sum_at(zoom_, seconds);
    return pose;
}

double CameraPath::reach_x() const {
    const double turned = settings_.width + (settings_.roll + bound(angle_)) * settings_.height;
    const double zoom = 1 - settings_.zoom_swing - bound(zoom_);
    return (settings_.pan * PAN_X + 0.5 * settings_.whip) * settings_.width + bound(x_) +
           0.5 * turned / zoom;
}

double CameraPath::reach_y() const {
    const double turned = settings_.height + (settings_.roll + bound(angle_)) * settings_.width;
    const double zoom = 1 - settings_.zoom_swing - bound(zoom_);
    return settings_.pan * PAN_Y * settings_.height + bound(y_) + 0.5 * turned / zoom;
}

}  // namespace synthetic
