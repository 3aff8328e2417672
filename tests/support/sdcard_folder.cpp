// SPDX-License-Identifier: Apache-2.0

#include "tests/support/sdcard_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
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
    std::FILE* const file = std::fopen(SdcardFolder::INPUT, "wb");
    ASSERT_NE(file, nullptr);
    std::vector<unsigned char> frame(SdcardFolder::FRAME_BYTES, 128);
    for (long done = 0, number = 0; done < bytes; ++number) {
        for (long i = 0; i < 1280L * 720; ++i) {
            const auto x = static_cast<unsigned>(i % 1280 + 3 * number);
            const auto y = static_cast<unsigned>(i / 1280 + number % 5);
            frame[static_cast<std::size_t>(i)] =
                static_cast<unsigned char>((x / 20 * 31 + y / 20 * 57) * 2654435761U >> 24);
        }
        const long part = std::min(bytes - done, SdcardFolder::FRAME_BYTES);
        ASSERT_EQ(std::fwrite(frame.data(), 1, static_cast<std::size_t>(part), file),
                  static_cast<std::size_t>(part));
        done += part;
    }
    std::fclose(file);
}

long size_of_file(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0 ? static_cast<long>(info.st_size) : -1;
}
