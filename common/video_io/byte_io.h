// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Sequential byte streams. Failures are exceptions whose what() is a message for the user.
// Threads: owner only, all classes.

namespace video_io {

struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct OutputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class ByteSource {
  public:
    virtual ~ByteSource() = default;

    // Blocks until `size` bytes are in `to` or the stream ends.
    // Returns the bytes delivered; fewer than `size` only at the end. Throws InputError.
    virtual std::size_t read(unsigned char* to, std::size_t size) = 0;
};

class ByteSink {
  public:
    virtual ~ByteSink() = default;

    // Writes all of it, possibly into a buffer. Throws OutputError.
    virtual void write(const unsigned char* from, std::size_t size) = 0;
};

// Buffered reading from a file descriptor: a file, a pipe or a terminal.
class FdSource : public ByteSource {
  public:
    // Opens `path`, or standard input for "-". Throws InputError.
    // cancelled  may be null; once true, reads that wait for data throw within a tenth of a second,
    //            so that a program can end while its input is silent.
    explicit FdSource(const std::string& path, const std::atomic<bool>* cancelled = nullptr);
    ~FdSource() override;
    FdSource(const FdSource&) = delete;
    FdSource& operator=(const FdSource&) = delete;

    std::size_t read(unsigned char* to, std::size_t size) override;

    // Blocks until data is available and returns what there is: 1 to `size` bytes, or 0 at the
    // end. Throws InputError.
    std::size_t read_available(unsigned char* to, std::size_t size);

    // The next `size` bytes without consuming them; fewer only at the end of the stream. At most
    // the buffer, 256 KiB. Valid until the next read. Throws InputError.
    std::string_view peek(std::size_t size);

    int fd() const { return fd_; }
    const std::string& name() const { return name_; }
    // Bytes of a regular file; -1 for anything else.
    long long file_size() const;

  private:
    std::size_t read_some(unsigned char* to, std::size_t size);

    std::string name_;
    const std::atomic<bool>* cancelled_;
    int fd_;
    bool owned_;
    std::vector<unsigned char> buffer_;
    std::size_t begin_ = 0;  // buffered bytes are buffer_[begin_, end_)
    std::size_t end_ = 0;
};

// Buffered writing to a file descriptor. The destructor drops what is still buffered: only flush
// reports errors.
class FdSink : public ByteSink {
  public:
    // Writes to `fd`, which the caller owns. `name` appears in messages.
    // cancelled  may be null; once true, a write that has to wait throws.
    FdSink(int fd, std::string name, const std::atomic<bool>* cancelled = nullptr);

    void write(const unsigned char* from, std::size_t size) override;
    void flush();

  private:
    void write_through(const unsigned char* from, std::size_t size);

    int fd_;
    std::string name_;
    const std::atomic<bool>* cancelled_;
    std::vector<unsigned char> buffer_;
    std::size_t used_ = 0;
    std::size_t largest_write_;  // bytes; a pipe that is ready accepts PIPE_BUF without blocking
};

}  // namespace video_io
