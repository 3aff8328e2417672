#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compares the speed of two builds of stabilize-video side by side.

compare_builds.py NEWER OLDER SHAKY_CLIP [ROUNDS]

Both are programs. They run in turns on the same clips, so that what else the machine does meets both;
which goes first alternates. A row tells, for processor time (user and system) and for the time that
passed, the median of NEWER / OLDER over the rounds, with the interval that it lies in with a
probability of 95 % (bootstrap). Ends with 1 where the whole interval of the processor time is above BAR.
An option that the older program lacks makes its row say so.
"""

import os
import random
import resource
import subprocess
import sys
import tempfile
import time
from statistics import median

BAR = 1.05
RESAMPLES = 2000

# Name, options, bits of the clip.
ROWS = [
    ("default", [], 8),
    ("gentle", ["--strength", "gentle"], 8),
    ("strong", ["--strength", "strong"], 8),
    ("strong, without rolling shutter", ["--strength", "strong", "--rolling-shutter", "off"], 8),
    ("sharp", ["--sampling", "sharp"], 8),
    ("bilinear", ["--sampling", "bilinear"], 8),
    ("10 bits", [], 10),
]


def make_clips(shaky_clip, folder):
    """A clip with 8 bits, and the same with 10."""
    eight = os.path.join(folder, "8.y4m")
    subprocess.run([shaky_clip, "--size", "640x360", "--frames", "150", eight], check=True)
    ten = os.path.join(folder, "10.y4m")
    with open(eight, "rb") as source, open(ten, "wb") as target:
        header = source.readline().decode().split()
        header = [field for field in header if field[0] not in "CX"]
        target.write((" ".join(header) + " C420p10 XYSCSS=420P10\n").encode())
        picture = 640 * 360 * 3 // 2
        # A byte times four, as two bytes.
        wide = [bytes(((4 * level) & 255, level >> 6)) for level in range(256)]
        while source.readline():
            target.write(b"FRAME\n" + b"".join(map(wide.__getitem__, source.read(picture))))
    return {8: eight, 10: ten}


def run(program, options, clip, folder):
    """Seconds of the processors and of the clock, or None where the program refuses."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    done = subprocess.run([program, "--quiet", "--overwrite", *options, clip,
                           os.path.join(folder, "out.y4m")], capture_output=True, check=False)
    passed = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if done.returncode != 0:
        return None
    return (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime, passed)


def interval(ratios):
    draw = random.Random(1)
    medians = sorted(median(draw.choices(ratios, k=len(ratios))) for _ in range(RESAMPLES))
    return medians[RESAMPLES // 40], medians[-RESAMPLES // 40]


def main():
    newer, older, shaky_clip = sys.argv[1:4]
    rounds = int(sys.argv[4]) if len(sys.argv) > 4 else 11
    slower = []
    with tempfile.TemporaryDirectory() as folder:
        clips = make_clips(shaky_clip, folder)
        for name, options, bits in ROWS:
            lacking = [which for which, program in (("newer", newer), ("older", older))
                       if run(program, options, clips[bits], folder) is None]  # and warm now
            if lacking:
                print(f"{name:32} the {' and the '.join(lacking)} build has no such thing")
                continue
            times = {newer: [], older: []}
            for i in range(rounds):
                for program in (newer, older) if i % 2 == 0 else (older, newer):
                    times[program].append(run(program, options, clips[bits], folder))
            text = ""
            for what, title in ((0, "processors"), (1, "clock")):
                ratios = [a[what] / b[what] for a, b in zip(times[newer], times[older])]
                low, high = interval(ratios)
                text += f"  {title} {median(ratios):.3f} ({low:.3f} to {high:.3f})"
                if what == 0 and low > BAR:
                    slower.append(name)
            print(f"{name:32}{text}  medians {median([t[0] for t in times[newer]]):.2f} s and "
                  f"{median([t[0] for t in times[older]]):.2f} s", flush=True)
    print(f"load at the end: {' '.join(f'{load:.1f}' for load in os.getloadavg())}")
    if slower:
        sys.exit(f"surely slower than {BAR:g} times the older build: {', '.join(slower)}")


if __name__ == "__main__":
    main()
