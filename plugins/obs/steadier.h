// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <obs-module.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "settings.h"
#include "stream_keeper.h"

namespace obs_videostabilizer {

enum class State {
    WAITING,     // no picture has come yet
    STEADY,      // or about to be
    FORMAT,      // pictures pass: the format is unknown, or they are too small
    INTERLACED,  // pictures pass: OBS is to deinterlace them
    REFUSED      // pictures pass: `reason`
};

struct Status {
    State state = State::WAITING;
    std::string reason;
    std::int64_t interval = 0;  // nanoseconds between pictures; 0: not known
    std::int64_t pictures = 0;  // that came in
    std::int64_t lost = 0;      // those of them that were not steady in time
    bool sound_follows = true;  // OBS shifts the sound of the source along with its pictures
};

// Pictures between one that comes in and the same one that goes out.
int delay_in_pictures(const Settings& settings);

// Steadies the frames of a source. The frames that are inside are OBS's own: a steady picture is written
// over the shaky one, so that times, colours and all else stay with it.
//
// A frame goes out for each that comes in. The one that is due has had the time of a picture to become
// steady, and nobody waits for it; if it is late, the next call gives a later one. At the beginning, and
// after a jump, the first frame goes out as it is, and stays until there are enough inside.
//
// Threads: OBS's video thread calls filter and tick, any thread the others.
class Steadier {
  public:
    Steadier() = default;
    ~Steadier() { detach(); }
    Steadier(const Steadier&) = delete;
    Steadier& operator=(const Steadier&) = delete;

    void set(const Settings& settings);
    Settings settings() const;
    Status status() const;

    // What is inside is not shown any more; the next frame begins a scene.
    void restart() {
        pauses_ = false;
        restarts_ = true;
    }
    // The source pauses; a pause is no jump.
    void pause() { pauses_ = true; }
    void resume() { resumes_ = pauses_.exchange(false); }

    // Takes a reference to the frame, and gives one with the frame that it returns, which may be null.
    obs_source_frame* filter(obs_source_t* source, obs_source_frame* frame);

    // Once for each picture of OBS, whether the source has one or not.
    void tick(bool enabled);

    // Gives all frames back. The source calls `filter` no more. Not with a lock of OBS's.
    void detach();

    // A reference to the source whose frames come in, or null.
    obs_source_t* source_ref();

  private:
    struct Run {
        StreamPtr stream;
        Settings settings;
        double frame_rate;
        int latency;
    };

    bool is_jump(const obs_source_frame& frame, std::int64_t now);
    void note_times(const obs_source_frame& frame, std::int64_t now);
    void drop_all();
    void give_back(obs_source_frame* frame);
    void adopt_stream();
    void apply(const Settings& settings, const obs_source_frame& frame);
    void request_stream(const Settings& settings, const obs_source_frame& frame);
    bool push(obs_source_frame* frame);
    obs_source_frame* take_due(bool halves);
    void tell(State state, const std::string& reason = {});

    // Guards all but what is named below. OBS's locks are taken before it, never after it.
    std::mutex mutex_;
    obs_source_t* source_ = nullptr;
    bool is_interlaced_ = false;
    obs_source_frame kind_{};  // that of the frames inside; without pixels
    // The last one takes pictures. One before it is drained, and gives its pictures first, so that other
    // settings do not stop the picture.
    std::deque<Run> runs_;
    std::deque<obs_source_frame*> inside_;
    bool is_opening_ = false;
    bool has_failed_ = false;
    Settings failed_;        // with these
    bool is_shown_ = false;  // the first frame of the scene
    std::vector<std::uint8_t> separated_;
    std::int64_t last_time_ = 0;  // of the frame's clock
    std::int64_t last_call_ = 0;  // of the system's clock
    std::int64_t last_step_ = 0;
    std::int64_t interval_ = 0;

    mutable std::mutex told_mutex_;  // guards these two; the innermost lock
    Settings settings_;
    Status status_;

    std::atomic<bool> restarts_{false};
    std::atomic<bool> pauses_{false};
    std::atomic<bool> resumes_{false};  // the next frame does

    StreamKeeper keeper_;
};

}  // namespace obs_videostabilizer
