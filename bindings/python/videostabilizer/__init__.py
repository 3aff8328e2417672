# SPDX-License-Identifier: Apache-2.0
"""Takes the shake out of video: shaky pictures in, steady pictures out.

    with videostabilizer.Stabilizer(640, 360, "yuv420p") as stabilizer:
        for steady in stabilizer.stream(pictures):
            show(steady.array)

Pictures are NumPy arrays, or anything else with the buffer protocol. Each comes out in the order in
which it went in, once `latency` later ones are in, or at the end.
"""

from ._native import Empty, Error, Full, Picture, Report, Stabilizer as _Stabilizer, __version__

__all__ = ["Empty", "Error", "Full", "Picture", "Report", "Stabilizer", "__version__"]


class Stabilizer(_Stabilizer):
    """A stream of pictures of one size and format.

    width, height: pixels, from 16 on.
    format: as FFmpeg names it: gray, yuv420p, yuv422p, yuv444p, yuv411p, yuva420p, nv12, nv21, p010le,
        rgb24, bgr24, rgba, bgra, rgb48le ...; with the suffixes 9le to 16le for more bits. Packed RGB is
        separated into planes on the way in and interleaved on the way out, on the calling thread.
    strength: gentle, standard, strong or maximum.
    Further options, by name: frame_rate, look_ahead, sigma, crop_ratio, whole_shift, edge_guard,
        repair_motions, scene_cuts, engine, sampling, threads, auto_crop, crop_least, crop_most, shutter, readout,
        siting.

    All methods may be called from any thread; they let other threads of Python run meanwhile.
    Raises ValueError for what is refused, MemoryError, and Error for all else.
    """

    def push(self, picture, timestamp=None, copy=True, timeout=0.0):
        """Gives a picture to the stream.

        picture: uint8, beyond 8 bits uint16 (little endian). One of
            an array (height, width) of gray, (height, width, 3 or 4) of packed RGB, with any strides;
            a sequence of arrays, one for each plane, with any row strides; pairs of chroma as
            (rows, columns, 2) or (rows, 2 * columns);
            an array or buffer with all planes one after the other: yuv420p and nv12 as
            (height * 3 / 2, width).
        timestamp: an integer that comes back with the steady picture; one more than the last one's.
        copy: False borrows the memory, which must not change until the steady picture is out. Arrays
            whose rows are not whole are copied all the same, and so is packed RGB.
        timeout: seconds to wait for room; None: without end, which only makes sense where another
            thread pulls. Raises Full after it.
        """
        super().push(picture, timestamp, copy, timeout)

    def pull(self, timeout=None):
        """Takes the next steady Picture, or None after the last one of a drained stream.

        timeout: seconds to wait for one; None: without end. Raises Empty after it.
        """
        return super().pull(timeout)

    def stream(self, pictures, timestamps=None, copy=True):
        """Steadies an iterable of pictures: yields a Picture for each, in order.

        timestamps: an iterable of as many integers. The stream is drained at the end; flush it to use
        it again.
        """
        times = iter(timestamps) if timestamps is not None else None
        for picture in pictures:
            timestamp = next(times) if times is not None else None
            while not self._try_push(picture, timestamp, copy, 0.0):
                yield self.pull()
            try:
                while True:
                    yield self.pull(0.0)
            except Empty:
                pass
        self.drain()
        while (steady := self.pull()) is not None:
            yield steady

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()
