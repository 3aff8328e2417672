#include "apps/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <system_error>
#include <utility>

namespace apps {

namespace {

std::string reason(int error) {
    return std::generic_category().message(error);
}

// The file that `path` names, with symbolic links followed, so that a link survives the renaming.
std::string resolved(const std::string& path) {
    char* real = realpath(path.c_str(), nullptr);
    if (real == nullptr) return path;
    std::string result = real;
    std::free(real);  // NOLINT(cppcoreguidelines-no-malloc): realpath allocates so
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

// The names that a signal handler removes: plain bytes that are never freed. A slot is in use while
// its flag is set.
struct TemporaryName {
    std::atomic<bool> used{false};
    std::array<char, 4096> path{};
};
std::array<TemporaryName, 8> temporary_names;
std::mutex temporary_names_mutex;  // guards changes

void register_temporary(const std::string& path) {
    const std::lock_guard<std::mutex> lock(temporary_names_mutex);
    for (TemporaryName& name : temporary_names) {
        if (name.used || path.size() >= name.path.size()) continue;
        std::copy_n(path.c_str(), path.size() + 1, name.path.begin());
        name.used = true;
        return;
    }
}

void forget_temporary(const std::string& path) {
    const std::lock_guard<std::mutex> lock(temporary_names_mutex);
    for (TemporaryName& name : temporary_names) {
        if (name.used && path == name.path.data()) name.used = false;
    }
}

}  // namespace

bool is_direct_output(const std::string& path) {
    struct stat info {};
    return path == "-" || (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode));
}

PendingFile::PendingFile(const std::string& path, Existing existing)
    : path_(path), target_(resolved(path)), existing_(existing) {
    struct stat info {};
    if (existing == Existing::KEEP && stat(path.c_str(), &info) == 0) throw exists_error(path);
    // The process id keeps two programs apart that write the same file; the count, two files of
    // one program and what a killed program with the same id has left behind.
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
        if (errno != EEXIST) break;
    }
    throw OutputError("cannot write " + path_ + ": " + reason(errno));
}

PendingFile::~PendingFile() {
    if (temporary_.empty()) return;
    unlink(temporary_.c_str());
    forget_temporary(temporary_);
}

void PendingFile::rename_to(const std::string& target, Existing existing) {
    int result = -1;
    if (existing == Existing::KEEP) {
        // Whoever has made a file of this name meanwhile keeps it. Not all file systems can do
        // this.
        result =
            renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
        if (result != 0 && errno == EEXIST) throw exists_error(path_);
    }
    if (result != 0 && std::rename(temporary_.c_str(), target.c_str()) != 0) {
        throw OutputError("cannot give " + path_ + " its name: " + reason(errno));
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
        if (name.used) unlink(name.path.data());
    }
}

OutputFile::OutputFile(const std::string& path, const std::atomic<bool>* cancelled,
                       Existing existing)
    : path_(path == "-" ? "standard output" : path) {
    if (path == "-") {
        fd_ = STDOUT_FILENO;
        owned_ = false;
    } else {
        if (!is_direct_output(path)) pending_ = std::make_unique<PendingFile>(path, existing);
        fd_ = open(pending_ ? pending_->temporary().c_str() : path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd_ < 0) throw OutputError("cannot write " + path_ + ": " + reason(errno));
    }
    sink_ = std::make_unique<FdSink>(fd_, path_, cancelled);
}

OutputFile::~OutputFile() {
    if (owned_ && fd_ >= 0) close(fd_);
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
    if (pending_) pending_->commit();
}

std::string OutputFile::keep_partial() {
    close_and_check();
    return pending_ ? pending_->keep_partial() : "";
}

bool is_same_file(const std::string& input, const std::string& output) {
    struct stat in {};
    struct stat out {};
    const int in_status = input == "-" ? fstat(STDIN_FILENO, &in) : stat(input.c_str(), &in);
    const int out_status = output == "-" ? fstat(STDOUT_FILENO, &out) : stat(output.c_str(), &out);
    return in_status == 0 && out_status == 0 && S_ISREG(in.st_mode) && in.st_dev == out.st_dev &&
           in.st_ino == out.st_ino;
}

}  // namespace apps
