#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""steady.py IN OUT: steadies the video of a file, with PyAV. Times are kept; sound is left out."""

import fractions
import sys

import av
import videostabilizer


def main(source, target):
    with av.open(source) as shaky, av.open(target, "w") as steady:
        video = shaky.streams.video[0]
        video.thread_type = "AUTO"
        rate = video.average_rate or fractions.Fraction(30)
        out = steady.add_stream("libx264", rate=rate)
        out.width, out.height, out.pix_fmt = video.width, video.height, "yuv420p"
        out.codec_context.time_base = video.time_base

        times = []  # the last one is of the picture that was decoded last

        def pictures():
            for frame in shaky.decode(video):
                times.append(frame.pts)
                yield frame.to_ndarray(format="yuv420p")

        count = 0
        with videostabilizer.Stabilizer(
            video.width, video.height, "yuv420p", frame_rate=float(rate)
        ) as stabilizer:
            for picture in stabilizer.stream(pictures(), timestamps=iter(lambda: times[-1], None)):
                frame = av.VideoFrame.from_ndarray(picture.array, format="yuv420p")
                frame.pts, frame.time_base = picture.timestamp, video.time_base
                steady.mux(out.encode(frame))
                count += 1
        steady.mux(out.encode(None))
        print(count, "pictures")


if __name__ == "__main__":
    main(*sys.argv[1:3])
