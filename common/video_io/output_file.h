// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "common/video_io/byte_io.h"

namespace video_io {

// What to do when the output file exists.
enum class Existing { KEEP, REPLACE };

// The output file exists and must be kept.
struct ExistsError : OutputError {
    using OutputError::OutputError;
};

// Whether `path` is written directly, without a temporary file: standard output ("-"), a pipe or a
// device.
bool is_direct_output(const std::string& path);

// A file that gets its name only when it is complete. Until then it has a temporary name in the same
// folder; the destructor removes it unless it was committed.
// Threads: owner only, except remove_all.
class PendingFile {
  public:
    // Creates the temporary file, empty. Throws OutputError, ExistsError.
    PendingFile(const std::string& path, Existing existing);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // The name to write to. Close the file before commit or keep_partial.
    const std::string& temporary() const { return temporary_; }

    // Renames the file to its name. Throws OutputError, ExistsError.
    void commit();

    // Renames an incomplete file, "steady.mp4" to "steady.partial.mp4", replacing an older one.
    // Returns the name. Throws OutputError.
    std::string keep_partial();

    // Removes the temporary files of all objects; for a program that is about to exit. Thread-safe
    // and async-signal-safe.
    static void remove_all() noexcept;

  private:
    void rename_to(const std::string& target, Existing existing);

    std::string path_;    // as the user gave it
    std::string target_;  // with symbolic links resolved
    Existing existing_;
    std::string temporary_;  // empty once renamed
};

// A byte sink into a pending file, or directly into standard output, a pipe or a device.
// Threads: owner only.
class OutputFile {
  public:
    // Opens for writing. Throws OutputError, ExistsError. `cancelled` as in FdSink.
    explicit OutputFile(const std::string& path, const std::atomic<bool>* cancelled = nullptr,
                        Existing existing = Existing::REPLACE);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    FdSink& sink() { return *sink_; }

    // Flushes, closes and renames the file. Throws OutputError, ExistsError.
    void commit();

    // The same for an incomplete file, see PendingFile; returns the name, or "" for a direct
    // output. Throws OutputError.
    std::string keep_partial();

  private:
    void close_and_check();

    std::string path_;  // as the user gave it
    std::unique_ptr<PendingFile> pending_;
    int fd_ = -1;
    bool owned_ = true;
    std::unique_ptr<FdSink> sink_;
};

// Files are compared by identity, not by spelling: `x` and `./x`, hard and symbolic links are one
// file. "-" is standard input or output.

// Whether writing `output` would overwrite the regular file `input`.
bool is_same_file(const std::string& input, const std::string& output);

// Whether two outputs are one file, which need not exist yet, or one pipe. Devices such as /dev/null
// may be shared.
bool is_same_output(const std::string& one, const std::string& other);

}  // namespace video_io
