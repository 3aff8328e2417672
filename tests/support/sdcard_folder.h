// SPDX-License-Identifier: Apache-2.0

#pragma once

// The folder with the fixed files of the file-driven test. It is made where there is none, and
// removed with its files at the end; where there is one already, or none can be made, it is not
// touched and `made` is false: such a test is to be skipped.
class SdcardFolder {
  public:
    static constexpr char FOLDER[] = "/sdcard";
    static constexpr char INPUT[] = "/sdcard/keypoints_90f.yuv";
    static constexpr char OUTPUT[] = "/sdcard/keypoints_90f_stab.yuv";
    static constexpr long FRAME_BYTES = 1382400;

    SdcardFolder();
    ~SdcardFolder();
    SdcardFolder(const SdcardFolder&) = delete;
    SdcardFolder& operator=(const SdcardFolder&) = delete;

    bool made() const { return made_; }

  private:
    bool made_;
};

#define SKIP_UNLESS_MADE(folder)                                  \
    if (!(folder).made()) {                                       \
        GTEST_SKIP() << "needs to make " << SdcardFolder::FOLDER; \
    }

// Writes `bytes` bytes of grey pictures as the input file.
void write_sdcard_input(long bytes);

// -1 if there is no such file.
long size_of_file(const char* path);
