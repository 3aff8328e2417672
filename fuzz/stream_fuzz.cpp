// SPDX-License-Identifier: Apache-2.0

// The C interface as a state machine: any options, records of any size, pictures of any format with any
// strides, and calls in any order. Every picture comes out once, in order and as told; each borrowed one
// is given back once; nothing is read or written but what is handed over, and records of wrong sizes
// are refused.

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>

#include "fuzz/fuzz_input.h"
#include "videostabilizer/stream.h"

namespace {

constexpr unsigned char UNTOUCHED = 0xA5;
constexpr int MOST_CALLS = 150;
constexpr int CIRCULATING = 6;  // see stream_push

// A record in a heap block of exactly the size that it claims to have, up to a limit.
template <typename Record>
class Sized {
  public:
    Sized(fuzz::Input& input, const Record& values) {
        const int kind = input.byte();
        std::size_t size = sizeof(Record);
        if (kind >= 252) {
            size = input.take<std::size_t>();
        } else if (kind >= 230) {
            size = static_cast<std::size_t>(input.in_range(0, 5000));
        }
        size_ = size;
        const std::size_t held = std::min<std::size_t>(std::max(size, sizeof(size)), 5000);
        bytes_.reset(new unsigned char[held]());
        std::memcpy(bytes_.get(), &values, std::min(held, sizeof(Record)));
        std::memcpy(bytes_.get(), &size, sizeof(size));
        if (kind == 240 && held > sizeof(Record)) {
            bytes_[held - 1] = 1;  // of a newer version
            newer_ = true;
        }
    }
    Record* get() { return reinterpret_cast<Record*>(bytes_.get()); }
    // Whether the library may take it: of this version's size, or with zeros after that.
    bool is_current() const { return size_ >= sizeof(Record) && size_ <= 4096 && !newer_; }
    bool can_be_written() const { return size_ >= sizeof(Record) && size_ <= 4096; }
    Record values() {
        Record copy{};
        std::memcpy(&copy, bytes_.get(), sizeof(copy));
        return copy;
    }

  private:
    std::size_t size_;
    bool newer_ = false;
    std::unique_ptr<unsigned char[]> bytes_;
};

// Memory of a host for one picture: each plane in a block of its own, upside down or not, at any address.
struct HostPicture {
    HostPicture(fuzz::Input& input, const VideoStabilizerStreamOptions& o) {
        const int planes = videostabilizer_format_plane(o.format, o.width, o.height, 0, nullptr);
        const std::ptrdiff_t unit = (o.format & 0xFF) > 8 ? 2 : 1;
        for (int k = 0; k < planes; ++k) {
            VideoStabilizerPlaneShape& shape = shapes[static_cast<std::size_t>(k)];
            shape.size = sizeof(shape);
            videostabilizer_format_plane(o.format, o.width, o.height, k, &shape);
            const int look = input.byte();
            const auto row = static_cast<std::ptrdiff_t>(shape.row_bytes);
            const std::ptrdiff_t stride = row + unit * (look / 4 % 8);
            const std::ptrdiff_t before = look / 32 % 4;
            std::vector<unsigned char>& block = memory[static_cast<std::size_t>(k)];
            block.assign(static_cast<std::size_t>(before + stride * (shape.rows - 1) + row),
                         UNTOUCHED);
            const bool turned = (look & 1) != 0;
            data.data[k] = block.data() + before + (turned ? stride * (shape.rows - 1) : 0);
            data.stride[k] = turned ? -stride : stride;
        }
        count = planes;
    }
    unsigned char* row(int k, int y) const {
        return static_cast<unsigned char*>(data.data[k]) + y * data.stride[k];
    }
    void draw(int number, int noise) {
        for (int k = 0; k < count; ++k) {
            const VideoStabilizerPlaneShape& shape = shapes[static_cast<std::size_t>(k)];
            for (int y = 0; y < shape.rows; ++y) {
                for (int x = 0; x < static_cast<int>(shape.row_bytes); ++x) {
                    const int value = ((x + number) / 8 * 37) ^ ((y - number) / 8 * 59);
                    row(k, y)[x] = static_cast<unsigned char>(value ^ (x * y * noise));
                }
            }
        }
    }
    // The bytes that belong to no row are as they were.
    void require_margins() const {
        std::size_t untouched = 0;
        std::size_t rows = 0;
        std::size_t bytes = 0;
        std::vector<unsigned char> copy;
        for (int k = 0; k < count; ++k) {
            const VideoStabilizerPlaneShape& shape = shapes[static_cast<std::size_t>(k)];
            const std::vector<unsigned char>& block = memory[static_cast<std::size_t>(k)];
            copy = block;
            for (int y = 0; y < shape.rows; ++y) {
                std::memset(copy.data() + (row(k, y) - block.data()), UNTOUCHED, shape.row_bytes);
            }
            rows += static_cast<std::size_t>(shape.rows);
            bytes += copy.size();
            untouched += static_cast<std::size_t>(std::count(copy.begin(), copy.end(), UNTOUCHED));
        }
        fuzz::require(rows > 0 && untouched == bytes, "the bytes between rows");
    }

    VideoStabilizerPlanes data{};
    int count = 0;
    std::array<VideoStabilizerPlaneShape, 4> shapes{};
    std::array<std::vector<unsigned char>, 4> memory;
};

VideoStabilizerStreamOptions take_options(fuzz::Input& input) {
    VideoStabilizerStreamOptions o{};
    videostabilizer_stream_options_init(&o, sizeof(o), input.byte() % 4);
    o.width = input.byte() < 250 ? input.in_range(16, 200) : input.mostly(40);
    o.height = input.byte() < 250 ? input.in_range(16, 120) : input.mostly(40);
    if (std::int64_t{o.width} * o.height > 1 << 20) {  // would only be slow
        o.height = input.flag() ? 16 : o.height % 16;
    }
    constexpr int DEPTHS[] = {8, 8, 10, 16, 12, 9};
    o.format = input.byte() < 250 ? input.in_range(0, 20) * 256 + DEPTHS[input.byte() % 6]
                                  : input.take<std::int32_t>();
    o.siting = input.mostly(5);
    o.look_ahead = input.mostly(12);
    o.crop_ratio =
        input.byte() < 240 ? 0.5F + static_cast<float>(input.byte()) / 510 : input.number();
    const auto keep = [&](std::int32_t& field, int last) {
        field = input.byte() < 160 ? field : input.mostly(last);
    };
    keep(o.whole_shift, 1);
    keep(o.edge_guard, 1);
    keep(o.repair_motions, 1);
    keep(o.scene_cuts, 1);
    keep(o.sampling, 2);
    keep(o.auto_crop, 1);
    keep(o.shutter, 3);
    keep(o.threads, 4);
    if (o.threads == 0 || (o.threads > 8 && o.threads <= 64)) {
        o.threads = 4;
    }
    if (input.byte() >= 200) {
        o.sigma = input.number();
        o.readout = input.number() / 16;
        o.crop_least = input.number() / 16;
        o.crop_most = input.number() / 16;
        o.frame_rate = static_cast<double>(input.number());
        o.picture_width = input.mostly(60);
        o.picture_height = input.mostly(60);
    }
    const int engine = input.byte();
    o.engine = VIDEOSTABILIZER_ENGINE_NATIVE;  // drivers are not the matter here
    if (engine >= 250) {
        o.engine = 3 + input.in_range(0, 40000);
    }
    return o;
}

class Host {
  public:
    explicit Host(fuzz::Input& input) : input_(input), options_(take_options(input)) {}

    void run() {
        options_.log = [](void* self, int level, const char* area, const char* text) {
            fuzz::require(level >= static_cast<Host*>(self)->options_.log_level &&
                              std::strlen(area) + std::strlen(text) > 0,
                          "a line of the log");
        };
        options_.log_context = this;
        options_.log_level = input_.in_range(4, 7);
        options_.on_ready = [](void* /*context*/, int ready) {
            fuzz::require(ready > 0 && ready < 4, "an event");
        };
        Sized<VideoStabilizerStreamOptions> record(input_, options_);
        char reason[40] = "x";
        const auto reason_size = static_cast<std::size_t>(input_.in_range(0, 40));
        const int code = videostabilizer_stream_open(record.get(), &stream_, reason, reason_size);
        fuzz::require((code == VIDEOSTABILIZER_OK) == (stream_ != nullptr), "a stream or a code");
        fuzz::require(code == VIDEOSTABILIZER_OK || code == VIDEOSTABILIZER_INVALID, "the code");
        fuzz::require(code != VIDEOSTABILIZER_OK || record.is_current(), "the size of the options");
        fuzz::require(reason_size == 0 ||
                          (reason[0] != '\0') == (code != VIDEOSTABILIZER_OK && reason_size > 1),
                      "the reason");
        if (stream_ == nullptr) {
            return;
        }
        look_ahead_ = videostabilizer_stream_latency(stream_);
        for (int i = 0; i < MOST_CALLS && !input_.empty(); ++i) {
            call();
        }
        if (input_.flag()) {
            finish();
        }
        videostabilizer_stream_close(stream_);
        fuzz::require(lent_ == 0, "what was lent came back");
        for (VideoStabilizerPicture* const picture : kept_) {  // longer than the stream
            VideoStabilizerOutput output{};
            output.size = sizeof(output);
            fuzz::require(videostabilizer_picture_get(picture, &output) == 0, "a picture");
            std::memset(output.planes.data[0], 7, 16);
            videostabilizer_picture_unref(picture);
        }
    }

  private:
    static void release(void* self, void* picture) {
        --static_cast<Host*>(self)->lent_;
        delete static_cast<HostPicture*>(picture);  // must not be read any more
    }

    void call() {
        switch (input_.byte() % 16) {
            case 0:
                fuzz::require(videostabilizer_stream_drain(stream_) == 0, "drain");
                drained_ = true;
                break;
            case 1:
                fuzz::require(videostabilizer_stream_flush(stream_) == 0, "flush");
                pushed_ = pulled_ = 0;
                drained_ = false;
                break;
            case 2:
                change();
                break;
            case 3:
                ask();
                break;
            case 4:
            case 5:
            case 6:
                pull(input_.in_range(0, 2));
                break;
            case 7:
                finish();
                break;
            default:
                push();
        }
    }

    void push() {
        const int how = input_.byte();
        const bool lends = (how & 1) != 0;
        auto picture = std::make_unique<HostPicture>(input_, options_);
        picture->draw(pushed_, how & 2);
        VideoStabilizerInput given{};
        given.planes = picture->data;
        given.timestamp = 3 * pushed_;
        bool valid = true;
        if (how >= 240) {
            valid = false;
            const int k = how % picture->count;
            const auto row =
                static_cast<std::ptrdiff_t>(picture->shapes[static_cast<std::size_t>(k)].row_bytes);
            const std::ptrdiff_t strides[] = {row - 1, 1 - row, 0, PTRDIFF_MIN, PTRDIFF_MAX};
            given.planes.stride[k] = strides[how % 5];
            if (how >= 250) {
                given.planes.data[k] = nullptr;
            }
        }
        if (lends) {
            given.host = picture.get();
            given.release = release;
            given.release_context = this;
        }
        Sized<VideoStabilizerInput> record(input_, given);
        lent_ += lends ? 1 : 0;
        const int timeout = input_.in_range(0, 2);
        const int code = videostabilizer_stream_push(stream_, record.get(), timeout);
        const bool taken = code != VIDEOSTABILIZER_AGAIN && record.is_current();
        if (lends && taken) {
            static_cast<void>(picture.release());  // given back already, or later
        } else {
            lent_ -= lends ? 1 : 0;
        }
        if (!valid || !record.is_current()) {
            fuzz::require(code == VIDEOSTABILIZER_INVALID, "an invalid picture");
        } else if (drained_) {
            fuzz::require(code == VIDEOSTABILIZER_DRAINING, "a push after drain");
        } else if (pushed_ - pulled_ < look_ahead_ + CIRCULATING) {
            fuzz::require(code == VIDEOSTABILIZER_OK, "a push with room");
            ++pushed_;
        } else {
            fuzz::require(code == VIDEOSTABILIZER_AGAIN, "a push without room");
        }
    }

    // Returns whether there was a picture.
    bool pull(int timeout) {
        const int how = input_.byte();
        VideoStabilizerOutput output{};
        output.size = sizeof(output);
        VideoStabilizerStreamReport report{};
        report.size = sizeof(report);
        int code = VIDEOSTABILIZER_OK;
        if ((how & 1) != 0) {
            HostPicture target(input_, options_);
            output.planes = target.data;
            Sized<VideoStabilizerOutput> record(input_, output);
            Sized<VideoStabilizerStreamReport> told(input_, report);
            const bool wants_report = (how & 2) != 0;
            code = videostabilizer_stream_pull_into(stream_, record.get(),
                                                    wants_report ? told.get() : nullptr, timeout);
            target.require_margins();
            if (!record.is_current() || (wants_report && !told.is_current())) {
                fuzz::require(code == VIDEOSTABILIZER_INVALID, "a record to pull into");
                return false;
            }
            if (code == VIDEOSTABILIZER_OK) {
                output = record.values();
                report = wants_report ? told.values() : VideoStabilizerStreamReport{};
                report.number = wants_report ? report.number : pulled_;
                report.crop = wants_report ? report.crop : 1;
            }
        } else {
            VideoStabilizerPicture* picture = nullptr;
            code = videostabilizer_stream_pull(stream_, &picture, timeout);
            fuzz::require((code == VIDEOSTABILIZER_OK) == (picture != nullptr), "a picture");
            if (picture != nullptr) {
                videostabilizer_picture_get(picture, &output);
                Sized<VideoStabilizerStreamReport> told(input_, report);
                const bool written = videostabilizer_picture_report(picture, told.get()) == 0;
                fuzz::require(written == told.can_be_written(), "the size of a report");
                videostabilizer_picture_report(picture, &report);
                if ((how & 4) != 0) {
                    kept_.push_back(videostabilizer_picture_ref(picture));
                }
                videostabilizer_picture_unref(picture);
            }
        }
        if (code == VIDEOSTABILIZER_AGAIN) {
            fuzz::require(timeout >= 0, "a wait without end");
            return false;
        }
        if (code == VIDEOSTABILIZER_END) {
            fuzz::require(drained_ && pulled_ == pushed_, "the end");
            return false;
        }
        fuzz::require(code == VIDEOSTABILIZER_OK && pulled_ < pushed_, "a pull");
        fuzz::require(output.timestamp == 3 * pulled_ && report.number == pulled_, "the order");
        require_report(report);
        ++pulled_;
        return true;
    }

    void require_report(const VideoStabilizerStreamReport& report) const {
        for (const float element : report.correction) {
            fuzz::require(std::isfinite(element), "a finite correction");
        }
        fuzz::require(report.crop >= 0.5F && report.crop <= 1, "the crop");
        fuzz::require(report.granted >= 0 && report.granted <= 1, "the share granted");
        fuzz::require(std::isfinite(report.readout + report.first_line[0] + report.last_line[1]),
                      "the readout");
    }

    // To the end, which takes no time-out.
    void finish() {
        fuzz::require(videostabilizer_stream_drain(stream_) == 0, "drain");
        drained_ = true;
        while (pulled_ < pushed_) {
            pull(-1);
        }
    }

    void change() {
        VideoStabilizerStreamOptions to = options_;
        const int what = input_.byte();
        to.sigma = what % 3 == 0 ? input_.number() : to.sigma;
        to.crop_ratio = what % 3 == 1 ? 0.5F + static_cast<float>(what) / 510 : to.crop_ratio;
        if (what % 7 == 0) {
            to = take_options(input_);
        }
        Sized<VideoStabilizerStreamOptions> record(input_, to);
        const int code = videostabilizer_stream_change(stream_, record.get());
        fuzz::require(code == VIDEOSTABILIZER_OK || code == VIDEOSTABILIZER_INVALID ||
                          code == VIDEOSTABILIZER_NEEDS_REOPEN,
                      "a change");
        fuzz::require(record.is_current() || code == VIDEOSTABILIZER_INVALID, "a record");
    }

    void ask() {
        Sized<VideoStabilizerStreamOptions> record(input_, options_);
        const bool told = videostabilizer_stream_get_options(stream_, record.get()) == 0;
        fuzz::require(told == record.can_be_written(), "the size of options");
        fuzz::require(!told || record.values().width == options_.width, "the options");
        VideoStabilizerStreamOptions init{};
        videostabilizer_stream_options_init(&init, sizeof(init), input_.take<std::int32_t>());
        char text[20];
        const auto size = static_cast<std::size_t>(input_.in_range(0, 20));
        videostabilizer_stream_message(stream_, text, size);
        VideoStabilizerPlaneShape shape{sizeof(shape), 0, 0};
        const int planes =
            videostabilizer_format_plane(input_.take<std::int32_t>(), input_.mostly(90),
                                         input_.mostly(90), input_.take<std::int32_t>(), &shape);
        fuzz::require(planes == VIDEOSTABILIZER_INVALID || (planes > 0 && shape.rows > 0),
                      "the shape of a plane");
        const int ready = videostabilizer_stream_ready(stream_);
        fuzz::require(ready >= 0 && ready < 4, "readiness");
        fuzz::require(videostabilizer_stream_descriptor(stream_) >= 0, "a descriptor");
        fuzz::require(*videostabilizer_strerror(input_.mostly(9) - 8) != '\0', "a sentence");
    }

    fuzz::Input& input_;
    VideoStabilizerStreamOptions options_;
    VideoStabilizerStream* stream_ = nullptr;
    int look_ahead_ = 0;
    int pushed_ = 0;
    int pulled_ = 0;
    bool drained_ = false;
    std::atomic<int> lent_{0};
    std::vector<VideoStabilizerPicture*> kept_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    Host(input).run();
    return 0;
}
