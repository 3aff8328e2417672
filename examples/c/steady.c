// SPDX-License-Identifier: Apache-2.0

/*
 * steady WIDTH HEIGHT FORMAT: reads raw pictures from standard input, writes steady ones to standard
 * output, and tells on standard error where scenes begin. FORMAT as FFmpeg names it. For example
 *
 *     ffmpeg -i in.mp4 -f rawvideo -pix_fmt yuv420p - | steady 1280 720 yuv420p > out.yuv
 */

#include <stdio.h>
#include <stdlib.h>
#include <videostabilizer/stream.h>

/* Places the planes of a packed picture in memory. Returns the bytes of the picture, or 0. */
static size_t place(const VideoStabilizerStreamOptions* o, unsigned char* memory,
                    VideoStabilizerPlanes* planes) {
    size_t bytes = 0;
    const int count = videostabilizer_format_plane(o->format, o->width, o->height, 0, NULL);
    for (int k = 0; k < count; ++k) {
        VideoStabilizerPlaneShape shape = {.size = sizeof shape};
        videostabilizer_format_plane(o->format, o->width, o->height, k, &shape);
        planes->data[k] = memory != NULL ? memory + bytes : NULL;
        planes->stride[k] = (ptrdiff_t)shape.row_bytes;
        bytes += shape.row_bytes * (size_t)shape.rows;
    }
    return bytes;
}

/* Waits for the next steady picture and writes it. Returns what pulling it did. */
static int write_next(VideoStabilizerStream* stream, VideoStabilizerOutput* output, size_t bytes) {
    VideoStabilizerStreamReport report = {.size = sizeof report};
    const int code = videostabilizer_stream_pull_into(stream, output, &report, -1);
    if (code != VIDEOSTABILIZER_OK) return code;
    if (report.scene_start) fprintf(stderr, "scene at %ld\n", (long)output->timestamp);
    return fwrite(output->planes.data[0], 1, bytes, stdout) == bytes ? code
                                                                     : VIDEOSTABILIZER_FAILED;
}

int main(int argc, char** argv) {
    VideoStabilizerStreamOptions options;
    VideoStabilizerStream* stream;
    char reason[200];
    videostabilizer_stream_options_init(&options, sizeof options, VIDEOSTABILIZER_STANDARD);
    options.width = argc > 3 ? atoi(argv[1]) : 0;
    options.height = argc > 3 ? atoi(argv[2]) : 0;
    options.format = argc > 3 ? videostabilizer_format_by_name(argv[3]) : -1;
    if (videostabilizer_stream_open(&options, &stream, reason, sizeof reason) != 0) {
        fprintf(stderr, "usage: steady WIDTH HEIGHT FORMAT (%s)\n", reason);
        return 2;
    }
    VideoStabilizerInput input = {.size = sizeof input};
    VideoStabilizerOutput output = {.size = sizeof output};
    const size_t bytes = place(&options, NULL, &input.planes);
    unsigned char* const memory = malloc(2 * bytes);
    if (memory == NULL) return 1;
    place(&options, memory, &input.planes);
    place(&options, memory + bytes, &output.planes);

    int code = VIDEOSTABILIZER_OK;
    int more = 1;
    while (code == VIDEOSTABILIZER_OK) {
        if (more && fread(memory, 1, bytes, stdin) == bytes) {
            /* Where there is no room, a steady picture is due. */
            while ((code = videostabilizer_stream_push(stream, &input, 0)) == VIDEOSTABILIZER_AGAIN)
                if ((code = write_next(stream, &output, bytes)) != VIDEOSTABILIZER_OK) break;
            ++input.timestamp;
        } else {
            more = 0;
            code = videostabilizer_stream_drain(stream);
            if (code == VIDEOSTABILIZER_OK) code = write_next(stream, &output, bytes);
        }
    }
    if (code < 0) fprintf(stderr, "steady: %s\n", videostabilizer_strerror(code));
    videostabilizer_stream_close(stream);
    free(memory);
    return code == VIDEOSTABILIZER_END ? 0 : 1;
}
