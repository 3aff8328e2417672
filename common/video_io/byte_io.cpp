// SPDX-License-Identifier: Apache-2.0

#include "common/video_io/byte_io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <system_error>
#include <utility>

namespace video_io {

namespace {

constexpr std::size_t BUFFER_BYTES = std::size_t{1} << 18;
constexpr int CANCEL_POLL_MS = 100;

std::string reason(int error) {
    return std::generic_category().message(error);
}

bool is_set(const std::atomic<bool>* flag) {
    return flag != nullptr && flag->load();
}

// Waits until `fd` is ready for `events`. Returns false when cancelled before that.
bool wait_ready(int fd, short events, const std::atomic<bool>* cancelled) {
    while (!is_set(cancelled)) {
        pollfd entry{fd, events, 0};
        // Errors and hang-ups count as ready; the following read or write reports them.
        if (poll(&entry, 1, CANCEL_POLL_MS) > 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

FdSource::FdSource(const std::string& path, const std::atomic<bool>* cancelled)
    : name_(path == "-" ? "standard input" : path),
      cancelled_(cancelled),
      fd_(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)),
      owned_(path != "-"),
      buffer_(BUFFER_BYTES) {
    if (fd_ < 0) {
        throw InputError("cannot open " + name_ + ": " + reason(errno));
    }
    struct stat info {};
    if (fstat(fd_, &info) == 0 && S_ISDIR(info.st_mode)) {
        close(fd_);
        throw InputError("cannot read " + name_ + ": it is a folder");
    }
}

FdSource::~FdSource() {
    if (owned_) {
        close(fd_);
    }
}

std::size_t FdSource::read_some(unsigned char* to, std::size_t size) {
    for (;;) {
        if (!wait_ready(fd_, POLLIN, cancelled_)) {
            throw InputError("interrupted");
        }
        const ssize_t got = ::read(fd_, to, size);
        if (got >= 0) {
            return static_cast<std::size_t>(got);
        }
        if (errno != EINTR && errno != EAGAIN) {
            throw InputError("cannot read " + name_ + ": " + reason(errno));
        }
    }
}

std::size_t FdSource::read(unsigned char* to, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        if (begin_ < end_) {
            const std::size_t count = std::min(size - done, end_ - begin_);
            std::memcpy(to + done, buffer_.data() + begin_, count);
            begin_ += count;
            done += count;
            continue;
        }
        const bool direct = size - done >= buffer_.size();
        const std::size_t got =
            direct ? read_some(to + done, size - done) : read_some(buffer_.data(), buffer_.size());
        if (got == 0) {
            break;
        }
        if (direct) {
            done += got;
        } else {
            begin_ = 0;
            end_ = got;
        }
    }
    return done;
}

std::size_t FdSource::read_available(unsigned char* to, std::size_t size) {
    if (begin_ == end_) {
        return read_some(to, size);
    }
    return read(to, std::min(size, end_ - begin_));
}

std::string_view FdSource::peek(std::size_t size) {
    size = std::min(size, buffer_.size());
    if (begin_ + size > buffer_.size()) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= std::exchange(begin_, 0);
    }
    while (end_ - begin_ < size) {
        const std::size_t got = read_some(buffer_.data() + end_, buffer_.size() - end_);
        if (got == 0) {
            break;
        }
        end_ += got;
    }
    return {reinterpret_cast<const char*>(buffer_.data()) + begin_, std::min(size, end_ - begin_)};
}

long long FdSource::file_size() const {
    struct stat info {};
    return fstat(fd_, &info) == 0 && S_ISREG(info.st_mode) ? static_cast<long long>(info.st_size)
                                                           : -1;
}

FdSink::FdSink(int fd, std::string name, const std::atomic<bool>* cancelled)
    : fd_(fd), name_(std::move(name)), cancelled_(cancelled), buffer_(BUFFER_BYTES) {
    struct stat info {};
    const bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    largest_write_ = regular ? BUFFER_BYTES : std::size_t{PIPE_BUF};
}

void FdSink::write_through(const unsigned char* from, std::size_t size) {
    while (size > 0) {
        if (!wait_ready(fd_, POLLOUT, cancelled_)) {
            throw OutputError("interrupted");
        }
        const ssize_t put = ::write(fd_, from, std::min(size, largest_write_));
        if (put < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            const bool reader_gone = errno == EPIPE;
            throw OutputError("cannot write " + name_ + ": " +
                              (reader_gone ? "the reader has closed it" : reason(errno)));
        }
        from += put;
        size -= static_cast<std::size_t>(put);
    }
}

void FdSink::write(const unsigned char* from, std::size_t size) {
    if (size > buffer_.size() - used_) {
        flush();
    }
    if (size >= buffer_.size()) {
        write_through(from, size);
        return;
    }
    std::memcpy(buffer_.data() + used_, from, size);
    used_ += size;
}

void FdSink::flush() {
    const std::size_t count = std::exchange(used_, 0);
    write_through(buffer_.data(), count);
}

}  // namespace video_io
