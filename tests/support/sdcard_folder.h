// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

// The folder with the fixed files of the file-driven test. It is made where there is none, and
// removed with its files at the end; where there is one already, or none can be made, it is not
// touched and `made` is false: such a test is to be skipped.
class SdcardFolder {
  public:
    static constexpr char FOLDER[] = "/sdcard";
    static constexpr char INPUT[] = "/sdcard/keypoints_90f.yuv";
    static constexpr char OUTPUT[] = "/sdcard/keypoints_90f_stab.yuv";
    static constexpr long FRAME_BYTES = 1382400;

    SdcardFolder() : made_(std::filesystem::create_directory(FOLDER, none_)) {}
    ~SdcardFolder() {
        if (made_) {
            std::filesystem::remove_all(FOLDER, none_);
        }
    }
    SdcardFolder(const SdcardFolder&) = delete;
    SdcardFolder& operator=(const SdcardFolder&) = delete;

    bool made() const { return made_; }

  private:
    std::error_code none_;
    bool made_;
};

#define SKIP_UNLESS_MADE(folder)                                  \
    if (!(folder).made()) {                                       \
        GTEST_SKIP() << "needs to make " << SdcardFolder::FOLDER; \
    }

// Writes `bytes` bytes of grey pictures as the input file.
inline void write_sdcard_input(long bytes) {
    const std::vector<char> grey(SdcardFolder::FRAME_BYTES, 100);
    std::ofstream file(SdcardFolder::INPUT, std::ios::binary);
    for (long done = 0; done < bytes; done += SdcardFolder::FRAME_BYTES) {
        file.write(grey.data(), std::min(bytes - done, SdcardFolder::FRAME_BYTES));
    }
    ASSERT_TRUE(file.flush());
}

// -1 if there is no such file.
inline long size_of_file(const char* path) {
    std::error_code none;
    return static_cast<long>(std::filesystem::file_size(path, none));
}
