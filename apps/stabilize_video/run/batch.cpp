// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/run/batch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "apps/stabilize_video/cli/batch_progress.h"
#include "apps/stabilize_video/cli/interruption.h"
#include "apps/stabilize_video/output/media_sink.h"
#include "apps/stabilize_video/run/job.h"

namespace apps {

namespace {

namespace fs = std::filesystem;

struct File {
    std::string input;
    std::string output;
    pid_t process = -1;  // and its process group; -1: does not run
    int messages = -1;   // read end of the process's standard error
    std::string said;    // incomplete line from there
    int status = -1;     // exit status once it has ended
    std::string reason;  // of a failure: its last message
};

// The same name, or .mp4 where files of its kind cannot be written.
std::string output_name(const Options& options, const std::string& input) {
    const fs::path path(input);
    std::string ending = path.extension().string();
    if (!options.output_format.empty()) {
        const AVOutputFormat* format =
            av_guess_format(options.output_format.c_str(), nullptr, nullptr);
        const std::string endings =
            format != nullptr && format->extensions != nullptr ? format->extensions : "";
        if (!endings.empty()) {
            ending = "." + endings.substr(0, endings.find(','));
        }
    } else if (ending != ".y4m") {
        const AVOutputFormat* format = av_guess_format(nullptr, input.c_str(), nullptr);
        if (format == nullptr || format->video_codec == AV_CODEC_ID_NONE) {
            ending = ".mp4";
        }
    }
    return (fs::path(options.output_dir) / path.stem()).string() + ending;
}

// The files of the batch. Throws UsageError where two would get the same name.
std::vector<File> plan(const Options& options) {
    std::vector<File> files;
    std::map<std::string, std::string> inputs;  // by output
    for (const std::string& input : options.inputs) {
        if (input == "-") {
            throw UsageError("--output-dir needs input files; - has no name");
        }
        File file;
        file.input = input;
        file.output = output_name(options, input);
        const auto [other, is_new] = inputs.emplace(file.output, input);
        if (!is_new) {
            throw UsageError(input + " and " + other->second + " would both become " + file.output);
        }
        files.push_back(file);
    }
    return files;
}

std::atomic<bool> suspend_requested{false};

void on_suspend(int) {
    suspend_requested = true;
}

// Processes are in groups of their own, so only this one gets the terminal's signals, and passes them
// on.
void watch_terminal() {
    watch_signals(OnSignal::COUNT);
    struct sigaction present {};
    sigaction(SIGTSTP, nullptr, &present);
    if (present.sa_handler != SIG_IGN) {
        struct sigaction handler {};
        handler.sa_handler = on_suspend;
        sigaction(SIGTSTP, &handler, nullptr);
    }
}

// The process of one file, from its fork on.
[[noreturn]] void run_child(const Options& options, const File& file, SharedProgress& progress,
                            int messages, pid_t parent) noexcept {
    setpgid(0, 0);
    // In case the parent is killed.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(EXIT_INTERRUPTED);
    }
    // The terminal belongs to the parent's group: using it is an error, but must not stop the process.
    std::signal(SIGTTIN, SIG_IGN);
    std::signal(SIGTTOU, SIG_IGN);
    std::signal(SIGTSTP, SIG_DFL);
    dup2(messages, STDERR_FILENO);
    Options one = options;
    one.inputs = {file.input};
    one.output = file.output;
    one.output_dir.clear();
    one.progress = false;
    one.shared_progress = &progress;
    const int status = run_job(one);
    std::fflush(nullptr);
    _exit(status);
}

class Batch {
  public:
    Batch(const Options& options, std::vector<File> files)
        : options_(options),
          files_(std::move(files)),
          progress_(options.progress && !options.quiet && !options.verbose, files_.size()) {}
    ~Batch() { end_all(); }
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    int run();

  private:
    void leave_out_existing();
    void show_progress();
    void start_next();
    bool start(File& file);
    void pass_signals_on();
    void signal_all(int number) const;
    void suspend() const;
    void wait_for_messages();
    void read_messages(File& file);
    void tell_lines(File& file);
    void take_status(File& file, int status);
    void end_all();
    int conclude();
    std::size_t index_of(const File& file) const {
        return static_cast<std::size_t>(&file - files_.data());
    }
    std::size_t count_done() const;

    const Options& options_;
    std::vector<File> files_;
    BatchProgress progress_;
    std::size_t next_ = 0;  // not started yet
    std::vector<File*> running_;
    std::size_t present_ = 0;  // files that were there already
    int passed_on_ = 0;        // signals
};

bool Batch::start(File& file) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t process = fork();
    if (process == 0) {
        run_child(options_, file, progress_.of(index_of(file)), ends[1], parent);
    }
    close(ends[1]);
    if (process < 0) {
        close(ends[0]);
        return false;
    }
    setpgid(process, process);  // either process may be the first
    file.process = process;
    file.messages = ends[0];
    running_.push_back(&file);
    return true;
}

// Starts as many files as may run at once.
void Batch::start_next() {
    const std::size_t cores = std::max(1U, std::thread::hardware_concurrency());
    const std::size_t at_once = options_.jobs > 0 ? static_cast<std::size_t>(options_.jobs) : cores;
    while (next_ < files_.size() && running_.size() < at_once && !interruption().signalled()) {
        File& file = files_[next_];
        if (file.status != EXIT_DONE && !start(file)) {
            if (!running_.empty()) {
                return;  // again when one of these has ended
            }
            file.reason = "no process can be started";
        }
        ++next_;
    }
}

void Batch::signal_all(int number) const {
    for (const File* file : running_) {
        kill(-file->process, number);
    }
}

// The first signal lets the processes end by themselves, the second one ends them.
void Batch::pass_signals_on() {
    const int received = interruption().signals;
    if (received > 1) {
        end_all();
    } else if (received > passed_on_) {
        signal_all(SIGTERM);
    }
    passed_on_ = received;
    if (suspend_requested.exchange(false)) {
        suspend();
    }
}

void Batch::suspend() const {
    signal_all(SIGSTOP);
    raise(SIGSTOP);
    signal_all(SIGCONT);
}

void Batch::wait_for_messages() {
    std::vector<pollfd> entries;
    entries.reserve(running_.size());
    for (const File* file : running_) {
        entries.push_back({file->messages, POLLIN, 0});
    }
    constexpr int LONGEST_MS = 200;  // in case a signal came just before
    if (poll(entries.data(), entries.size(), LONGEST_MS) <= 0) {
        return;
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].revents != 0) {
            read_messages(*running_[i]);
        }
    }
    running_.erase(std::remove_if(running_.begin(), running_.end(),
                                  [](const File* file) { return file->process < 0; }),
                   running_.end());
}

void Batch::tell_lines(File& file) {
    constexpr const char* PREFIX = "stabilize-video: ";
    for (std::size_t end = 0; (end = file.said.find('\n')) != std::string::npos;) {
        std::string line = file.said.substr(0, end);
        file.said.erase(0, end + 1);
        if (line.rfind(PREFIX, 0) == 0) {
            line.erase(0, std::char_traits<char>::length(PREFIX));
        }
        file.reason = line;
        if (!options_.quiet) {
            progress_.clear();
            std::fprintf(stderr, "%s: %s\n", file.input.c_str(), line.c_str());
        }
    }
}

// Reads what the process has written, and its status at the end.
void Batch::read_messages(File& file) {
    char buffer[4096];
    const ssize_t got = read(file.messages, buffer, sizeof buffer);
    if (got > 0) {
        file.said.append(buffer, static_cast<std::size_t>(got));
        tell_lines(file);
    } else if (got == 0 || errno != EINTR) {
        int status = SIGKILL;
        while (waitpid(file.process, &status, 0) < 0 && errno == EINTR) {
        }
        take_status(file, status);
    }
}

void Batch::take_status(File& file, int status) {
    close(file.messages);
    file.messages = -1;
    file.process = -1;
    if (WIFEXITED(status)) {
        file.status = WEXITSTATUS(status);
    } else {
        file.status = EXIT_LIBRARY;
        file.reason = "the program crashed (signal " + std::to_string(WTERMSIG(status)) + ")";
    }
}

// Ends the processes that still run, and waits for them. They remove their temporary files unless they
// do not react.
void Batch::end_all() {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
    while (!running_.empty()) {
        signal_all(Clock::now() < deadline ? SIGTERM : SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        for (File*& file : running_) {
            int status = SIGKILL;
            if (waitpid(file->process, &status, WNOHANG) != 0) {
                take_status(*file, status);
                file = nullptr;
            }
        }
        running_.erase(std::remove(running_.begin(), running_.end(), nullptr), running_.end());
    }
}

std::size_t Batch::count_done() const {
    return static_cast<std::size_t>(std::count_if(
        files_.begin(), files_.end(), [](const File& file) { return file.status == EXIT_DONE; }));
}

int Batch::conclude() {
    progress_.clear();
    const std::size_t done = count_done();
    if (interruption().signalled()) {
        std::fprintf(stderr, "stabilize-video: interrupted; %zu of %zu files done\n", done,
                     files_.size());
        return EXIT_INTERRUPTED;
    }
    if (done == files_.size()) {
        if (!options_.quiet) {
            const std::string present =
                present_ == 0 ? "" : "; " + std::to_string(present_) + " of them were before";
            std::fprintf(stderr, "stabilize-video: all %zu files are in %s%s\n", files_.size(),
                         options_.output_dir.c_str(), present.c_str());
        }
        return EXIT_DONE;
    }
    std::fprintf(stderr, "stabilize-video: %zu of %zu files done; failed:\n", done, files_.size());
    for (const File& file : files_) {
        if (file.status != EXIT_DONE) {
            std::fprintf(stderr, "  %s: %s\n", file.input.c_str(), file.reason.c_str());
        }
    }
    return EXIT_BATCH;
}

void Batch::leave_out_existing() {
    for (File& file : files_) {
        if (options_.skip_existing && is_output_there(file.output)) {
            file.status = EXIT_DONE;
            ++present_;
        }
    }
}

void Batch::show_progress() {
    std::vector<BatchProgress::Running> running;
    for (const File* file : running_) {
        running.push_back({index_of(*file), file->input});
    }
    progress_.show(running, count_done());
}

int Batch::run() {
    leave_out_existing();
    for (;;) {
        show_progress();
        pass_signals_on();
        start_next();
        if (running_.empty()) {
            return conclude();
        }
        wait_for_messages();
    }
}

}  // namespace

int run_batch(const Options& options) {
    try {
        watch_terminal();
        std::vector<File> files = plan(options);
        std::error_code error;
        fs::create_directories(options.output_dir, error);
        if (!fs::is_directory(options.output_dir)) {
            std::fprintf(stderr, "stabilize-video: cannot create the folder %s: %s\n",
                         options.output_dir.c_str(), error.message().c_str());
            return EXIT_OUTPUT;
        }
        return Batch(options, std::move(files)).run();
    } catch (const UsageError& error) {
        std::fprintf(stderr, "stabilize-video: %s\n", error.what());
        return EXIT_USAGE;
    }
}

}  // namespace apps
