// SPDX-License-Identifier: Apache-2.0

// The native methods of com.nuvik.stabilizer.VideoStabilizer: a stream of the C interface. The Java half
// sees to it that no stream is used after it was closed.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "videostabilizer/jni.h"
#include "videostabilizer/stream.h"

namespace {

struct Release {
    void operator()(void* memory) const { std::free(memory); }
};
using Memory = std::unique_ptr<unsigned char, Release>;

struct JavaStream {
    VideoStabilizerStreamOptions options{};
    std::vector<VideoStabilizerPlaneShape> planes;
    std::mutex mutex;            // guards the next
    std::vector<Memory> unused;  // pictures of 4:2:0, borrowed by the stream while they are inside
    VideoStabilizerStream* stream = nullptr;

    ~JavaStream() { videostabilizer_stream_close(stream); }
    JavaStream() = default;
    JavaStream(const JavaStream&) = delete;
    JavaStream& operator=(const JavaStream&) = delete;

    std::size_t bytes() const {
        std::size_t sum = 0;
        for (const VideoStabilizerPlaneShape& plane : planes) {
            sum += plane.row_bytes * static_cast<std::size_t>(plane.rows);
        }
        return sum;
    }
    Memory take() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (!unused.empty()) {
                Memory memory = std::move(unused.back());
                unused.pop_back();
                return memory;
            }
        }
        return Memory(static_cast<unsigned char*>(std::malloc(bytes())));
    }
    // Room for all was reserved: nothing is thrown through the library.
    static void give_back(void* self, void* memory) {
        auto& stream = *static_cast<JavaStream*>(self);
        const std::lock_guard<std::mutex> lock(stream.mutex);
        Memory owned(static_cast<unsigned char*>(memory));
        if (stream.unused.size() < stream.unused.capacity()) {
            stream.unused.push_back(std::move(owned));
        }
    }
};

JavaStream& stream_of(jlong handle) {
    const auto address = static_cast<std::intptr_t>(handle);
    JavaStream* stream = nullptr;
    std::memcpy(&stream, &address, sizeof(void*));
    return *stream;
}

// Throws by a code; the code of the C interface is in the exception.
int fail(JNIEnv* env, int code, const char* text) {
    if (code == VIDEOSTABILIZER_INVALID) {
        jniThrowException(env, "java/lang/IllegalArgumentException", text);
    } else if (code == VIDEOSTABILIZER_NO_MEMORY) {
        jniThrowException(env, "java/lang/OutOfMemoryError", text);
    } else {
        jclass type = env->FindClass("com/nuvik/stabilizer/StabilizerException");
        jmethodID make =
            type != nullptr ? env->GetMethodID(type, "<init>", "(Ljava/lang/String;I)V") : nullptr;
        jstring message = make != nullptr ? env->NewStringUTF(text) : nullptr;
        if (message != nullptr) {
            auto* const exception =
                static_cast<jthrowable>(env->NewObject(type, make, message, code));
            if (exception != nullptr) {
                env->Throw(exception);
            }
        }
    }
    return code;
}

// The code of a call on a stream, after throwing where it has failed.
int checked(JNIEnv* env, JavaStream& s, int code) {
    if (code < 0) {
        char text[300] = "";
        videostabilizer_stream_message(s.stream, text, sizeof text);
        fail(env, code,
             code == VIDEOSTABILIZER_DRAINING || text[0] == '\0' ? videostabilizer_strerror(code)
                                                                 : text);
    }
    return code;
}

std::string text_of(JNIEnv* env, jstring text) {
    if (text == nullptr) {
        return "";
    }
    const char* const characters = env->GetStringUTFChars(text, nullptr);
    if (characters == nullptr) {
        return "";
    }
    std::string copy = characters;
    env->ReleaseStringUTFChars(text, characters);
    return copy;
}

// Returns false for an option that there is none of.
bool set_option(VideoStabilizerStreamOptions& o, const std::string& name, double value) {
    const struct {
        const char* name;
        std::int32_t* number;
    } numbers[] = {{"look_ahead", &o.look_ahead}, {"whole_shift", &o.whole_shift},
                   {"edge_guard", &o.edge_guard}, {"repair_motions", &o.repair_motions},
                   {"scene_cuts", &o.scene_cuts}, {"engine", &o.engine},
                   {"sampling", &o.sampling},     {"threads", &o.threads},
                   {"auto_crop", &o.auto_crop},   {"shutter", &o.shutter},
                   {"siting", &o.siting}};
    for (const auto& option : numbers) {
        if (name == option.name) {
            *option.number = static_cast<std::int32_t>(std::clamp(value, -1e9, 1e9));
            return true;
        }
    }
    const struct {
        const char* name;
        float* number;
    } reals[] = {{"sigma", &o.sigma},
                 {"crop_ratio", &o.crop_ratio},
                 {"crop_least", &o.crop_least},
                 {"crop_most", &o.crop_most},
                 {"readout", &o.readout}};
    for (const auto& option : reals) {
        if (name == option.name) {
            *option.number = static_cast<float>(value);
            return true;
        }
    }
    if (name == "frame_rate") {
        o.frame_rate = value;
        return true;
    }
    return false;
}

// The memory of a direct buffer from `start` on, if it holds `bytes`; else null after throwing.
unsigned char* memory_of(JNIEnv* env, jobject buffer, jint start, std::int64_t bytes) {
    auto* const address = buffer != nullptr
                              ? static_cast<unsigned char*>(env->GetDirectBufferAddress(buffer))
                              : nullptr;
    if (address == nullptr) {
        fail(env, VIDEOSTABILIZER_INVALID, "a plane is no direct buffer");
        return nullptr;
    }
    if (start < 0 || start + bytes > env->GetDirectBufferCapacity(buffer)) {
        fail(env, VIDEOSTABILIZER_INVALID, "a buffer is shorter than its plane");
        return nullptr;
    }
    return address + start;
}

// Whether pictures are 4:2:0 of 8 bits, which is taken in any order of its chroma.
bool is_usual(std::int32_t format) {
    return format == VIDEOSTABILIZER_FORMAT_YUV420P || format == VIDEOSTABILIZER_FORMAT_NV12 ||
           format == VIDEOSTABILIZER_FORMAT_NV21;
}

struct Chroma {
    const unsigned char* plane[2];  // U, V
    std::ptrdiff_t row;             // bytes to the next
    std::ptrdiff_t sample;
};

// Writes chroma in the order of the stream; `planes` are the stream's.
void write_chroma(const JavaStream& s, const Chroma& from, const VideoStabilizerPlanes& planes) {
    const std::int32_t format = s.options.format;
    const int rows = s.planes[1].rows;
    const int columns = (s.options.width + 1) / 2;
    for (int k = 0; k < 2; ++k) {
        const bool planar = format == VIDEOSTABILIZER_FORMAT_YUV420P;
        const int first = format == VIDEOSTABILIZER_FORMAT_NV21 ? 1 - k : k;
        auto* to =
            static_cast<unsigned char*>(planes.data[planar ? 1 + k : 1]) + (planar ? 0 : first);
        for (int y = 0; y < rows; ++y, to += planes.stride[1]) {
            const unsigned char* const row = from.plane[k] + y * from.row;
            if (planar && from.sample == 1) {
                std::memcpy(to, row, static_cast<std::size_t>(columns));
                continue;
            }
            const std::ptrdiff_t step = planar ? 1 : 2;
            for (int x = 0; x < columns; ++x) {
                to[x * step] = row[x * from.sample];
            }
        }
    }
}

VideoStabilizerPlanes planes_in(const JavaStream& s, unsigned char* memory) {
    VideoStabilizerPlanes planes{};
    for (std::size_t k = 0; k < s.planes.size(); ++k) {
        planes.data[k] = memory;
        planes.stride[k] = static_cast<std::ptrdiff_t>(s.planes[k].row_bytes);
        memory += s.planes[k].row_bytes * static_cast<std::size_t>(s.planes[k].rows);
    }
    return planes;
}

std::int64_t extent(std::int64_t rows, std::int64_t stride, std::int64_t last_row) {
    return (rows - 1) * stride + last_row;
}

}  // namespace

extern "C" {

#define NATIVE(type, name) \
    VIDEOSTABILIZER_API type JNICALL Java_com_nuvik_stabilizer_VideoStabilizer_##name

NATIVE(jlong, nativeOpen)
(JNIEnv* env, jclass /*type*/, jint width, jint height, jstring format, jstring strength,
 jobjectArray names, jdoubleArray values) {
    try {
        auto s = std::make_unique<JavaStream>();
        VideoStabilizerStreamOptions& o = s->options;
        const std::string strength_name = text_of(env, strength);
        if (videostabilizer_stream_options_init(
                &o, sizeof o, videostabilizer_strength_by_name(strength_name.c_str())) != 0) {
            fail(env, VIDEOSTABILIZER_INVALID, ("unknown strength: " + strength_name).c_str());
            return 0;
        }
        o.width = width;
        o.height = height;
        o.format = videostabilizer_format_by_name(text_of(env, format).c_str());
        o.log_level = VIDEOSTABILIZER_LOG_NOTHING;
        for (jsize i = 0; i < env->GetArrayLength(names); ++i) {
            auto* const element = static_cast<jstring>(env->GetObjectArrayElement(names, i));
            const std::string name = text_of(env, element);
            env->DeleteLocalRef(element);
            double value = 0;
            env->GetDoubleArrayRegion(values, i, 1, &value);
            if (!set_option(o, name, value)) {
                fail(env, VIDEOSTABILIZER_INVALID, ("unknown option: " + name).c_str());
                return 0;
            }
        }
        const int count = videostabilizer_format_plane(o.format, width, height, 0, nullptr);
        for (int k = 0; k < count; ++k) {
            VideoStabilizerPlaneShape shape{sizeof shape, 0, 0};
            videostabilizer_format_plane(o.format, width, height, k, &shape);
            s->planes.push_back(shape);
        }
        char reason[300];
        const int code = videostabilizer_stream_open(&o, &s->stream, reason, sizeof reason);
        if (code != VIDEOSTABILIZER_OK) {
            fail(env, code, reason);
            return 0;
        }
        s->unused.reserve(static_cast<std::size_t>(o.look_ahead) + 8);
        return static_cast<jlong>(reinterpret_cast<std::intptr_t>(s.release()));
    } catch (const std::bad_alloc&) {
        fail(env, VIDEOSTABILIZER_NO_MEMORY, videostabilizer_strerror(VIDEOSTABILIZER_NO_MEMORY));
        return 0;
    }
}

NATIVE(jint, nativeLatency)(JNIEnv* /*env*/, jclass /*type*/, jlong handle) {
    return videostabilizer_stream_latency(stream_of(handle).stream);
}

// Row bytes and rows of each plane.
NATIVE(jintArray, nativeShape)(JNIEnv* env, jclass /*type*/, jlong handle) {
    const JavaStream& s = stream_of(handle);
    std::array<jint, 8> numbers{};
    for (std::size_t k = 0; k < s.planes.size(); ++k) {
        numbers[2 * k] = static_cast<jint>(s.planes[k].row_bytes);
        numbers[2 * k + 1] = s.planes[k].rows;
    }
    const auto count = static_cast<jsize>(2 * s.planes.size());
    jintArray array = env->NewIntArray(count);
    if (array != nullptr) {
        env->SetIntArrayRegion(array, 0, count, numbers.data());
    }
    return array;
}

NATIVE(jint, nativePush)
(JNIEnv* env, jclass /*type*/, jlong handle, jobject y, jint y_start, jint y_stride, jobject u,
 jint u_start, jobject v, jint v_start, jint uv_stride, jint uv_step, jlong timestamp,
 jint timeout_ms) {
    JavaStream& s = stream_of(handle);
    const bool has_chroma = u != nullptr;
    if (has_chroma ? !is_usual(s.options.format) : s.planes.size() != 1) {
        return fail(env, VIDEOSTABILIZER_INVALID,
                    has_chroma ? "the format is none of yuv420p, nv12 and nv21"
                               : "the format has several planes");
    }
    const auto row_bytes = static_cast<std::int64_t>(s.planes[0].row_bytes);
    const std::int64_t columns = (s.options.width + 1) / 2;
    if (y_stride < row_bytes || (has_chroma && ((uv_step != 1 && uv_step != 2) ||
                                                uv_stride < (columns - 1) * uv_step + 1))) {
        return fail(env, VIDEOSTABILIZER_INVALID, "a stride is shorter than a row");
    }
    VideoStabilizerInput input{};
    input.size = sizeof input;
    input.timestamp = timestamp;
    const int rows = s.planes[0].rows;
    unsigned char* const luma = memory_of(env, y, y_start, extent(rows, y_stride, row_bytes));
    if (luma == nullptr) {
        return VIDEOSTABILIZER_INVALID;
    }
    if (!has_chroma) {
        input.planes.data[0] = luma;
        input.planes.stride[0] = y_stride;
        return checked(env, s, videostabilizer_stream_push(s.stream, &input, timeout_ms));
    }
    const std::int64_t chroma_bytes =
        extent(s.planes[1].rows, uv_stride, (columns - 1) * uv_step + 1);
    Chroma chroma{{memory_of(env, u, u_start, chroma_bytes), nullptr}, uv_stride, uv_step};
    if (chroma.plane[0] != nullptr) {
        chroma.plane[1] = memory_of(env, v, v_start, chroma_bytes);
    }
    if (chroma.plane[1] == nullptr) {
        return VIDEOSTABILIZER_INVALID;
    }
    // One copy, in the order of the stream, which is lent to it.
    Memory memory = s.take();
    if (memory == nullptr) {
        return fail(env, VIDEOSTABILIZER_NO_MEMORY,
                    videostabilizer_strerror(VIDEOSTABILIZER_NO_MEMORY));
    }
    input.planes = planes_in(s, memory.get());
    for (int row = 0; row < rows; ++row) {
        std::memcpy(static_cast<unsigned char*>(input.planes.data[0]) + row * row_bytes,
                    luma + static_cast<std::ptrdiff_t>(row) * y_stride,
                    static_cast<std::size_t>(row_bytes));
    }
    write_chroma(s, chroma, input.planes);
    input.host = memory.release();
    input.release = JavaStream::give_back;
    input.release_context = &s;
    const int code = videostabilizer_stream_push(s.stream, &input, timeout_ms);
    if (code == VIDEOSTABILIZER_AGAIN) {
        JavaStream::give_back(&s, input.host);
    }
    return checked(env, s, code);
}

NATIVE(jint, nativePull)
(JNIEnv* env, jclass /*type*/, jlong handle, jobjectArray planes, jlongArray numbers,
 jfloatArray values, jint timeout_ms) {
    JavaStream& s = stream_of(handle);
    VideoStabilizerOutput output{};
    output.size = sizeof output;
    for (std::size_t k = 0; k < s.planes.size(); ++k) {
        jobject buffer = env->GetObjectArrayElement(planes, static_cast<jsize>(k));
        const auto bytes = static_cast<std::int64_t>(s.planes[k].row_bytes) * s.planes[k].rows;
        output.planes.data[k] = memory_of(env, buffer, 0, bytes);
        output.planes.stride[k] = static_cast<std::ptrdiff_t>(s.planes[k].row_bytes);
        env->DeleteLocalRef(buffer);
        if (output.planes.data[k] == nullptr) {
            return VIDEOSTABILIZER_INVALID;
        }
    }
    VideoStabilizerStreamReport r{};
    r.size = sizeof r;
    const int code = videostabilizer_stream_pull_into(s.stream, &output, &r, timeout_ms);
    if (code != VIDEOSTABILIZER_OK) {
        return checked(env, s, code);
    }
    const jlong told[] = {r.number,       r.look_ahead, r.guarded, r.scene_start,
                          r.motion_found, r.points,     r.inliers, output.timestamp};
    env->SetLongArrayRegion(numbers, 0, 8, told);
    float reals[23] = {r.sigma, r.crop, r.granted, r.track_ratio};
    std::copy_n(r.motion, 9, reals + 4);
    std::copy_n(r.correction, 9, reals + 13);
    reals[22] = r.readout;
    env->SetFloatArrayRegion(values, 0, 23, reals);
    return code;
}

NATIVE(jint, nativeDrain)(JNIEnv* env, jclass /*type*/, jlong handle) {
    JavaStream& s = stream_of(handle);
    return checked(env, s, videostabilizer_stream_drain(s.stream));
}

NATIVE(jint, nativeFlush)(JNIEnv* env, jclass /*type*/, jlong handle) {
    JavaStream& s = stream_of(handle);
    return checked(env, s, videostabilizer_stream_flush(s.stream));
}

NATIVE(jint, nativeChange)
(JNIEnv* env, jclass /*type*/, jlong handle, jfloat sigma, jfloat crop_ratio) {
    JavaStream& s = stream_of(handle);
    VideoStabilizerStreamOptions wanted = s.options;
    wanted.sigma = sigma;
    wanted.crop_ratio = crop_ratio;
    return checked(env, s, videostabilizer_stream_change(s.stream, &wanted));
}

NATIVE(void, nativeClose)(JNIEnv* /*env*/, jclass /*type*/, jlong handle) {
    delete &stream_of(handle);
}

}  // extern "C"
