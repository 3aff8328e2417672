#include "tests/apps/run_program.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "apps/output_file.h"
#include "tests/apps/memory_io.h"

Folder::Folder() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "stabilize video XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
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
    const std::string line =
        "PROGRAM='" STABILIZE_VIDEO "'; { " + command + "\n} 2> '" + errors + "'";
    const int result = std::system(line.c_str());  // NOLINT(concurrency-mt-unsafe,cert-env33-c)
    Outcome outcome{WIFEXITED(result) ? WEXITSTATUS(result) : -1, read_file(errors)};
    std::filesystem::remove(errors);
    return outcome;
}

Outcome run_program(const Folder& folder, const std::vector<std::string>& arguments) {
    std::string command = "\"$PROGRAM\"";
    for (const std::string& argument : arguments) {
        command += " '" + argument + "'";
    }
    return run_shell(folder, command);
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

void write_clip(const std::string& path, const apps::ShakyClip& clip, int frames) {
    MemorySink sink;
    apps::Y4mWriter writer(sink, apps::make_y4m_header(clip.width(), clip.height(), "30:1"));
    PictureBuffer picture(clip.width(), clip.height());
    for (int frame = 0; frame < frames; ++frame) {
        clip.render(frame, picture.planes());
        writer.write_frame(picture.planes());
    }
    write_file(path, sink.bytes);
}

std::vector<std::vector<unsigned char>> read_luma(const std::string& path) {
    apps::FdSource source(path);
    apps::Y4mReader reader(source);
    const apps::Y4mHeader& header = reader.header();
    std::vector<std::vector<unsigned char>> frames;
    PictureBuffer picture(header.width, header.height);
    while (reader.read_frame(picture.planes())) {
        frames.emplace_back(picture.pixels().begin(),
                            picture.pixels().begin() + header.width * header.height);
    }
    return frames;
}

std::vector<std::vector<double>> read_csv(const std::string& path) {
    std::istringstream lines(read_file(path));
    std::string line;
    std::getline(lines, line);
    std::vector<std::vector<double>> rows;
    while (std::getline(lines, line)) {
        std::replace(line.begin(), line.end(), ',', ' ');
        std::istringstream numbers(line);
        rows.emplace_back(std::istream_iterator<double>(numbers), std::istream_iterator<double>());
    }
    return rows;
}
