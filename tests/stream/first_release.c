/* SPDX-License-Identifier: Apache-2.0 */

/*
 * A host as it was compiled with the header of the first release, none of which is included here: its
 * records, codes and functions are written down as they were. It has to run with every later library.
 */

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef struct Options {
    size_t size;
    int32_t width, height, format, siting;
    double frame_rate;
    int32_t look_ahead;
    float sigma, crop_ratio;
    int32_t whole_shift, edge_guard, repair_motions, scene_cuts;
    int32_t picture_width, picture_height, engine, sampling, threads;
    int32_t auto_crop;
    float crop_least, crop_most;
    int32_t shutter;
    float readout;
    void (*log)(void*, int, const char*, const char*);
    void* log_context;
    int32_t log_level;
    void (*on_ready)(void*, int);
    void* ready_context;
} Options;

typedef struct Planes {
    void* data[4];
    ptrdiff_t stride[4];
} Planes;

typedef struct Input {
    size_t size;
    Planes planes;
    int64_t timestamp;
    void* host;
    void (*release)(void*, void*);
    void* release_context;
} Input;

typedef struct Report {
    size_t size;
    int64_t number;
    int32_t look_ahead;
    float sigma, crop, granted;
    int32_t guarded, scene_start, motion_found, points, inliers;
    float track_ratio, readout, readout_confidence;
    int32_t columns;
    float first_line[2], last_line[2], motion[9], correction[9];
} Report;

typedef struct Output {
    size_t size;
    Planes planes;
    int64_t timestamp;
    void* host;
} Output;

extern int videostabilizer_stream_options_init(Options*, size_t, int);
extern int videostabilizer_stream_open(const Options*, void**, char*, size_t);
extern int videostabilizer_stream_push(void*, const Input*, int);
extern int videostabilizer_stream_pull(void*, void**, int);
extern int videostabilizer_stream_drain(void*);
extern int videostabilizer_stream_change(void*, const Options*);
extern int videostabilizer_stream_get_options(void*, Options*);
extern void videostabilizer_stream_close(void*);
extern int videostabilizer_picture_get(const void*, Output*);
extern int videostabilizer_picture_report(const void*, Report*);
extern void videostabilizer_picture_unref(void*);

enum { GRAY8 = 8, STANDARD = 1, NATIVE = 1, OK = 0, END = 2, WIDTH = 64, HEIGHT = 48, FRAMES = 16 };

static int released;

static void release(void* context, void* host) {
    released += context == &released && host == &released ? 1 : 0;
}

#define REQUIRE(condition)                                   \
    do {                                                     \
        if (!(condition)) {                                  \
            fprintf(stderr, "violated: %s\n", #condition);   \
            return 1;                                        \
        }                                                    \
    } while (0)

int main(void) {
    /* What is behind a record is somebody else's. */
    struct {
        Options o;
        unsigned char behind[64];
    } given;
    memset(&given, 0x5A, sizeof given);
    REQUIRE(videostabilizer_stream_options_init(&given.o, sizeof given.o, STANDARD) == OK);
    REQUIRE(given.o.look_ahead == 10 && given.o.edge_guard == 1 && given.behind[0] == 0x5A);
    given.o.width = WIDTH;
    given.o.height = HEIGHT;
    given.o.format = GRAY8;
    given.o.engine = NATIVE;
    void* stream = NULL;
    char reason[100];
    REQUIRE(videostabilizer_stream_open(&given.o, &stream, reason, sizeof reason) == OK);

    static unsigned char pixels[HEIGHT][WIDTH];
    for (int y = 0; y < HEIGHT; ++y) {
        for (int x = 0; x < WIDTH; ++x) {
            pixels[y][x] = (unsigned char)(x * 5 ^ y * 3);
        }
    }
    int next = 0;
    for (int i = 0; next < FRAMES; ++i) {
        if (i < FRAMES) {
            Input input;
            memset(&input, 0, sizeof input);
            input.size = sizeof input;
            input.planes.data[0] = pixels;
            input.planes.stride[0] = WIDTH;
            input.timestamp = 40 * i;
            input.release = release;
            input.host = &released;
            input.release_context = &released;
            REQUIRE(videostabilizer_stream_push(stream, &input, -1) == OK);
        }
        if (i == 5) {
            given.o.sigma = 5;
            REQUIRE(videostabilizer_stream_change(stream, &given.o) == OK);
        }
        if (i == FRAMES) {
            REQUIRE(videostabilizer_stream_drain(stream) == OK);
        }
        if (i < given.o.look_ahead) {
            continue;
        }
        void* picture = NULL;
        Output output = {sizeof output, {{NULL}, {0}}, 0, NULL};
        Report report;
        report.size = sizeof report;
        if (i == FRAMES) {
            continue;
        }
        REQUIRE(videostabilizer_stream_pull(stream, &picture, -1) == OK);
        REQUIRE(videostabilizer_picture_get(picture, &output) == OK);
        REQUIRE(videostabilizer_picture_report(picture, &report) == OK);
        REQUIRE(output.timestamp == 40 * next && output.host == &released);
        REQUIRE(output.planes.data[0] != NULL && output.planes.stride[0] >= WIDTH);
        REQUIRE(report.number == next && report.look_ahead == 10 && report.crop == 0.9F);
        REQUIRE(report.correction[8] == 1 && report.scene_start == (next == 0));
        videostabilizer_picture_unref(picture);
        ++next;
    }
    void* none = NULL;
    REQUIRE(videostabilizer_stream_pull(stream, &none, -1) == END && none == NULL);
    REQUIRE(videostabilizer_stream_get_options(stream, &given.o) == OK);
    REQUIRE(given.o.sigma == 5 && given.o.width == WIDTH && given.behind[0] == 0x5A);
    videostabilizer_stream_close(stream);
    REQUIRE(released == FRAMES);
    return 0;
}
