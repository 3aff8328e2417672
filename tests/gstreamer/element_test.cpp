// SPDX-License-Identifier: Apache-2.0

// The element between a source and a sink of the test's: what goes in comes out, in order and with all
// that belongs to it, whatever happens on the way.

#include <gmock/gmock.h>
#include <gst/check/gstharness.h>
#include <gst/video/gstvideoaffinetransformationmeta.h>
#include <gst/video/video.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "videostabilizer/stream.h"

namespace {

constexpr int LOOK_AHEAD = 4;
constexpr GstClockTime STEP = 40 * GST_MSECOND;
constexpr GstClockTime START = GST_SECOND;

std::string caps_of(const std::string& format, int width = 65, int height = 49) {
    return "video/x-raw,framerate=25/1,format=" + format + ",width=" + std::to_string(width) +
           ",height=" + std::to_string(height);
}

class Element {
  public:
    explicit Element(const std::string& caps, bool strides_are_free = true)
        : harness_(gst_harness_new_parse("videostabilizer look-ahead=4 engine=native threads=1")) {
        if (strides_are_free) {
            gst_harness_add_propose_allocation_meta(harness_, GST_VIDEO_META_API_TYPE, nullptr);
        }
        gst_harness_set_src_caps_str(harness_, caps.c_str());
        set_caps(caps);
    }
    ~Element() { gst_harness_teardown(harness_); }
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

    GstHarness* harness() const { return harness_; }
    // The caps of the pictures that are pushed from here on, without an event.
    void set_caps(const std::string& caps) {
        GstCaps* const parsed = gst_caps_from_string(caps.c_str());
        gst_video_info_from_caps(&info_, parsed);
        gst_caps_unref(parsed);
    }
    GstBuffer* buffer(int number) const {
        GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, info_.size, nullptr);
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_WRITE);
        for (gsize k = 0; k < map.size; ++k) {
            map.data[k] = static_cast<guint8>((k * 37 + k / 65 * 11 + number * 5) & 127);
        }
        gst_buffer_unmap(buffer, &map);
        GST_BUFFER_PTS(buffer) = START + STEP * static_cast<GstClockTime>(number);
        GST_BUFFER_DTS(buffer) = GST_BUFFER_PTS(buffer) - STEP;
        GST_BUFFER_DURATION(buffer) = STEP - 1;
        return buffer;
    }
    GstFlowReturn push(int number, bool discont = false) {
        GstBuffer* const buffer = this->buffer(number);
        if (discont) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
        gst_buffer_add_video_region_of_interest_meta(buffer, "face", 20, 20, 20, 10);
        return gst_harness_push(harness_, buffer);
    }
    // Pushes a part of a larger picture: as a window, or on its own.
    void push_cut(int x, int y, bool is_window) {
        GstVideoInfo large;
        gst_video_info_set_format(&large, GST_VIDEO_INFO_FORMAT(&info_), info_.width + 16,
                                  info_.height + 10);
        std::swap(info_, large);
        GstBuffer* cut = buffer(0);
        std::swap(info_, large);
        gst_buffer_add_video_meta(cut, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&large),
                                  static_cast<guint>(large.width),
                                  static_cast<guint>(large.height));
        if (is_window) {
            GstVideoCropMeta* const crop = gst_buffer_add_video_crop_meta(cut);
            crop->x = static_cast<guint>(x);
            crop->y = static_cast<guint>(y);
            crop->width = static_cast<guint>(info_.width);
            crop->height = static_cast<guint>(info_.height);
        } else {
            GstBuffer* const own = buffer(0);
            copy_part(cut, large, x, y, own);
            gst_buffer_unref(cut);
            cut = own;
        }
        gst_buffer_add_video_affine_transformation_meta(cut)->matrix[1] = 1.5F;
        EXPECT_EQ(gst_harness_push(harness_, cut), GST_FLOW_OK);
    }
    void copy_part(GstBuffer* from, GstVideoInfo& whole, int x, int y, GstBuffer* to) {
        GstVideoFrame source;
        GstVideoFrame target;
        gst_video_frame_map(&source, &whole, from, GST_MAP_READ);
        gst_video_frame_map(&target, &info_, to, GST_MAP_WRITE);
        for (guint k = 0; k < GST_VIDEO_FRAME_N_COMPONENTS(&target); ++k) {
            for (int row = 0; row < GST_VIDEO_FRAME_COMP_HEIGHT(&target, k); ++row) {
                for (int i = 0; i < GST_VIDEO_FRAME_COMP_WIDTH(&target, k); ++i) {
                    const auto place = [&](GstVideoFrame& frame, int column, int line) {
                        return GST_VIDEO_FRAME_COMP_DATA(&frame, k) +
                               line * GST_VIDEO_FRAME_COMP_STRIDE(&frame, k) +
                               column * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, k);
                    };
                    const int left = x >> GST_VIDEO_FORMAT_INFO_W_SUB(info_.finfo, k);
                    const int top = y >> GST_VIDEO_FORMAT_INFO_H_SUB(info_.finfo, k);
                    std::memcpy(place(target, i, row), place(source, left + i, top + row),
                                GST_VIDEO_FRAME_COMP_DEPTH(&target, k) > 8 ? 2 : 1);
                }
            }
        }
        gst_video_frame_unmap(&source);
        gst_video_frame_unmap(&target);
    }
    std::string pixels_of(GstBuffer* buffer) {
        GstVideoFrame steady;
        GstVideoFrame packed;
        GstBuffer* const copy = gst_buffer_new_allocate(nullptr, info_.size, nullptr);
        gst_buffer_memset(copy, 0, 0, info_.size);
        gst_video_frame_map(&steady, &info_, buffer, GST_MAP_READ);
        gst_video_frame_map(&packed, &info_, copy, GST_MAP_WRITE);
        gst_video_frame_copy(&packed, &steady);
        gst_video_frame_unmap(&packed);
        gst_video_frame_unmap(&steady);
        std::string pixels(info_.size, '\0');
        gst_buffer_extract(copy, 0, pixels.data(), pixels.size());
        gst_buffer_unref(copy);
        return pixels;
    }
    void push_from_to(int first, int last) {
        for (int n = first; n <= last; ++n) {
            EXPECT_EQ(push(n), GST_FLOW_OK) << n;
        }
    }
    void event(GstEvent* event) { EXPECT_NE(gst_harness_push_event(harness_, event), FALSE); }
    template <typename Value>
    void set(const char* property, Value value) {
        gst_harness_set(harness_, "videostabilizer", property, value, nullptr);
    }
    guint64 scenes() const {
        GstStructure* stats = nullptr;
        gst_harness_get(harness_, "videostabilizer", "stats", &stats, nullptr);
        guint64 scenes = 0;
        gst_structure_get_uint64(stats, "scenes", &scenes);
        gst_structure_free(stats);
        return scenes;
    }
    std::size_t waiting() const { return gst_harness_buffers_in_queue(harness_); }

    // Takes the pictures that have come out; they have to be those.
    void expect_from_to(int first, int last) {
        ASSERT_EQ(waiting(), static_cast<std::size_t>(last - first + 1));
        for (int n = first; n <= last; ++n) {
            GstBuffer* const buffer = gst_harness_pull(harness_);
            const GstClockTime time = START + STEP * static_cast<GstClockTime>(n);
            EXPECT_EQ(GST_BUFFER_PTS(buffer), time);
            EXPECT_EQ(GST_BUFFER_DTS(buffer), time - STEP);
            EXPECT_EQ(GST_BUFFER_DURATION(buffer), STEP - 1);
            EXPECT_EQ(gst_buffer_get_n_meta(buffer, GST_VIDEO_REGION_OF_INTEREST_META_API_TYPE),
                      1U);
            GstVideoFrame frame;
            EXPECT_NE(gst_video_frame_map(&frame, &info_, buffer, GST_MAP_READ), FALSE);
            gst_video_frame_unmap(&frame);
            gst_buffer_unref(buffer);
        }
    }

  private:
    GstHarness* harness_;
    GstVideoInfo info_{};
};

TEST(Element, GivesEveryFormatBackInOrder) {
    GstElement* const element = gst_element_factory_make("videostabilizer", nullptr);
    ASSERT_NE(element, nullptr);
    GstCaps* const caps = gst_pad_template_get_caps(gst_element_get_pad_template(element, "sink"));
    const GValue* const formats =
        gst_structure_get_value(gst_caps_get_structure(caps, 0), "format");
    for (guint k = 0; k < gst_value_list_get_size(formats); ++k) {
        const std::string format = g_value_get_string(gst_value_list_get_value(formats, k));
        for (const bool strides_are_free : {true, false}) {
            SCOPED_TRACE(format + (strides_are_free ? "" : ", packed"));
            Element e(caps_of(format), strides_are_free);
            e.push_from_to(0, 9);
            e.event(gst_event_new_eos());
            e.expect_from_to(0, 9);
            EXPECT_EQ(e.scenes(), 1U);
        }
    }
    gst_caps_unref(caps);
    gst_object_unref(element);
}

TEST(Element, StartsScenesAndLosesNothing) {
    const struct {
        const char* name;
        void (*happens)(Element&);
        int kept;        // pictures of the ten before it that come out
        guint64 scenes;  // at the end
    } cases[] = {
        {"a new size",
         [](Element& e) {
             gst_harness_set_src_caps_str(e.harness(), caps_of("I420", 80, 64).c_str());
             e.expect_from_to(0, 9);
             e.set_caps(caps_of("I420", 80, 64));
         },
         0, 2},
        {"the same caps",
         [](Element& e) { gst_harness_set_src_caps_str(e.harness(), caps_of("I420").c_str()); }, 10,
         1},
        {"a gap", [](Element& e) { e.event(gst_event_new_gap(START + 9 * STEP, STEP)); }, 10, 2},
        {"a flush",
         [](Element& e) {
             for (int n = 10; e.waiting() == 0; ++n) {  // until the first scene has been seen
                 e.push(n);
             }
             e.event(gst_event_new_flush_start());
             while (e.waiting() > 0) {
                 gst_buffer_unref(gst_harness_pull(e.harness()));
             }
             e.event(gst_event_new_flush_stop(TRUE));
             GstSegment segment;
             gst_segment_init(&segment, GST_FORMAT_TIME);
             e.event(gst_event_new_segment(&segment));
         },
         0, 2},
        {"another look-ahead", [](Element& e) { e.set("look-ahead", 9); }, 10, 2},
        {"another crop", [](Element& e) { e.set("crop", 0.8); }, 10, 1},
        {"a crop that is refused", [](Element& e) { e.set("crop", 0.3); }, 10, 1},
        {"another sampling",
         [](Element& e) { e.set("sampling", static_cast<int>(VIDEOSTABILIZER_SAMPLING_BILINEAR)); },
         10, 2},
        {"disabled and enabled",
         [](Element& e) {
             e.set("enabled", FALSE);
             e.push(10);
             e.expect_from_to(0, 10);
             e.set("enabled", TRUE);
         },
         0, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Element e(caps_of("I420"));
        e.push_from_to(0, 9);
        c.happens(e);
        const int first = c.kept > 0 ? 10 : 20;
        e.push_from_to(first, first + 19);
        e.event(gst_event_new_eos());
        e.expect_from_to(first - c.kept, first + 19);
        EXPECT_EQ(e.scenes(), c.scenes);
    }
    Element e(caps_of("I420"));
    for (int n = 0; n < 20; ++n) {
        EXPECT_EQ(e.push(n, n % 7 == 0), GST_FLOW_OK);
    }
    e.event(gst_event_new_eos());
    e.expect_from_to(0, 19);
    EXPECT_EQ(e.scenes(), 3U);
}

TEST(Element, TellsItsLatency) {
    Element e(caps_of("NV12"));
    EXPECT_EQ(gst_harness_query_latency(e.harness()), LOOK_AHEAD * STEP);
    e.set("look-ahead", 10);
    e.push(0);
    EXPECT_EQ(gst_harness_query_latency(e.harness()), 10 * STEP);
    e.set("enabled", FALSE);
    e.push(1);
    EXPECT_EQ(gst_harness_query_latency(e.harness()), 0U);
}

TEST(Element, KeepsEventsAtTheirPlaces) {
    Element e(caps_of("I420"));
    e.push_from_to(0, 1);
    const guint before = gst_harness_events_received(e.harness());
    e.event(gst_event_new_tag(gst_tag_list_new(GST_TAG_IMAGE_ORIENTATION, "rotate-90", nullptr)));
    EXPECT_EQ(gst_harness_events_received(e.harness()), before);
    e.push(2);
    e.event(gst_event_new_eos());
    EXPECT_EQ(gst_harness_events_received(e.harness()), before + 2);
}

// A camera at rest, half of whose picture is shown: the region is twice as large.
TEST(Element, MovesRegions) {
    Element e(caps_of("I420", 64, 48));
    e.set("crop", 0.5);
    for (int n = 0; n < 10; ++n) {
        e.push(0);
    }
    e.event(gst_event_new_eos());
    for (int n = 0; n < 10; ++n) {
        GstBuffer* const buffer = gst_harness_pull(e.harness());
        const auto* const region = gst_buffer_get_video_region_of_interest_meta(buffer);
        ASSERT_NE(region, nullptr);
        EXPECT_THAT((std::vector<guint>{region->x, region->y, region->w, region->h}),
                    testing::ElementsAre(8, 16, 40, 20));
        gst_buffer_unref(buffer);
    }
}

// A crop meta of the caps' size is followed; the metas that turn the picture go with it.
TEST(Element, FollowsCropsAndKeepsOrientations) {
    for (const char* const format : {"I420", "NV12", "RGB", "I420_10LE"}) {
        std::vector<std::string> steady;
        for (const bool is_window : {false, true}) {
            SCOPED_TRACE(format);
            Element e(caps_of(format, 64, 48));
            e.push_cut(4, 6, is_window);
            e.event(gst_event_new_eos());
            GstBuffer* const buffer = gst_harness_pull(e.harness());
            EXPECT_EQ(gst_buffer_get_video_crop_meta(buffer), nullptr);
            const auto* const turned = gst_buffer_get_video_affine_transformation_meta(buffer);
            ASSERT_NE(turned, nullptr);
            EXPECT_EQ(turned->matrix[1], 1.5F);
            steady.push_back(e.pixels_of(buffer));
            gst_buffer_unref(buffer);
        }
        EXPECT_TRUE(steady[0] == steady[1]) << format;
    }
    // One that is smaller than the caps is for the sink.
    Element e(caps_of("I420", 64, 48));
    GstBuffer* const given = e.buffer(0);
    gst_buffer_add_video_crop_meta(given)->width = 10;
    EXPECT_EQ(gst_harness_push(e.harness(), given), GST_FLOW_OK);
    e.event(gst_event_new_eos());
    GstBuffer* const buffer = gst_harness_pull(e.harness());
    EXPECT_NE(gst_buffer_get_video_crop_meta(buffer), nullptr);
    gst_buffer_unref(buffer);
}

// Every picture is needed for the path, so that none is left out here; the source may.
TEST(Element, PassesQosOn) {
    Element e(caps_of("I420"));
    e.push_from_to(0, 9);
    const std::size_t there = e.waiting();
    GstEvent* const late =
        gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 2.5, 40 * GST_MSECOND, START + 20 * STEP);
    EXPECT_NE(gst_harness_push_upstream_event(e.harness(), late), FALSE);
    GstEvent* event = nullptr;
    while ((event = gst_harness_try_pull_upstream_event(e.harness())) != nullptr &&
           GST_EVENT_TYPE(event) != GST_EVENT_QOS) {
        gst_event_unref(event);
    }
    ASSERT_NE(event, nullptr);
    GstClockTime time = 0;
    gst_event_parse_qos(event, nullptr, nullptr, nullptr, &time);
    EXPECT_EQ(time, START + 20 * STEP);
    gst_event_unref(event);
    EXPECT_EQ(e.waiting(), there);
    e.push_from_to(10, 14);
    e.event(gst_event_new_eos());
    e.expect_from_to(0, 14);
}

TEST(Element, RefusesWhatItCannotDo) {
    for (const char* const extra : {",interlace-mode=interleaved", ""}) {
        const bool is_interlaced = *extra != '\0';
        Element e(caps_of("I420") + extra);
        if (!is_interlaced) e.set("crop", 0.3);
        EXPECT_EQ(e.push(0), is_interlaced ? GST_FLOW_NOT_NEGOTIATED : GST_FLOW_ERROR);
    }
}

// State changes end while pictures are pushed.
TEST(Element, StopsAtAnyMoment) {
    GError* error = nullptr;
    GstElement* const pipeline = gst_parse_launch(
        "videotestsrc ! video/x-raw,width=320,height=180 ! videostabilizer engine=native ! "
        "fakesink",
        &error);
    if (error != nullptr) {
        g_clear_error(&error);
        GTEST_SKIP() << "there is no videotestsrc";
    }
    for (gulong k = 0; k < 30; ++k) {
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        g_usleep(k * 2000);
        gst_element_set_state(pipeline, k % 3 == 0 ? GST_STATE_PAUSED : GST_STATE_NULL);
    }
    EXPECT_NE(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_FAILURE);
    gst_object_unref(pipeline);
}

class Gst : public testing::Environment {
    void SetUp() override {
        g_setenv("GST_PLUGIN_PATH", VS_PLUGIN_PATH, TRUE);
        g_setenv("GST_REGISTRY", VS_REGISTRY, TRUE);
        gst_registry_fork_set_enabled(FALSE);  // a scanner has no sanitizer
        gst_init(nullptr, nullptr);
    }
    void TearDown() override { gst_deinit(); }
};
const auto* const gst = testing::AddGlobalTestEnvironment(new Gst);

}  // namespace
