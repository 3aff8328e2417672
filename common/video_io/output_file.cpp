// SPDX-License-Identifier: Apache-2.0

#include "common/video_io/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>

namespace video_io {

namespace {

std::string reason(int error) {
    return std::generic_category().message(error);
}

// `path` with symbolic links resolved, so that renaming replaces a link's target, not the link.
std::string resolved(const std::string& path) {
    char* real = realpath(path.c_str(), nullptr);
    if (real == nullptr) {
        return path;
    }
    std::string result = real;
    std::free(real);  // NOLINT(cppcoreguidelines-no-malloc): from realpath
    return result;
}

ExistsError exists_error(const std::string& path) {
    return ExistsError(path + " exists already; --overwrite replaces it");
}

// "steady.mp4" becomes "steady.partial.mp4".
std::string partial_name(const std::string& path) {
    const std::size_t base = path.find_last_of('/') + 1;  // npos + 1 is 0
    const std::size_t dot = path.find_last_of('.');
    const std::size_t end = dot == std::string::npos || dot <= base ? path.size() : dot;
    return path.substr(0, end) + ".partial" + path.substr(end);
}

// The names that a signal handler removes, in memory that is never freed. A slot is in use while its
// flag is set.
struct TemporaryName {
    std::atomic<bool> used{false};
    std::array<char, 4096> path{};
};
std::array<TemporaryName, 8> temporary_names;
std::mutex temporary_names_mutex;  // guards changes

void register_temporary(const std::string& path) {
    const std::lock_guard<std::mutex> lock(temporary_names_mutex);
    for (TemporaryName& name : temporary_names) {
        if (name.used || path.size() >= name.path.size()) {
            continue;
        }
        std::copy_n(path.c_str(), path.size() + 1, name.path.begin());
        name.used = true;
        return;
    }
}

void forget_temporary(const std::string& path) {
    const std::lock_guard<std::mutex> lock(temporary_names_mutex);
    for (TemporaryName& name : temporary_names) {
        if (name.used && path == name.path.data()) {
            name.used = false;
        }
    }
}

bool get_status(const std::string& path, int standard_stream, struct stat& status) {
    return (path == "-" ? fstat(standard_stream, &status) : stat(path.c_str(), &status)) == 0;
}

bool is_same(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// One spelling for each name of a file that does not exist.
std::filesystem::path absolute_name(const std::string& path) {
    std::error_code error;
    const auto absolute = std::filesystem::absolute(path, error);
    const auto canonical = std::filesystem::weakly_canonical(absolute, error);
    return error ? absolute : canonical;
}

}  // namespace

bool is_direct_output(const std::string& path) {
    struct stat info {};
    return path == "-" || (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode));
}

PendingFile::PendingFile(const std::string& path, Existing existing)
    : path_(path), target_(resolved(path)), existing_(existing) {
    struct stat info {};
    if (existing == Existing::KEEP && stat(path.c_str(), &info) == 0) {
        throw exists_error(path);
    }
    // The process id separates programs that write the same file; the count, files of one program
    // and leftovers of a killed one with the same id.
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name =
            target_ + "." + std::to_string(getpid()) + "." + std::to_string(attempt) + ".part";
        const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            close(fd);
            temporary_ = name;
            register_temporary(temporary_);
            return;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    throw OutputError("cannot write " + path_ + ": " + reason(errno));
}

PendingFile::~PendingFile() {
    if (temporary_.empty()) {
        return;
    }
    unlink(temporary_.c_str());
    forget_temporary(temporary_);
}

void PendingFile::rename_to(const std::string& target, Existing existing) {
    int result = -1;
    if (existing == Existing::KEEP) {
        // Keeps a file that was made meanwhile. Not all file systems support this.
        result =
            renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
        if (result != 0 && errno == EEXIST) {
            throw exists_error(path_);
        }
    }
    if (result != 0 && std::rename(temporary_.c_str(), target.c_str()) != 0) {
        throw OutputError("cannot rename the temporary file to " + path_ + ": " + reason(errno));
    }
    forget_temporary(temporary_);
    temporary_.clear();
}

void PendingFile::commit() {
    rename_to(target_, existing_);
}

std::string PendingFile::keep_partial() {
    rename_to(partial_name(target_), Existing::REPLACE);
    return partial_name(path_);
}

void PendingFile::remove_all() noexcept {
    for (const TemporaryName& name : temporary_names) {
        if (name.used) {
            unlink(name.path.data());
        }
    }
}

OutputFile::OutputFile(const std::string& path, const std::atomic<bool>* cancelled,
                       Existing existing)
    : path_(path == "-" ? "standard output" : path) {
    if (path == "-") {
        fd_ = STDOUT_FILENO;
        owned_ = false;
    } else {
        if (!is_direct_output(path)) {
            pending_ = std::make_unique<PendingFile>(path, existing);
        }
        fd_ = open(pending_ ? pending_->temporary().c_str() : path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd_ < 0) {
            throw OutputError("cannot write " + path_ + ": " + reason(errno));
        }
    }
    sink_ = std::make_unique<FdSink>(fd_, path_, cancelled);
}

OutputFile::~OutputFile() {
    if (owned_ && fd_ >= 0) {
        close(fd_);
    }
}

void OutputFile::close_and_check() {
    sink_->flush();
    // Some file systems report a full disk only here.
    if (owned_ && close(std::exchange(fd_, -1)) != 0) {
        throw OutputError("cannot write " + path_ + ": " + reason(errno));
    }
}

void OutputFile::commit() {
    close_and_check();
    if (pending_) {
        pending_->commit();
    }
}

std::string OutputFile::keep_partial() {
    close_and_check();
    return pending_ ? pending_->keep_partial() : "";
}

bool is_same_file(const std::string& input, const std::string& output) {
    struct stat in {};
    struct stat out {};
    return get_status(input, STDIN_FILENO, in) && get_status(output, STDOUT_FILENO, out) &&
           S_ISREG(in.st_mode) && is_same(in, out);
}

bool is_same_output(const std::string& one, const std::string& other) {
    if (one == "-" && other == "-") {
        return true;
    }
    struct stat first {};
    struct stat second {};
    const bool first_exists = get_status(one, STDOUT_FILENO, first);
    const bool second_exists = get_status(other, STDOUT_FILENO, second);
    if (first_exists && second_exists) {
        return !S_ISCHR(first.st_mode) && is_same(first, second);
    }
    return first_exists == second_exists && absolute_name(one) == absolute_name(other);
}

}  // namespace video_io
