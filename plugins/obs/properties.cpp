// SPDX-License-Identifier: Apache-2.0

#include "properties.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include "settings.h"
#include "sound.h"

namespace obs_videostabilizer {

namespace {

constexpr std::int64_t SECOND = 1000000000;
constexpr std::int64_t MILLISECOND = 1000000;
// One picture in so many is lost before it is worth a line.
constexpr std::int64_t MANY = 50;

// Names of properties that are no settings.
constexpr auto STATE = "state";
constexpr auto DELAY = "delay";
constexpr auto SOUND_NOTE = "sound_note";
constexpr auto DELAY_SOUND = "delay_sound";
constexpr auto TAKE_DELAY_BACK = "take_delay_back";

// The text with its first {} replaced. Translators may leave it out.
std::string filled(const char* text_name, const std::string& value) {
    std::string text = obs_module_text(text_name);
    const std::size_t place = text.find("{}");
    return place == std::string::npos ? text : text.replace(place, 2, value);
}

// Nanoseconds.
std::int64_t delay_of(const Settings& settings, const Status& status) {
    std::int64_t interval = status.interval;
    obs_video_info video{};
    if (interval == 0 && obs_get_video_info(&video) && video.fps_num > 0) {
        interval = SECOND * video.fps_den / video.fps_num;
    }
    return interval * delay_in_pictures(settings);
}

std::string state_text(const Status& status) {
    switch (status.state) {
        case State::FORMAT:
            return obs_module_text("State.Format");
        case State::INTERLACED:
            return obs_module_text("State.Interlaced");
        case State::REFUSED:
            return filled("State.Refused", status.reason);
        default:
            return status.lost > status.pictures / MANY
                       ? filled("State.Lost", std::to_string(status.lost))
                       : "";
    }
}

void show_state(const Shown& shown, obs_properties_t* properties, obs_data_t* data) {
    const auto property = [&](const char* name) { return obs_properties_get(properties, name); };
    const Settings settings = read_settings(data);
    const Status status = shown.steadier->status();
    const bool guards = settings.strength != VIDEOSTABILIZER_GENTLE;
    obs_property_set_enabled(property(setting::AUTO_CROP), guards);
    obs_property_set_enabled(property(setting::SHUTTER), guards);
    obs_property_set_visible(property(setting::CROP), !settings.auto_crop);

    const std::string state = state_text(status);
    obs_property_set_visible(property(STATE), !state.empty());
    obs_property_set_description(property(STATE), state.c_str());

    const std::string milliseconds =
        std::to_string((delay_of(settings, status) + MILLISECOND / 2) / MILLISECOND);
    obs_property_set_description(property(DELAY), filled("Delay", milliseconds).c_str());
    obs_property_set_description(
        property(SOUND_NOTE),
        filled(status.sound_follows ? "Sound.Follows" : "Sound.Stays", milliseconds).c_str());
    const bool is_chosen = *obs_data_get_string(data, setting::SOUND) != '\0';
    obs_property_set_enabled(property(DELAY_SOUND), is_chosen);
    obs_property_set_description(property(DELAY_SOUND),
                                 filled("Sound.Delay", milliseconds).c_str());
    obs_property_set_visible(property(TAKE_DELAY_BACK), is_sound_delayed(data));
    obs_property_set_description(
        property(TAKE_DELAY_BACK),
        filled("Sound.TakeBack", obs_data_get_string(data, setting::OFFSET_SOUND)).c_str());
}

bool on_change(void* shown, obs_properties_t* properties, obs_property_t* /*property*/,
               obs_data_t* data) {
    show_state(*static_cast<const Shown*>(shown), properties, data);
    return true;
}

template <typename Work>
bool with_settings(obs_properties_t* properties, const Work& work) {
    const auto* const shown = static_cast<const Shown*>(obs_properties_get_param(properties));
    obs_data_t* const data = obs_source_get_settings(shown->filter);
    work(*shown, data);
    show_state(*shown, properties, data);
    obs_data_release(data);
    return true;
}

bool on_delay_sound(obs_properties_t* properties, obs_property_t* /*property*/, void* /*filter*/) {
    return with_settings(properties, [](const Shown& shown, obs_data_t* data) {
        delay_sound(data, delay_of(read_settings(data), shown.steadier->status()));
    });
}

bool on_take_delay_back(obs_properties_t* properties, obs_property_t* /*property*/,
                        void* /*filter*/) {
    return with_settings(properties,
                         [](const Shown& /*shown*/, obs_data_t* data) { take_delay_back(data); });
}

bool add_if_audible(void* list, obs_source_t* source) {
    if ((obs_source_get_output_flags(source) & OBS_SOURCE_AUDIO) != 0) {
        const char* const name = obs_source_get_name(source);
        obs_property_list_add_string(static_cast<obs_property_t*>(list), name, name);
    }
    return true;
}

}  // namespace

obs_properties_t* make_properties(Shown* shown) {
    obs_properties_t* const all = obs_properties_create_param(shown, nullptr);
    const auto text = [](const char* name) { return obs_module_text(name); };
    const auto watched = [&](obs_property_t* property, const char* help = nullptr) {
        obs_property_set_modified_callback2(property, on_change, shown);
        if (help != nullptr) obs_property_set_long_description(property, text(help));
    };
    const auto add_list = [&](const char* name, const char* title, obs_combo_format format) {
        return obs_properties_add_list(all, name, text(title), OBS_COMBO_TYPE_LIST, format);
    };
    obs_property_text_set_info_type(obs_properties_add_text(all, STATE, "", OBS_TEXT_INFO),
                                    OBS_TEXT_INFO_WARNING);

    obs_property_t* list = add_list(setting::STRENGTH, "Strength", OBS_COMBO_FORMAT_INT);
    obs_property_list_add_int(list, text("Strength.Gentle"), VIDEOSTABILIZER_GENTLE);
    obs_property_list_add_int(list, text("Strength.Standard"), VIDEOSTABILIZER_STANDARD);
    obs_property_list_add_int(list, text("Strength.Strong"), VIDEOSTABILIZER_STRONG);
    obs_property_list_add_int(list, text("Strength.Maximum"), VIDEOSTABILIZER_MAXIMUM);
    watched(list);

    watched(obs_properties_add_bool(all, setting::AUTO_CROP, text("AutoCrop")), "AutoCrop.Help");
    obs_property_t* const crop =
        obs_properties_add_int_slider(all, setting::CROP, text("Crop"), 50, 100, 1);
    obs_property_int_set_suffix(crop, " %");
    obs_property_set_long_description(crop, text("Crop.Help"));
    obs_property_set_long_description(
        obs_properties_add_bool(all, setting::SHUTTER, text("Shutter")), text("Shutter.Help"));
    watched(obs_properties_add_int_slider(all, setting::LOOK_AHEAD, text("LookAhead"), 0,
                                          MOST_LOOK_AHEAD, 1),
            "LookAhead.Help");

    list = add_list(setting::ENGINE, "Engine", OBS_COMBO_FORMAT_INT);
    obs_property_list_add_int(list, text("Engine.Native"), VIDEOSTABILIZER_ENGINE_NATIVE);
    obs_property_list_add_int(list, text("Engine.Auto"), VIDEOSTABILIZER_ENGINE_AUTO);
    obs_properties_add_bool(all, setting::HALVES, text("Halves"));

    obs_properties_add_text(all, DELAY, "", OBS_TEXT_INFO);
    obs_properties_add_text(all, SOUND_NOTE, "", OBS_TEXT_INFO);
    list = add_list(setting::SOUND, "Sound", OBS_COMBO_FORMAT_STRING);
    obs_property_list_add_string(list, text("Sound.None"), "");
    obs_enum_sources(add_if_audible, list);
    watched(list, "Sound.Help");
    obs_properties_add_button(all, DELAY_SOUND, "", on_delay_sound);
    obs_properties_add_button(all, TAKE_DELAY_BACK, "", on_take_delay_back);

    obs_data_t* const data = obs_source_get_settings(shown->filter);
    show_state(*shown, all, data);
    obs_data_release(data);
    return all;
}

}  // namespace obs_videostabilizer
