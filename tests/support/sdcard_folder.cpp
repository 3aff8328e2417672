// SPDX-License-Identifier: Apache-2.0

#include "tests/support/sdcard_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

SdcardFolder::SdcardFolder() : made_(mkdir(FOLDER, 0755) == 0) {}

SdcardFolder::~SdcardFolder() {
    if (made_) {
        std::remove(INPUT);
        std::remove(OUTPUT);
        rmdir(FOLDER);
    }
}

void write_sdcard_input(long bytes) {
    const std::vector<char> grey(SdcardFolder::FRAME_BYTES, 100);
    std::ofstream file(SdcardFolder::INPUT, std::ios::binary);
    for (long done = 0; done < bytes; done += SdcardFolder::FRAME_BYTES) {
        file.write(grey.data(), std::min(bytes - done, SdcardFolder::FRAME_BYTES));
    }
    ASSERT_TRUE(file.flush());
}

long size_of_file(const char* path) {
    std::error_code none;
    return static_cast<long>(std::filesystem::file_size(path, none));
}
