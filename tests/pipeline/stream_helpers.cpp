// SPDX-License-Identifier: Apache-2.0

#include "tests/pipeline/stream_helpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>

namespace test_support {

StabilizerPtr make_stabilizer(const Geometry& g, bool in_place,
                              const VideoStabilizerOptions* options, VideoStabilizerUser* user) {
    EXPECT_EQ(video_stabilizer_module_init(), 0);
    StabilizerPtr s(video_stabilizer_create_with_options(
        g.width, g.height, g.stride_y, g.stride_uv, g.format, in_place ? 1 : 0, user, options));
    if (s != nullptr) {
        s->timeout_ms = 600'000;
    }
    return s;
}

VideoStabilizerOptions options_for(int strength) {
    VideoStabilizerOptions options;
    EXPECT_EQ(video_stabilizer_options_for_strength(&options,
                                                    static_cast<VideoStabilizerStrength>(strength)),
              0);
    return options;
}

int shaking_texture(int x, int y, int frame) {
    return texture(x + frame * 2 % 5, y + frame * 3 % 4, 0);
}

Frame* make_frame(int number, const Geometry& g, Pixel pixel) {
    Frame* const frame = blank_frame(g);
    std::memset(frame->plane_y, 0, g.luma_bytes());
    for (int y = 0; y < g.height; ++y) {
        unsigned char* const row = frame->plane_y + static_cast<std::ptrdiff_t>(y) * g.stride_y;
        for (int x = 0; x < g.width; ++x) {
            row[x] = static_cast<unsigned char>(pixel(x, y, number));
        }
    }
    std::memset(frame->plane_uv, 100, g.chroma_bytes());
    frame->timestamp = number;
    return frame;
}

namespace {

struct Record : Ending {
    const VideoStabilizer* stabilizer;
    int frames;  // of the whole stream
    std::int64_t first;

    // Of frame i, as hosts see it.
    std::int32_t number(std::int64_t i) const {
        return static_cast<std::int32_t>((first + i) & INT32_MAX);
    }
    static void on_motion(void* ctx, std::int32_t frame, const float m[9], const MotionLog* log) {
        auto& record = *static_cast<Record*>(ctx);
        // The first motion leads to the first frame that has one before it.
        const int i = static_cast<int>(record.motions.size()) - (record.first == 0 ? 0 : 1);
        EXPECT_EQ(frame, record.number(i));
        std::copy_n(m, 9, record.motions.emplace_back().begin());
        record.estimated += log->status == 0 ? 1 : 0;
    }
    static void on_correction(void* ctx, std::int32_t frame, const float m[9]) {
        auto& record = *static_cast<Record*>(ctx);
        EXPECT_EQ(frame, record.number(static_cast<int>(record.corrections.size())));
        std::copy_n(m, 9, record.corrections.emplace_back().begin());
    }
    static void on_report(void* ctx, const VideoStabilizerReport* report) {
        auto& record = *static_cast<Record*>(ctx);
        const int i = static_cast<int>(record.reports.size());
        record.reports.push_back(*report);
        EXPECT_EQ(report->frame, record.number(i));
        EXPECT_EQ(record.motions.size(), record.first == 0 ? i : i + 1);
        EXPECT_EQ(record.stabilizer->frame_index,
                  record.number(std::min(i + report->look_ahead, record.frames - 1)));
    }
};

}  // namespace

Ending run_stream(VideoStabilizer* s, int count, const std::function<Frame*(int)>& make,
                  const std::function<void(Frame*)>& visit, std::int64_t first) {
    Record record{{}, s, count, first};
    const VideoStabilizerObserver observer{&record, Record::on_motion, Record::on_correction,
                                           Record::on_report};
    video_stabilizer_set_observer(s, &observer);
    EXPECT_EQ(video_stabilizer_start(s), RESULT_OK);
    if (first != 0) {
        s->newest_frame = s->sent_frame = first - 1;  // the worker waits for its first frame
    }
    const Geometry geometry = {s->width, s->height, s->stride_y, s->stride_uv, s->format};
    std::thread producer([&] {
        for (int i = 0; i < count; ++i) {
            video_stabilizer_push_frame(s, make ? make(i) : make_frame(i, geometry));
        }
        video_stabilizer_signal_eos(s);
    });
    Frame* frame = nullptr;
    while ((record.code = video_stabilizer_pop_frame(s, &frame)) == RESULT_OK) {
        EXPECT_EQ(frame->timestamp, record.popped++);
        if (visit) {
            visit(frame);
        }
        frame_delete(frame);
    }
    if (count > 0 && record.code != RESULT_END_OF_STREAM) {
        EXPECT_EQ(video_stabilizer_stop(s), 0);  // the observer's record is ours from here on
    }
    producer.join();
    return record;
}

}  // namespace test_support
