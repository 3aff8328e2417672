// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <vector>

#include "common/video_io/y4m.h"

// Runs the built stabilize-video on files in a folder of the test's own.

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

// Runs a shell command line in the folder; $PROGRAM is the built stabilize-video.
Outcome run_shell(const Folder& folder, const std::string& command);

// Runs the program in the folder.
Outcome run_program(const Folder& folder, const std::string& arguments);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// The packed pixels of one picture.
struct PictureBuffer {
    explicit PictureBuffer(const video_io::Y4mHeader& header)
        : pixels(static_cast<std::size_t>(header.frame_bytes())) {
        unsigned char* u = pixels.data() + header.width * header.height;
        planes = {pixels.data(), u, u + header.chroma_width() * header.chroma_height(),
                  header.width, header.chroma_width()};
    }
    PictureBuffer(const PictureBuffer&) = delete;
    PictureBuffer& operator=(const PictureBuffer&) = delete;

    std::vector<unsigned char> pixels;
    video_io::Planes planes{};
};

// Writes the first pictures of the shaky clip, as YUV4MPEG2.
void write_clip(const std::string& path, int width, int height, int frames);
