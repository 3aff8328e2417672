// SPDX-License-Identifier: Apache-2.0

#include "settings.h"

#include "formats.h"

namespace gst_videostabilizer {

namespace {

constexpr GEnumValue STRENGTHS[] = {
    {VIDEOSTABILIZER_GENTLE, "Reduces the shake", "gentle"},
    {VIDEOSTABILIZER_STANDARD, "Removes the shake", "standard"},
    {VIDEOSTABILIZER_STRONG, "Also removes slow sways", "strong"},
    {VIDEOSTABILIZER_MAXIMUM, "As strong, over a longer time", "maximum"},
    {0, nullptr, nullptr}};
constexpr GEnumValue SHUTTERS[] = {
    {OF_STRENGTH, "Off for gentle, else auto", "default"},
    {VIDEOSTABILIZER_SHUTTER_OFF, "Nothing is done", "off"},
    {VIDEOSTABILIZER_SHUTTER_AUTO, "The readout is estimated", "auto"},
    {VIDEOSTABILIZER_SHUTTER_ROWS, "Rows are read in the time `readout`", "rows"},
    {VIDEOSTABILIZER_SHUTTER_COLUMNS, "Columns are read in the time `readout`", "columns"},
    {0, nullptr, nullptr}};
constexpr GEnumValue SAMPLINGS[] = {
    {OF_STRENGTH, "Stated for gentle, else sharp", "default"},
    {VIDEOSTABILIZER_SAMPLING_STATED, "Bilinear with the nearest chroma", "stated"},
    {VIDEOSTABILIZER_SAMPLING_BILINEAR, "Bilinear", "bilinear"},
    {VIDEOSTABILIZER_SAMPLING_SHARP, "Lanczos, six taps", "sharp"},
    {0, nullptr, nullptr}};
constexpr GEnumValue ENGINES[] = {
    {VIDEOSTABILIZER_ENGINE_AUTO, "OpenCL where there is a GPU that can, else native", "auto"},
    {VIDEOSTABILIZER_ENGINE_NATIVE, "The processor", "native"},
    {VIDEOSTABILIZER_ENGINE_OPENCL, "An OpenCL device", "opencl"},
    {0, nullptr, nullptr}};

constexpr auto FLAGS =
    static_cast<GParamFlags>(static_cast<int>(G_PARAM_READWRITE) |
                             static_cast<int>(G_PARAM_STATIC_STRINGS) | GST_PARAM_MUTABLE_PLAYING);

}  // namespace

bool Settings::operator==(const Settings& other) const {
    return strength == other.strength && look_ahead == other.look_ahead && crop == other.crop &&
           shutter == other.shutter && readout == other.readout && sampling == other.sampling &&
           engine == other.engine && threads == other.threads && enabled == other.enabled;
}

void install_settings(GObjectClass* object_class) {
    const Settings defaults;
    const auto choice = [&](guint id, const char* name, const char* nick, const char* text,
                            const char* type_name, const GEnumValue* values, int value) {
        g_object_class_install_property(
            object_class, id,
            g_param_spec_enum(name, nick, text, g_enum_register_static(type_name, values), value,
                              FLAGS));
    };
    const auto number = [&](guint id, const char* name, const char* nick, const char* text,
                            double least, double most, double value) {
        g_object_class_install_property(
            object_class, id, g_param_spec_double(name, nick, text, least, most, value, FLAGS));
    };
    const auto count = [&](guint id, const char* name, const char* nick, const char* text, int most,
                           int value) {
        g_object_class_install_property(object_class, id,
                                        g_param_spec_int(name, nick, text, 0, most, value, FLAGS));
    };
    choice(PROPERTY_STRENGTH, "strength", "Strength", "How steady the picture becomes",
           "GstVideoStabilizerStrength", STRENGTHS, defaults.strength);
    count(PROPERTY_LOOK_AHEAD, "look-ahead", "Look-ahead",
          "Pictures of look-ahead, which is also the delay (0: 10, or strong 20, maximum 30); "
          "a change begins a scene",
          120, defaults.look_ahead);
    number(PROPERTY_CROP, "crop", "Crop",
           "Part of the width and height that is shown, 0.5 to 1 (0: as much as the shake allows, "
           "not with gentle)",
           0, 1, defaults.crop);
    choice(PROPERTY_SHUTTER, "rolling-shutter", "Rolling shutter",
           "What is done about a sensor that is read line by line; a change begins a scene",
           "GstVideoStabilizerRollingShutter", SHUTTERS, defaults.shutter);
    number(PROPERTY_READOUT, "readout", "Readout",
           "Time from the first line to the last, as a share of that between pictures, with "
           "rolling-shutter rows and columns; negative where the last line comes first",
           -1, 1, defaults.readout);
    choice(PROPERTY_SAMPLING, "sampling", "Sampling",
           "How samples are computed; a change begins a scene", "GstVideoStabilizerSampling",
           SAMPLINGS, defaults.sampling);
    choice(PROPERTY_ENGINE, "engine", "Engine", "What warps the pictures; a change begins a scene",
           "GstVideoStabilizerEngine", ENGINES, defaults.engine);
    count(PROPERTY_THREADS, "threads", "Threads",
          "Threads of the native engine (0: one for each processor); a change begins a scene", 64,
          defaults.threads);
    g_object_class_install_property(
        object_class, PROPERTY_ENABLED,
        g_param_spec_boolean("enabled", "Enabled", "False: pictures pass as they are, at once",
                             defaults.enabled ? TRUE : FALSE, FLAGS));
}

bool write_setting(Settings& settings, guint property, const GValue* value) {
    switch (property) {
        case PROPERTY_STRENGTH:
            settings.strength = g_value_get_enum(value);
            break;
        case PROPERTY_LOOK_AHEAD:
            settings.look_ahead = g_value_get_int(value);
            break;
        case PROPERTY_CROP:
            settings.crop = g_value_get_double(value);
            break;
        case PROPERTY_SHUTTER:
            settings.shutter = g_value_get_enum(value);
            break;
        case PROPERTY_READOUT:
            settings.readout = g_value_get_double(value);
            break;
        case PROPERTY_SAMPLING:
            settings.sampling = g_value_get_enum(value);
            break;
        case PROPERTY_ENGINE:
            settings.engine = g_value_get_enum(value);
            break;
        case PROPERTY_THREADS:
            settings.threads = g_value_get_int(value);
            break;
        case PROPERTY_ENABLED:
            settings.enabled = g_value_get_boolean(value) != FALSE;
            break;
        default:
            return false;
    }
    return true;
}

bool read_setting(const Settings& settings, guint property, GValue* value) {
    switch (property) {
        case PROPERTY_STRENGTH:
            g_value_set_enum(value, settings.strength);
            break;
        case PROPERTY_LOOK_AHEAD:
            g_value_set_int(value, settings.look_ahead);
            break;
        case PROPERTY_CROP:
            g_value_set_double(value, settings.crop);
            break;
        case PROPERTY_SHUTTER:
            g_value_set_enum(value, settings.shutter);
            break;
        case PROPERTY_READOUT:
            g_value_set_double(value, settings.readout);
            break;
        case PROPERTY_SAMPLING:
            g_value_set_enum(value, settings.sampling);
            break;
        case PROPERTY_ENGINE:
            g_value_set_enum(value, settings.engine);
            break;
        case PROPERTY_THREADS:
            g_value_set_int(value, settings.threads);
            break;
        case PROPERTY_ENABLED:
            g_value_set_boolean(value, settings.enabled ? TRUE : FALSE);
            break;
        default:
            return false;
    }
    return true;
}

VideoStabilizerStreamOptions stream_options(const Settings& settings, const GstVideoInfo& info) {
    VideoStabilizerStreamOptions options;
    videostabilizer_stream_options_init(&options, sizeof options, settings.strength);
    options.width = info.width;
    options.height = info.height;
    options.format = stream_format(GST_VIDEO_INFO_FORMAT(&info));
    options.siting = siting(info.chroma_site);
    options.frame_rate = info.fps_d > 0 ? static_cast<double>(info.fps_n) / info.fps_d : 0;
    if (settings.look_ahead > 0) options.look_ahead = settings.look_ahead;
    if (settings.crop > 0) {
        options.crop_ratio = static_cast<float>(settings.crop);
    } else {
        options.auto_crop = 1;
    }
    if (settings.shutter != OF_STRENGTH) options.shutter = settings.shutter;
    if (options.shutter == VIDEOSTABILIZER_SHUTTER_ROWS ||
        options.shutter == VIDEOSTABILIZER_SHUTTER_COLUMNS) {
        options.readout = static_cast<float>(settings.readout);
    }
    if (settings.sampling != OF_STRENGTH) options.sampling = settings.sampling;
    options.engine = settings.engine;
    options.threads = settings.threads;
    return options;
}

}  // namespace gst_videostabilizer
