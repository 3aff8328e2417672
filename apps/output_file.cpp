#include "apps/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
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

}  // namespace

OutputFile::OutputFile(const std::string& path, const std::atomic<bool>* cancelled) : path_(path) {
    struct stat info {};
    if (path == "-") {
        path_ = "standard output";
        fd_ = STDOUT_FILENO;
        owned_ = false;
    } else if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        fd_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd_ < 0) throw OutputError("cannot write " + path_ + ": " + reason(errno));
    } else {
        target_ = resolved(path);
        open_temporary();
    }
    sink_ = std::make_unique<FdSink>(fd_, path_, cancelled);
}

void OutputFile::open_temporary() {
    // The process id keeps two programs apart that write the same file; the count, two files of
    // one program and what a killed program with the same id has left behind.
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name =
            target_ + "." + std::to_string(getpid()) + "." + std::to_string(attempt) + ".part";
        fd_ = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd_ >= 0) {
            temporary_ = name;
            return;
        }
        if (errno != EEXIST) break;
    }
    throw OutputError("cannot write " + path_ + ": " + reason(errno));
}

OutputFile::~OutputFile() {
    if (owned_ && fd_ >= 0) close(fd_);
    if (!temporary_.empty()) unlink(temporary_.c_str());
}

void OutputFile::close_and_check() {
    // Some file systems report a full disk only here.
    if (owned_ && close(std::exchange(fd_, -1)) != 0) {
        throw OutputError("cannot write " + path_ + ": " + reason(errno));
    }
}

void OutputFile::commit() {
    sink_->flush();
    close_and_check();
    if (temporary_.empty()) return;
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0) {
        throw OutputError("cannot give " + path_ + " its name: " + reason(errno));
    }
    temporary_.clear();
}

bool is_same_file(int fd, const std::string& path) {
    struct stat input {};
    struct stat output {};
    if (fstat(fd, &input) != 0 || !S_ISREG(input.st_mode)) return false;
    const int status = path == "-" ? fstat(STDOUT_FILENO, &output) : stat(path.c_str(), &output);
    return status == 0 && input.st_dev == output.st_dev && input.st_ino == output.st_ino;
}

}  // namespace apps
