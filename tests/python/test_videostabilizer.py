# SPDX-License-Identifier: Apache-2.0
"""The Python binding, in an environment that has just its wheel."""

import gc
import os
import itertools
import os
import resource
import subprocess
import threading
import time

import numpy as np
import pytest
import videostabilizer
from videostabilizer import Empty, Error, Full, Stabilizer

WIDTH, HEIGHT, FRAMES = 194, 146, 24
rng = np.random.default_rng(1)
SCENE = np.kron(rng.integers(0, 256, (60, 60)), np.ones((5, 5))).astype(np.uint8)


def view(frame, rows=HEIGHT, columns=WIDTH):
    """A shaking view of the scene."""
    x, y = int(20 + 6 * np.sin(frame * 1.9)), int(20 + 5 * np.cos(frame * 2.3))
    return SCENE[y : y + rows, x : x + columns].copy()


def planes(frame, chroma, dtype, shift=0):
    """Luma and planes of these shapes."""
    parts = [view(frame)] + [view(frame + k, s[0], s[1]) for k, s in enumerate(chroma)]
    return [(p.astype(dtype) << shift) for p in parts]


def run(stabilizer, pictures, **options):
    return list(stabilizer.stream(pictures, **options))


HALF = (HEIGHT // 2, WIDTH // 2)


@pytest.mark.parametrize("copy", [True, False])
@pytest.mark.parametrize(
    "format, chroma, dtype, shift",
    [
        ("gray", [], np.uint8, 0),
        ("gray12le", [], np.uint16, 4),
        ("yuv420p", [HALF, HALF], np.uint8, 0),
        ("nv12", [(HEIGHT // 2, WIDTH)], np.uint8, 0),
        ("yuv420p10le", [HALF, HALF], np.uint16, 2),
    ],
)
def test_planes_in_any_form_give_the_same(format, chroma, dtype, shift, copy):
    frames = [planes(i, chroma, dtype, shift) for i in range(FRAMES)]
    whole = [np.concatenate([p.ravel() for p in f]).reshape(-1, WIDTH) for f in frames]
    padded = [[np.pad(p, ((0, 0), (0, 6)))[:, :-6] for p in f] for f in frames]
    turned = [[np.ascontiguousarray(p[::-1])[::-1] for p in f] for f in frames]
    odd = [[np.repeat(p, 2, axis=1)[:, ::2] for p in f] for f in frames]
    results = []
    for form in (frames, whole, padded, turned, odd, [bytes(w) for w in whole]):
        with Stabilizer(WIDTH, HEIGHT, format, engine="native") as s:
            results.append(run(s, form, timestamps=itertools.count(100), copy=copy))
    for pictures in results:
        assert [p.timestamp for p in pictures] == list(range(100, 100 + FRAMES))
        for mine, first in zip(pictures, results[0]):
            assert np.array_equal(mine.array, first.array)
            assert len(mine.planes) == 1 + len(chroma) and mine.array.dtype == dtype
            joined = np.concatenate([p.ravel() for p in mine.planes])
            assert np.array_equal(joined, mine.array.ravel())
    assert not np.array_equal(results[0][5].planes[0], frames[5][0])
    report = results[0][5].report
    assert report.number == 5 and report.motion.shape == (3, 3) and report.motion_found == "found"


@pytest.mark.parametrize("format, channels", [("rgb24", 3), ("bgr24", 3), ("rgba", 4), ("rgb48le", 3)])
def test_packed_colours(format, channels):
    dtype = np.uint16 if "48" in format else np.uint8
    grey = [view(i) for i in range(FRAMES)]
    with Stabilizer(WIDTH, HEIGHT, format, engine="native") as s:
        steady = run(s, [np.repeat(g[:, :, None].astype(dtype), channels, axis=2) for g in grey])
    with Stabilizer(WIDTH, HEIGHT, "gray16le" if dtype == np.uint16 else "gray", engine="native") as s:
        expected = run(s, [g.astype(dtype) for g in grey])
    for mine, other in zip(steady, expected):
        assert mine.array.shape == (HEIGHT, WIDTH, channels)
        for channel in range(channels):
            assert np.array_equal(mine.array[:, :, channel], other.array)


@pytest.mark.skipif("STEADY" not in os.environ, reason="there is no host in C")
@pytest.mark.parametrize(
    "format, dtype, samples",
    [
        ("gray", np.uint8, 1),
        ("gray12le", np.uint16, 1),
        ("yuv420p", np.uint8, 1.5),
        ("nv12", np.uint8, 1.5),
        ("yuv422p", np.uint8, 2),
        ("yuv444p10le", np.uint16, 3),
        ("rgb24", np.uint8, 3),
    ],
)
def test_equals_a_host_in_c(format, dtype, samples):
    rows = int(HEIGHT * samples)
    pictures = [np.resize(view(i), (rows, WIDTH)).astype(dtype) for i in range(FRAMES)]
    command = [os.environ["STEADY"], str(WIDTH), str(HEIGHT), format]
    given = b"".join(p.tobytes() for p in pictures)
    expected = subprocess.run(command, input=given, capture_output=True, check=True).stdout
    shape = (HEIGHT, WIDTH, 3) if format == "rgb24" else (rows, WIDTH)
    with Stabilizer(WIDTH, HEIGHT, format) as s:
        mine = b"".join(p.array.tobytes() for p in run(s, [p.reshape(shape) for p in pictures]))
    assert mine == expected and mine != given


def test_refuses_with_a_reason():
    for arguments, error in [
        (dict(width=15, height=15), ValueError),
        (dict(width=64, height=64, format="mauve"), ValueError),
        (dict(width=64, height=64, strength="very"), ValueError),
        (dict(width=64, height=64, sigma=-1), ValueError),
        (dict(width=64, height=64, engine="steam"), ValueError),
        (dict(width=64, height=64, colour=1), TypeError),
    ]:
        with pytest.raises(error):
            Stabilizer(**arguments)
    s = Stabilizer(64, 48, "yuv420p")
    for picture, error in [
        (np.zeros((48, 64), np.uint8), ValueError),
        (np.zeros((72, 64), np.uint16), ValueError),
        ([np.zeros((48, 64), np.uint8)] * 3, ValueError),
        ([np.zeros((48, 64), np.uint8)] * 2, ValueError),
        (b"abc", ValueError),
        (7, TypeError),
    ]:
        with pytest.raises(error):
            s.push(picture)
    with pytest.raises(Error):
        s.change("maximum")


def test_waits_flush_and_close():
    s = Stabilizer(WIDTH, HEIGHT, engine="native")
    assert s.latency == 10
    with pytest.raises(Empty):
        s.pull(timeout=0.1)
    with pytest.raises(Full):
        for i in range(100):
            s.push(view(i), copy=i % 2 == 0)
    first = s.pull()
    kept = first.planes[0]
    s.flush()
    again = run(s, [view(i) for i in range(FRAMES)])
    assert np.array_equal(again[0].array, run_fresh()[0].array)
    with pytest.raises(Error):
        s.push(view(0))
    assert s.pull() is None
    s.flush()
    s.change("standard", crop_ratio=0.8)
    waiting = []
    thread = threading.Thread(target=lambda: waiting.append(catch(s.pull)))
    thread.start()
    time.sleep(0.1)
    s.close()
    thread.join()
    assert waiting == [ValueError]
    s.close()
    with pytest.raises(ValueError):
        s.push(view(0))
    del s, first
    gc.collect()
    assert kept.sum() > 0


def run_fresh():
    with Stabilizer(WIDTH, HEIGHT, engine="native") as s:
        return run(s, [view(i) for i in range(FRAMES)])


def catch(function):
    try:
        return function()
    except ValueError as error:
        return type(error)


def test_threads_run_beside_it():
    results = [None, None]

    def work(k):
        results[k] = run_fresh()

    threads = [threading.Thread(target=work, args=(k,)) for k in range(2)]
    [t.start() for t in threads]
    [t.join() for t in threads]
    for a, b in zip(*results):
        assert np.array_equal(a.array, b.array)


def open_and_close(count):
    for i in range(count):
        s = Stabilizer(64, 48, engine="native", threads=1)
        s.push(np.zeros((48, 64), np.uint8), copy=i % 2 == 0)
        if i % 2 == 0:
            s.close()
    gc.collect()
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss


def test_a_thousand_streams_leave_nothing():
    threads = os.listdir("/proc/self/task")
    before = open_and_close(100)
    assert os.listdir("/proc/self/task") == threads
    count = int(os.environ.get("STREAMS", "1000"))
    assert open_and_close(count) - before < 20_000  # KiB; each stream has more than 300


def test_version():
    assert videostabilizer.__version__.count(".") == 2
