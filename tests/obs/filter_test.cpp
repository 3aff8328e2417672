// SPDX-License-Identifier: Apache-2.0

// The filter in OBS's library, without graphics: the test is OBS's video thread, and gives frames and
// references as that does.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <obs-module.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int LOOK_AHEAD = 4;
constexpr std::uint64_t STEP = 40000000;
constexpr int MOST_PUSHES = 400;  // until a busy machine has a frame ready

obs_source_info filter_info{};
void* filter_data = nullptr;

void* create_and_tell(obs_data_t* settings, obs_source_t* source) {
    return filter_data = filter_info.create(settings, source);
}

}  // namespace

// Takes the place of OBS's function, and calls it.
void obs_register_source_s(const obs_source_info* info, size_t size) {
    obs_source_info registered = *info;
    if (info->type == OBS_SOURCE_TYPE_FILTER) {
        filter_info = *info;
        registered.create = create_and_tell;
    }
    const auto real = reinterpret_cast<decltype(&obs_register_source_s)>(
        dlsym(RTLD_NEXT, "obs_register_source_s"));
    real(&registered, size);
}

namespace {

// A source with the filter, and the frames that it has had.
class Source {
  public:
    Source() : source_(obs_source_create_private("camera", "camera", nullptr)) {
        obs_data_t* const settings = obs_data_create();
        obs_data_set_int(settings, "look_ahead", LOOK_AHEAD);
        filter_ = obs_source_create_private("videostabilizer_filter", "filter", settings);
        obs_data_release(settings);
        obs_source_filter_add(source_, filter_);
    }
    ~Source() {
        obs_source_filter_remove(source_, filter_);
        for (obs_source_frame* const frame : frames_) {
            EXPECT_EQ(frame->refs, 1) << frame->timestamp;
            obs_source_frame_destroy(frame);
        }
        obs_source_release(filter_);
        obs_source_release(source_);
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    obs_source_t* source() const { return source_; }
    obs_source_t* filter() const { return filter_; }
    void set_kind(video_format format, std::uint32_t width, std::uint32_t height) {
        format_ = format;
        width_ = width;
        height_ = height;
    }
    template <typename Set>
    void change(const Set& set) {
        obs_data_t* const settings = obs_source_get_settings(filter_);
        set(settings);
        filter_info.update(filter_data, settings);
        obs_data_release(settings);
    }
    static std::uint8_t sample(std::size_t k) {
        return static_cast<std::uint8_t>(k * 37 + k / 65 * 11);
    }

    // Gives a frame in, and returns the one that comes out, with the time for it to become steady.
    const obs_source_frame* push(std::uint64_t time) {
        filter_info.video_tick(filter_data, 0);
        obs_source_frame* const frame = obs_source_frame_create(format_, width_, height_);
        const bool has_ten_bits = format_ == VIDEO_FORMAT_I010 || format_ == VIDEO_FORMAT_I210;
        const bool has_twelve_bits = format_ == VIDEO_FORMAT_I412 || format_ == VIDEO_FORMAT_YA2L;
        for (std::size_t k = 0; k < size_of(*frame); ++k) {
            const bool is_high = k % 2 != 0;
            frame->data[0][k] = has_ten_bits && is_high                    ? sample(k) & 3
                                : has_twelve_bits && is_high               ? sample(k) & 15
                                : format_ == VIDEO_FORMAT_P010 && !is_high ? sample(k) & 0xC0
                                                                           : sample(k);
        }
        frame->timestamp = time;
        frame->refs = 2;  // OBS's cache, and the filter
        frames_.push_back(frame);
        obs_source_frame* const out = filter_info.filter_video(filter_data, frame);
        if (out != nullptr) --out->refs;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return out;
    }
    // Pushes frames until one comes out, and returns it.
    const obs_source_frame* push_until_out() {
        const obs_source_frame* out = nullptr;
        for (int k = 0; k < MOST_PUSHES && out == nullptr; ++k) {
            out = push(next_++ * STEP);
        }
        return out;
    }
    // The times, in steps, of the next frames that come out.
    std::vector<std::uint64_t> next_out(int count) {
        std::vector<std::uint64_t> out;
        for (const obs_source_frame* frame = nullptr;
             count > 0 && (frame = push_until_out()) != nullptr; --count) {
            out.push_back(frame->timestamp / STEP);
        }
        return out;
    }
    std::uint64_t next() const { return next_; }
    void skip(std::int64_t steps) { next_ += static_cast<std::uint64_t>(steps); }
    std::vector<std::uint8_t> bytes_of(const obs_source_frame& frame) const {
        return {frame.data[0], frame.data[0] + size_of(frame)};
    }
    // What was pushed last.
    const obs_source_frame& last() const { return *frames_.back(); }

  private:
    // Of the last plane, no more is known than its first row.
    std::size_t size_of(const obs_source_frame& frame) const {
        int planes = 1;
        while (planes < MAX_AV_PLANES && frame.data[planes] != nullptr) {
            ++planes;
        }
        const bool is_quarter = format_ == VIDEO_FORMAT_I420 || format_ == VIDEO_FORMAT_NV12 ||
                                format_ == VIDEO_FORMAT_I010 || format_ == VIDEO_FORMAT_P010;
        const std::size_t rows = is_quarter ? height_ / 2 : height_;
        return static_cast<std::size_t>(frame.data[planes - 1] - frame.data[0]) +
               frame.linesize[planes - 1] * rows;
    }

    obs_source_t* source_;
    obs_source_t* filter_ = nullptr;
    video_format format_ = VIDEO_FORMAT_I420;
    std::uint32_t width_ = 64;
    std::uint32_t height_ = 48;
    std::uint64_t next_ = 1000;
    std::vector<obs_source_frame*> frames_;
};

// A camera at rest, all of whose picture is shown: what goes in comes back.
TEST(Filter, GivesEveryFormatBack) {
    for (int format = VIDEO_FORMAT_I420; format <= VIDEO_FORMAT_YA2L; ++format) {
        for (const std::uint32_t odd : {0U, 1U}) {
            SCOPED_TRACE(get_video_format_name(static_cast<video_format>(format)));
            Source s;
            s.set_kind(static_cast<video_format>(format), 64 + odd, 48 + odd);
            s.change([](obs_data_t* settings) {
                obs_data_set_int(settings, "strength", 0);
                obs_data_set_int(settings, "crop", 100);
            });
            const auto out = s.next_out(10);
            EXPECT_TRUE(std::is_sorted(out.begin(), out.end()));
            const obs_source_frame* const steady = s.push_until_out();
            ASSERT_NE(steady, nullptr);
            EXPECT_LT(steady->timestamp, s.last().timestamp);
            if (odd == 0) {
                const auto before = s.bytes_of(s.last());
                const auto after = s.bytes_of(*steady);
                std::size_t different = 0;
                for (std::size_t k = 0; k < before.size(); ++k) {
                    different += before[k] != after[k] ? 1 : 0;
                }
                EXPECT_LT(different, before.size() / 32);  // at the edges
            }
        }
    }
}

TEST(Filter, ShowsHalves) {
    Source s;
    s.set_kind(VIDEO_FORMAT_BGRA, 64, 48);
    s.change([](obs_data_t* settings) {
        obs_data_set_int(settings, "crop", 50);
        obs_data_set_bool(settings, "halves", true);
    });
    s.next_out(10);
    const obs_source_frame* const steady = s.push_until_out();
    ASSERT_NE(steady, nullptr);
    ASSERT_NE(steady, &s.last());
    const auto shaky = s.bytes_of(s.last());
    const auto both = s.bytes_of(*steady);
    const std::size_t row = steady->linesize[0] * 24;
    for (std::size_t k = 0; k < std::size_t{64} * 4; k += 128) {
        const bool same = std::equal(both.begin() + static_cast<std::ptrdiff_t>(row + k),
                                     both.begin() + static_cast<std::ptrdiff_t>(row + k + 128),
                                     shaky.begin() + static_cast<std::ptrdiff_t>(row + k));
        EXPECT_EQ(same, k == 0);
    }
}

TEST(Filter, ShowsNoFramesOfThePast) {
    const struct {
        const char* name;
        std::int64_t step;  // of time, in frames
        void (*happens)(Source&);
        bool is_jump;
    } cases[] = {
        {"nothing", 0, [](Source&) {}, false},
        {"a jump back", -9, [](Source&) {}, true},
        {"a gap", 200, [](Source&) {}, true},
        {"a new size", 0, [](Source& s) { s.set_kind(VIDEO_FORMAT_I420, 80, 64); }, true},
        {"a new format", 0, [](Source& s) { s.set_kind(VIDEO_FORMAT_YUY2, 64, 48); }, true},
        {"a time without frames", 0,
         [](Source&) { std::this_thread::sleep_for(std::chrono::milliseconds(700)); }, true},
        {"a pause", 90,
         [](Source& s) {
             for (const char* const name : {"media_pause", "media_play"}) {
                 calldata_t data{};
                 calldata_set_ptr(&data, "source", s.source());
                 signal_handler_signal(obs_source_get_signal_handler(s.source()), name, &data);
                 calldata_free(&data);
                 std::this_thread::sleep_for(std::chrono::milliseconds(700));
             }
         },
         false},
        {"a restart", 0, [](Source& s) { obs_source_media_started(s.source()); }, true},
        {"a filter that was off", 0,
         [](Source& s) {
             obs_source_set_enabled(s.filter(), false);
             filter_info.video_tick(filter_data, 0);
             obs_source_set_enabled(s.filter(), true);
         },
         true},
        {"another crop", 0,
         [](Source& s) {
             s.change([](obs_data_t* settings) { obs_data_set_int(settings, "crop", 80); });
         },
         false},
        {"another look-ahead", 0,
         [](Source& s) {
             s.change([](obs_data_t* settings) { obs_data_set_int(settings, "look_ahead", 6); });
         },
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Source s;
        const std::uint64_t first = s.next();
        const auto before = s.next_out(10);
        ASSERT_EQ(before.size(), 10U);
        EXPECT_EQ(before.front(), first);  // is shown until there are more
        EXPECT_LT(before.back(), s.next() - 1);
        s.skip(c.step);
        c.happens(s);
        const std::uint64_t next = s.next();
        const auto after = s.next_out(20);
        ASSERT_EQ(after.size(), 20U);
        EXPECT_TRUE(std::is_sorted(after.begin(), after.end()));
        EXPECT_EQ(after.front() == next, c.is_jump) << after.front();
        EXPECT_GT(after.back(), next);
    }
}

TEST(Filter, TellsWhatItDoes) {
    Source s;
    s.next_out(3);
    obs_properties_t* const properties = obs_source_properties(s.filter());
    EXPECT_THAT(obs_property_description(obs_properties_get(properties, "delay")),
                testing::HasSubstr("200 ms"));
    for (const char* const name : {"strength", "auto_crop", "crop", "rolling_shutter", "look_ahead",
                                   "halves", "sound", "delay_sound"}) {
        EXPECT_NE(obs_properties_get(properties, name), nullptr) << name;
    }
    obs_properties_destroy(properties);
}

// The buttons of the dialog.
TEST(Filter, DelaysSoundAndTakesItBack) {
    Source s;
    s.next_out(3);
    obs_source_t* const sound = obs_source_create("microphone", "Mic", nullptr, nullptr);
    obs_source_set_sync_offset(sound, 5000000);
    obs_data_t* const settings = obs_source_get_settings(s.filter());
    obs_data_set_string(settings, "sound", "Mic");
    obs_properties_t* const properties = obs_source_properties(s.filter());
    const auto press = [&](const char* name) {
        obs_property_button_clicked(obs_properties_get(properties, name), s.filter());
        return obs_source_get_sync_offset(sound);
    };
    EXPECT_EQ(press("delay_sound"), 205000000);
    EXPECT_EQ(press("delay_sound"), 205000000);  // not twice
    EXPECT_EQ(press("take_delay_back"), 5000000);
    EXPECT_EQ(press("take_delay_back"), 5000000);
    obs_properties_destroy(properties);
    obs_data_release(settings);
    obs_source_release(sound);
}

void register_source(const char* id, std::uint32_t flags) {
    obs_source_info info{};
    info.id = id;
    info.type = OBS_SOURCE_TYPE_INPUT;
    info.output_flags = flags;
    info.get_name = [](void*) { return "A source"; };
    info.create = [](obs_data_t*, obs_source_t*) -> void* { return &filter_info; };
    info.destroy = [](void*) {};
    obs_register_source_s(&info, sizeof info);
}

// NOLINTBEGIN(concurrency-mt-unsafe): there is one thread

// OBS's library asks for a display, if only for its keyboard.
class Display {
  public:
    Display() {
        int ends[2];
        if (getenv("DISPLAY") != nullptr || pipe(ends) != 0) return;
        server_ = fork();
        if (server_ == 0) {
            execlp("Xvfb", "Xvfb", "-displayfd", std::to_string(ends[1]).c_str(), "-nolisten",
                   "tcp", nullptr);
            _exit(1);
        }
        close(ends[1]);
        char number[16] = ":";
        if (read(ends[0], number + 1, sizeof number - 2) > 0) {
            *std::find(number, std::end(number), '\n') = '\0';
            setenv("DISPLAY", number, 1);
        }
        close(ends[0]);
    }
    ~Display() {
        if (server_ > 0) {
            kill(server_, SIGTERM);
            waitpid(server_, nullptr, 0);
        }
    }
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

  private:
    pid_t server_ = -1;
};

class Obs : public testing::Environment {
    void SetUp() override {
        display_ = std::make_unique<Display>();
        if (getenv("DISPLAY") == nullptr) GTEST_SKIP() << "there is no Xvfb";
        base_set_log_handler([](int, const char*, va_list, void*) {}, nullptr);
        ASSERT_TRUE(obs_startup("en-US", nullptr, nullptr));
        register_source("camera", OBS_SOURCE_ASYNC_VIDEO);
        register_source("microphone", OBS_SOURCE_AUDIO);
        obs_module_t* module = nullptr;
        ASSERT_EQ(obs_open_module(&module, VS_PLUGIN, VS_PLUGIN_DATA), MODULE_SUCCESS);
        ASSERT_TRUE(obs_init_module(module));
    }
    void TearDown() override {
        if (obs_initialized()) obs_shutdown();
        display_.reset();
    }

    std::unique_ptr<Display> display_;
};
// NOLINTEND(concurrency-mt-unsafe)
const auto* const obs = testing::AddGlobalTestEnvironment(new Obs);

}  // namespace
