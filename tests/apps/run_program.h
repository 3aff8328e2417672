#pragma once

#include <string>
#include <vector>

#include "apps/scene.h"

// Running the built stabilize-video on files in a folder of the test's own.

// A temporary folder, removed with its files at the end.
class Folder {
  public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Names of what lies in it, sorted.
    std::vector<std::string> names() const;

  private:
    std::string path_;
};

struct Outcome {
    int status;          // exit status; -1 if it was killed
    std::string errors;  // what it wrote to standard error
};

// Runs a shell command line in which $PROGRAM is the built stabilize-video.
Outcome run_shell(const Folder& folder, const std::string& command);

// Runs the program with the given arguments.
Outcome run_program(const Folder& folder, const std::vector<std::string>& arguments);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// Writes the first `frames` pictures of the clip.
void write_clip(const std::string& path, const apps::ShakyClip& clip, int frames);

// The luma of every picture in a YUV4MPEG2 file.
std::vector<std::vector<unsigned char>> read_luma(const std::string& path);

// The numbers of a CSV file, without its heading.
std::vector<std::vector<double>> read_csv(const std::string& path);
