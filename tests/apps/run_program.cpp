// SPDX-License-Identifier: Apache-2.0

#include "tests/apps/run_program.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "common/synthetic/scene.h"
#include "common/video_io/output_file.h"

Folder::Folder() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "stabilize video XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    path_ = pattern;
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> Folder::names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

Outcome run_shell(const Folder& folder, const std::string& command) {
    const std::string errors = folder.file("errors.txt");
    const std::string line = "PROGRAM='" STABILIZE_VIDEO "'; cd '" + folder.file("") + "' && { " +
                             command + "\n} 2> '" + errors + "'";
    const int result = std::system(line.c_str());  // NOLINT(concurrency-mt-unsafe,cert-env33-c)
    Outcome outcome{WIFEXITED(result) ? WEXITSTATUS(result) : -1, read_file(errors)};
    std::filesystem::remove(errors);
    return outcome;
}

Outcome run_program(const Folder& folder, const std::string& arguments) {
    return run_shell(folder, "\"$PROGRAM\" " + arguments);
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

void write_clip(const std::string& path, int width, int height, int frames) {
    synthetic::ClipSettings settings;
    settings.camera.width = width;
    settings.camera.height = height;
    const synthetic::ShakyClip clip(settings);
    video_io::OutputFile file(path);
    const auto header = video_io::make_y4m_header(width, height, "30:1");
    video_io::Y4mWriter writer(file.sink(), header);
    const PictureBuffer picture(header);
    for (int frame = 0; frame < frames; ++frame) {
        clip.render(frame, picture.planes);
        writer.write_frame(picture.planes);
    }
    file.commit();
}
