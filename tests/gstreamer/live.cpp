// SPDX-License-Identifier: Apache-2.0

// live WIDTH HEIGHT RATE SECONDS PIPELINE: plays shaken pictures at the clock's pace through a pipeline
// and tells what a viewer and the machine notice. PIPELINE begins after the source, or, with
// LIVE_RTP=PORT, after a jitter buffer that is fed over the loopback; it names the element `v` and ends
// in a sink `out`. LIVE_GAP=1 sends a gap after 50 pictures and tells how long that holds the source up.
// LIVE_CHANGES=1 changes properties all the time.
//
// Fails where a picture was dropped or lost, or came out of order; RTP may lose a quarter.

#include <gst/gst.h>
#include <gst/video/video.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "common/synthetic/scene.h"

namespace {

constexpr int CLIP = 32;  // pictures; they are shown to and fro

struct Picture {
    std::vector<unsigned char> bytes;
};

std::vector<Picture> shaken_pictures(int width, int height) {
    synthetic::ClipSettings settings;
    settings.camera.width = width;
    settings.camera.height = height;
    const synthetic::ShakyClip clip(settings);
    std::vector<Picture> pictures(CLIP);
    const auto luma = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    for (int n = 0; n < CLIP; ++n) {
        std::vector<unsigned char>& bytes = pictures[static_cast<std::size_t>(n)].bytes;
        bytes.resize(luma * 3 / 2);
        clip.render(
            n, {bytes.data(), bytes.data() + luma, bytes.data() + luma * 5 / 4, width, width / 2});
    }
    return pictures;
}

// What the sink saw.
struct Shown {
    std::atomic<int> pictures{0};
    std::atomic<int> out_of_order{0};
    GstClockTime last = 0;
    GstClockTime latest = 0;  // after the time at which a picture was due
    GstClockTime sum = 0;
    GstElement* pipeline = nullptr;
    std::atomic<GstClockTime> latency{0};
    GstClockTime begin = GST_CLOCK_TIME_NONE;
};

GstClockTime now(GstElement* pipeline) {
    GstClock* const clock = gst_element_get_clock(pipeline);
    if (clock == nullptr) return 0;
    const GstClockTime time = gst_clock_get_time(clock) - gst_element_get_base_time(pipeline);
    gst_object_unref(clock);
    return time;
}

void on_picture(GstElement* /*sink*/, GstBuffer* buffer, GstPad* /*pad*/, gpointer data) {
    auto& shown = *static_cast<Shown*>(data);
    const GstClockTime time = GST_BUFFER_PTS(buffer);
    if (shown.begin != GST_CLOCK_TIME_NONE && time <= shown.last) ++shown.out_of_order;
    shown.last = time;
    ++shown.pictures;
    if (shown.begin == GST_CLOCK_TIME_NONE) shown.begin = time;
    if (time < shown.begin + GST_SECOND) return;  // the latency is being agreed upon
    const GstClockTime due = time + shown.latency;
    const GstClockTime late = std::max(now(shown.pipeline), due) - due;
    shown.latest = std::max(shown.latest, late);
    shown.sum += late;
}

// Once, before a picture in the middle.
GstPadProbeReturn send_gap(GstPad* pad, GstPadProbeInfo* info, gpointer /*data*/) {
    GstBuffer* const buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    static int number = 0;
    if (++number != 50) return GST_PAD_PROBE_OK;
    const gint64 begin = g_get_monotonic_time();
    gst_pad_send_event(pad, gst_event_new_gap(GST_BUFFER_PTS(buffer), GST_MSECOND));
    std::printf("gap_ms %.1f\n", static_cast<double>(g_get_monotonic_time() - begin) / 1000);
    return GST_PAD_PROBE_OK;
}

// What an application may do while pictures run.
void change(GstElement* element, int number) {
    switch (number % 5) {
        case 0:
            g_object_set(element, "crop", 0.8 + 0.01 * (number % 10), nullptr);
            break;
        case 1:
            g_object_set(element, "sampling", number % 3, nullptr);
            break;
        case 2:
            g_object_set(element, "enabled", number % 2, nullptr);
            break;
        case 3:
            g_object_set(element, "strength", number % 4, "threads", number % 3, nullptr);
            break;
        default:
            g_object_set(element, "look-ahead", 5 + number % 7, nullptr);
    }
}

double processor_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

guint64 count_of(GstElement* element, const char* field) {
    GstStructure* stats = nullptr;
    g_object_get(element, "stats", &stats, nullptr);
    guint64 value = 0;
    gst_structure_get_uint64(stats, field, &value);
    gst_structure_free(stats);
    return value;
}

GstElement* parse(const std::string& text) {
    GError* error = nullptr;
    GstElement* const pipeline = gst_parse_launch(text.c_str(), &error);
    if (error != nullptr) {
        std::fprintf(stderr, "%s\n", error->message);
        g_clear_error(&error);
    }
    return pipeline;
}

int run(int width, int height, int rate, int seconds, const std::string& rest) {
    const std::vector<Picture> clip = shaken_pictures(width, height);
    const std::string source =
        "appsrc name=in is-live=true format=time caps=video/x-raw,format=I420,width=" +
        std::to_string(width) + ",height=" + std::to_string(height) +
        ",framerate=" + std::to_string(rate) + "/1 ! ";
    const char* const port = g_getenv("LIVE_RTP");
    GstElement* sender = nullptr;
    GstElement* receiver = nullptr;
    if (port != nullptr) {
        receiver = parse(std::string("udpsrc buffer-size=2000000 port=") + port +
                         " caps=application/x-rtp,media=video,clock-rate=90000,"
                         "encoding-name=JPEG,payload=26 ! rtpjitterbuffer latency=100 ! "
                         "rtpjpegdepay ! jpegdec ! " +
                         rest);
        sender = parse(source + "jpegenc ! rtpjpegpay ! udpsink host=127.0.0.1 port=" + port);
    } else {
        sender = receiver = parse(source + rest);
    }
    if (sender == nullptr || receiver == nullptr) return 2;
    Shown shown;
    shown.pipeline = receiver;
    GstElement* const sink = gst_bin_get_by_name(GST_BIN(receiver), "out");
    GstElement* const element = gst_bin_get_by_name(GST_BIN(receiver), "v");
    GstElement* const in = gst_bin_get_by_name(GST_BIN(sender), "in");
    g_signal_connect(sink, "handoff", G_CALLBACK(on_picture), &shown);
    if (g_getenv("LIVE_GAP") != nullptr) {
        GstPad* const pad = gst_element_get_static_pad(element, "sink");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, send_gap, nullptr, nullptr);
        gst_object_unref(pad);
    }
    gst_element_set_state(receiver, GST_STATE_PLAYING);
    gst_element_set_state(sender, GST_STATE_PLAYING);

    // Messages about latency are answered as players do.
    GstBus* const bus = gst_element_get_bus(receiver);
    std::atomic<int> errors{0};
    std::thread answers([&] {
        for (bool is_end = false; !is_end;) {
            GstMessage* const message = gst_bus_timed_pop(bus, GST_CLOCK_TIME_NONE);
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_LATENCY) {
                gst_bin_recalculate_latency(GST_BIN(receiver));
                GstClockTime latency = 0;
                GstQuery* const query = gst_query_new_latency();
                if (gst_element_query(receiver, query) != FALSE) {
                    gst_query_parse_latency(query, nullptr, &latency, nullptr);
                }
                gst_query_unref(query);
                shown.latency = latency;
            }
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) ++errors;
            is_end = GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS ||
                     GST_MESSAGE_TYPE(message) == GST_MESSAGE_APPLICATION;
            gst_message_unref(message);
        }
    });
    const int total = rate * seconds;
    while (now(sender) == 0) {
        g_usleep(1000);
    }
    const GstClockTime start = now(sender) + 100 * GST_MSECOND;
    const double before = processor_seconds();
    guint64 most_waiting = 0;
    guint64 dropped_at_start = 0;
    for (int n = 0; n < total; ++n) {
        const int place = n % (2 * CLIP);
        const std::vector<unsigned char>& bytes =
            clip[static_cast<std::size_t>(place < CLIP ? place : 2 * CLIP - 1 - place)].bytes;
        GstBuffer* const buffer = gst_buffer_new_wrapped_full(
            GST_MEMORY_FLAG_READONLY, const_cast<unsigned char*>(bytes.data()), bytes.size(), 0,
            bytes.size(), nullptr, nullptr);
        const GstClockTime time = start + gst_util_uint64_scale_int(GST_SECOND, n, rate);
        GST_BUFFER_PTS(buffer) = time;
        GST_BUFFER_DURATION(buffer) = GST_SECOND / static_cast<GstClockTime>(rate);
        for (GstClockTime at = now(sender); at < time; at = now(sender)) {
            g_usleep((time - at) / 1000 + 1);
        }
        GstFlowReturn flow = GST_FLOW_OK;
        g_signal_emit_by_name(in, "push-buffer", buffer, &flow);
        gst_buffer_unref(buffer);
        guint64 waiting = 0;
        g_object_get(in, "current-level-buffers", &waiting, nullptr);
        most_waiting = std::max(most_waiting, waiting);
        if (n == 2 * rate) dropped_at_start = count_of(sink, "dropped");
        if (g_getenv("LIVE_CHANGES") != nullptr && n % 25 == 24) change(element, n / 25);
    }
    int look_ahead = 0;
    g_object_get(element, "look-ahead", &look_ahead, nullptr);
    const double used = processor_seconds() - before;
    GstFlowReturn flow = GST_FLOW_OK;
    g_signal_emit_by_name(in, "end-of-stream", &flow);
    if (port != nullptr) {  // no end comes through
        g_usleep(1500000);
        gst_bus_post(bus, gst_message_new_application(nullptr, gst_structure_new_empty("end")));
    }
    answers.join();
    const int expected = port != nullptr ? total - look_ahead : total;
    const guint64 dropped = count_of(sink, "dropped");
    std::printf(
        "in %d out %d dropped %llu, at the start %llu, scenes %llu out_of_order %d latency_ms %.1f "
        "late_ms mean %.2f "
        "most %.1f waiting %llu cpu_ms_per_picture %.2f cores %.2f\n",
        total, shown.pictures.load(), static_cast<unsigned long long>(dropped),
        static_cast<unsigned long long>(dropped_at_start),
        static_cast<unsigned long long>(count_of(element, "scenes")), shown.out_of_order.load(),
        static_cast<double>(shown.latency.load()) / 1e6,
        static_cast<double>(shown.sum) / 1e6 / std::max(1, shown.pictures.load()),
        static_cast<double>(shown.latest) / 1e6, static_cast<unsigned long long>(most_waiting),
        used * 1000 / total, used / seconds);
    // A busy machine loses packets before they reach the element, of a few pictures at most.
    const int least = port != nullptr ? expected * 3 / 4 : expected;
    const bool is_right = errors == 0 && dropped == 0 && shown.out_of_order == 0 &&
                          shown.pictures >= least && shown.pictures <= expected;
    gst_element_set_state(sender, GST_STATE_NULL);
    gst_element_set_state(receiver, GST_STATE_NULL);
    gst_object_unref(bus);
    gst_object_unref(sink);
    gst_object_unref(element);
    gst_object_unref(in);
    gst_object_unref(receiver);
    if (sender != receiver) gst_object_unref(sender);
    return is_right ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) return 2;
    gst_registry_fork_set_enabled(FALSE);  // a scanner has no sanitizer
    gst_init(nullptr, nullptr);
    const int result = run(std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]),
                           std::atoi(argv[4]), argv[5]);
    gst_deinit();
    return result;
}
