// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include "videostabilizer/videostabilizer.h"

namespace bench {

// The sample clip in memory, planar and packed: short, but longer than the smoothing window. Sizes
// must be even.
struct Clip {
    int width;
    int height;
    std::vector<std::vector<unsigned char>> frames;  // luma, U, V

    Clip(int clip_width, int clip_height, int count);

    // A frame record over the pixels of frame `number` (modulo the length).
    videostabilizer::Frame* frame(int number);
    std::size_t luma_bytes() const;
};

// The analysis parameters of a stabilizer of this size, and its images of two successive frames.
struct Analysis {
    videostabilizer::VideoStabilizer* stabilizer;  // owned; not started
    int width;                                     // of the analysis images
    int height;
    std::vector<unsigned char> prev;
    std::vector<unsigned char> next;

    explicit Analysis(Clip& clip);
    ~Analysis();
    Analysis(const Analysis&) = delete;
    Analysis& operator=(const Analysis&) = delete;

    // The stages one after another, each on the result of the one before.
    void decimate(const Clip& clip, int number, std::vector<unsigned char>& image) const;
    void find_corners();
    void track();
    void match();
    void estimate();
    void smooth();
};

}  // namespace bench
