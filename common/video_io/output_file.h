#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "apps/byte_io.h"

namespace apps {

// What to do when the file is there already.
enum class Existing { KEEP, REPLACE };

// The file exists and is to be kept.
struct ExistsError : OutputError {
    using OutputError::OutputError;
};

// Whether `path` is something to be written directly rather than a file to appear: standard output
// ("-"), a pipe, a device.
bool is_direct_output(const std::string& path);

// A file that appears under its name only when it is finished. Until then it has a temporary name
// beside the target, and the destructor removes it.
class PendingFile {
  public:
    // Creates the temporary file, empty. Throws OutputError, ExistsError.
    PendingFile(const std::string& path, Existing existing);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // Where to write. Close what was opened there before commit or keep_partial.
    const std::string& temporary() const { return temporary_; }

    // Gives the file its name. Throws OutputError, ExistsError.
    void commit();

    // Gives what there is a name that tells that it is not whole: "steady.partial.mp4". An older
    // file of that name is replaced. Returns the name. Throws OutputError.
    std::string keep_partial();

    // Removes the temporary files of all objects, for a program that is about to end at once. May
    // be called from a signal handler.
    static void remove_all() noexcept;

  private:
    void rename_to(const std::string& target, Existing existing);

    std::string path_;    // as the user wrote it
    std::string target_;  // symbolic links followed
    Existing existing_;
    std::string temporary_;  // empty once renamed
};

// Bytes into a file that appears when it is finished, or directly into standard output, a pipe or a
// device.
class OutputFile {
  public:
    // Opens for writing. Throws OutputError, ExistsError. `cancelled` as in FdSink.
    explicit OutputFile(const std::string& path, const std::atomic<bool>* cancelled = nullptr,
                        Existing existing = Existing::REPLACE);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    FdSink& sink() { return *sink_; }

    // Writes what is buffered and gives the file its name. Throws OutputError, ExistsError.
    void commit();

    // Likewise, but with the name of something that is not whole; returns the name, or "" for what
    // has been written directly. Throws OutputError.
    std::string keep_partial();

  private:
    void close_and_check();

    std::string path_;  // as the user wrote it
    std::unique_ptr<PendingFile> pending_;
    int fd_ = -1;
    bool owned_ = true;
    std::unique_ptr<FdSink> sink_;
};

// Whether writing `output` would write the regular file `input`; "-" is standard input and output.
bool is_same_file(const std::string& input, const std::string& output);

}  // namespace apps
