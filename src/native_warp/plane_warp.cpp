// SPDX-License-Identifier: Apache-2.0

#include "native_warp/plane_warp.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "native_warp/sample.h"

namespace videostabilizer {

namespace {

constexpr int MOST_ROWS = 128;  // intermediate rows of a strip
constexpr int SPARE_ROWS = 8;

// Limits of the two passes.
constexpr double SMALLEST_STEP = 0.25;
constexpr double LARGEST_STEP = 2;
constexpr double LARGEST_SLOPE = 0.25;
constexpr double FARTHEST = 1e6;  // samples

// How many rows before their turn rows are fetched into the cache; measured.
constexpr int ROWS_AHEAD = 12;

// Where rows have different transforms, their steps are rounded to this, to have the same tables: at the ends
// of a block that is off by 1/256 sample at most.
constexpr double SHARED_STEP = 1.0 / 1024;
constexpr std::size_t MOST_TABLES = 24;  // kept; more if one picture needs them

double shared(double step) {
    return SHARED_STEP * std::round(step / SHARED_STEP);
}

std::int64_t fixed_point(double position) {
    // To the nearest; half away from 0 like std::llround, which is a call that costs more than all else.
    const double units = position * (std::int64_t{1} << POSITION_BITS);
    return static_cast<std::int64_t>(units < 0 ? units - 0.5 : units + 0.5);
}

bool between(double value, double low, double high) {
    return value >= low && value <= high;  // false for NaN
}

bool two_passes_do_transform(const Affine2& t) {
    return between(t.e, SMALLEST_STEP, LARGEST_STEP) &&
           between(t.a - t.b * t.d / t.e, SMALLEST_STEP, LARGEST_STEP) &&
           between(t.b, -2 * LARGEST_SLOPE, 2 * LARGEST_SLOPE) &&
           between(t.d, -LARGEST_SLOPE, LARGEST_SLOPE) && between(t.c, -FARTHEST, FARTHEST) &&
           between(t.f, -FARTHEST, FARTHEST);
}

// Copies `pixels` pixels from pixel `first` on, clamped to the row.
void copy_clamped(const unsigned char* row, int width, std::size_t pixel_bytes, int first,
                  int pixels, unsigned char* out) {
    for (int i = 0; i < pixels; ++i) {
        const auto pixel = static_cast<std::size_t>(std::clamp(first + i, 0, width - 1));
        std::memcpy(out + static_cast<std::size_t>(i) * pixel_bytes, row + pixel * pixel_bytes,
                    pixel_bytes);
    }
}

// A position that is a number and not farther away than whole numbers can count.
double bounded(double position) {
    return position > -FARTHEST ? std::min(position, FARTHEST) : -FARTHEST;
}

}  // namespace

const ResamplingWeights& ResamplingKernels::for_step(double step) {
    const double level =
        std::clamp((bounded(step) - 1) * STRETCHES, 0.0, static_cast<double>(STRETCHES));
    const long nearest = std::lround(level);
    std::unique_ptr<ResamplingWeights>& kernel = kernels_[static_cast<std::size_t>(nearest)];
    if (kernel == nullptr) {
        kernel = std::make_unique<ResamplingWeights>(resampling_,
                                                     1 + static_cast<double>(nearest) / STRETCHES);
    }
    return *kernel;
}

WarpScratch::WarpScratch() : rows_(static_cast<std::size_t>(MOST_ROWS) * STRIP) {}

// What the tables of an interval are made for.
Affine2 PlaneWarp::interval_middle(std::size_t k) const {
    return map_.at(map_.first_row + (static_cast<double>(k) + 0.5) * map_.rows_apart);
}

bool PlaneWarp::two_passes_do() const {
    const std::vector<Affine2>& transforms = map_.transforms;
    if (!two_passes_do_transform(middle_) ||
        !std::all_of(transforms.begin(), transforms.end(), two_passes_do_transform)) {
        return false;
    }
    // Going down the output must go down the source, by about as much as the transforms say that
    // hold for the rows.
    for (std::size_t k = 0; k + 1 < transforms.size(); ++k) {
        const Affine2& p = transforms[k];
        const Affine2& q = transforms[k + 1];
        const double row = map_.first_row + static_cast<double>(k) * map_.rows_apart;
        if (!two_passes_do_transform(interval_middle(k))) {
            return false;
        }
        for (const double y : {row, row + map_.rows_apart}) {
            for (const double x : {0.0, static_cast<double>(shape_.width)}) {
                const double drift =
                    ((q.d - p.d) * x + (q.e - p.e) * y + q.f - p.f) / map_.rows_apart / p.e;
                if (!between(drift, -0.5, 0.5)) {
                    return false;
                }
            }
        }
    }
    return true;
}

void PlaneWarp::prepare(const PlaneShape& shape, const WarpMap& map, ResamplingKernels& kernels) {
    shape_ = shape;
    map_ = map;
    middle_ = map.at(0.5 * (shape.height - 1));
    two_passes_ = two_passes_do();
    if (!two_passes_) {
        x_kernel_ = &kernels.for_step(std::hypot(middle_.a, middle_.d));
        y_kernel_ = &kernels.for_step(std::hypot(middle_.b, middle_.e));
        return;
    }
    x_kernel_ = &kernels.for_step(middle_.a - middle_.b * middle_.d / middle_.e);
    y_kernel_ = &kernels.for_step(middle_.e);
    make_intervals();
    make_tables();
}

// Two more than there are tables for at most, since the first and the last transform hold for all
// rows before and after them.
void PlaneWarp::make_intervals() {
    constexpr double ENDLESS = std::numeric_limits<double>::infinity();
    const std::vector<Affine2>& transforms = map_.transforms;
    intervals_per_row_ = 1 / map_.rows_apart;
    intervals_.clear();
    double begin = -ENDLESS;
    for (std::size_t k = 0; k <= transforms.size(); ++k) {
        const Affine2& q = transforms[std::min(k, transforms.size() - 1)];
        const Affine2& p = transforms[k == 0 ? 0 : k - 1];
        const double end = k == transforms.size()
                               ? ENDLESS
                               : map_.first_row + static_cast<double>(k) * map_.rows_apart;
        Interval interval{begin, end, 0, true, p, {0, 0, 0, 0, 0, 0}};
        if (k > 0 && k < transforms.size()) {
            const auto element = [&](double Affine2::*e) {
                interval.per_row.*e = (q.*e - p.*e) / map_.rows_apart;
                interval.from.*e = p.*e - begin * interval.per_row.*e;
            };
            for (double Affine2::*const e :
                 {&Affine2::a, &Affine2::b, &Affine2::c, &Affine2::d, &Affine2::e, &Affine2::f}) {
                element(e);
            }
        }
        interval.is_linear = !(std::abs(interval.per_row.e) > 0);
        intervals_.push_back(interval);
        begin = end;
    }
}

void PlaneWarp::make_tables() {
    const double strip_width = static_cast<double>(STRIP) / shape_.format.channels;
    double steepest = 0;
    for (const Affine2& t : map_.transforms) {
        steepest = std::max(steepest, std::abs(t.d));
    }
    int most = 0;
    table_count_ = 0;
    const std::size_t count = std::max<std::size_t>(1, map_.transforms.size() - 1);
    for (std::size_t k = 0; k < count; ++k) {
        const Affine2 t = interval_middle(k);
        const double step = t.a - t.b * t.d / t.e;
        const std::size_t table =
            count == 1 ? make_table(step, t.d) : make_table(shared(step), shared(t.d));
        intervals_[k + 1].table = table;
        const DownTable& down = tables_[table].down;
        most = std::max(
            most, down.end - down.begin + static_cast<int>(steepest * strip_width) + SPARE_ROWS);
    }
    intervals_.back().table = intervals_[intervals_.size() - 2].table;
    int ring = 16;
    while (ring < most) {
        ring *= 2;
    }
    row_mask_ = ring - 1;
}

// The index of the tables of a step and a slope. Those of earlier frames are kept behind the ones in use, as
// long as there is room: rows of one picture, and pictures one after the other, need the same few.
std::size_t PlaneWarp::make_table(double step, double slope) {
    const auto is_it = [&](const Tables& t) {
        return !(t.step < step || t.step > step || t.slope < slope || t.slope > slope) &&
               t.kernels[0] == x_kernel_ && t.kernels[1] == y_kernel_ &&
               same_format(t.format, shape_.format);
    };
    const auto used = static_cast<std::ptrdiff_t>(table_count_);
    const auto found = std::find_if(tables_.begin(), tables_.end(), is_it);
    if (found != tables_.end() && found < tables_.begin() + used) {
        return static_cast<std::size_t>(found - tables_.begin());
    }
    if (found != tables_.end()) {
        std::swap(*found, tables_[table_count_]);
        return table_count_++;
    }
    if (tables_.size() <= table_count_ ||
        (map_.transforms.size() > 1 && tables_.size() < MOST_TABLES)) {
        tables_.emplace_back();
        std::swap(tables_.back(), tables_[table_count_]);
    }
    Tables& tables = tables_[table_count_];
    tables.step = step;
    tables.slope = slope;
    tables.kernels = {x_kernel_, y_kernel_};
    tables.format = shape_.format;
    tables.across.make(shape_.format, *x_kernel_, step);
    tables.down.make(shape_.format, *y_kernel_, slope);
    return table_count_++;
}

const PlaneWarp::Interval& PlaneWarp::interval_at(double row) const {
    const double place = (row - map_.first_row) * intervals_per_row_ + 1;
    return intervals_[static_cast<std::size_t>(
        std::clamp(place, 0.0, static_cast<double>(intervals_.size() - 1)))];
}

// The source row that column x of an output row shows.
double PlaneWarp::Interval::source_row(double x, double y) const {
    return (from.d + per_row.d * y) * x + (from.e + per_row.e * y) * y + from.f + per_row.f * y;
}

double PlaneWarp::Interval::source_column(double x, double y) const {
    return (from.a + per_row.a * y) * x + (from.b + per_row.b * y) * y + from.c + per_row.c * y;
}

// Source rows from one column of an output row to the next.
double PlaneWarp::Interval::across(double y) const {
    return from.d + per_row.d * y;
}

// Source rows from one output row to the next. two_passes_do keeps it from 0 within the picture.
double PlaneWarp::Interval::going_down(double x, double y) const {
    return std::max(per_row.d * x + from.e + 2 * per_row.e * y + per_row.f, SMALLEST_STEP / 4);
}

// Newton's method, from a row that is near.
void PlaneWarp::find_crossing(double x, double source_row, Crossing& crossing) const {
    constexpr int MOST_STEPS = 6;
    // Rows. The next step ends nearer by as much as transforms of neighbouring intervals differ: a thousandth.
    constexpr double NEAR_ENOUGH = 0.05;
    double change = 1;
    for (int i = 0; i < MOST_STEPS && std::abs(change) > NEAR_ENOUGH; ++i) {
        const Interval& interval = *crossing.interval;
        const double y = crossing.row;
        change = (source_row - interval.source_row(x, y)) / interval.going_down(x, y);
        crossing.row += change;
        if (!interval.has(crossing.row)) {
            crossing.interval = &interval_at(crossing.row);
        } else if (interval.is_linear) {
            return;
        }
    }
}

double PlaneWarp::middle_of_first_block(int strip) const {
    return strip * STRIP_BLOCKS * block_width() + 0.5 * (block_width() - 1);
}

std::int64_t PlaneWarp::place_evenly(int source_row, int strip, std::int64_t& step) const {
    const double x = middle_of_first_block(strip);
    const double y = (source_row - middle_.d * x - middle_.f) / middle_.e;
    const double only_step = tables_.front().step;
    step = fixed_point(only_step * block_width());
    return fixed_point(middle_.a * x + middle_.b * y + middle_.c -
                       only_step * 0.5 * (block_width() - 1));
}

void PlaneWarp::place_across(int source_row, int strip, int blocks, Placement* placements) const {
    const double to_middle = 0.5 * (block_width() - 1);
    const double x = middle_of_first_block(strip);
    const double top = (source_row - middle_.d * x - middle_.f) / middle_.e;
    Crossing left{&interval_at(top), top};
    find_crossing(x, source_row, left);
    const double width = (STRIP_BLOCKS - 1) * block_width();
    Crossing right = left;
    right.row -= width * left.interval->across(left.row) / left.interval->going_down(x, left.row);
    find_crossing(x + width, source_row, right);
    const auto column = [&](const Crossing& at, double middle) {
        return at.interval->source_column(middle, at.row) -
               tables_[at.interval->table].step * to_middle;
    };
    if (left.interval == right.interval) {
        const std::size_t table = left.interval->table;
        const double first = column(left, x);
        const std::int64_t step =
            fixed_point((column(right, x + width) - first) / (STRIP_BLOCKS - 1));
        std::int64_t position = fixed_point(first);
        for (int block = 0; block < blocks; ++block, position += step) {
            placements[block] = {table, position};
        }
        return;
    }
    const double slope = (right.row - left.row) / (STRIP_BLOCKS - 1);
    for (int block = 0; block < blocks; ++block) {
        const double middle = x + block * block_width();
        const double near = left.row + block * slope;
        Crossing crossing{&interval_at(near), near};
        find_crossing(middle, source_row, crossing);
        placements[block] = {crossing.interval->table, fixed_point(column(crossing, middle))};
    }
}

PlaneWarp::Placement PlaneWarp::place_down(int row, int strip, std::int64_t& step) const {
    const double to_middle = 0.5 * (block_width() - 1);
    const double x = middle_of_first_block(strip);
    if (evenly_spaced()) {
        step = fixed_point(middle_.d * block_width());
        return {0, fixed_point(middle_.d * x + middle_.e * row + middle_.f -
                               tables_[0].slope * to_middle)};
    }
    const Interval& interval = interval_at(row);
    step = fixed_point(interval.across(row) * block_width());
    return {interval.table,
            fixed_point(interval.source_row(x, row) - tables_[interval.table].slope * to_middle)};
}

// A strip of the output while it is computed from top to bottom. Runs are kept from row to row, since
// little of them changes.
class PlaneWarp::Strip {
  public:
    Strip(const PlaneWarp& warp, const WarpVariant& variant, const SourcePlane& source,
          WarpScratch& scratch, int strip)
        : warp_(warp),
          variant_(variant),
          source_(source),
          scratch_(scratch),
          strip_(strip),
          samples_(std::min(STRIP, samples(warp.shape_) - strip * STRIP)),
          blocks_((samples_ + BLOCK - 1) / BLOCK) {
        across_.format = down_.format = warp.shape_.format;
        down_.row_mask = warp.row_mask_;
        down_.row_pitch = STRIP;
        use_across_table(0);
        use_down_table(0);
    }

    static int samples(const PlaneShape& shape) { return shape.width * shape.format.channels; }

    void make_row(const TargetPlane& target, int y) {
        const Placement place = warp_.place_down(y, strip_, down_.step);
        use_down_table(place.table);
        const int left_row = block_position(place.position).sample;
        const int right_row = block_position(place.position + down_.step * (blocks_ - 1)).sample;
        fetch_target_row(target, y + ROWS_AHEAD);
        make_intermediate_rows(std::min(left_row, right_row) + down_begin_,
                               std::max(left_row, right_row) + down_end_);

        const int bytes = down_.format.bytes;
        down_.rows = scratch_.rows();
        down_.position = place.position;
        down_.blocks = samples_ / BLOCK;
        down_.out =
            target.data + y * target.stride + static_cast<std::ptrdiff_t>(strip_) * STRIP * bytes;
        variant_.down(down_);
        if (down_.blocks < blocks_) {
            make_last_block();
        }
    }

  private:
    // The rest of a row, of fewer samples than a block has.
    void make_last_block() {
        unsigned char last[2 * BLOCK] = {};
        const int whole = down_.blocks;
        unsigned char* const out =
            down_.out + static_cast<std::ptrdiff_t>(whole) * BLOCK * down_.format.bytes;
        down_.rows += static_cast<std::ptrdiff_t>(whole) * BLOCK;
        down_.position += down_.step * whole;
        down_.blocks = 1;
        down_.out = last;
        variant_.down(down_);
        std::memcpy(out, last,
                    static_cast<std::size_t>(samples_ % BLOCK) *
                        static_cast<std::size_t>(down_.format.bytes));
    }

    void use_down_table(std::size_t index) {
        const DownTable& table = warp_.tables_[index].down;
        down_.phases = table.phases;
        down_.weights = table.weights.data();
        down_.slopes = table.slopes.data();
        down_begin_ = table.begin;
        down_end_ = table.end;
    }

    void use_across_table(std::size_t index) {
        const AcrossTable& table = warp_.tables_[index].across;
        across_.pairs = table.pairs;
        across_.phases = table.phases;
        across_.weights = table.weights.data();
        across_.slopes = table.slopes.empty() ? nullptr : table.slopes.data();
        across_begin_ = table.begin;
        across_end_ = table.end;
    }

    // Makes those of the intermediate rows begin..end - 1 that are not there yet.
    void make_intermediate_rows(int begin, int end) {
        if (begin < rows_begin_ || begin > rows_end_) {
            rows_begin_ = rows_end_ = begin;
        }
        for (; rows_end_ < end; ++rows_end_) {
            make_intermediate_row(rows_end_);
        }
        rows_begin_ = std::max(rows_begin_, rows_end_ - (warp_.row_mask_ + 1));
    }

    // Rows of a strip are too short, and too far apart, for processors to foresee them. Inlined, since
    // compilers drop calls of functions that do nothing but this.
    [[gnu::always_inline]] void fetch_source_row(int row, std::int64_t first_position,
                                                 std::int64_t last_position) const {
        if (row < 0 || row >= warp_.shape_.height) {
            return;
        }
        const SampleFormat& format = across_.format;
        const int first = block_position(first_position).sample * format.channels + across_begin_;
        const int end = block_position(last_position).sample * format.channels + across_end_;
        const unsigned char* const data = source_.data + row * source_.stride;
        fetch<0>(data, std::max(first, 0) * format.bytes,
                 std::min(end, samples(warp_.shape_)) * format.bytes);
    }

    [[gnu::always_inline]] void fetch_target_row(const TargetPlane& target, int y) const {
        if (y < warp_.shape_.height) {
            const int first = strip_ * STRIP;
            fetch<1>(target.data + y * target.stride, first * down_.format.bytes,
                     (first + samples_) * down_.format.bytes);
        }
    }

    template <int TO_WRITE>
    [[gnu::always_inline]] static void fetch(const unsigned char* row, int first_byte, int end) {
        constexpr int CACHE_LINE = 64;
        for (int byte = first_byte; byte < end; byte += CACHE_LINE) {
            __builtin_prefetch(row + byte, TO_WRITE);
        }
    }

    void make_intermediate_row(int row) {
        across_.row = source_.data + std::clamp(row, 0, warp_.shape_.height - 1) * source_.stride;
        std::int16_t* const out =
            scratch_.rows() + static_cast<std::ptrdiff_t>(row & warp_.row_mask_) * STRIP;
        std::int64_t positions[STRIP_BLOCKS];
        if (warp_.evenly_spaced()) {
            std::int64_t step = 0;
            positions[0] = warp_.place_evenly(row, strip_, step);
            for (int block = 1; block < blocks_; ++block) {
                positions[block] = positions[block - 1] + step;
            }
            fetch_source_row(row + ROWS_AHEAD, positions[0], positions[blocks_ - 1]);
            if (is_inside(positions[0]) && is_inside(positions[blocks_ - 1])) {
                filter_across(positions, blocks_, out);
            } else {
                make_blocks(positions, blocks_, out);
            }
            return;
        }
        Placement placements[STRIP_BLOCKS];
        warp_.place_across(row, strip_, blocks_, placements);
        fetch_source_row(row + ROWS_AHEAD, placements[0].position,
                         placements[blocks_ - 1].position);
        for (int begin = 0, end = 0; begin < blocks_; begin = end) {
            const std::size_t table = placements[begin].table;
            for (; end < blocks_ && placements[end].table == table; ++end) {
                positions[end] = placements[end].position;
            }
            use_across_table(table);
            make_blocks(positions + begin, end - begin,
                        out + static_cast<std::ptrdiff_t>(begin) * BLOCK);
        }
    }

    void filter_across(const std::int64_t* positions, int blocks, std::int16_t* out) {
        across_.positions = positions;
        across_.blocks = blocks;
        across_.out = out;
        variant_.across(across_);
    }

    // Whether a block reads nothing beyond the row.
    bool is_inside(std::int64_t position) const {
        const int sample = block_position(position).sample * across_.format.channels;
        return sample + across_begin_ >= 0 && sample + across_end_ <= samples(warp_.shape_);
    }

    void make_blocks(const std::int64_t* positions, int blocks, std::int16_t* out) {
        for (int begin = 0; begin < blocks; ++begin) {
            int end = begin;
            while (end < blocks && is_inside(positions[end])) {
                ++end;
            }
            filter_across(positions + begin, end - begin,
                          out + static_cast<std::ptrdiff_t>(begin) * BLOCK);
            if (end < blocks) {
                make_edge_block(positions[end], out + static_cast<std::ptrdiff_t>(end) * BLOCK);
            }
            begin = end;
        }
    }

    // A block that reads beyond the row, from a copy in which the row's ends repeat.
    void make_edge_block(std::int64_t position, std::int16_t* out) {
        const SampleFormat& format = across_.format;
        const int first_pixel = block_position(position).sample + across_begin_ / format.channels;
        const int pixels = (across_end_ - across_begin_ + format.channels - 1) / format.channels;
        const unsigned char* const row = across_.row;
        copy_clamped(
            row, warp_.shape_.width,
            static_cast<std::size_t>(format.bytes) * static_cast<std::size_t>(format.channels),
            first_pixel, pixels, scratch_.window());
        position -= static_cast<std::int64_t>(first_pixel) * (std::int64_t{1} << POSITION_BITS);
        across_.row = scratch_.window();
        filter_across(&position, 1, out);
        across_.row = row;
    }

    const PlaneWarp& warp_;
    const WarpVariant& variant_;
    const SourcePlane& source_;
    WarpScratch& scratch_;
    int strip_;
    int samples_;
    int blocks_;  // the last one may be filled up
    AcrossRun across_{};
    DownRun down_{};
    int across_begin_ = 0;  // of the tables in use
    int across_end_ = 0;
    int down_begin_ = 0;
    int down_end_ = 0;
    int rows_begin_ = 0;  // the intermediate rows that are there
    int rows_end_ = 0;
};

void PlaneWarp::warp_row_directly(const SourcePlane& source, const TargetPlane& target, int row,
                                  int first_pixel, int last_pixel) const {
    const SampleFormat& format = shape_.format;
    const Affine2 t = map_.at(row);
    unsigned char* const out = target.data + row * target.stride;
    for (int x = first_pixel; x < last_pixel; ++x) {
        const double source_x = bounded(t.a * x + t.b * row + t.c);
        const double source_y = bounded(t.d * x + t.e * row + t.f);
        const int column = static_cast<int>(std::floor(source_x)) - (x_kernel_->taps() / 2 - 1);
        const int line = static_cast<int>(std::floor(source_y)) - (y_kernel_->taps() / 2 - 1);
        const std::int16_t* const x_weights = x_kernel_->at(source_x - std::floor(source_x));
        const std::int16_t* const y_weights = y_kernel_->at(source_y - std::floor(source_y));
        for (int channel = 0; channel < format.channels; ++channel) {
            std::int64_t sum = std::int64_t{1} << (2 * WEIGHT_BITS - 1);
            for (int i = 0; i < y_kernel_->taps(); ++i) {
                const unsigned char* const from =
                    source.data + std::clamp(line + i, 0, shape_.height - 1) * source.stride;
                std::int64_t across = 0;
                for (int k = 0; k < x_kernel_->taps(); ++k) {
                    const int pixel = std::clamp(column + k, 0, shape_.width - 1);
                    across +=
                        x_weights[k] * load_sample(from, pixel * format.channels + channel, format);
                }
                sum += y_weights[i] * across;
            }
            store_sample(out, x * format.channels + channel, sum >> (2 * WEIGHT_BITS), format);
        }
    }
}

int PlaneWarp::strips() const {
    return (Strip::samples(shape_) + STRIP - 1) / STRIP;
}

void PlaneWarp::warp_strip(const WarpVariant& variant, const SourcePlane& source,
                           const TargetPlane& target, int strip, int first, int last,
                           WarpScratch& scratch) const {
    const int sample = strip * STRIP;
    if (two_passes_) {
        Strip rows(*this, variant, source, scratch, strip);
        for (int y = first; y < last; ++y) {
            rows.make_row(target, y);
        }
        return;
    }
    const int end = std::min(sample + STRIP, Strip::samples(shape_));
    for (int y = first; y < last; ++y) {
        warp_row_directly(source, target, y, sample / shape_.format.channels,
                          end / shape_.format.channels);
    }
}

void PlaneWarp::warp_rows(const WarpVariant& variant, const SourcePlane& source,
                          const TargetPlane& target, int first, int last,
                          WarpScratch& scratch) const {
    for (int strip = 0; strip < strips(); ++strip) {
        warp_strip(variant, source, target, strip, first, last, scratch);
    }
}

}  // namespace videostabilizer
