// SPDX-License-Identifier: Apache-2.0

#pragma once

/*
 * Streams for hosts of any language: shaky pictures in, steady pictures out, in the same order,
 * `look_ahead` pictures later. Plain C11; C++ includes it as it is. The other headers are the C++
 * interface, on which this one stands; a host needs one of the two.
 *
 *   options_init -> stream_open -> push, pull ... -> drain -> pull until END -> stream_close
 *
 * Threads   Functions of one stream may be called from any thread and at the same time, but for
 *           stream_close, during and after which there is no other. Different streams are independent.
 *           None may be called from a signal handler. What callbacks may call is stated with them.
 *           docs/threads.md names the library's threads.
 * Order     Pictures keep the order in which pushes return. Of pushes that run at the same time, any
 *           may be first.
 * Records   All but VideoStabilizerPlanes begin with `size`, the bytes of the record as the caller
 *           knows it, and grow at their end only, so that a program and a library of different
 *           versions work together.
 * Errors    Codes below zero. A call that fails has changed nothing, unless stated. None writes to
 *           standard error, and none ends the process.
 * Time-outs Milliseconds; 0 answers at once; negative waits without end.
 *
 * Where the program defines __android_log_print (videostabilizer/log.h), and on Android, the lines of
 * the engine go there rather than to the stream's `log`.
 */

#include <stddef.h>
#include <stdint.h>

#include "videostabilizer/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What functions return. */
enum {
    VIDEOSTABILIZER_OK = 0,
    VIDEOSTABILIZER_AGAIN = 1,         /* not now: see stream_push and stream_pull */
    VIDEOSTABILIZER_END = 2,           /* all pictures have been pulled */
    VIDEOSTABILIZER_INVALID = -1,      /* an argument, option or picture is refused */
    VIDEOSTABILIZER_NO_MEMORY = -2,    /* there is not enough memory */
    VIDEOSTABILIZER_NO_THREAD = -3,    /* the system gives no thread or descriptor */
    VIDEOSTABILIZER_NO_DEVICE = -4,    /* the engine asked for cannot be used */
    VIDEOSTABILIZER_DRAINING = -5,     /* a push after stream_drain */
    VIDEOSTABILIZER_NEEDS_REOPEN = -6, /* an option that an open stream cannot change */
    VIDEOSTABILIZER_FAILED = -7        /* the stream has ended with an error; flush or close it */
};

/* A sentence, in English; never null. Thread-safe. */
VIDEOSTABILIZER_API const char* videostabilizer_strerror(int code);

/* Version of the library that is loaded, as "major.minor.patch". Thread-safe. */
VIDEOSTABILIZER_API const char* videostabilizer_library_version(void);

/*
 * Pixel formats: a family, plus the bits of a sample. Names are FFmpeg's; samples of more than 8 bits
 * are two bytes, little endian, in the lower bits but for P010 and its like. Every family in the first
 * two rows exists with 8 to 16 bits: VIDEOSTABILIZER_YUV422P + 12 is yuv422p12le. The range of the
 * samples does not matter.
 *
 * Packed RGB is separated into planes when it is pushed, and interleaved when it is pulled, on the
 * calling threads; nothing is lost in it. The camera's motion is found in the green samples. There is
 * no "stated" sampling of it: bilinear takes its place.
 */
enum {
    /* planes Y; or Y, U, V; or Y, U, V, A */
    VIDEOSTABILIZER_GRAY = 0x000,
    VIDEOSTABILIZER_YUV420P = 0x100,
    VIDEOSTABILIZER_YUV422P = 0x200,
    VIDEOSTABILIZER_YUV444P = 0x300,
    VIDEOSTABILIZER_YUV411P = 0x400,
    VIDEOSTABILIZER_YUVA420P = 0x500,
    VIDEOSTABILIZER_YUVA422P = 0x600,
    VIDEOSTABILIZER_YUVA444P = 0x700,
    /* planes Y and UV (NV21, NV42: VU), in turns */
    VIDEOSTABILIZER_NV12 = 0x800,
    VIDEOSTABILIZER_NV21 = 0x900,
    VIDEOSTABILIZER_NV16 = 0xA00,
    VIDEOSTABILIZER_NV24 = 0xB00,
    VIDEOSTABILIZER_NV42 = 0xC00,
    /* the same with 9 to 16 bits, in the upper bits: P010 is VIDEOSTABILIZER_P0 + 10 */
    VIDEOSTABILIZER_P0 = 0xD00, /* 4:2:0 */
    VIDEOSTABILIZER_P2 = 0xE00, /* 4:2:2 */
    VIDEOSTABILIZER_P4 = 0xF00, /* 4:4:4 */
    /* one plane; 8 or 16 bits */
    VIDEOSTABILIZER_RGB = 0x1000,
    VIDEOSTABILIZER_BGR = 0x1100,
    VIDEOSTABILIZER_RGBA = 0x1200,
    VIDEOSTABILIZER_BGRA = 0x1300,

    VIDEOSTABILIZER_FORMAT_GRAY8 = VIDEOSTABILIZER_GRAY + 8,
    VIDEOSTABILIZER_FORMAT_YUV420P = VIDEOSTABILIZER_YUV420P + 8,
    VIDEOSTABILIZER_FORMAT_YUV420P10 = VIDEOSTABILIZER_YUV420P + 10,
    VIDEOSTABILIZER_FORMAT_YUV422P = VIDEOSTABILIZER_YUV422P + 8,
    VIDEOSTABILIZER_FORMAT_YUV444P = VIDEOSTABILIZER_YUV444P + 8,
    VIDEOSTABILIZER_FORMAT_NV12 = VIDEOSTABILIZER_NV12 + 8,
    VIDEOSTABILIZER_FORMAT_NV21 = VIDEOSTABILIZER_NV21 + 8,
    VIDEOSTABILIZER_FORMAT_P010 = VIDEOSTABILIZER_P0 + 10,
    VIDEOSTABILIZER_FORMAT_RGB24 = VIDEOSTABILIZER_RGB + 8,
    VIDEOSTABILIZER_FORMAT_BGR24 = VIDEOSTABILIZER_BGR + 8,
    VIDEOSTABILIZER_FORMAT_RGBA = VIDEOSTABILIZER_RGBA + 8,
    VIDEOSTABILIZER_FORMAT_BGRA = VIDEOSTABILIZER_BGRA + 8
};

/*
 * The format of a name of FFmpeg's ("gray", "yuv420p10le", "nv12", "p010le", "rgb24" ...), or -1.
 * Thread-safe.
 */
VIDEOSTABILIZER_API int32_t videostabilizer_format_by_name(const char* name);

/* A plane of a format. */
typedef struct VideoStabilizerPlaneShape {
    size_t size;      /* of the record */
    size_t row_bytes; /* that belong to the picture; strides are at least as long */
    int32_t rows;     /* of the plane */
} VideoStabilizerPlaneShape;

/*
 * Tells the shape of plane `plane` of pictures of this size. Thread-safe.
 * Returns: the number of planes of the format, 1 to 4; or INVALID for an unknown format, a size outside
 *          1 to 32768, or, where `shape` is not null, a plane that the format does not have.
 */
VIDEOSTABILIZER_API int videostabilizer_format_plane(int32_t format, int32_t width, int32_t height,
                                                     int plane, VideoStabilizerPlaneShape* shape);

/* Where the first chroma sample lies among the luma samples that share it. */
enum {
    VIDEOSTABILIZER_SITING_LEFT = 0,   /* MPEG-2 and later */
    VIDEOSTABILIZER_SITING_CENTRE = 1, /* JPEG, MPEG-1 */
    VIDEOSTABILIZER_SITING_TOP_LEFT = 2,
    VIDEOSTABILIZER_SITING_TOP = 3,
    VIDEOSTABILIZER_SITING_BOTTOM_LEFT = 4,
    VIDEOSTABILIZER_SITING_BOTTOM = 5
};

/* Predefined options; docs/strength.md compares them. */
enum {
    VIDEOSTABILIZER_GENTLE = 0,   /* look-ahead 10, the least change */
    VIDEOSTABILIZER_STANDARD = 1, /* look-ahead 10 */
    VIDEOSTABILIZER_STRONG = 2,   /* look-ahead 20 */
    VIDEOSTABILIZER_MAXIMUM = 3   /* look-ahead 30 */
};

/* What warps the pictures. */
enum {
    VIDEOSTABILIZER_ENGINE_OPENCL = 0,
    VIDEOSTABILIZER_ENGINE_NATIVE = 1, /* the processor */
    VIDEOSTABILIZER_ENGINE_AUTO = 2 /* OpenCL on a GPU where there is one that can, else native */
};

/* How samples are computed. */
enum {
    VIDEOSTABILIZER_SAMPLING_STATED = 0, /* luma bilinear, nearest chroma; native engine */
    VIDEOSTABILIZER_SAMPLING_BILINEAR = 1,
    VIDEOSTABILIZER_SAMPLING_SHARP = 2 /* Lanczos, six taps */
};

/* What is done about a rolling shutter; see videostabilizer/stabilizer_options.h. */
enum {
    VIDEOSTABILIZER_SHUTTER_OFF = 0,
    VIDEOSTABILIZER_SHUTTER_AUTO = 1,   /* the readout is estimated */
    VIDEOSTABILIZER_SHUTTER_ROWS = 2,   /* lines are rows, and `readout` is given */
    VIDEOSTABILIZER_SHUTTER_COLUMNS = 3 /* lines are columns, likewise */
};

/* Levels of the log. */
enum {
    VIDEOSTABILIZER_LOG_INFO = 4,
    VIDEOSTABILIZER_LOG_WARNING = 5,
    VIDEOSTABILIZER_LOG_ERROR = 6,
    VIDEOSTABILIZER_LOG_NOTHING = 7
};

/* What a stream is ready for, bits. */
enum {
    VIDEOSTABILIZER_READY_PULL = 1, /* a pull gives a picture, END or an error */
    VIDEOSTABILIZER_READY_PUSH = 2  /* a push that was answered AGAIN would be taken */
};

/* Options of a stream. Comments give the range; switches are 0 or 1. */
typedef struct VideoStabilizerStreamOptions {
    size_t size;            /* set by options_init */
    int32_t width;          /* pixels; 16 to 32768 */
    int32_t height;         /* pixels; 16 to 32768 */
    int32_t format;         /* VIDEOSTABILIZER_FORMAT_..., or a family and bits */
    int32_t siting;         /* of the chroma of formats that share it: VIDEOSTABILIZER_SITING_... */
    double frame_rate;      /* pictures a second; 0: not known, taken as 30. See stream_change */
    int32_t look_ahead;     /* 1 to 120 pictures: the delay, and half of the smoothing span */
    float sigma;            /* 0.25 to 1000 pictures: width of the smoothing; 0: sqrt(look_ahead) */
    float crop_ratio;       /* 0.5 to 1: the part of the width and height that is shown */
    int32_t whole_shift;    /* 1: the full shift is applied; 0: crop_ratio times it */
    int32_t edge_guard;     /* 1: nothing is shown from outside the picture; needs whole_shift */
    int32_t repair_motions; /* 1: motions that were not found are interpolated */
    int32_t scene_cuts;     /* 1: the smoothing stops at scene cuts */
    int32_t picture_width;  /* pixels, from 16 on: what is picture, top left; 0, 0: all of it */
    int32_t picture_height; /* likewise; the rest is padding */
    int32_t engine;         /* VIDEOSTABILIZER_ENGINE_... */
    int32_t sampling;       /* VIDEOSTABILIZER_SAMPLING_... */
    int32_t threads;        /* of the native engine: 1 to 64; 0: one for each processor */
    int32_t auto_crop;      /* 1: the crop adapts to the shake; needs edge_guard */
    float crop_least;       /* 0.5 to 0.99: the least that is shown then; 0: 0.65 */
    float crop_most;        /* 0.5 to 0.99: the most that is shown then; 0: 0.95 */
    int32_t shutter;        /* VIDEOSTABILIZER_SHUTTER_... */
    float readout;          /* -1 to 1 of the time between pictures, with rows and columns */

    /*
     * Receives what the library has to say about this stream, from `log_level` on; null: nobody does.
     * Called from the calling threads and from those of the library, several at once. It may call no
     * function of this interface.
     */
    void (*log)(void* log_context, int level, const char* area, const char* text);
    void* log_context; /* passed to it */
    int32_t log_level; /* VIDEOSTABILIZER_LOG_... */

    /*
     * Called when the stream becomes ready for something that it was not ready for; null: nobody is.
     * `ready` has all that it is ready for. Called from the calling threads and from those of the
     * library, several at once. It may push and pull with time-out 0; no other function of streams.
     */
    void (*on_ready)(void* ready_context, int ready);
    void* ready_context; /* passed to it */
} VideoStabilizerStreamOptions;

/*
 * Fills in the options of a strength, with engine auto. Width, height and format are 0 and have to be
 * set; siting is left. `size` is sizeof(VideoStabilizerStreamOptions). Thread-safe.
 * Returns: OK; INVALID for an unknown strength, or a size that no version of the record has.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_options_init(VideoStabilizerStreamOptions* options,
                                                            size_t size, int strength);

/* The strength called "gentle", "standard", "strong" or "maximum", or -1. Thread-safe. */
VIDEOSTABILIZER_API int videostabilizer_strength_by_name(const char* name);

/* Where the planes of a picture are, in the order of its format. Others are ignored. */
typedef struct VideoStabilizerPlanes {
    void* data[4]; /* the first row of each, at any address */
    ptrdiff_t
        stride[4]; /* bytes from a row to the next, 32 bits; negative: the first row is the last
                            in memory; even where samples have two bytes */
} VideoStabilizerPlanes;

/* A picture to push. Set all to zero, then what is needed. */
typedef struct VideoStabilizerInput {
    size_t size;                  /* of the record */
    VideoStabilizerPlanes planes; /* read only */
    int64_t timestamp;            /* the host's; not interpreted */
    void* host;                   /* the host's; comes back with the steady picture */
    /*
     * Null: the picture is copied during the call.
     * Else: it is borrowed, and must stay as it is until `release`, which is called once: when the
     * picture is not needed any more, also when the stream is flushed, closed or fails, and before a
     * push returns that fails; but not where push returns AGAIN, which has taken nothing. Called from
     * the calling threads and from those of the library. It may push and pull with time-out 0.
     */
    void (*release)(void* release_context, void* host);
    void* release_context; /* passed to it */
} VideoStabilizerInput;

/* How a picture became steady. */
typedef struct VideoStabilizerStreamReport {
    size_t size;          /* of the record */
    int64_t number;       /* of the picture, from 0 on since the stream was opened or flushed */
    int32_t look_ahead;   /* pictures: the latency of the stream */
    float sigma;          /* pictures: of the smoothing in use */
    float crop;           /* 0.5 to 1: part of the width and height that is shown */
    float granted;        /* 0 to 1: share of the correction without limits that was made */
    int32_t guarded;      /* 1: the edge guard has reduced the correction */
    int32_t scene_start;  /* 1: the first picture of a scene, also after opening and flushing */
    int32_t motion_found; /* the motion from the picture before: 1 found; 0 not; 2 interpolated */
    int32_t points;       /* places that were followed */
    int32_t inliers;      /* those of them that agree with the motion; -1 or 0: too few points */
    float track_ratio;    /* 0 to 1: share of the places that could be followed */
    float readout;        /* of the rolling shutter that was corrected; 0: none */
    float readout_confidence; /* 0 to 1 */
    int32_t columns;          /* 1: its lines are columns */
    float first_line[2];      /* pixels that the middle of the first line ... */
    float last_line[2];       /* ... and of the last one is moved by, against that of the picture */
    float motion[9]; /* maps positions in the picture before to this one; row-major 3x3, pixels */
    float correction[9]; /* maps positions in this picture to the steady one, before the crop */
} VideoStabilizerStreamReport;

/* A stream; opaque. */
typedef struct VideoStabilizerStream VideoStabilizerStream;

/*
 * A steady picture in memory of the library, with a count of references. It may outlive its stream.
 * Threads: ref and unref from any thread at any time; the pixels are the holder's, as long as there is
 * one.
 */
typedef struct VideoStabilizerPicture VideoStabilizerPicture;

/* What a steady picture is. */
typedef struct VideoStabilizerOutput {
    size_t size;                  /* of the record */
    VideoStabilizerPlanes planes; /* of the picture */
    int64_t timestamp;            /* of the picture that was pushed */
    void* host;                   /* likewise */
} VideoStabilizerOutput;

/*
 * Opens a stream. Both records are read during the call only; callbacks and their contexts are used
 * until the stream is closed. Starts three threads, and those of the native engine.
 * Memory: that of video_stabilizer_create_for_pictures; of each picture inside that is copied, the copy;
 * steady pictures until they are pulled and given back, and six of them and of copies to be used again.
 * reason: receives, cut to reason_size bytes, why a stream was not opened, else ""; may be null.
 * Returns: OK and *stream; else null there, and INVALID, NO_MEMORY, NO_THREAD or NO_DEVICE.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_open(const VideoStabilizerStreamOptions* options,
                                                    VideoStabilizerStream** stream, char* reason,
                                                    size_t reason_size);

/* Drops what is inside and releases everything. Waits for the picture in work. Null is allowed. */
VIDEOSTABILIZER_API void videostabilizer_stream_close(VideoStabilizerStream* stream);

/*
 * Gives a picture to the stream, once there is room: look_ahead + 6 pictures are inside at most, from
 * push to pull. So a host of one thread does not wait here: it pushes with time-out 0, and where that
 * is answered AGAIN, a steady picture is due, for which it waits in stream_pull.
 * Returns: OK; AGAIN where there was no room in time; INVALID; NO_MEMORY, after which the same picture may be
 *          pushed again; DRAINING; FAILED, of which pull tells more.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_push(VideoStabilizerStream* stream,
                                                    const VideoStabilizerInput* input,
                                                    int timeout_ms);

/*
 * Says that no more pictures come: those inside come out, then pull returns END. A second call does
 * nothing. Returns: OK; FAILED.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_drain(VideoStabilizerStream* stream);

/*
 * Takes the next steady picture, with one reference, which is the caller's. Without drain, a picture
 * comes out only after `latency` later ones were pushed.
 * Returns: OK and *picture; else null there, and AGAIN where there was none in time; END; NO_MEMORY, of
 *          packed RGB, with which the picture stays inside; NO_MEMORY or FAILED where the stream has
 *          ended with that error and its finished pictures were pulled.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_pull(VideoStabilizerStream* stream,
                                                    VideoStabilizerPicture** picture,
                                                    int timeout_ms);

/*
 * The same, into planes of the host, which output->planes tells; the rest of it is filled in. `report`
 * may be null. Costs a copy, but for packed RGB, where it saves one.
 * Returns: as stream_pull; INVALID for a plane that cannot be written to.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_pull_into(VideoStabilizerStream* stream,
                                                         VideoStabilizerOutput* output,
                                                         VideoStabilizerStreamReport* report,
                                                         int timeout_ms);

/*
 * Drops what is inside, for a jump to another place of the video: the next picture begins a scene, its
 * number is 0, and its timestamp may be any. Also makes a stream usable again that was drained or has
 * failed. Not from a callback. Returns: OK; NO_MEMORY, NO_THREAD or NO_DEVICE, where all is as before.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_flush(VideoStabilizerStream* stream);

/*
 * Changes a running stream, smoothly: from the next picture that is corrected on, the path goes on from
 * where it is, with another sigma, or towards another crop_ratio, crop_least or crop_most, by at most a
 * tenth a second (frame_rate), after a scene cut at once; or towards another readout that is given. All other options must be as the stream was
 * opened, but for callbacks, which are not read, and for look_ahead: less is enough, since a longer one
 * than asked for does no harm. So the options of every strength with the same switches may be set.
 * Returns: OK; INVALID; NEEDS_REOPEN, with the reason as message, for anything else, and for crop_ratio
 *          without edge_guard; NO_MEMORY.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_change(VideoStabilizerStream* stream,
                                                      const VideoStabilizerStreamOptions* options);

/*
 * The options in force, with engine, picture size and bounds of the crop as they were decided; for
 * `options` of any size that is set. Returns: OK; INVALID.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_get_options(VideoStabilizerStream* stream,
                                                           VideoStabilizerStreamOptions* options);

/* Pictures between a push and its steady picture; as long as the stream is open. */
VIDEOSTABILIZER_API int videostabilizer_stream_latency(const VideoStabilizerStream* stream);

/* What the stream is ready for at this moment, VIDEOSTABILIZER_READY_..., for event loops. */
VIDEOSTABILIZER_API int videostabilizer_stream_ready(VideoStabilizerStream* stream);

/*
 * A descriptor that can be read from (poll, select, epoll) as long as the stream is ready for something.
 * Only to be waited for; closed by stream_close. Returns: it, or NO_THREAD.
 */
VIDEOSTABILIZER_API int videostabilizer_stream_descriptor(VideoStabilizerStream* stream);

/* Copies the last error's text, cut to `size` bytes; "" where there was none. Returns: its length. */
VIDEOSTABILIZER_API size_t videostabilizer_stream_message(VideoStabilizerStream* stream, char* text,
                                                          size_t size);

/* Adds a reference. Returns: the picture. */
VIDEOSTABILIZER_API VideoStabilizerPicture* videostabilizer_picture_ref(
    VideoStabilizerPicture* picture);

/* Gives a reference back; the picture goes with the last one. Null is allowed. */
VIDEOSTABILIZER_API void videostabilizer_picture_unref(VideoStabilizerPicture* picture);

/* Tells where a picture is, for `output` of any size that is set. Returns: OK; INVALID. */
VIDEOSTABILIZER_API int videostabilizer_picture_get(const VideoStabilizerPicture* picture,
                                                    VideoStabilizerOutput* output);

/* Tells how a picture became steady, likewise. Returns: OK; INVALID. */
VIDEOSTABILIZER_API int videostabilizer_picture_report(const VideoStabilizerPicture* picture,
                                                       VideoStabilizerStreamReport* report);

#ifdef __cplusplus
}
#endif
