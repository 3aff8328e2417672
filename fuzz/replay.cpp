// SPDX-License-Identifier: Apache-2.0

// Runs a fuzzing target on files, or on all files of folders (seeds and former findings), and on
// random inputs, every other one of which is one of the files with some bytes changed:
//
//   fuzz_TARGET [FILE|FOLDER...] [--random N [SEED]]
//
// The random inputs are those of the seeds SEED (1), SEED + 1, ..., so each can be repeated alone.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void run(const std::string& name, const Bytes& input) {
    std::printf("%s, %zu bytes\n", name.c_str(), input.size());
    std::fflush(stdout);                            // names the input in case of a crash
    const Bytes exact(input.begin(), input.end());  // has no room to spare
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

Bytes read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

Bytes random_input(unsigned long seed, const std::vector<Bytes>& files) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    const auto byte = [&] { return static_cast<std::uint8_t>(random() >> 24U); };
    if (seed % 2 == 0 && !files.empty()) {
        Bytes bytes = files[random() % files.size()];
        for (auto changes = 1 + random() % 8; changes > 0 && !bytes.empty(); --changes) {
            const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(random() % bytes.size());
            const auto kind = random() % 4;
            if (kind == 0) {
                bytes.erase(at);
            } else if (kind == 1) {
                bytes.insert(at, byte());
            } else {
                *at = kind == 2 ? byte() : static_cast<std::uint8_t>(*at + 1);
            }
        }
        return bytes;
    }
    Bytes bytes(random() % (16U << (random() % 9)));  // short ones are as likely as long ones
    std::generate(bytes.begin(), bytes.end(), byte);
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> paths;
    unsigned long count = 0;
    unsigned long first_seed = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--random") == 0) {
            count = i + 1 < argc ? std::strtoul(argv[i + 1], nullptr, 10) : 0;
            first_seed = i + 2 < argc ? std::strtoul(argv[i + 2], nullptr, 10) : first_seed;
            break;
        }
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
                paths.push_back(entry.path());
            }
        } else if (std::filesystem::exists(argv[i])) {
            paths.emplace_back(argv[i]);
        }  // a target without findings has no folder of them
    }
    std::sort(paths.begin(), paths.end());
    std::vector<Bytes> files;
    for (const std::filesystem::path& path : paths) {
        files.push_back(read(path));
        run(path.filename().string(), files.back());
    }
    for (unsigned long seed = first_seed; seed != first_seed + count; ++seed) {
        run("--random 1 " + std::to_string(seed), random_input(seed, files));
    }
    if (files.empty() && count == 0) {
        std::fputs("nothing to run\n", stderr);
        return 1;
    }
    return 0;
}
