// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/media/media_source.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstddef>
#include <memory>
#include <string>

#include "tests/apps/run_program.h"

namespace {

// A sanitizer, which has its own allocator, reports leaks at the end.
TEST(MediaSource, LosesNoMemoryOnAStreamThatCannotBeUsed) {
    constexpr char WAV[] =
        "RIFF\x64\x1f\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1f\0\0\x40\x1f\0\0\1\0\x8\0data\x40\x1f\0";
    const Folder folder;
    apps::show_ffmpeg_log(false);
    for (const std::string& bytes :
         {std::string(WAV, sizeof WAV) + std::string(8000, '\x80'), std::string("some text\n")}) {
        write_file(folder.file("in"), bytes);
        const auto open = [&] {
            auto stream = std::make_unique<video_io::FdSource>(folder.file("in"));
            EXPECT_THROW(apps::MediaSource(std::move(stream), {}), video_io::InputError);
        };
        open();  // FFmpeg's own allocations
        const std::size_t before = mallinfo2().uordblks;
        for (int i = 0; i < 20; ++i) {
            open();
        }
        EXPECT_LT(mallinfo2().uordblks, before + 100000);
    }
}

}  // namespace
