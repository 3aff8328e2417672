#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/byte_io.h"
#include "apps/shake_metrics.h"
#include "apps/stabilize_video/path_follower.h"
#include "apps/stabilize_video/stabilize_stream.h"
#include "apps/stabilize_video/video_io.h"

namespace apps {

// Gathers how well it went, frame by frame.
//
// Shake is the change of the camera's speed from frame to frame: the second difference of the path
// of the picture centre, in pixels, as root mean square over the stream.
class ShakeReport {
  public:
    // with_path  keep the whole path (48 bytes a frame), for reduction(); else memory is constant
    explicit ShakeReport(bool with_path) : with_path_(with_path) {}

    void add(const FollowedFrame& point);

    double mean_track_ratio() const;  // of the motions found, 0 to 1; 0 if there is none
    std::int64_t failed_motions() const { return failed_; }
    double shake_before() const;  // pixels
    double shake_after() const;   // pixels
    double residual_db() const;   // of what is left; negative where it is steadier
    // By how much less the steady path shakes, see shake_metrics.h; NaN for short streams.
    Shake reduction(double frames_per_second) const;
    std::int64_t guarded() const { return guarded_; }  // frames that the edge guard held back
    double mean_granted() const;  // part of the correction made in these; 1 if none
    std::int64_t scene_starts() const { return scene_starts_; }
    std::int64_t repaired() const { return repaired_; }

  private:
    struct Track {
        double x[2] = {0, 0};  // of the last two frames
        double y[2] = {0, 0};
        double squares = 0;
        void add(const CameraView& view, std::int64_t frames);
    };
    double rms(const Track& track) const;

    bool with_path_;
    std::vector<PathPoint> shaky_path_;
    std::vector<PathPoint> steady_path_;
    std::int64_t frames_ = 0;
    std::int64_t motions_ = 0;
    std::int64_t failed_ = 0;
    double track_ratios_ = 0;
    std::int64_t guarded_ = 0;
    double granted_ = 0;
    std::int64_t scene_starts_ = 0;
    std::int64_t repaired_ = 0;
    Track shaky_;
    Track steady_;
};

// What else is told about a job.
struct JobFacts {
    std::string input;
    std::string output;
    std::string strength;
    const PictureFormat& format;
    const videostabilizer::VideoStabilizerOptions& options;
    const StreamResult& result;
    const Notes& notes;
    std::string damage;  // "" for an input that is whole
};

// Writes both as a JSON object. Throws OutputError.
void write_json(ByteSink& sink, const ShakeReport& report, const JobFacts& facts);

}  // namespace apps
