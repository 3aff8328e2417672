// SPDX-License-Identifier: Apache-2.0

// The module videostabilizer._native: a stream of the C interface, its pictures and their reports.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <videostabilizer/stream.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace {

// Waits are divided so that signals are seen, and that a stream can be closed meanwhile.
constexpr int SLICE_MS = 50;

struct Full : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct Empty : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct StreamError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void raise(int code, const std::string& text) {
    switch (code) {
        case VIDEOSTABILIZER_INVALID:
            throw py::value_error(text);
        case VIDEOSTABILIZER_NO_MEMORY:
            PyErr_SetString(PyExc_MemoryError, text.c_str());
            throw py::error_already_set();
        default:
            throw StreamError(text);
    }
}

// The kind of pictures of a stream.
struct Kind {
    std::string name;
    std::int32_t format;
    int width;
    int height;
    std::vector<VideoStabilizerPlaneShape> planes;
    int sample_bytes;

    Kind(std::string format_name, int w, int h)
        : name(std::move(format_name)),
          format(videostabilizer_format_by_name(name.c_str())),
          width(w),
          height(h),
          sample_bytes((format & 0xFF) > 8 ? 2 : 1) {
        const int count = videostabilizer_format_plane(format, w, h, 0, nullptr);
        for (int k = 0; k < count; ++k) {
            VideoStabilizerPlaneShape shape{sizeof shape, 0, 0};
            videostabilizer_format_plane(format, w, h, k, &shape);
            planes.push_back(shape);
        }
    }
    std::size_t bytes() const {
        std::size_t sum = 0;
        for (const VideoStabilizerPlaneShape& plane : planes) {
            sum += plane.row_bytes * static_cast<std::size_t>(plane.rows);
        }
        return sum;
    }
    // Samples of a pixel in plane k of an array.
    int channels(std::size_t k) const {
        if (format >= VIDEOSTABILIZER_RGB) {
            return format >= VIDEOSTABILIZER_RGBA ? 4 : 3;
        }
        return format >= VIDEOSTABILIZER_NV12 && k == 1 ? 2 : 1;
    }
    py::dtype dtype() const {
        return sample_bytes == 2 ? py::dtype::of<std::uint16_t>() : py::dtype::of<std::uint8_t>();
    }
    // The size of plane k as an array.
    std::vector<py::ssize_t> shape(std::size_t k) const {
        const auto row = static_cast<py::ssize_t>(planes[k].row_bytes);
        const int c = channels(k);
        std::vector<py::ssize_t> sizes{planes[k].rows, row / sample_bytes / c};
        if (c > 1) {
            sizes.push_back(c);
        }
        return sizes;
    }
};

// A buffer's planes. They hold what they are in until `buffers` goes, which takes the GIL.
struct Planes {
    VideoStabilizerPlanes planes{};
    std::vector<py::buffer_info> buffers;
    std::vector<py::object> copies;
};

bool has_whole_rows(const py::buffer_info& info) {
    py::ssize_t expected = info.itemsize;
    for (py::ssize_t axis = info.ndim - 1; axis >= 1; --axis) {
        const auto i = static_cast<std::size_t>(axis);
        if (info.shape[i] > 1 && info.strides[i] != expected) {
            return false;
        }
        expected *= info.shape[i];
    }
    return info.ndim >= 1;
}

bool is_contiguous(const py::buffer_info& info) {
    return has_whole_rows(info) &&
           (info.shape[0] <= 1 || info.strides[0] * info.shape[0] == info.size * info.itemsize);
}

// A buffer with whole rows, copied where it has none.
py::buffer_info buffer_of(const py::handle& object, const Kind& kind, Planes& holder,
                          bool contiguous) {
    if (PyObject_CheckBuffer(object.ptr()) == 0) {
        throw py::type_error("a picture is an array, or another object with the buffer protocol");
    }
    py::buffer_info info = py::reinterpret_borrow<py::buffer>(object).request();
    const bool of_bytes = info.ndim == 1 && info.itemsize == 1;
    if (info.itemsize != kind.sample_bytes && !of_bytes) {
        throw py::value_error("pictures of " + kind.name + " have " +
                              (kind.sample_bytes == 2 ? "uint16" : "uint8") + " samples");
    }
    if (contiguous ? is_contiguous(info) : has_whole_rows(info)) {
        return info;
    }
    py::object copy = py::array::ensure(object, py::array::c_style);
    holder.copies.push_back(copy);
    return py::reinterpret_borrow<py::buffer>(copy).request();
}

std::string sizes_of(const std::vector<py::ssize_t>& sizes) {
    std::string text = "(";
    for (const py::ssize_t size : sizes) {
        text += (text.size() > 1 ? ", " : "") + std::to_string(size);
    }
    return text + ")";
}

void place_one(const py::handle& object, const Kind& kind, std::size_t k, Planes& out) {
    py::buffer_info info = buffer_of(object, kind, out, false);
    const VideoStabilizerPlaneShape& shape = kind.planes[k];
    const bool has_rows = info.ndim >= 2 && info.shape[0] == shape.rows;
    if (!has_rows || static_cast<std::size_t>(info.size * info.itemsize) !=
                         shape.row_bytes * static_cast<std::size_t>(shape.rows)) {
        throw py::value_error("plane " + std::to_string(k) + " of " + kind.name + " has shape " +
                              sizes_of(kind.shape(k)) + ", not " + sizes_of(info.shape));
    }
    out.planes.data[k] = info.ptr;
    out.planes.stride[k] = info.strides[0];
    out.buffers.push_back(std::move(info));
}

// Planes one after the other, without anything between rows.
void place_packed(const py::handle& object, const Kind& kind, Planes& out) {
    py::buffer_info info = buffer_of(object, kind, out, true);
    if (static_cast<std::size_t>(info.size * info.itemsize) != kind.bytes()) {
        throw py::value_error("a picture of " + kind.name + " has " + std::to_string(kind.bytes()) +
                              " bytes, not " + std::to_string(info.size * info.itemsize));
    }
    auto* data = static_cast<unsigned char*>(info.ptr);
    for (std::size_t k = 0; k < kind.planes.size(); ++k) {
        out.planes.data[k] = data;
        out.planes.stride[k] = static_cast<std::ptrdiff_t>(kind.planes[k].row_bytes);
        data += kind.planes[k].row_bytes * static_cast<std::size_t>(kind.planes[k].rows);
    }
    out.buffers.push_back(std::move(info));
}

std::unique_ptr<Planes> planes_of(const py::object& picture, const Kind& kind) {
    auto out = std::make_unique<Planes>();
    if (py::isinstance<py::tuple>(picture) || py::isinstance<py::list>(picture)) {
        const auto planes = py::reinterpret_borrow<py::sequence>(picture);
        if (planes.size() != kind.planes.size()) {
            throw py::value_error(kind.name + " has " + std::to_string(kind.planes.size()) +
                                  " planes, not " + std::to_string(planes.size()));
        }
        for (std::size_t k = 0; k < planes.size(); ++k) {
            place_one(planes[k], kind, k, *out);
        }
        return out;
    }
    const bool one_plane = kind.planes.size() == 1;
    const bool has_shape = PyObject_CheckBuffer(picture.ptr()) != 0 &&
                           py::reinterpret_borrow<py::buffer>(picture).request().ndim >= 2;
    if (one_plane && has_shape) {
        place_one(picture, kind, 0, *out);
    } else {
        place_packed(picture, kind, *out);
    }
    return out;
}

// A steady picture; the arrays over it keep it.
class Picture {
  public:
    Picture(VideoStabilizerPicture* picture, std::shared_ptr<const Kind> kind)
        : picture_(picture, videostabilizer_picture_unref), kind_(std::move(kind)) {
        videostabilizer_picture_get(picture, &output_);
        videostabilizer_picture_report(picture, &report_);
    }
    std::int64_t timestamp() const { return output_.timestamp; }
    const VideoStabilizerStreamReport& report() const { return report_; }
    const std::string& format() const { return kind_->name; }

    py::tuple planes() const {
        py::tuple arrays(kind_->planes.size());
        for (std::size_t k = 0; k < kind_->planes.size(); ++k) {
            arrays[k] = plane(k);
        }
        return arrays;
    }
    py::array array() const {
        if (kind_->planes.size() == 1) {
            return plane(0);
        }
        // The usual layout: rows of luma's width, where that comes out even.
        const auto samples = static_cast<py::ssize_t>(kind_->bytes()) /
                             static_cast<py::ssize_t>(kind_->sample_bytes);
        std::vector<py::ssize_t> sizes{samples};
        if (samples % kind_->width == 0) {
            sizes = {samples / kind_->width, kind_->width};
        }
        py::array whole(kind_->dtype(), sizes);
        auto* to = static_cast<unsigned char*>(whole.mutable_data());
        for (std::size_t k = 0; k < kind_->planes.size(); ++k) {
            const VideoStabilizerPlaneShape& shape = kind_->planes[k];
            for (int row = 0; row < shape.rows; ++row) {
                std::memcpy(to,
                            static_cast<unsigned char*>(output_.planes.data[k]) +
                                row * output_.planes.stride[k],
                            shape.row_bytes);
                to += shape.row_bytes;
            }
        }
        return whole;
    }

  private:
    py::array plane(std::size_t k) const {
        const std::vector<py::ssize_t> sizes = kind_->shape(k);
        std::vector<py::ssize_t> strides{output_.planes.stride[k],
                                         kind_->channels(k) * kind_->sample_bytes};
        if (sizes.size() == 3) {
            strides.push_back(kind_->sample_bytes);
        }
        const py::capsule holder(videostabilizer_picture_ref(picture_.get()), [](void* picture) {
            videostabilizer_picture_unref(static_cast<VideoStabilizerPicture*>(picture));
        });
        return py::array(kind_->dtype(), sizes, strides, output_.planes.data[k], holder);
    }

    std::shared_ptr<VideoStabilizerPicture> picture_;
    std::shared_ptr<const Kind> kind_;
    VideoStabilizerOutput output_{sizeof output_, {}, 0, nullptr};
    VideoStabilizerStreamReport report_ = [] {
        VideoStabilizerStreamReport report{};
        report.size = sizeof report;
        return report;
    }();
};

template <typename Value>
void read_option(const py::dict& options, const char* name, Value& value) {
    if (options.contains(name)) {
        value = py::cast<Value>(options[name]);
    }
}
void read_switch(const py::dict& options, const char* name, std::int32_t& value) {
    if (options.contains(name)) {
        value = py::cast<bool>(options[name]) ? 1 : 0;
    }
}
void read_name(const py::dict& options, const char* name, const std::vector<const char*>& names,
               std::int32_t& value) {
    if (!options.contains(name)) {
        return;
    }
    const auto given = py::cast<std::string>(options[name]);
    const auto found = std::find(names.begin(), names.end(), given);
    if (found == names.end()) {
        throw py::value_error(std::string("unknown ") + name + ": " + given);
    }
    value = static_cast<std::int32_t>(found - names.begin());
}

constexpr const char* OPTION_NAMES[] = {
    "frame_rate",     "look_ahead", "sigma",   "crop_ratio", "whole_shift", "edge_guard",
    "repair_motions", "scene_cuts", "engine",  "sampling",   "threads",     "auto_crop",
    "crop_least",     "crop_most",  "shutter", "readout",    "siting"};

VideoStabilizerStreamOptions read_options(const Kind& kind, const std::string& strength,
                                          const py::dict& options) {
    VideoStabilizerStreamOptions o{};
    if (videostabilizer_stream_options_init(
            &o, sizeof o, videostabilizer_strength_by_name(strength.c_str())) != 0) {
        throw py::value_error("unknown strength: " + strength);
    }
    for (const auto& [key, value] : options) {
        const auto name = py::cast<std::string>(key);
        if (std::find(std::begin(OPTION_NAMES), std::end(OPTION_NAMES), name) ==
            std::end(OPTION_NAMES)) {
            throw py::type_error("unknown option: " + name);
        }
    }
    o.width = kind.width;
    o.height = kind.height;
    o.format = kind.format;
    read_option(options, "frame_rate", o.frame_rate);
    read_option(options, "look_ahead", o.look_ahead);
    read_option(options, "sigma", o.sigma);
    read_option(options, "crop_ratio", o.crop_ratio);
    read_option(options, "threads", o.threads);
    read_option(options, "crop_least", o.crop_least);
    read_option(options, "crop_most", o.crop_most);
    read_option(options, "readout", o.readout);
    read_name(options, "shutter", {"off", "auto", "rows", "columns"}, o.shutter);
    read_switch(options, "whole_shift", o.whole_shift);
    read_switch(options, "edge_guard", o.edge_guard);
    read_switch(options, "repair_motions", o.repair_motions);
    read_switch(options, "scene_cuts", o.scene_cuts);
    read_switch(options, "auto_crop", o.auto_crop);
    read_name(options, "engine", {"opencl", "native", "auto"}, o.engine);
    read_name(options, "sampling", {"stated", "bilinear", "sharp"}, o.sampling);
    read_name(options, "siting", {"left", "centre", "top_left", "top", "bottom_left", "bottom"},
              o.siting);
    o.log_level = VIDEOSTABILIZER_LOG_NOTHING;
    return o;
}

class Stabilizer {
  public:
    Stabilizer(int width, int height, const std::string& format, const std::string& strength,
               const py::kwargs& options)
        : kind_(std::make_shared<Kind>(format, width, height)), strength_(strength) {
        if (kind_->format < 0) {
            throw py::value_error("unknown format: " + format);
        }
        options_ = py::dict(options);
        const VideoStabilizerStreamOptions o = read_options(*kind_, strength, options_);
        char reason[300];
        int code = 0;
        {
            const py::gil_scoped_release release;
            code = videostabilizer_stream_open(&o, &stream_, reason, sizeof reason);
        }
        if (code != VIDEOSTABILIZER_OK) {
            raise(code, reason);
        }
        latency_ = videostabilizer_stream_latency(stream_);
    }
    ~Stabilizer() {
        try {
            close();
        } catch (...) {  // of a lock; there is nobody to tell
            closed_ = true;
        }
    }
    Stabilizer(const Stabilizer&) = delete;
    Stabilizer& operator=(const Stabilizer&) = delete;

    bool try_push(const py::object& picture, std::optional<std::int64_t> timestamp, bool copy,
                  double timeout) {
        std::unique_ptr<Planes> planes = planes_of(picture, *kind_);
        VideoStabilizerInput input{};
        input.size = sizeof input;
        input.planes = planes->planes;
        input.timestamp = timestamp.value_or(next_timestamp_);
        if (!copy) {
            input.host = new Borrowed{this, std::move(planes)};
            input.release = [](void*, void* host) {
                auto* const borrowed = static_cast<Borrowed*>(host);
                borrowed->owner->put_back(borrowed);
            };
        }
        const int code = call(timeout, [&](int slice) {
            return videostabilizer_stream_push(stream_, &input, slice);
        });
        if (code == VIDEOSTABILIZER_AGAIN && !copy) {
            delete static_cast<Borrowed*>(input.host);
        }
        if (code < 0) {
            raise(code,
                  code == VIDEOSTABILIZER_INVALID ? message() : videostabilizer_strerror(code));
        }
        if (code == VIDEOSTABILIZER_OK) {
            next_timestamp_ = input.timestamp + 1;
        }
        return code == VIDEOSTABILIZER_OK;
    }
    void push(const py::object& picture, std::optional<std::int64_t> timestamp, bool copy,
              std::optional<double> timeout) {
        if (!try_push(picture, timestamp, copy, timeout.value_or(-1))) {
            throw Full("there is no room; pull a steady picture first");
        }
    }
    // Null: the end.
    std::optional<Picture> pull(std::optional<double> timeout) {
        VideoStabilizerPicture* picture = nullptr;
        const int code = call(timeout.value_or(-1), [&](int slice) {
            return videostabilizer_stream_pull(stream_, &picture, slice);
        });
        if (code == VIDEOSTABILIZER_AGAIN) {
            throw Empty("no steady picture is due");
        }
        if (code < 0) {
            raise(code, message());
        }
        return code == VIDEOSTABILIZER_OK ? std::optional<Picture>(Picture(picture, kind_))
                                          : std::nullopt;
    }
    void drain() {
        check(call(0, [&](int) { return videostabilizer_stream_drain(stream_); }));
    }
    void flush() {
        check(call(0, [&](int) { return videostabilizer_stream_flush(stream_); }));
    }
    void change(const std::optional<std::string>& strength, const py::kwargs& options) {
        py::dict all = strength ? py::dict() : options_.attr("copy")();
        for (const char* const kept : {"engine", "threads", "siting", "shutter", "readout"}) {
            if (options_.contains(kept)) {
                all[kept] = options_[kept];
            }
        }
        all.attr("update")(options);
        const VideoStabilizerStreamOptions o =
            read_options(*kind_, strength.value_or(strength_), all);
        check(call(0, [&](int) { return videostabilizer_stream_change(stream_, &o); }));
        strength_ = strength.value_or(strength_);
        options_ = all;
    }
    void close() {
        closed_ = true;
        {
            const py::gil_scoped_release release;
            const std::unique_lock<std::shared_mutex> lock(open_);
            videostabilizer_stream_close(std::exchange(stream_, nullptr));
        }
        sweep();
    }
    bool closed() const { return closed_; }
    int latency() const { return latency_; }

  private:
    struct Borrowed {
        Stabilizer* owner;
        std::unique_ptr<Planes> planes;
    };

    // Threads of the library have no GIL, and Python may be about to end: what they give back waits
    // for a thread of Python's.
    void put_back(Borrowed* borrowed) {
        const std::lock_guard<std::mutex> lock(done_mutex_);
        done_.emplace_back(borrowed);
    }
    void sweep() {
        std::vector<std::unique_ptr<Borrowed>> done;
        {
            const std::lock_guard<std::mutex> lock(done_mutex_);
            done.swap(done_);
        }
    }

    // Calls without the GIL, in slices, for `seconds`; below 0 without end.
    template <typename Call>
    int call(double seconds, Call function) {
        using Clock = std::chrono::steady_clock;
        sweep();
        const auto start = Clock::now();
        for (;;) {
            int code = VIDEOSTABILIZER_AGAIN;
            bool is_open = true;
            bool is_last = false;
            {
                const py::gil_scoped_release release;
                const std::shared_lock<std::shared_mutex> lock(open_);
                is_open = stream_ != nullptr && !closed_;
                int slice = SLICE_MS;
                if (seconds >= 0) {
                    const double left =
                        1000 *
                        (seconds - std::chrono::duration<double>(Clock::now() - start).count());
                    slice = static_cast<int>(std::clamp(left, 0.0, static_cast<double>(SLICE_MS)));
                    is_last = left <= SLICE_MS;
                }
                if (is_open) {
                    code = function(slice);
                }
            }
            if (!is_open) {
                throw py::value_error("the stabilizer is closed");
            }
            if (code != VIDEOSTABILIZER_AGAIN || is_last) {
                return code;
            }
            if (PyErr_CheckSignals() != 0) {
                throw py::error_already_set();
            }
        }
    }
    std::string message() {
        char text[300] = "";
        const std::shared_lock<std::shared_mutex> lock(open_);
        videostabilizer_stream_message(stream_, text, sizeof text);
        return text;
    }
    void check(int code) {
        if (code != VIDEOSTABILIZER_OK) {
            raise(code, message());
        }
    }

    std::shared_ptr<const Kind> kind_;
    std::string strength_;
    py::dict options_;  // as given
    int latency_ = 0;
    std::int64_t next_timestamp_ = 0;
    std::atomic<bool> closed_{false};
    std::shared_mutex open_;  // shared by calls, which close waits for
    VideoStabilizerStream* stream_ = nullptr;
    std::mutex done_mutex_;  // guards the next
    std::vector<std::unique_ptr<Borrowed>> done_;
};

py::array_t<float> matrix(const float (&elements)[9]) {
    py::array_t<float> array({3, 3});
    std::copy_n(elements, 9, array.mutable_data());
    return array;
}

}  // namespace

PYBIND11_MODULE(_native, module) {
    using Report = VideoStabilizerStreamReport;
    module.attr("__version__") = videostabilizer_library_version();
    const auto error = py::register_exception<StreamError>(module, "Error", PyExc_RuntimeError);
    py::register_exception<Full>(module, "Full", error);
    py::register_exception<Empty>(module, "Empty", error);

    py::class_<Report>(module, "Report", "How a picture became steady.")
        .def_readonly("number", &Report::number)
        .def_readonly("look_ahead", &Report::look_ahead)
        .def_readonly("sigma", &Report::sigma)
        .def_readonly("crop", &Report::crop)
        .def_readonly("granted", &Report::granted)
        .def_property_readonly("guarded", [](const Report& r) { return r.guarded != 0; })
        .def_property_readonly("scene_start", [](const Report& r) { return r.scene_start != 0; })
        .def_property_readonly("motion_found",
                               [](const Report& r) {
                                   return r.motion_found == 1
                                              ? "found"
                                              : (r.motion_found == 2 ? "interpolated" : "lost");
                               })
        .def_readonly("points", &Report::points)
        .def_readonly("inliers", &Report::inliers)
        .def_readonly("track_ratio", &Report::track_ratio)
        .def_readonly("readout", &Report::readout)
        .def_readonly("readout_confidence", &Report::readout_confidence)
        .def_property_readonly("motion", [](const Report& r) { return matrix(r.motion); })
        .def_property_readonly("correction", [](const Report& r) { return matrix(r.correction); });

    py::class_<Picture>(module, "Picture",
                        "A steady picture in memory of the library, which its arrays keep.")
        .def_property_readonly("timestamp", &Picture::timestamp)
        .def_property_readonly("report", &Picture::report)
        .def_property_readonly("format", &Picture::format)
        .def_property_readonly(
            "planes", &Picture::planes,
            "Arrays over the planes, not copied: (rows, columns), of chroma pairs "
            "(rows, columns, 2), of packed RGB (height, width, 3 or 4).")
        .def_property_readonly(
            "array", &Picture::array,
            "The picture as one array. Of one plane as `planes[0]`, not copied; of more a copy, "
            "one "
            "plane after the other: yuv420p and nv12 as (height * 3 / 2, width).")
        .def("__array__", [](const Picture& p, const py::args&) { return p.array(); });

    py::class_<Stabilizer>(module, "Stabilizer")
        .def(py::init<int, int, const std::string&, const std::string&, const py::kwargs&>(),
             py::arg("width"), py::arg("height"), py::arg("format") = "gray",
             py::arg("strength") = "standard")
        .def("push", &Stabilizer::push, py::arg("picture"), py::arg("timestamp") = py::none(),
             py::arg("copy") = true, py::arg("timeout") = 0.0)
        .def("_try_push", &Stabilizer::try_push)
        .def("pull", &Stabilizer::pull, py::arg("timeout") = py::none())
        .def("drain", &Stabilizer::drain)
        .def("flush", &Stabilizer::flush)
        .def("change", &Stabilizer::change, py::arg("strength") = py::none())
        .def("close", &Stabilizer::close)
        .def_property_readonly("closed", &Stabilizer::closed)
        .def_property_readonly("latency", &Stabilizer::latency);
}
