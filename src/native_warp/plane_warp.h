// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "native_warp/block_filters.h"
#include "native_warp/block_tables.h"
#include "native_warp/resampling_kernel.h"
#include "native_warp/warp_map.h"

namespace videostabilizer {

struct PlaneShape {
    int width;   // pixels of the plane, of `format.channels` samples each; 1..32768
    int height;  // rows; 1..32768
    SampleFormat format;
};

// The caller's memory; the bytes between rows are neither read nor written.
struct SourcePlane {
    const unsigned char* data;  // first row
    std::ptrdiff_t stride;      // bytes; any
};
struct TargetPlane {
    unsigned char* data;
    std::ptrdiff_t stride;  // bytes; any
};

// The kernels of one resampling method for all stretches, made when first needed.
// Threads: owner only.
class ResamplingKernels {
  public:
    explicit ResamplingKernels(Resampling resampling) : resampling_(resampling) {}

    // The kernel for steps of `step` source samples per output sample: stretched for steps from 1 to
    // 2, for larger ones as for 2. Valid as long as this. Throws std::bad_alloc.
    const ResamplingWeights& for_step(double step);

  private:
    Resampling resampling_;
    std::array<std::unique_ptr<ResamplingWeights>, STRETCHES + 1> kernels_;
};

// Memory that a thread needs while it warps.
// Threads: owner only.
class WarpScratch {
  public:
    WarpScratch();

    std::int16_t* rows() { return rows_.data(); }
    unsigned char* window() { return window_.data(); }

  private:
    std::vector<std::int16_t> rows_;
    std::array<unsigned char, 256> window_{};
};

// The plane is computed in strips, whose intermediate rows fit the first-level cache.
constexpr int STRIP_BLOCKS = 16;
constexpr int STRIP = STRIP_BLOCKS * BLOCK;  // samples

// Warps one plane, in two passes: along source rows, with the rows of the result where the output
// needs them, and then across them (E. Catmull, A. R. Smith, "3-D transformations of images in
// scanline order", SIGGRAPH 1980). Weights of both passes have 14 bits. Positions are rounded to
// 1/64 sample for the first of 16 samples and, from there, to 1/1024. Positions outside of the source
// show its nearest sample. Transforms that the two passes cannot do (turns beyond 14 degrees,
// reductions to less than half the size) are resampled sample by sample, slowly.
class PlaneWarp {
  public:
    // Prepares for a frame. map: of the plane's samples. kernels: must outlive the warp.
    // Throws std::bad_alloc. Threads: owner only.
    void prepare(const PlaneShape& shape, const WarpMap& map, ResamplingKernels& kernels);

    // The strips that the output is divided into, from left to right, and computes rows
    // first..last - 1 of one, whatever the other rows are. The planes must not overlap.
    // Threads: thread-safe, each with scratch memory of its own, while nobody prepares.
    int strips() const;
    void warp_strip(const WarpVariant& variant, const SourcePlane& source,
                    const TargetPlane& target, int strip, int first, int last,
                    WarpScratch& scratch) const;

    // All strips.
    void warp_rows(const WarpVariant& variant, const SourcePlane& source, const TargetPlane& target,
                   int first, int last, WarpScratch& scratch) const;

    // The two passes as prepared, for engines that compute them elsewhere. Positions are those of
    // block_position. Threads: as warp_strip.

    // Whether two passes do; nothing below may be called otherwise.
    bool two_passes() const { return two_passes_; }

    struct Tables {
        double step = 0;   // see AcrossTable::make
        double slope = 0;  // see DownTable::make
        AcrossTable across;
        DownTable down;
        // What they were made for.
        std::array<const ResamplingWeights*, 2> kernels{};
        SampleFormat format;
    };
    // One for each interval between two transforms, or for several that hardly differ; those in use come
    // first.
    std::size_t table_count() const { return table_count_; }
    const Tables& table(std::size_t index) const { return tables_[index]; }

    // A block of an intermediate row, or the first of those of an output row.
    struct Placement {
        std::size_t table;
        std::int64_t position;
    };

    // The first pass: where the first `blocks` blocks of a strip begin in a row of the source, which
    // may be one beyond its ends. For several transforms.
    void place_across(int source_row, int strip, int blocks, Placement* placements) const;

    // With one transform they are equally far apart in all rows, and have table 0: where the first
    // begins, and how far the next ones are from it.
    bool evenly_spaced() const { return map_.transforms.size() == 1; }
    std::int64_t place_evenly(int source_row, int strip, std::int64_t& step) const;

    // The second pass: at which source row the first block of a strip begins in a row of the output, and
    // how far the next ones are from it.
    Placement place_down(int row, int strip, std::int64_t& step) const;

  private:
    class Strip;

    Affine2 interval_middle(std::size_t k) const;
    bool two_passes_do() const;
    // Rows of the output where the transform is `from` + row * `per_row`.
    struct Interval {
        double begin;
        double end;
        std::size_t table;
        bool is_linear;  // source rows are linear in output rows
        Affine2 from;
        Affine2 per_row;

        bool has(double row) const { return row >= begin && row < end; }
        double source_row(double x, double y) const;
        double source_column(double x, double y) const;
        double across(double y) const;
        double going_down(double x, double y) const;
    };
    // Where a column shows a row of the source.
    struct Crossing {
        const Interval* interval;
        double row;  // of the output
    };

    void make_tables();
    std::size_t make_table(double step, double slope);
    void make_intervals();
    const Interval& interval_at(double row) const;
    void find_crossing(double x, double source_row, Crossing& crossing) const;
    double block_width() const { return static_cast<double>(BLOCK) / shape_.format.channels; }
    double middle_of_first_block(int strip) const;
    void warp_row_directly(const SourcePlane& source, const TargetPlane& target, int row,
                           int first_pixel, int last_pixel) const;

    PlaneShape shape_{};
    WarpMap map_;
    Affine2 middle_;
    bool two_passes_ = false;
    int row_mask_ = 0;
    std::vector<Tables> tables_;
    std::size_t table_count_ = 0;
    std::vector<Interval> intervals_;  // between two transforms, with the rows before and after all
    double intervals_per_row_ = 1;
    const ResamplingWeights* x_kernel_ = nullptr;
    const ResamplingWeights* y_kernel_ = nullptr;
};

}  // namespace videostabilizer
