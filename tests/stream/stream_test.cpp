// SPDX-License-Identifier: Apache-2.0

// The C interface against the C++ interface that it stands on, and what is its own: waits, ownership,
// readiness, flushing, changes, errors.

#include "videostabilizer/stream.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/leak_test.h"

using namespace test_support;

namespace {

using testing::HasSubstr;

constexpr int STREAM_WIDTH = 193;  // odd
constexpr int STREAM_HEIGHT = 145;
constexpr int FRAMES = 40;
constexpr int FOREVER = -1;

VideoStabilizerStreamOptions options(int32_t format, int strength = VIDEOSTABILIZER_STANDARD) {
    VideoStabilizerStreamOptions o;
    EXPECT_EQ(videostabilizer_stream_options_init(&o, sizeof o, strength), 0);
    o.width = STREAM_WIDTH;
    o.height = STREAM_HEIGHT;
    o.format = format;
    o.engine = VIDEOSTABILIZER_ENGINE_NATIVE;
    o.threads = 1;
    return o;
}

// A picture in memory of the host, upside down in every other case.
struct HostPicture {
    HostPicture(int32_t format, bool upside_down) {
        const int count =
            videostabilizer_format_plane(format, STREAM_WIDTH, STREAM_HEIGHT, 0, nullptr);
        for (int k = 0; k < count; ++k) {
            VideoStabilizerPlaneShape shape{sizeof shape, 0, 0};
            videostabilizer_format_plane(format, STREAM_WIDTH, STREAM_HEIGHT, k, &shape);
            const std::size_t stride = shape.row_bytes + 6;
            shapes.push_back(shape);
            memory.emplace_back(stride * static_cast<std::size_t>(shape.rows));
            planes.data[k] = memory.back().data() +
                             (upside_down ? stride * static_cast<std::size_t>(shape.rows - 1) : 0);
            planes.stride[k] = static_cast<std::ptrdiff_t>(stride) * (upside_down ? -1 : 1);
        }
    }
    template <typename Visit>
    static void each_byte(const std::vector<VideoStabilizerPlaneShape>& shapes,
                          const VideoStabilizerPlanes& planes, Visit visit) {
        for (std::size_t k = 0; k < shapes.size(); ++k) {
            for (int y = 0; y < shapes[k].rows; ++y) {
                auto* const row =
                    static_cast<unsigned char*>(planes.data[k]) + y * planes.stride[k];
                for (std::size_t x = 0; x < shapes[k].row_bytes; ++x) {
                    visit(row[x], static_cast<int>(k), static_cast<int>(x), y);
                }
            }
        }
    }
    void draw(int frame, int bits) {
        each_byte(shapes, planes, [&](unsigned char& byte, int k, int x, int y) {
            const bool high = bits > 8 && x % 2 == 1;  // few of the upper bits are used by 9 to 15
            const int level = shaking_texture(bits > 8 ? x / 2 : x, y + 9 * k, frame);
            byte = static_cast<unsigned char>(high ? level & ((1 << (bits - 8)) - 1) : level);
        });
    }
    std::vector<unsigned char> packed(const VideoStabilizerPlanes& from) const {
        std::vector<unsigned char> bytes;
        each_byte(shapes, from, [&](unsigned char byte, int, int, int) { bytes.push_back(byte); });
        return bytes;
    }

    std::vector<std::vector<unsigned char>> memory;
    std::vector<VideoStabilizerPlaneShape> shapes;
    VideoStabilizerPlanes planes{};
};

using Bytes = std::vector<unsigned char>;

// A stream and what it has given.
struct TestStream {
    explicit TestStream(const VideoStabilizerStreamOptions& o) : opened(o) {
        code = videostabilizer_stream_open(&o, &stream, reason, sizeof reason);
    }
    ~TestStream() { videostabilizer_stream_close(stream); }
    TestStream(const TestStream&) = delete;
    TestStream& operator=(const TestStream&) = delete;

    static void release(void* self, void* host) {
        auto& s = *static_cast<TestStream*>(self);
        const std::lock_guard<std::mutex> lock(s.mutex);
        EXPECT_EQ(s.borrowed.erase(static_cast<HostPicture*>(host)), 1U) << "released twice";
        delete static_cast<HostPicture*>(host);
    }
    int push(int frame, bool borrow, int timeout_ms) {
        auto* const picture = new HostPicture(opened.format, frame % 2 == 1);
        picture->draw(frame, opened.format & 0xFF);
        VideoStabilizerInput input{sizeof input, picture->planes, 1000 + frame,
                                   nullptr,      nullptr,         nullptr};
        if (borrow) {
            input.host = picture;
            input.release = release;
            input.release_context = this;
            const std::lock_guard<std::mutex> lock(mutex);
            borrowed.insert(picture);
        }
        const int pushed = videostabilizer_stream_push(stream, &input, timeout_ms);
        if (!borrow) {
            for (std::vector<unsigned char>& plane : picture->memory) {
                std::fill(plane.begin(), plane.end(), 0);  // a copy does not see it
            }
            delete picture;
        } else if (pushed == VIDEOSTABILIZER_AGAIN) {
            release(this, picture);
        }
        return pushed;
    }
    int pull(bool into, int timeout_ms) {
        HostPicture target(opened.format, into);
        VideoStabilizerStreamReport report{};
        report.size = sizeof report;
        VideoStabilizerOutput output{sizeof output, target.planes, 0, nullptr};
        VideoStabilizerPicture* picture = nullptr;
        const int pulled =
            into ? videostabilizer_stream_pull_into(stream, &output, &report, timeout_ms)
                 : videostabilizer_stream_pull(stream, &picture, timeout_ms);
        if (pulled != VIDEOSTABILIZER_OK) {
            EXPECT_EQ(picture, nullptr);
            return pulled;
        }
        if (!into) {
            EXPECT_EQ(videostabilizer_picture_get(picture, &output), 0);
            EXPECT_EQ(videostabilizer_picture_report(picture, &report), 0);
            EXPECT_EQ(videostabilizer_picture_ref(picture), picture);
            videostabilizer_picture_unref(picture);
        }
        steady.push_back(target.packed(output.planes));
        times.push_back(output.timestamp);
        reports.push_back(report);
        videostabilizer_picture_unref(picture);
        return pulled;
    }
    // Pushes frames and pulls until the end. Returns the code that ended it.
    int run(int count, bool borrow = false, bool into = false) {
        int result = VIDEOSTABILIZER_OK;
        for (int i = 0; i < count && result == VIDEOSTABILIZER_OK; ++i) {
            while ((result = push(i, borrow, 0)) == VIDEOSTABILIZER_AGAIN) {
                result = pull(into, FOREVER);
                if (result != VIDEOSTABILIZER_OK) {
                    return result;
                }
            }
        }
        if (result == VIDEOSTABILIZER_OK) {
            result = videostabilizer_stream_drain(stream);
        }
        while (result == VIDEOSTABILIZER_OK) {
            result = pull(into, FOREVER);
        }
        return result;
    }

    VideoStabilizerStreamOptions opened;
    VideoStabilizerStream* stream = nullptr;
    int code = 0;
    char reason[200] = "";
    std::mutex mutex;  // guards the next
    std::set<HostPicture*> borrowed;
    std::vector<Bytes> steady;
    std::vector<std::int64_t> times;
    std::vector<VideoStabilizerStreamReport> reports;
};

using StreamTest = LeakTest;

// What the C++ interface makes of the same pictures.
std::vector<Bytes> by_cpp(int32_t format, const PixelLayout& layout, int strength) {
    VideoStabilizerOptions o{};
    video_stabilizer_options_for_strength(&o, static_cast<VideoStabilizerStrength>(strength));
    o.engine = STABILIZER_ENGINE_NATIVE;
    const StabilizerPtr s(
        video_stabilizer_create_for_pictures(STREAM_WIDTH, STREAM_HEIGHT, &layout, 0, nullptr, &o));
    std::vector<Bytes> steady;
    const auto planes_of = [&](const Frame* frame) {
        PicturePlanes p{};
        picture_frame_planes(frame, &p);
        return VideoStabilizerPlanes{{p.data[0], p.data[1], p.data[2], p.alpha},
                                     {p.stride[0], p.stride[1], p.stride[2], p.alpha_stride}};
    };
    HostPicture picture(format, false);
    run_stream(
        s.get(), FRAMES,
        [&](int i) {
            Frame* const frame =
                picture_frame_create(STREAM_WIDTH, STREAM_HEIGHT, &layout, nullptr);
            HostPicture drawn(format, false);
            drawn.draw(i, layout.bit_depth);
            const Bytes bytes = drawn.packed(drawn.planes);
            std::size_t next = 0;
            HostPicture::each_byte(drawn.shapes, planes_of(frame),
                                   [&](unsigned char& b, int, int, int) { b = bytes[next++]; });
            frame->timestamp = i;
            return frame;
        },
        [&](Frame* frame) { steady.push_back(picture.packed(planes_of(frame))); });
    return steady;
}

TEST_F(StreamTest, GivesWhatTheCppInterfaceGivesInAnyFormatAndStyle) {
    const struct {
        const char* name;
        PixelLayout layout;
    } cases[] = {
        {"yuv420p", {CHROMA_420, CHROMA_SITING_LEFT, 8, 0, 0}},
        {"nv21", {CHROMA_420, CHROMA_SITING_LEFT, 8, 1, 0}},
        {"gray", {CHROMA_NONE, CHROMA_SITING_LEFT, 8, 0, 0}},
        {"yuv422p10le", {CHROMA_422, CHROMA_SITING_LEFT, 10, 0, 0}},
        {"yuv411p", {CHROMA_411, CHROMA_SITING_LEFT, 8, 0, 0}},
        {"yuva444p16le", {CHROMA_444, CHROMA_SITING_LEFT, 16, 0, 0, 1}},
        {"gray9le", {CHROMA_NONE, CHROMA_SITING_LEFT, 9, 0, 0}},
        {"p016le", {CHROMA_420, CHROMA_SITING_LEFT, 16, 1, 1}},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int32_t format = videostabilizer_format_by_name(c.name);
        const int strength = n % 4;
        const auto expected = by_cpp(format, c.layout, strength);
        TestStream s(options(format, strength));
        ASSERT_EQ(s.code, 0) << s.reason;
        EXPECT_EQ(s.run(FRAMES, n % 2 == 0, n % 3 == 0), VIDEOSTABILIZER_END);
        EXPECT_TRUE(s.borrowed.empty());
        ASSERT_EQ(s.steady.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            ASSERT_EQ(s.steady[i], expected[i]) << i;
            EXPECT_EQ(s.times[i], 1000 + static_cast<int>(i));
            EXPECT_EQ(s.reports[i].number, static_cast<int>(i));
            EXPECT_EQ(s.reports[i].scene_start, i == 0 ? 1 : 0);
        }
        ++n;
    }
    for (const char* const unknown : {"", "yuv420p17le", "yuv420", "p08le", "rgb", "nv1210le"}) {
        EXPECT_EQ(videostabilizer_format_by_name(unknown), -1) << unknown;
    }
}

TEST_F(StreamTest, WarpsEachColourOfPackedPicturesAsAPlane) {
    for (const char* const name : {"rgb24", "bgra", "rgb48le", "bgra64le"}) {
        SCOPED_TRACE(name);
        const int32_t format = videostabilizer_format_by_name(name);
        const int bits = format & 0xFF;
        const int channels = std::strstr(name, "a") != nullptr ? 4 : 3;
        const bool blue_first = name[0] == 'b';
        TestStream packed(options(format));
        EXPECT_EQ(packed.run(FRAMES, channels == 4, bits == 8), VIDEOSTABILIZER_END);
        // The same by hand: planes G, B, R, A.
        const int32_t planar = (channels == 4 ? VIDEOSTABILIZER_YUVA444P : VIDEOSTABILIZER_YUV444P);
        TestStream planes(options(planar + bits));
        const int place[] = {1, blue_first ? 0 : 2, blue_first ? 2 : 0, 3};
        const int bytes = bits / 8;
        const auto copy = [&](HostPicture& p, Bytes& pixels, bool to_planes) {
            HostPicture::each_byte(p.shapes, p.planes, [&](unsigned char& b, int k, int x, int y) {
                const int pixel = y * STREAM_WIDTH + x / bytes;
                const int at = (pixel * channels + place[k]) * bytes + x % bytes;
                unsigned char& other = pixels[static_cast<std::size_t>(at)];
                (to_planes ? b : other) = to_planes ? other : b;
            });
        };
        ASSERT_EQ(packed.steady.size(), static_cast<std::size_t>(FRAMES));
        for (int i = 0, pulled = 0; pulled < FRAMES; ++i) {
            if (i < FRAMES) {
                HostPicture drawn(format, false);
                drawn.draw(i, bits);
                Bytes pixels = drawn.packed(drawn.planes);
                HostPicture split(planes.opened.format, false);
                copy(split, pixels, true);
                const VideoStabilizerInput input{sizeof input, split.planes, i,
                                                 nullptr,      nullptr,      nullptr};
                ASSERT_EQ(videostabilizer_stream_push(planes.stream, &input, FOREVER), 0);
            } else {
                videostabilizer_stream_drain(planes.stream);
            }
            HostPicture steady(planes.opened.format, false);
            VideoStabilizerOutput output{sizeof output, steady.planes, 0, nullptr};
            if (i >= 10) {
                ASSERT_EQ(videostabilizer_stream_pull_into(planes.stream, &output, nullptr, -1), 0);
                Bytes pixels(packed.steady[0].size());
                copy(steady, pixels, false);
                ASSERT_EQ(pixels, packed.steady[static_cast<std::size_t>(pulled++)]);
            }
        }
    }
}

bool can_be_read(int descriptor) {
    pollfd p{descriptor, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

TEST_F(StreamTest, TellsWhenItIsReady) {
    auto o = options(VIDEOSTABILIZER_FORMAT_GRAY8);
    std::atomic<int> told{0};
    o.on_ready = [](void* context, int ready) {
        static_cast<std::atomic<int>*>(context)->fetch_or(ready);
    };
    o.ready_context = &told;
    TestStream s(o);
    const int descriptor = videostabilizer_stream_descriptor(s.stream);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(videostabilizer_stream_latency(s.stream), 10);
    EXPECT_EQ(s.pull(true, 0), VIDEOSTABILIZER_AGAIN);
    EXPECT_EQ(s.pull(true, 20), VIDEOSTABILIZER_AGAIN);
    EXPECT_FALSE(can_be_read(descriptor));
    int pushed = 0;
    while (s.push(pushed, true, 0) == VIDEOSTABILIZER_OK) {
        ++pushed;
    }
    EXPECT_EQ(pushed, 16);
    EXPECT_EQ(s.push(pushed, false, 20), VIDEOSTABILIZER_AGAIN);
    pollfd p{descriptor, POLLIN, 0};
    constexpr int ready = VIDEOSTABILIZER_READY_PULL | VIDEOSTABILIZER_READY_PUSH;
    ASSERT_EQ(poll(&p, 1, 10000), 1);
    EXPECT_EQ(videostabilizer_stream_ready(s.stream), VIDEOSTABILIZER_READY_PULL);
    EXPECT_EQ(s.pull(true, 0), VIDEOSTABILIZER_OK);
    EXPECT_NE(videostabilizer_stream_ready(s.stream) & VIDEOSTABILIZER_READY_PUSH, 0);
    // The callback comes after the call that it tells of.
    for (int i = 0; i < 2000 && told.load() != ready; ++i) {
        usleep(5000);
    }
    EXPECT_EQ(told.load(), ready);
    EXPECT_EQ(s.push(pushed, false, 0), VIDEOSTABILIZER_OK);
    EXPECT_EQ(videostabilizer_stream_drain(s.stream), 0);
    EXPECT_EQ(s.push(0, true, FOREVER), VIDEOSTABILIZER_DRAINING);
    while (s.pull(true, FOREVER) == VIDEOSTABILIZER_OK) {
    }
    EXPECT_EQ(s.steady.size(), static_cast<std::size_t>(pushed) + 1);
    EXPECT_TRUE(can_be_read(descriptor)) << "of the end";
}

TEST_F(StreamTest, FlushedIsAsNew) {
    TestStream fresh(options(VIDEOSTABILIZER_FORMAT_NV12));
    fresh.run(20);
    TestStream s(options(VIDEOSTABILIZER_FORMAT_NV12));
    for (const int inside : {0, 3, 16, FRAMES}) {
        if (inside == FRAMES) {
            EXPECT_EQ(s.run(5, true), VIDEOSTABILIZER_END);
        } else {
            for (int i = 0; i < inside; ++i) {
                EXPECT_EQ(s.push(i + 7, true, FOREVER), VIDEOSTABILIZER_OK);
            }
        }
        EXPECT_EQ(videostabilizer_stream_flush(s.stream), 0);
        EXPECT_TRUE(s.borrowed.empty());
        s.steady.clear();
        EXPECT_EQ(s.run(20, true), VIDEOSTABILIZER_END);
        EXPECT_EQ(s.steady, fresh.steady);
        EXPECT_EQ(videostabilizer_stream_flush(s.stream), 0);
    }
    EXPECT_EQ(videostabilizer_stream_drain(s.stream), 0);  // of nothing
    EXPECT_EQ(s.pull(false, FOREVER), VIDEOSTABILIZER_END);
}

TEST_F(StreamTest, ChangesSmoothly) {
    auto o = options(VIDEOSTABILIZER_FORMAT_GRAY8, VIDEOSTABILIZER_STRONG);
    TestStream s(o);
    for (int i = 0; i < 120; ++i) {
        ASSERT_EQ(s.push(i, false, FOREVER), VIDEOSTABILIZER_OK);
        if (i == 40) {
            auto changed = options(o.format, VIDEOSTABILIZER_STANDARD);
            changed.crop_ratio = 0.8F;
            EXPECT_EQ(videostabilizer_stream_change(s.stream, &changed), 0);
            VideoStabilizerStreamOptions now{};
            now.size = sizeof now;
            EXPECT_EQ(videostabilizer_stream_get_options(s.stream, &now), 0);
            EXPECT_EQ(now.crop_ratio, 0.8F);
            EXPECT_EQ(now.look_ahead, 20);
            EXPECT_EQ(now.picture_width, STREAM_WIDTH);
        }
        if (i >= 20) {
            ASSERT_EQ(s.pull(true, FOREVER), VIDEOSTABILIZER_OK);
        }
    }
    EXPECT_EQ(s.reports.front().sigma, 14.0F);
    EXPECT_EQ(s.reports.back().sigma, 10.0F);
    EXPECT_EQ(s.reports.back().crop, 0.8F);
    int steps = 0;
    for (std::size_t i = 1; i < s.reports.size(); ++i) {
        const float change = s.reports[i - 1].crop - s.reports[i].crop;
        EXPECT_LE(std::abs(change), 0.0034F) << i;
        steps += change != 0 ? 1 : 0;
    }
    EXPECT_GT(steps, 30);  // a tenth in a second of 30 pictures

    o.shutter = VIDEOSTABILIZER_SHUTTER_ROWS;
    o.readout = 0.5F;
    TestStream bent(o);
    for (int i = 0; i < 120; ++i) {
        ASSERT_EQ(bent.push(i, false, FOREVER), VIDEOSTABILIZER_OK);
        if (i == 40) {
            o.readout = -0.25F;
            EXPECT_EQ(videostabilizer_stream_change(bent.stream, &o), 0);
        }
        if (i >= 20) {
            ASSERT_EQ(bent.pull(true, FOREVER), VIDEOSTABILIZER_OK);
        }
    }
    EXPECT_EQ(bent.reports.front().readout, 0.5F);
    EXPECT_EQ(bent.reports.back().readout, -0.25F);
    for (std::size_t i = 1; i < bent.reports.size(); ++i) {
        EXPECT_LE(std::abs(bent.reports[i].readout - bent.reports[i - 1].readout), 0.101F) << i;
    }
    o.shutter = VIDEOSTABILIZER_SHUTTER_AUTO;
    o.readout = 0;

    const struct {
        const char* field;
        void (*set)(VideoStabilizerStreamOptions&);
        int code;
    } cases[] = {
        {"look_ahead", [](auto& c) { c.look_ahead = 21; }, VIDEOSTABILIZER_NEEDS_REOPEN},
        {"switches", [](auto& c) { c.scene_cuts = 0; }, VIDEOSTABILIZER_NEEDS_REOPEN},
        {"kind", [](auto& c) { c.width = 64; }, VIDEOSTABILIZER_NEEDS_REOPEN},
        {"threads", [](auto& c) { c.threads = 2; }, VIDEOSTABILIZER_NEEDS_REOPEN},
        {"crop_ratio", [](auto& c) { c.crop_ratio = 0.4F; }, VIDEOSTABILIZER_INVALID},
    };
    for (const auto& c : cases) {
        auto wrong = o;
        c.set(wrong);
        EXPECT_EQ(videostabilizer_stream_change(s.stream, &wrong), c.code);
        char text[100];
        videostabilizer_stream_message(s.stream, text, sizeof text);
        EXPECT_THAT(text, HasSubstr(c.field));
    }
}

TEST_F(StreamTest, RefusesWithAReason) {
    const struct {
        const char* reason;
        void (*set)(VideoStabilizerStreamOptions&);
        int code = VIDEOSTABILIZER_INVALID;
    } cases[] = {
        {"16", [](auto& o) { o.width = 15; }},
        {"size", [](auto& o) { o.size = 7; }},
        {"newer", [](auto& o) { o.size = sizeof o + 8; }},
        {"format", [](auto& o) { o.format = VIDEOSTABILIZER_RGB + 10; }},
        {"siting", [](auto& o) { o.siting = 9; }},
        {"frame_rate", [](auto& o) { o.frame_rate = std::nan(""); }},
        {"sigma", [](auto& o) { o.sigma = -1; }},
        {"stated", [](auto& o) { o.sampling = o.engine = 0; }},
    };
    for (const auto& c : cases) {
        struct {
            VideoStabilizerStreamOptions o;
            char more[8] = "newer";
        } record{options(VIDEOSTABILIZER_FORMAT_GRAY8)};
        c.set(record.o);
        char reason[100];
        auto* stream = reinterpret_cast<VideoStabilizerStream*>(&record);
        EXPECT_EQ(videostabilizer_stream_open(&record.o, &stream, reason, sizeof reason), c.code);
        EXPECT_EQ(stream, nullptr);
        EXPECT_THAT(reason, HasSubstr(c.reason));
    }

    TestStream s(options(VIDEOSTABILIZER_FORMAT_GRAY8));
    HostPicture picture(s.opened.format, false);
    VideoStabilizerInput input{sizeof input, picture.planes, 0, nullptr, nullptr, nullptr};
    int released = 0;
    input.release = [](void* count, void*) { ++*static_cast<int*>(count); };
    input.release_context = &released;
    for (const std::ptrdiff_t stride : {std::ptrdiff_t{STREAM_WIDTH - 1}, PTRDIFF_MIN}) {
        input.planes.stride[0] = stride;
        EXPECT_EQ(videostabilizer_stream_push(s.stream, &input, 0), VIDEOSTABILIZER_INVALID);
    }
    input.planes.data[0] = nullptr;
    EXPECT_EQ(videostabilizer_stream_push(s.stream, &input, 0), VIDEOSTABILIZER_INVALID);
    EXPECT_EQ(released, 3);
    EXPECT_EQ(s.push(0, false, 0), VIDEOSTABILIZER_OK);
}

// A stream of packed pictures, and one with all that the strong path has, on the pool.
std::vector<VideoStabilizerStreamOptions> options_that_allocate() {
    auto strong = options(VIDEOSTABILIZER_P0 + 10, VIDEOSTABILIZER_STRONG);
    strong.auto_crop = 1;
    strong.shutter = VIDEOSTABILIZER_SHUTTER_AUTO;
    strong.sampling = VIDEOSTABILIZER_SAMPLING_SHARP;
    strong.threads = 4;
    return {options(VIDEOSTABILIZER_FORMAT_RGB24), strong};
}

TEST_F(StreamTest, OpenedWithoutMemoryOrThreadsAnswersACodeAndLeavesNothing) {
    for (const auto& o : options_that_allocate()) {
        for (const char* const call : {ALLOCATION, "pthread_create"}) {
            int n = 0;
            int refused = 0;
            bool failed = true;
            while (failed) {
                SCOPED_TRACE(testing::Message() << call << " " << ++n << ", format " << o.format);
                expect_nothing_left();
                fail({call, n, n});
                TestStream s(o);
                failed = let_all_succeed();
                EXPECT_EQ(s.code != 0, *s.reason != '\0');
                if (s.code == 0) {  // perhaps without threads of the pool, which nobody waits for
                    EXPECT_EQ(s.run(3), VIDEOSTABILIZER_END);
                    continue;
                }
                ++refused;
                EXPECT_TRUE(failed);
                EXPECT_EQ(s.code, call == ALLOCATION ? VIDEOSTABILIZER_NO_MEMORY
                                                     : VIDEOSTABILIZER_NO_THREAD);
            }
            expect_nothing_left();
            EXPECT_GE(refused, call == ALLOCATION ? 20 : 3);
        }
    }
}

// Each allocation in turn, of a stream that is changed, fed, drained and flushed; with
// EVERY_ALLOCATION in the environment really each, else many.
TEST_F(StreamTest, WithoutMemoryOrThreadsAnswersACodeAndGoesOn) {
    const bool every = std::getenv("EVERY_ALLOCATION") != nullptr;  // NOLINT(concurrency-mt-unsafe)
    for (const auto& o : options_that_allocate()) {
        int count = 1;
        for (int n = 0; n <= count; n += every || n < 16 ? 1 : 1 + count / 12) {
            SCOPED_TRACE(testing::Message() << "allocation " << n << " of " << count);
            TestStream s(o);
            const int live = live_blocks();
            fail({ALLOCATION, n, n});
            auto changed = o;
            changed.sigma = 3;
            int code = videostabilizer_stream_change(s.stream, &changed);
            EXPECT_TRUE(code == VIDEOSTABILIZER_OK || code == VIDEOSTABILIZER_NO_MEMORY) << code;
            // The pictures of this test are not the library's.
            code = s.run(24, true, true);
            EXPECT_TRUE(code == VIDEOSTABILIZER_END || code == VIDEOSTABILIZER_NO_MEMORY ||
                        code == VIDEOSTABILIZER_FAILED)
                << code;
            if (n == 0) {
                EXPECT_EQ(code, VIDEOSTABILIZER_END);
            }
            code = videostabilizer_stream_flush(s.stream);
            EXPECT_TRUE(code == VIDEOSTABILIZER_OK || code == VIDEOSTABILIZER_NO_MEMORY) << code;
            let_all_succeed();
            count = n == 0 ? calls(ALLOCATION) : count;
            EXPECT_EQ(videostabilizer_stream_flush(s.stream), 0);
            s.steady.clear();
            EXPECT_EQ(s.run(14), VIDEOSTABILIZER_END);
            EXPECT_EQ(s.steady.size(), 14U);
            EXPECT_GE(live_blocks(), live - 8);
        }
        // A flush that gets no threads leaves the stream as it was.
        TestStream s(o);
        EXPECT_EQ(s.push(0, true, FOREVER), VIDEOSTABILIZER_OK);
        for (int n = 1; n <= 3; ++n) {
            fail({"pthread_create", n, n});
            EXPECT_EQ(videostabilizer_stream_flush(s.stream), VIDEOSTABILIZER_NO_THREAD) << n;
            let_all_succeed();
        }
        EXPECT_EQ(s.run(14), VIDEOSTABILIZER_END);
        EXPECT_EQ(s.steady.size(), 15U);
    }
}

TEST_F(StreamTest, IsOpenedAndClosedAThousandTimes) {
    VideoStabilizerPicture* kept = nullptr;
    for (int i = 0; i < 1000; ++i) {
        auto o = options(VIDEOSTABILIZER_FORMAT_GRAY8);
        o.width = o.height = i % 4 == 0 ? 160 : 16;
        TestStream s(o);
        ASSERT_EQ(s.code, 0) << s.reason;
        ASSERT_LT(videostabilizer_stream_descriptor(s.stream), 100);
        static unsigned char pixels[160 * 160];
        const VideoStabilizerInput input{sizeof input, {{pixels}, {160}}, i,
                                         nullptr,      nullptr,           nullptr};
        for (int pushed = 0; pushed < (i % 4 == 0 ? 14 : 1); ++pushed) {  // closed at any moment
            EXPECT_EQ(videostabilizer_stream_push(s.stream, &input, FOREVER), 0);
        }
        if (i == 500) {
            videostabilizer_stream_drain(s.stream);
            EXPECT_EQ(videostabilizer_stream_pull(s.stream, &kept, FOREVER), 0);
        }
    }
    VideoStabilizerOutput output{sizeof output, {}, 0, nullptr};
    EXPECT_EQ(videostabilizer_picture_get(kept, &output), 0);
    EXPECT_EQ(output.timestamp, 500);
    static_cast<unsigned char*>(output.planes.data[0])[255] = 7;
    videostabilizer_picture_unref(kept);
}

TEST_F(StreamTest, TakesCallsOfAllThreadsAtOnce) {
    TestStream s(options(VIDEOSTABILIZER_FORMAT_GRAY8));
    std::atomic<bool> over{false};
    std::atomic<int> released{0};
    HostPicture picture(s.opened.format, false);
    picture.draw(3, 8);
    const auto push_all = [&] {
        VideoStabilizerInput input{sizeof input, picture.planes, 0, nullptr, nullptr, &released};
        input.release = [](void* count, void*) { ++*static_cast<std::atomic<int>*>(count); };
        int pushed = 0;
        while (!over) {
            pushed += videostabilizer_stream_push(s.stream, &input, 2) == 0 ? 1 : 0;
        }
        return pushed;
    };
    int pushed[2] = {};
    std::thread threads[] = {std::thread([&] { pushed[0] = push_all(); }),
                             std::thread([&] { pushed[1] = push_all(); }), std::thread([&] {
                                 VideoStabilizerPicture* steady = nullptr;
                                 while (!over) {
                                     videostabilizer_stream_pull(s.stream, &steady, 2);
                                     videostabilizer_picture_unref(steady);
                                 }
                             })};
    for (int i = 0; i < 20; ++i) {
        usleep(5000);
        EXPECT_EQ(videostabilizer_stream_flush(s.stream), 0);
        EXPECT_EQ(videostabilizer_stream_change(s.stream, &s.opened), 0);
    }
    over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    videostabilizer_stream_close(std::exchange(s.stream, nullptr));
    EXPECT_EQ(released, pushed[0] + pushed[1]);
}

// The life of a stream whose calls come from four threads and that ends at any moment.
void live_at_random(unsigned seed) {
    auto o = options(VIDEOSTABILIZER_FORMAT_NV12, static_cast<int>(seed % 4));
    o.width = STREAM_WIDTH;
    o.height = 16;
    o.threads = 1 + static_cast<int>(seed / 4 % 4);
    VideoStabilizerStream* stream = nullptr;
    ASSERT_EQ(videostabilizer_stream_open(&o, &stream, nullptr, 0), 0);
    std::atomic<bool> over{false};
    std::atomic<int> released{0};
    HostPicture picture(o.format, false);
    picture.draw(3, 8);
    int taken = 0;
    std::thread push([&] {
        VideoStabilizerInput input{sizeof input, picture.planes, 0, nullptr, nullptr, &released};
        input.release = [](void* count, void*) { ++*static_cast<std::atomic<int>*>(count); };
        while (!over) {
            const int code = videostabilizer_stream_push(stream, &input, 1);
            taken += code != VIDEOSTABILIZER_AGAIN ? 1 : 0;
        }
    });
    std::thread pull([&] {
        VideoStabilizerPicture* steady = nullptr;
        while (!over) {
            videostabilizer_stream_pull(stream, &steady, 1);
            videostabilizer_picture_unref(steady);
        }
    });
    std::thread others([&] {
        for (unsigned i = seed; !over; i = i * 1664525U + 1013904223U) {
            const unsigned what = i >> 24U;
            if (what < 16) {
                videostabilizer_stream_drain(stream);
            } else if (what < 64) {
                EXPECT_EQ(videostabilizer_stream_flush(stream), 0);
            } else if (what < 128) {
                EXPECT_EQ(videostabilizer_stream_change(stream, &o), 0);
            } else {
                videostabilizer_stream_ready(stream);
                videostabilizer_stream_get_options(stream, &o);
            }
        }
    });
    usleep(seed / 16 % 4000);
    over = true;
    push.join();
    pull.join();
    others.join();
    videostabilizer_stream_close(stream);
    EXPECT_EQ(released, taken);
}

// As many as STOP_ROUNDS says, eight at a time on one pool.
TEST_F(StreamTest, EndsAtRandomMomentsUnderLoad) {
    const char* const text = std::getenv("STOP_ROUNDS");         // NOLINT(concurrency-mt-unsafe)
    const int rounds = text != nullptr ? std::atoi(text) : 160;  // NOLINT(cert-err34-c)
    const unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    std::atomic<int> left{rounds};
    std::vector<std::thread> hosts;
    for (unsigned host = 0; host < 8; ++host) {
        hosts.emplace_back([&, host] {
            std::mt19937 random(seed + host);
            while (left.fetch_sub(1) > 0) {
                live_at_random(static_cast<unsigned>(random()));
            }
        });
    }
    for (std::thread& host : hosts) {
        host.join();
    }
}

}  // namespace
