// Runs a fuzzing target on files, or on all files of folders: seeds and former findings.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "fuzz/fuzz_input.h"

namespace {

void run_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> text((std::istreambuf_iterator<char>(file)),
                                 std::istreambuf_iterator<char>());
    std::printf("%s, %zu bytes\n", path.filename().c_str(), text.size());
    std::fflush(stdout);  // a crash says which file it was
    // A copy of the exact size, as std::vector may have room to spare.
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
                files.push_back(entry.path());
            }
        } else if (std::filesystem::exists(argv[i])) {
            files.emplace_back(argv[i]);
        }  // a target without findings has no folder of them
    }
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& file : files) {
        run_file(file);
    }
    if (files.empty()) {
        std::fputs("no files\n", stderr);
        return 1;
    }
    return 0;
}
