// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <videostabilizer/stabilizer_options.h>

#include <cstdint>
#include <string>
#include <vector>

#include "apps/stabilize_video/pictures/picture_stream.h"
#include "apps/stabilize_video/results/path_follower.h"
#include "common/synthetic/shake_metrics.h"
#include "common/video_io/byte_io.h"

namespace apps {

// Statistics of a stream, gathered frame by frame in constant memory.
//
// Shake is the root mean square of the second difference of the path of the picture centre, pixels. It
// is NaN unless most of the motions were found: the others are made up.
class ShakeReport {
  public:
    void add(const FollowedFrame& point) noexcept;

    double mean_track_ratio() const;  // of the motions found, 0 to 1; 0 if there is none
    std::int64_t failed_motions() const { return failed_; }
    bool is_measured() const;                          // whether there is a path to speak of
    double shake_before() const;                       // pixels
    double shake_after() const;                        // pixels
    double residual_db() const;                        // shake_after relative to shake_before
    std::string shake_text() const;                    // for users
    std::string lost_note() const;                     // on motions not found; "" if they are few
    std::int64_t guarded() const { return guarded_; }  // frames limited by the edge guard
    double mean_granted() const;  // share of the correction in these frames; 1 if none
    std::int64_t scene_starts() const { return scene_starts_; }
    std::int64_t repaired() const { return repaired_; }
    double mean_crop() const { return frames_ > 0 ? crops_ / static_cast<double>(frames_) : 1; }
    double least_crop() const { return least_crop_; }
    double most_crop() const { return frames_ > 0 ? most_crop_ : 1; }
    // The rolling shutter as it was known at the end.
    const videostabilizer::VideoStabilizerReport& last() const { return last_; }
    std::int64_t unbent() const { return unbent_; }  // frames whose lines were moved

  private:
    struct Track {
        double x[2] = {0, 0};  // of the last two frames
        double y[2] = {0, 0};
        double squares = 0;
        void add(const CameraView& view, std::int64_t frames);
    };
    double rms(const Track& track) const;

    std::int64_t frames_ = 0;
    std::int64_t motions_ = 0;
    std::int64_t failed_ = 0;
    double track_ratios_ = 0;
    std::int64_t guarded_ = 0;
    double granted_ = 0;
    std::int64_t scene_starts_ = 0;
    std::int64_t repaired_ = 0;
    double crops_ = 0;       // sum
    double least_crop_ = 1;  // part of the width and height that is shown
    double most_crop_ = 0;
    std::int64_t unbent_ = 0;
    videostabilizer::VideoStabilizerReport last_{};
    Track shaky_;
    Track steady_;
};

// The whole path, 48 bytes per frame, for what constant memory cannot measure.
class PathRecord {
  public:
    void add(const FollowedFrame& point);

    // Reduction of the shake, see shake_metrics.h; NaN for short streams.
    synthetic::Shake reduction(double frames_per_second) const;

  private:
    std::vector<synthetic::PathPoint> shaky_;
    std::vector<synthetic::PathPoint> steady_;
};

// Where the time of the reading and the writing thread goes, seconds.
struct StreamSeconds {
    double reading = 0;  // and decoding, on the reading thread
    double pushing = 0;  // waiting for the stabilizer to take a frame
    double popping = 0;  // waiting for the stabilizer to return one, on the writing thread
    double writing = 0;  // and encoding
    double total = 0;
};

// What else the figures of a job include.
struct JobFacts {
    std::string input;
    std::string output;
    std::string strength;
    const PictureFormat& format;
    const videostabilizer::VideoStabilizerOptions& options;  // as the stabilizer uses them
    const Notes& notes;
    std::int64_t frames;
    StreamSeconds seconds;
    std::string damage;  // "" for an intact input
};

// Writes everything as a JSON object. Throws OutputError.
void write_json(video_io::ByteSink& sink, const ShakeReport& report, const PathRecord& path,
                const JobFacts& facts);

}  // namespace apps
