#include "apps/stabilize_video/batch.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "apps/stabilize_video/ffmpeg.h"
#include "apps/stabilize_video/interruption.h"
#include "apps/stabilize_video/job.h"

namespace apps {

namespace {

namespace fs = std::filesystem;

struct File {
    std::string input;
    std::string output;
    pid_t process = -1;
    int messages = -1;   // read end of the process's standard error
    std::string said;    // so far
    int status = -1;     // exit status once it has ended
    std::string reason;  // why it failed: its last words
};

// Under its own name, or as MP4 where files of its kind cannot be written.
std::string output_name(const Options& options, const std::string& input) {
    const fs::path path(input);
    std::string ending = path.extension().string();
    if (!options.output_format.empty()) {
        const AVOutputFormat* format =
            av_guess_format(options.output_format.c_str(), nullptr, nullptr);
        const std::string endings =
            format != nullptr && format->extensions != nullptr ? format->extensions : "";
        if (!endings.empty()) ending = "." + endings.substr(0, endings.find(','));
    } else if (ending != ".y4m") {
        const AVOutputFormat* format = av_guess_format(nullptr, input.c_str(), nullptr);
        if (format == nullptr || format->video_codec == AV_CODEC_ID_NONE) ending = ".mp4";
    }
    return (fs::path(options.output_dir) / path.stem()).string() + ending;
}

int tell_usage(const std::string& what) {
    std::fprintf(stderr, "stabilize-video: %s\n", what.c_str());
    return EXIT_USAGE;
}

// Starts the process of one file. Returns false when the system has no more.
bool start(const Options& options, File& file) {
    int ends[2];
    if (pipe(ends) != 0) return false;
    std::fflush(nullptr);
    const pid_t process = fork();
    if (process == 0) {
        close(ends[0]);
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
        Options one = options;
        one.inputs = {file.input};
        one.output = file.output;
        one.output_dir.clear();
        one.progress = false;
        const int status = run_job(one);
        std::fflush(nullptr);
        _exit(status);
    }
    close(ends[1]);
    if (process < 0) {
        close(ends[0]);
        return false;
    }
    file.process = process;
    file.messages = ends[0];
    return true;
}

void tell_lines(const Options& options, File& file) {
    constexpr const char* PREFIX = "stabilize-video: ";
    for (std::size_t end = 0; (end = file.said.find('\n')) != std::string::npos;) {
        std::string line = file.said.substr(0, end);
        file.said.erase(0, end + 1);
        if (line.rfind(PREFIX, 0) == 0) line.erase(0, std::char_traits<char>::length(PREFIX));
        file.reason = line;
        if (!options.quiet) std::fprintf(stderr, "%s: %s\n", file.input.c_str(), line.c_str());
    }
}

// Reads what the process says. Returns false once it has ended.
bool attend(const Options& options, File& file) {
    char buffer[4096];
    const ssize_t got = read(file.messages, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) return true;
    if (got > 0) {
        file.said.append(buffer, static_cast<std::size_t>(got));
        tell_lines(options, file);
        return true;
    }
    close(file.messages);
    file.messages = -1;
    int status = 0;
    while (waitpid(file.process, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        file.status = WEXITSTATUS(status);
    } else {
        file.status = EXIT_LIBRARY;
        file.reason = "the program broke down (signal " + std::to_string(WTERMSIG(status)) + ")";
    }
    return false;
}

// Waits until one of the processes has something to say, and passes an interruption on to them.
void wait_for_any(const std::vector<File*>& running, bool& passed_on) {
    if (interruption().signalled && !passed_on) {
        // From a terminal the signal has reached them already: a second one would end them at once.
        if (isatty(STDIN_FILENO) == 0) {
            for (const File* file : running) {
                kill(file->process, SIGTERM);
            }
        }
        passed_on = true;
    }
    std::vector<pollfd> entries;
    entries.reserve(running.size());
    for (const File* file : running) {
        entries.push_back({file->messages, POLLIN, 0});
    }
    constexpr int LONGEST_MS = 200;
    poll(entries.data(), entries.size(), LONGEST_MS);
}

bool can_be_read(const File& file) {
    pollfd entry{file.messages, POLLIN, 0};
    return poll(&entry, 1, 0) > 0;
}

int conclude(const std::vector<File>& files) {
    std::size_t done = 0;
    for (const File& file : files) {
        if (file.status == EXIT_DONE) ++done;
    }
    if (interruption().signalled) {
        std::fprintf(stderr, "stabilize-video: interrupted; %zu of %zu files done\n", done,
                     files.size());
        return EXIT_INTERRUPTED;
    }
    if (done == files.size()) {
        return EXIT_DONE;
    }
    std::fprintf(stderr, "stabilize-video: %zu of %zu files done; not so:\n", done, files.size());
    for (const File& file : files) {
        if (file.status == EXIT_DONE) continue;
        std::fprintf(stderr, "  %s: %s\n", file.input.c_str(), file.reason.c_str());
    }
    return EXIT_BATCH;
}

}  // namespace

int run_batch(const Options& options) {
    std::vector<File> files;
    std::map<std::string, std::string> inputs;  // by output
    for (const std::string& input : options.inputs) {
        if (input == "-") return tell_usage("--output-dir needs names; - has none");
        File file;
        file.input = input;
        file.output = output_name(options, input);
        const auto [other, is_new] = inputs.emplace(file.output, input);
        if (!is_new) {
            return tell_usage(input + " and " + other->second + " would both become " +
                              file.output);
        }
        files.push_back(file);
    }
    std::error_code error;
    fs::create_directories(options.output_dir, error);
    if (!fs::is_directory(options.output_dir)) {
        std::fprintf(stderr, "stabilize-video: there is no folder %s, and it cannot be made: %s\n",
                     options.output_dir.c_str(), error.message().c_str());
        return EXIT_OUTPUT;
    }

    const std::size_t cores = std::max(1U, std::thread::hardware_concurrency());
    const std::size_t at_once = options.jobs > 0 ? static_cast<std::size_t>(options.jobs) : cores;
    std::vector<File*> running;
    std::size_t next = 0;
    bool passed_on = false;
    while (next < files.size() || !running.empty()) {
        const bool room = running.size() < at_once && next < files.size();
        if (room && !interruption().signalled) {
            File& file = files[next];
            if (start(options, file)) {
                running.push_back(&file);
                ++next;
                continue;
            }
            if (running.empty()) {
                file.reason = "the system gives no process for it";
                ++next;
                continue;
            }
        } else if (interruption().signalled) {
            for (; next < files.size(); ++next) {
                files[next].reason = "not begun";
            }
            if (running.empty()) break;
        }
        wait_for_any(running, passed_on);
        running.erase(std::remove_if(running.begin(), running.end(),
                                     [&](File* file) {
                                         return can_be_read(*file) && !attend(options, *file);
                                     }),
                      running.end());
    }
    const int status = conclude(files);
    if (status == EXIT_DONE && !options.quiet) {
        std::fprintf(stderr, "stabilize-video: all %zu files are in %s\n", files.size(),
                     options.output_dir.c_str());
    }
    return status;
}

}  // namespace apps
