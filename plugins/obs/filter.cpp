// SPDX-License-Identifier: Apache-2.0

// The filter for sources of asynchronous video, as OBS sees it.

#include <obs-module.h>

#include <exception>
#include <memory>

#include "media_watch.h"
#include "properties.h"
#include "settings.h"
#include "sound.h"
#include "steadier.h"
#include "videostabilizer/version.h"

namespace {

using namespace obs_videostabilizer;

struct Filter {
    explicit Filter(obs_source_t* self) : shown{&steadier, self}, media(steadier) {}

    Steadier steadier;
    Shown shown;
    MediaWatch media;
};

Filter& of(void* data) {
    return *static_cast<Filter*>(data);
}

const char* get_name(void* /*type_data*/) {
    return obs_module_text("Name");
}

void update(void* data, obs_data_t* settings) {
    of(data).steadier.set(read_settings(settings));
}

void* create(obs_data_t* settings, obs_source_t* self) {
    try {
        auto filter = std::make_unique<Filter>(self);
        update(filter.get(), settings);
        return filter.release();
    } catch (const std::exception& e) {
        blog(LOG_ERROR, "[videostabilizer] no filter: %s", e.what());
        return nullptr;
    }
}

void destroy(void* data) {
    delete static_cast<Filter*>(data);
}

obs_source_frame* filter_video(void* data, obs_source_frame* frame) {
    Filter& filter = of(data);
    obs_source_t* const source = obs_filter_get_parent(filter.shown.filter);
    if (source == nullptr || frame == nullptr) return frame;
    try {
        return filter.steadier.filter(source, frame);
    } catch (const std::exception& e) {
        blog(LOG_ERROR, "[videostabilizer] %s", e.what());
        return frame;
    }
}

void video_tick(void* data, float /*seconds*/) {
    Filter& filter = of(data);
    try {
        filter.steadier.tick(obs_source_enabled(filter.shown.filter));
        filter.media.tick();
    } catch (const std::exception& e) {
        blog(LOG_ERROR, "[videostabilizer] %s", e.what());
    }
}

void filter_remove(void* data, obs_source_t* source) {
    Filter& filter = of(data);
    filter.steadier.detach();
    filter.media.forget(source);
    obs_data_t* const settings = obs_source_get_settings(filter.shown.filter);
    take_delay_back(settings);
    obs_data_release(settings);
}

obs_properties_t* get_properties(void* data) {
    return data != nullptr ? make_properties(&of(data).shown) : obs_properties_create();
}

}  // namespace

OBS_DECLARE_MODULE()
OBS_MODULE_USE_DEFAULT_LOCALE("obs-videostabilizer", "en-US")

MODULE_EXPORT const char* obs_module_name() {
    return obs_module_text("Name");
}

MODULE_EXPORT const char* obs_module_description() {
    return obs_module_text("Description");
}

bool obs_module_load() {
    obs_source_info info{};
    info.id = "videostabilizer_filter";
    info.type = OBS_SOURCE_TYPE_FILTER;
    info.output_flags = OBS_SOURCE_ASYNC_VIDEO;
    info.get_name = get_name;
    info.create = create;
    info.destroy = destroy;
    info.get_defaults = set_defaults;
    info.get_properties = get_properties;
    info.update = update;
    info.video_tick = video_tick;
    info.filter_video = filter_video;
    info.filter_remove = filter_remove;
    obs_register_source(&info);
    blog(LOG_INFO, "[videostabilizer] version %s", VIDEOSTABILIZER_VERSION);
    return true;
}
