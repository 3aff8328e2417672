#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "apps/byte_io.h"

namespace apps {

// A file that appears under its name only when it is finished. Until then it is a temporary file
// beside the target, which the destructor removes. Standard output ("-"), pipes and devices are
// written directly.
class OutputFile {
  public:
    // Opens for writing. Throws OutputError. `cancelled` as in FdSink.
    explicit OutputFile(const std::string& path, const std::atomic<bool>* cancelled = nullptr);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    FdSink& sink() { return *sink_; }

    // Writes what is buffered and gives the file its name. Throws OutputError.
    void commit();

  private:
    void open_temporary();
    void close_and_check();

    std::string path_;       // as the user wrote it
    std::string target_;     // the file to appear, symbolic links followed; empty: written directly
    std::string temporary_;  // empty once renamed or when written directly
    int fd_ = -1;
    bool owned_ = true;
    std::unique_ptr<FdSink> sink_;
};

// Whether writing `path` ("-": standard output) would write the regular file open as `fd`.
bool is_same_file(int fd, const std::string& path);

}  // namespace apps
