// SPDX-License-Identifier: Apache-2.0

#include "common/shaky_clip/clip_options.h"

#include <cstddef>
#include <map>
#include <tuple>
#include <utility>

namespace synthetic {

namespace {

constexpr double DEGREES = 180 / 3.14159265358979323846;

// Two positive numbers with `separator` between them; with `optional_second` the second may be
// missing and is 1. Throws CLI::ValidationError.
std::pair<int, int> parse_pair(const std::string& text, char separator, bool optional_second,
                               int largest, const std::string& what) {
    const auto number = [largest](const std::string& digits) {
        int value = 0;
        return digits.size() <= 9 && CLI::detail::lexical_cast(digits, value) && value >= 1 &&
                       value <= largest
                   ? value
                   : 0;
    };
    const std::size_t middle = text.find(separator);
    const int first = number(text.substr(0, middle));
    int second = optional_second ? 1 : 0;
    if (middle != std::string::npos) {
        second = number(text.substr(middle + 1));
    }
    if (first == 0 || second == 0) {
        throw CLI::ValidationError(what, "cannot use " + text);
    }
    return {first, second};
}

void add_numbers(CLI::App& app, ClipOptions& options) {
    ClipSettings& clip = options.settings;
    const struct {
        const char* group;
        const char* name;
        double& value;
        double low, high;
        const char* help;
    } numbers[] = {
        {"Camera", "--pan", clip.camera.pan, 0, ShakyClip::WIDEST_PAN,
         "Strength of the intended movement; 0 for none"},
        {"Camera", "--pan-speed", clip.camera.pan_speed, 0.05, 20,
         "Speed of the intended movement, relative; --pan 4 --pan-speed 5 is a fast pan"},
        {"Camera", "--whip", clip.camera.whip, 0, ShakyClip::WIDEST_WHIP,
         "Whip pans by this many picture widths, every two seconds"},
        {"Camera", "--roll", options.roll_degrees, 0, ShakyClip::STRONGEST_ROLL * DEGREES,
         "Amplitude of an intended rotation, degrees"},
        {"Camera", "--zoom", clip.camera.zoom_swing, 0, 0.5,
         "Amplitude of an intended zoom, relative"},
        {"Camera", "--shake", clip.camera.shake, 0, ShakyClip::STRONGEST_SHAKE,
         "Strength of the shake; 0 for none. 20: steps of a fifth of the width at 30 fps"},
        {"Camera", "--shake-roll", clip.camera.shake_roll, 0, 10,
         "Strength of the shake's rotation, relative to that of the rest"},
        {"Camera", "--hold", clip.camera.hold_seconds, 0, 3600,
         "Seconds to stand still before moving"},
        {"Shutter", "--exposure-time", clip.shutter.exposure, 0, 1,
         "Motion blur: exposure time, share of the frame interval"},
        {"Shutter", "--readout", clip.shutter.readout, -1, 1,
         "Rolling shutter: from the first row to the last, share of the frame interval; below\n"
         "0 from the last to the first. The true path is that of the middle row, and with\n"
         "motion blur the mean over its exposure"},
        {"Light", "--brightness", clip.sensor.brightness, 0.01, 2, "Factor; below 1: darker"},
        {"Light", "--contrast", clip.sensor.contrast, 0.01, 2, "Factor, about a middle grey"},
        {"Light", "--scene-contrast", clip.scene_contrast, 0, 1,
         "Factor likewise, not for what is in the foreground"},
        {"Light", "--haze", clip.sensor.haze, 0, 1, "Share of a bright veil"},
        {"Light", "--exposure", clip.sensor.exposure, 0, 0.9,
         "The exposure changes by this share, in waves and in steps"},
        {"Light", "--white-balance", clip.sensor.white_balance, 0, 60,
         "The colours change by so many grey levels, likewise"},
        {"Light", "--flicker", clip.sensor.flicker, 0, 1,
         "Share of the light that comes from lamps which flicker; in bands with --readout"},
        {"Light", "--lamp-hertz", clip.sensor.lamp_hertz, 1, 1000,
         "How often they do, twice the frequency of the mains"},
        {"Sensor", "--noise", clip.noise, 0, 40, "Sensor noise, standard deviation in grey levels"},
        {"Sensor", "--shot-noise", clip.sensor.shot_noise, 0, 40,
         "Noise that goes with the root of the light; standard deviation at white"},
        {"Sensor", "--compression", clip.sensor.compression, 0, 100,
         "Step in grey levels to which 8x8 blocks are quantised; 20 and more shows"},
        {"Foreground", "--foreground", clip.foreground, 0, 1,
         "Width of an upright strip that moves to and fro, share of the picture's"},
        {"Foreground", "--person", clip.actors.person, 0, 1,
         "Width of somebody who walks in the middle of the picture, likewise"},
        {"Foreground", "--passer-by", clip.actors.passer_by, 0, 1,
         "Width of somebody who crosses the picture every four seconds, likewise"},
        {"Foreground", "--face", clip.actors.face, 0, 1,
         "Width of the face of somebody who carries the camera, likewise"},
        {"Foreground", "--finger", clip.actors.finger, 0, 1,
         "Share of the picture that a finger covers, for half of every three seconds"},
        {"Foreground", "--overlay", clip.actors.overlay, 0, 1,
         "Width of a date in a corner, and of a smaller logo, share of the picture's"},
    };
    for (const auto& number : numbers) {
        app.add_option(number.name, number.value, number.help)
            ->check(CLI::Range(number.low, number.high))
            ->capture_default_str()
            ->group(number.group);
    }
}

}  // namespace

void add_clip_options(CLI::App& app, ClipOptions& options) {
    app.add_option("--size", options.size, "Picture size in pixels")->capture_default_str();
    app.add_option("--frames", options.frames, "Number of frames")
        ->check(CLI::Range(0, 1000000))
        ->capture_default_str();
    app.add_option("--fps", options.rate, "Frames per second, for example 25 or 30000:1001")
        ->capture_default_str();
    add_numbers(app, options);
    app.add_option("--scene", options.settings.scenery,
                   "What is seen: a town, plain walls, or grey paper with one dark dot")
        ->transform(CLI::CheckedTransformer(std::map<std::string, Scenery>{
            {"town", Scenery::TOWN}, {"walls", Scenery::WALLS}, {"paper", Scenery::PAPER}}))
        ->option_text("town|walls|paper [town]");
    app.add_flag("--columns", options.settings.shutter.by_columns,
                 "The shutter rolls along columns, as in turned pictures");
    app.add_option("--seed", options.settings.camera.seed, "Selects the town and the shake")
        ->capture_default_str();
}

void check_clip_options(ClipOptions& options) {
    CameraSettings& camera = options.settings.camera;
    std::tie(camera.width, camera.height) =
        parse_pair(options.size, 'x', false, ShakyClip::LARGEST_SIDE, "--size");
    const auto [numerator, denominator] = parse_pair(options.rate, ':', true, 1000000, "--fps");
    camera.fps = static_cast<double>(numerator) / denominator;
    camera.roll = options.roll_degrees / DEGREES;
    options.rate = std::to_string(numerator) + ":" + std::to_string(denominator);
}

}  // namespace synthetic
