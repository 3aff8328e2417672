// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/results/preview.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "apps/stabilize_video/results/side_by_side.h"
#include "common/video_io/byte_io.h"

namespace apps {

namespace {

using namespace std::chrono_literals;

constexpr AVRational MILLISECOND{1, 1000};
constexpr std::chrono::milliseconds INTERVAL{33};  // as often as is seen

bool is_set(const char* variable) {
    const char* value = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe)
    return value != nullptr && *value != '\0';
}

std::string reason(int error) {
    return std::generic_category().message(error);
}

}  // namespace

Preview::Preview(const PictureFormat& format) : format_(format), start_(Clock::now()) {
    if (!is_set("DISPLAY") && !is_set("WAYLAND_DISPLAY")) {
        throw video_io::OutputError("there is no display for --preview");
    }
    format_.time_base = MILLISECOND;
    format_.zero_us = 0;
    format_.mastering.reset();
    format_.light.reset();
    start_player();
    thread_ = std::thread([this] { draw_all(); });
}

Preview::~Preview() {
    stop_ = true;
    changed_.notify_all();
    // The thread may wait for a player that has been paused, and that has nothing to lose.
    kill(-player_, SIGKILL);
    thread_.join();
    close(pipe_);
    int status = 0;
    while (waitpid(player_, &status, 0) < 0 && errno == EINTR) {
    }
}

void Preview::start_player() {
    const char* const arguments[] = {
        "ffplay",     "-loglevel",     "quiet",
        "-autoexit",  "-fflags",       "nobuffer",
        "-framedrop", "-window_title", "stabilize-video: before and after",
        "-i",         "pipe:0",        nullptr};
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw video_io::OutputError(std::string("--preview: ") + reason(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    for (const int told : {STDOUT_FILENO, STDERR_FILENO}) {  // the terminal is the program's
        posix_spawn_file_actions_addopen(&actions, told, "/dev/null", O_WRONLY, 0);
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Signals from the terminal are for the program, which ends the player.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    const int failed = posix_spawnp(&player_, arguments[0], &actions, &attributes,
                                    const_cast<char* const*>(arguments), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[0]);
    if (failed != 0) {
        close(ends[1]);
        throw video_io::OutputError(std::string("--preview cannot start ffplay: ") +
                                    reason(failed));
    }
    pipe_ = ends[1];
}

void Preview::add_shaky(const AVFrame& picture) {
    AvFramePtr reference = reference_to(picture);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!closed_) {
        shaky_.push_back(std::move(reference));
    }
}

void Preview::add_steady(const AVFrame& picture) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || shaky_.empty()) {
        return;
    }
    AvFramePtr shaky = std::move(shaky_.front());
    shaky_.pop_front();
    if (!next_shaky_) {
        next_shaky_ = std::move(shaky);
        next_steady_ = reference_to(picture);
        changed_.notify_all();
    }
}

bool Preview::player_has_ended() const {
    siginfo_t info{};
    const int found = waitid(P_PID, static_cast<id_t>(player_), &info, WEXITED | WNOHANG | WNOWAIT);
    return found == 0 && info.si_pid == player_;
}

void Preview::draw_all() {
    try {
        EncoderOptions options;
        options.codec = "rawvideo";
        options.container = "nut";
        options.live = true;
        SideBySide both("/dev/fd/" + std::to_string(pipe_), format_, options, &stop_);
        PictureTag tag;
        while (!stop_ && !player_has_ended()) {
            AvFramePtr shaky;
            AvFramePtr steady;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait_for(lock, 100ms, [this] { return next_shaky_ || stop_; });
                shaky = std::move(next_shaky_);
                steady = std::move(next_steady_);
            }
            if (!shaky) {
                continue;
            }
            const auto now =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
            tag.time = std::max<std::int64_t>(tag.time + 1, now.count());
            both.add_shaky(*shaky);
            both.add_steady(*steady, tag);
            std::this_thread::sleep_for(INTERVAL);
        }
    } catch (...) {  // the window was closed
    }
    ended_at_once_ = !stop_ && Clock::now() - start_ < 2s;
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    shaky_.clear();
    next_shaky_.reset();
    next_steady_.reset();
}

}  // namespace apps
