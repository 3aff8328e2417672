// SPDX-License-Identifier: Apache-2.0

// The element `videostabilizer`. It has no thread of its own: a picture that comes in pushes those out
// that are due.
//
// Locks: the sink pad's stream lock guards Steadier but for what the object lock guards, which is named
// with it. The object lock is never held across a call of the library or of another element. Waits for
// the library end by themselves, within the time of a picture, so that flushes and state changes do not
// depend on them.

#include <gst/video/video.h>

#include <cmath>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "formats.h"
#include "settings.h"
#include "steady_buffers.h"
#include "videostabilizer/version.h"

GST_DEBUG_CATEGORY_STATIC(videostabilizer_debug);
#define GST_CAT_DEFAULT videostabilizer_debug

namespace {

using namespace gst_videostabilizer;

constexpr double USUAL_FRAME_RATE = 30;
constexpr GstClockTime MESSAGE_INTERVAL = GST_SECOND;
constexpr int ROOM = 6;      // pictures that a stream holds beside the look-ahead
constexpr int FOREVER = -1;  // milliseconds
constexpr auto NOT_READY = GST_FLOW_CUSTOM_SUCCESS;

struct StreamClose {
    void operator()(VideoStabilizerStream* stream) const { videostabilizer_stream_close(stream); }
};
using StreamPtr = std::unique_ptr<VideoStabilizerStream, StreamClose>;

// A picture inside, and the events that came before it.
struct Pending {
    BufferPtr buffer;
    std::vector<GstEvent*> events;
};

struct Stats {
    guint64 pictures_in = 0;
    guint64 pictures_out = 0;
    guint64 scenes = 0;
    guint64 motions_not_found = 0;
    VideoStabilizerStreamReport last{};
};

struct Steadier {
    GstElement* element = nullptr;
    GstPad* sink = nullptr;
    GstPad* source = nullptr;

    // Guarded by the object lock.
    Settings settings;
    Stats stats;
    GstClockTime latency = 0;

    GstVideoInfo info{};            // format unknown: there were no caps
    bool strides_are_free = false;  // downstream reads GstVideoMeta
    bool is_live = false;
    Settings applied;
    Settings wanted;  // they are applied, or were refused
    // The last one takes pictures. Those before it are drained, and give their pictures first: a new
    // scene does not hold the source up.
    std::deque<StreamPtr> streams;
    bool is_fresh = false;  // the last stream has had no picture
    std::deque<Pending> inside;
    std::vector<GstEvent*> events;  // that came after the last picture
    BufferPtr spare;                // for a picture that was not ready
    GstClockTime last_message = GST_CLOCK_TIME_NONE;
};

void on_log(void* context, int level, const char* area, const char* text) {
    auto* const element = static_cast<GstElement*>(context);
    const GstDebugLevel ours = level >= VIDEOSTABILIZER_LOG_ERROR     ? GST_LEVEL_ERROR
                               : level >= VIDEOSTABILIZER_LOG_WARNING ? GST_LEVEL_WARNING
                                                                      : GST_LEVEL_INFO;
    GST_CAT_LEVEL_LOG(GST_CAT_DEFAULT, ours, element, "%s: %s", area, text);
}

class ObjectLock {
  public:
    explicit ObjectLock(const Steadier& s) : element_(s.element) { GST_OBJECT_LOCK(element_); }
    ~ObjectLock() { GST_OBJECT_UNLOCK(element_); }
    ObjectLock(const ObjectLock&) = delete;
    ObjectLock& operator=(const ObjectLock&) = delete;

  private:
    GstElement* element_;
};

Settings current_settings(const Steadier& s) {
    const ObjectLock lock(s);
    return s.settings;
}

bool has_caps(const Steadier& s) {
    return s.info.finfo != nullptr && GST_VIDEO_INFO_FORMAT(&s.info) != GST_VIDEO_FORMAT_UNKNOWN;
}

GstClockTime picture_time(const GstVideoInfo& info) {
    if (info.fps_n > 0 && info.fps_d > 0) {
        return gst_util_uint64_scale_int(GST_SECOND, info.fps_d, info.fps_n);
    }
    return static_cast<GstClockTime>(GST_SECOND / USUAL_FRAME_RATE);
}

int look_ahead_of(const Settings& settings, const GstVideoInfo& info) {
    return stream_options(settings, info).look_ahead;
}

void tell_latency(Steadier& s, const Settings& settings) {
    const GstClockTime latency =
        settings.enabled && has_caps(s)
            ? static_cast<GstClockTime>(look_ahead_of(settings, s.info)) * picture_time(s.info)
            : 0;
    {
        const ObjectLock lock(s);
        if (s.latency == latency) return;
        s.latency = latency;
    }
    gst_element_post_message(s.element, gst_message_new_latency(GST_OBJECT(s.element)));
}

void push_events(Steadier& s, std::vector<GstEvent*>& events) {
    for (GstEvent* const event : events) {
        gst_pad_push_event(s.source, event);
    }
    events.clear();
}

// Of events, what describes the stream stays known downstream.
void drop_events(Steadier& s, std::vector<GstEvent*>& events) {
    for (GstEvent* const event : events) {
        if (GST_EVENT_IS_STICKY(event)) gst_pad_store_sticky_event(s.source, event);
        gst_event_unref(event);
    }
    events.clear();
}

void drop_all(Steadier& s) {
    s.streams.clear();
    for (Pending& pending : s.inside) {
        drop_events(s, pending.events);
    }
    s.inside.clear();
    drop_events(s, s.events);
    s.spare.reset();
    s.last_message = GST_CLOCK_TIME_NONE;
}

GstFlowReturn fail(Steadier& s, int code) {
    std::string text(256, '\0');
    if (!s.streams.empty()) {
        text.resize(
            videostabilizer_stream_message(s.streams.front().get(), text.data(), text.size()));
    }
    GST_ELEMENT_ERROR(s.element, STREAM, FAILED, ("%s", videostabilizer_strerror(code)),
                      ("%s", text.c_str()));
    return GST_FLOW_ERROR;
}

GstStructure* describe(const char* name, const VideoStabilizerStreamReport& r) {
    return gst_structure_new(
        name, "number", G_TYPE_INT64, static_cast<gint64>(r.number), "scene-start", G_TYPE_BOOLEAN,
        r.scene_start, "look-ahead", G_TYPE_INT, r.look_ahead, "crop", G_TYPE_DOUBLE,
        static_cast<double>(r.crop), "granted", G_TYPE_DOUBLE, static_cast<double>(r.granted),
        "motion-found", G_TYPE_INT, r.motion_found, "points", G_TYPE_INT, r.points, "inliers",
        G_TYPE_INT, r.inliers, "readout", G_TYPE_DOUBLE, static_cast<double>(r.readout), nullptr);
}

GstStructure* describe(const Stats& stats) {
    GstStructure* const structure = describe("videostabilizer-stats", stats.last);
    gst_structure_set(structure, "pictures-in", G_TYPE_UINT64, stats.pictures_in, "pictures-out",
                      G_TYPE_UINT64, stats.pictures_out, "scenes", G_TYPE_UINT64, stats.scenes,
                      "motions-not-found", G_TYPE_UINT64, stats.motions_not_found, nullptr);
    return structure;
}

// Posts a message where a scene begins, and once a second.
void tell_report(Steadier& s, const VideoStabilizerStreamReport& report, GstClockTime time) {
    {
        const ObjectLock lock(s);
        ++s.stats.pictures_out;
        s.stats.scenes += report.scene_start != 0 ? 1 : 0;
        s.stats.motions_not_found += report.motion_found == 1 || report.scene_start != 0 ? 0 : 1;
        s.stats.last = report;
    }
    const bool is_due = !GST_CLOCK_TIME_IS_VALID(s.last_message) || time < s.last_message ||
                        time - s.last_message >= MESSAGE_INTERVAL;
    if (report.scene_start == 0 && !(GST_CLOCK_TIME_IS_VALID(time) && is_due)) return;
    s.last_message = time;
    GstStructure* const structure = describe("videostabilizer", report);
    gst_structure_set(structure, "timestamp", G_TYPE_UINT64, time, nullptr);
    gst_element_post_message(s.element, gst_message_new_element(GST_OBJECT(s.element), structure));
}

// The next picture of the first stream, as a buffer of its own.
int pull(Steadier& s, BufferPtr& steady, VideoStabilizerStreamReport& report, int timeout_ms) {
    VideoStabilizerStream* const stream = s.streams.front().get();
    if (s.strides_are_free) {
        VideoStabilizerPicture* picture = nullptr;
        const int code = videostabilizer_stream_pull(stream, &picture, timeout_ms);
        if (code == VIDEOSTABILIZER_OK) {
            videostabilizer_picture_report(picture, &report);
            steady = wrap(picture, s.info);
        }
        return code;
    }
    if (!s.spare) {
        s.spare.reset(gst_buffer_new_allocate(nullptr, s.info.size, nullptr));
    }
    GstVideoFrame frame;
    if (!s.spare || gst_video_frame_map(&frame, &s.info, s.spare.get(), GST_MAP_WRITE) == FALSE) {
        return VIDEOSTABILIZER_NO_MEMORY;
    }
    VideoStabilizerOutput output{};
    output.size = sizeof output;
    output.planes = planes_of(frame);
    const int code = videostabilizer_stream_pull_into(stream, &output, &report, timeout_ms);
    gst_video_frame_unmap(&frame);
    if (code == VIDEOSTABILIZER_OK) steady = std::move(s.spare);
    return code;
}

// Sends the next picture on, once it is there. Returns NOT_READY where none was in time, EOS where none
// is inside any more.
GstFlowReturn deliver(Steadier& s, int timeout_ms) {
    while (!s.streams.empty()) {
        BufferPtr steady;
        VideoStabilizerStreamReport report{};
        report.size = sizeof report;
        const int code = pull(s, steady, report, timeout_ms);
        if (code == VIDEOSTABILIZER_AGAIN) return NOT_READY;
        if (code == VIDEOSTABILIZER_END) {
            s.streams.pop_front();
            continue;
        }
        if (code != VIDEOSTABILIZER_OK) return fail(s, code);
        Pending pending = std::move(s.inside.front());
        s.inside.pop_front();
        copy_metadata(pending.buffer.get(), steady.get(), s.info, report);
        push_events(s, pending.events);
        tell_report(s, report, GST_BUFFER_PTS(steady.get()));
        return gst_pad_push(s.source, steady.release());
    }
    return GST_FLOW_EOS;
}

// Empties the element: everything that came in has been sent on.
GstFlowReturn drain(Steadier& s) {
    GstFlowReturn result = GST_FLOW_OK;
    if (!s.streams.empty()) {
        if (videostabilizer_stream_drain(s.streams.back().get()) != VIDEOSTABILIZER_OK) {
            GST_DEBUG_OBJECT(s.element, "the stream has failed before");
        }
        while (result == GST_FLOW_OK && !s.inside.empty()) {
            result = deliver(s, FOREVER);
        }
    }
    s.streams.clear();
    for (Pending& pending : s.inside) {  // that nobody takes
        push_events(s, pending.events);
    }
    s.inside.clear();
    push_events(s, s.events);
    return result;
}

// Where there is a stream already, it stays if another one cannot be opened.
bool open_stream(Steadier& s, const Settings& settings) {
    s.wanted = settings;
    VideoStabilizerStreamOptions options = stream_options(settings, s.info);
    options.log = on_log;
    options.log_context = s.element;
    options.log_level = VIDEOSTABILIZER_LOG_WARNING;
    VideoStabilizerStream* stream = nullptr;
    std::string reason(256, '\0');
    const int code = videostabilizer_stream_open(&options, &stream, reason.data(), reason.size());
    if (code != VIDEOSTABILIZER_OK && !s.streams.empty()) {
        GST_ELEMENT_WARNING(s.element, LIBRARY, SETTINGS,
                            ("%s; nothing is changed", videostabilizer_strerror(code)),
                            ("%s", reason.c_str()));
        return true;
    }
    if (code != VIDEOSTABILIZER_OK) {
        GST_ELEMENT_ERROR(s.element, LIBRARY, SETTINGS, ("%s", videostabilizer_strerror(code)),
                          ("%s", reason.c_str()));
        return false;
    }
    if (!s.streams.empty()) videostabilizer_stream_drain(s.streams.back().get());
    s.streams.emplace_back(stream);
    s.is_fresh = true;
    s.applied = settings;
    tell_latency(s, settings);
    return true;
}

// Makes the stream one of these settings; where it has to be another stream, that begins a scene.
bool apply(Steadier& s, const Settings& settings) {
    if (s.streams.empty()) return open_stream(s, settings);
    if (settings == s.wanted) return true;
    const VideoStabilizerStreamOptions options = stream_options(settings, s.info);
    VideoStabilizerStream* const stream = s.streams.back().get();
    if (options.look_ahead != look_ahead_of(s.applied, s.info)) return open_stream(s, settings);
    const int code = videostabilizer_stream_change(stream, &options);
    if (code == VIDEOSTABILIZER_OK) {
        s.applied = settings;
        s.wanted = settings;
        return true;
    }
    return open_stream(s, settings);
}

// What downstream says about buffers, and upstream about time.
void ask_neighbours(Steadier& s) {
    s.strides_are_free = false;
    GstCaps* const caps = gst_pad_get_current_caps(s.source);
    if (caps != nullptr) {
        GstQuery* const query = gst_query_new_allocation(caps, FALSE);
        if (gst_pad_peer_query(s.source, query) != FALSE) {
            s.strides_are_free =
                gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr) != FALSE;
        }
        gst_query_unref(query);
        gst_caps_unref(caps);
    }
    GstQuery* const query = gst_query_new_latency();
    gboolean live = FALSE;
    if (gst_pad_peer_query(s.sink, query) != FALSE) {
        gst_query_parse_latency(query, &live, nullptr, nullptr);
    }
    gst_query_unref(query);
    s.is_live = live != FALSE;
}

// How long a picture that is due is waited for. A live one should leave before the next one comes; else
// the library works while the neighbours do.
int patience(const Steadier& s) {
    return s.is_live ? static_cast<int>(picture_time(s.info) / 2 / GST_MSECOND) : 0;
}

GstFlowReturn refuse_interlaced(Steadier& s) {
    GST_ELEMENT_ERROR(s.element, STREAM, FORMAT,
                      ("Interlaced video cannot be stabilised; put deinterlace before it"),
                      (nullptr));
    return GST_FLOW_NOT_NEGOTIATED;
}

GstFlowReturn take_in(Steadier& s, BufferPtr buffer) {
    VideoStabilizerInput input{};
    input.size = sizeof input;
    const int look_ahead = look_ahead_of(s.applied, s.info);
    const bool borrow = may_borrow(buffer.get());
    Loan* const loan = begin_loan(buffer.get(), s.info, borrow, input);
    if (loan == nullptr) {
        GST_ELEMENT_ERROR(s.element, STREAM, FORMAT, ("A buffer does not hold a picture"),
                          ("%" GST_PTR_FORMAT, static_cast<void*>(buffer.get())));
        return GST_FLOW_ERROR;
    }
    int code = VIDEOSTABILIZER_AGAIN;
    while ((code = videostabilizer_stream_push(s.streams.back().get(), &input, 0)) ==
           VIDEOSTABILIZER_AGAIN) {
        const GstFlowReturn result = deliver(s, FOREVER);
        if (result != GST_FLOW_OK) {
            end_loan(loan);
            return result;
        }
    }
    if (!borrow) end_loan(loan);
    if (code != VIDEOSTABILIZER_OK) return fail(s, code);
    s.is_fresh = false;
    {
        const ObjectLock lock(s);
        ++s.stats.pictures_in;
    }
    s.inside.push_back({std::move(buffer), std::move(s.events)});
    s.events.clear();
    GstFlowReturn result = GST_FLOW_OK;
    while (result == GST_FLOW_OK && s.inside.size() > static_cast<std::size_t>(look_ahead)) {
        result = deliver(s, patience(s));
    }
    return result == NOT_READY ? GST_FLOW_OK : result;
}

bool is_same_video(const Steadier& s, GstCaps* caps) {
    GstVideoInfo info;
    return has_caps(s) && gst_video_info_from_caps(&info, caps) != FALSE &&
           gst_video_info_is_equal(&info, &s.info) != FALSE;
}

bool is_same_segment(const Steadier& s, GstEvent* event) {
    GstEvent* const last = gst_pad_get_sticky_event(s.source, GST_EVENT_SEGMENT, 0);
    if (last == nullptr) return false;
    const GstSegment* before = nullptr;
    const GstSegment* now = nullptr;
    gst_event_parse_segment(last, &before);
    gst_event_parse_segment(event, &now);
    const bool result = gst_segment_is_equal(before, now) != FALSE;
    gst_event_unref(last);
    return result;
}

bool set_caps(Steadier& s, GstCaps* caps) {
    GstVideoInfo info;
    if (gst_video_info_from_caps(&info, caps) == FALSE ||
        stream_format(GST_VIDEO_INFO_FORMAT(&info)) < 0) {
        return false;
    }
    const Settings settings = current_settings(s);
    drain(s);
    s.spare.reset();
    s.info = info;
    tell_latency(s, settings);
    return true;
}

}  // namespace

// --- GObject ---

struct GstVideoStabilizer {
    GstElement parent;
    Steadier* steadier;
};
struct GstVideoStabilizerClass {
    GstElementClass parent;
};
static GType gst_videostabilizer_get_type();
G_DEFINE_TYPE(GstVideoStabilizer, gst_videostabilizer, GST_TYPE_ELEMENT)

namespace {

Steadier& of(void* element) {
    return *static_cast<GstVideoStabilizer*>(element)->steadier;
}

GstFlowReturn on_buffer(GstPad* /*pad*/, GstObject* parent, GstBuffer* given) {
    Steadier& s = of(parent);
    BufferPtr buffer(given);
    if (!has_caps(s)) return GST_FLOW_NOT_NEGOTIATED;
    const Settings settings = current_settings(s);
    if (!settings.enabled) {
        const GstFlowReturn result = drain(s);
        tell_latency(s, settings);
        return result == GST_FLOW_OK ? gst_pad_push(s.source, buffer.release()) : result;
    }
    if (GST_VIDEO_INFO_IS_INTERLACED(&s.info)) return refuse_interlaced(s);
    if (gst_pad_check_reconfigure(s.source) != FALSE) ask_neighbours(s);
    if (!apply(s, settings)) return GST_FLOW_ERROR;
    if (GST_BUFFER_IS_DISCONT(given) && !s.is_fresh) {
        if (!open_stream(s, s.applied)) return GST_FLOW_ERROR;
        s.wanted = settings;
    }
    return take_in(s, std::move(buffer));
}

gboolean on_sink_event(GstPad* pad, GstObject* parent, GstEvent* event) {
    Steadier& s = of(parent);
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_FLUSH_STOP:
            drop_all(s);
            break;
        case GST_EVENT_CAPS: {
            GstCaps* caps = nullptr;
            gst_event_parse_caps(event, &caps);
            if (is_same_video(s, caps)) break;
            if (!set_caps(s, caps)) {
                gst_event_unref(event);
                return FALSE;
            }
            const gboolean result = gst_pad_push_event(s.source, event);
            gst_pad_mark_reconfigure(s.source);
            return result;
        }
        case GST_EVENT_SEGMENT:
            if (!is_same_segment(s, event)) drain(s);
            break;
        case GST_EVENT_EOS:
        case GST_EVENT_GAP:
        case GST_EVENT_SEGMENT_DONE:
        case GST_EVENT_STREAM_START:
            drain(s);
            break;
        default:
            break;
    }
    if (GST_EVENT_IS_SERIALIZED(event) && !s.inside.empty()) {
        s.events.push_back(event);
        return TRUE;
    }
    return gst_pad_event_default(pad, parent, event);
}

gboolean on_sink_query(GstPad* pad, GstObject* parent, GstQuery* query) {
    Steadier& s = of(parent);
    if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
        return gst_pad_query_default(pad, parent, query);
    }
    const Settings settings = current_settings(s);
    if (!settings.enabled) return gst_pad_peer_query(s.source, query);
    GstCaps* caps = nullptr;
    gst_query_parse_allocation(query, &caps, nullptr);
    GstVideoInfo info;
    if (caps == nullptr || gst_video_info_from_caps(&info, caps) == FALSE) return FALSE;
    const int held = look_ahead_of(settings, info) + ROOM + 1;
    gst_query_add_allocation_pool(query, nullptr, static_cast<guint>(info.size),
                                  static_cast<guint>(held), 0);
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    gst_query_add_allocation_meta(query, GST_VIDEO_CROP_META_API_TYPE, nullptr);
    return TRUE;
}

gboolean on_source_query(GstPad* pad, GstObject* parent, GstQuery* query) {
    Steadier& s = of(parent);
    if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY) {
        return gst_pad_query_default(pad, parent, query);
    }
    if (gst_pad_peer_query(s.sink, query) == FALSE) return FALSE;
    gboolean live = FALSE;
    GstClockTime least = 0;
    GstClockTime most = 0;
    gst_query_parse_latency(query, &live, &least, &most);
    const ObjectLock lock(s);
    gst_query_set_latency(query, live, least + s.latency,
                          GST_CLOCK_TIME_IS_VALID(most) ? most + s.latency : most);
    return TRUE;
}

GstStateChangeReturn change_state(GstElement* element, GstStateChange change) {
    Steadier& s = of(element);
    if (change == GST_STATE_CHANGE_READY_TO_PAUSED) {
        const ObjectLock lock(s);
        s.stats = {};
    }
    // Pads are deactivated here, after which nothing streams.
    const GstStateChangeReturn result =
        GST_ELEMENT_CLASS(gst_videostabilizer_parent_class)->change_state(element, change);
    if (change == GST_STATE_CHANGE_PAUSED_TO_READY) {
        drop_all(s);
        s.info = {};
        const ObjectLock lock(s);
        s.latency = 0;
    }
    return result;
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    Steadier& s = of(object);
    const ObjectLock lock(s);
    if (!write_setting(s.settings, id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    Steadier& s = of(object);
    const ObjectLock lock(s);
    if (id == PROPERTY_STATS) {
        g_value_take_boxed(value, describe(s.stats));
    } else if (!read_setting(s.settings, id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void finalize(GObject* object) {
    delete &of(object);
    G_OBJECT_CLASS(gst_videostabilizer_parent_class)->finalize(object);
}

}  // namespace

static void gst_videostabilizer_class_init(GstVideoStabilizerClass* klass) {
    GObjectClass* const object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_settings(object_class);
    g_object_class_install_property(
        object_class, PROPERTY_STATS,
        g_param_spec_boxed("stats", "Statistics", "Counts, and how the last picture became steady",
                           GST_TYPE_STRUCTURE,
                           static_cast<GParamFlags>(static_cast<int>(G_PARAM_READABLE) |
                                                    static_cast<int>(G_PARAM_STATIC_STRINGS))));

    GstElementClass* const element_class = GST_ELEMENT_CLASS(klass);
    element_class->change_state = change_state;
    gst_element_class_set_static_metadata(element_class, "Video stabilizer", "Filter/Effect/Video",
                                          "Takes the shake out of hand-held video",
                                          "The videostabilizer maintainers");
    GstCaps* const caps = supported_caps();
    gst_element_class_add_pad_template(
        element_class, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_element_class_add_pad_template(
        element_class, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
}

static void gst_videostabilizer_init(GstVideoStabilizer* self) {
    self->steadier = new Steadier;
    Steadier& s = *self->steadier;
    s.element = GST_ELEMENT(self);
    GstElementClass* const element_class = GST_ELEMENT_GET_CLASS(self);
    const auto add_pad = [&](const char* name) {
        GstPad* const pad = gst_pad_new_from_template(
            gst_element_class_get_pad_template(element_class, name), name);
        GST_PAD_SET_PROXY_CAPS(pad);
        gst_element_add_pad(s.element, pad);
        return pad;
    };
    s.sink = add_pad("sink");
    s.source = add_pad("src");
    gst_pad_set_chain_function(s.sink, on_buffer);
    gst_pad_set_event_function(s.sink, on_sink_event);
    gst_pad_set_query_function(s.sink, on_sink_query);
    gst_pad_set_query_function(s.source, on_source_query);
}

static gboolean register_element(GstPlugin* plugin) {
    GST_DEBUG_CATEGORY_INIT(videostabilizer_debug, "videostabilizer", 0, "video stabilizer");
    return gst_element_register(plugin, "videostabilizer", GST_RANK_NONE,
                                gst_videostabilizer_get_type());
}

#define PACKAGE "videostabilizer"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, videostabilizer,
                  "Takes the shake out of hand-held video", register_element,
                  VIDEOSTABILIZER_VERSION, "Apache 2.0", "videostabilizer",
                  "https://videostabilizer.invalid")
