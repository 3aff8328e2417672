// SPDX-License-Identifier: Apache-2.0

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "videostabilizer/frame.h"
#include "videostabilizer/version.h"

using namespace videostabilizer;

TEST(Loading, LibraryServesAHostWithoutADevice) {
    // Whatever devices this machine has, the OpenCL loader is not to find them.
    // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread
    setenv("OCL_ICD_VENDORS", "/nonexistent/", 1);
    unsetenv("OCL_ICD_FILENAMES");
    void* const library = dlopen(VIDEOSTABILIZER_LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    // NOLINTEND(concurrency-mt-unsafe)
    const auto find = [&](auto& function, const char* mangled_name) {
        void* const symbol = dlsym(library, mangled_name);
        function = reinterpret_cast<std::decay_t<decltype(function)>>(symbol);
        return symbol != nullptr;
    };

    const char* (*get_version)() = nullptr;
    ASSERT_TRUE(find(get_version, "_ZN15videostabilizer7versionEv"));
    EXPECT_STREQ(get_version(), VIDEOSTABILIZER_VERSION);

    decltype(frame_delete)* destroy = nullptr;
    Frame* (*create)(int, int, int, int, PixFmt, unsigned char*) = nullptr;
    ASSERT_TRUE(find(create, "_ZN15videostabilizer12frame_createEiiiiNS_6PixFmtEPh"));
    ASSERT_TRUE(find(destroy, "_ZN15videostabilizer12frame_deleteEPNS_5FrameE"));
    Frame* const frame = create(64, 48, 64, 32, PIX_FMT_YUV420P, nullptr);
    ASSERT_NE(frame, nullptr);
    std::memset(frame->plane_y, 1, std::size_t{64} * 48 * 3 / 2);
    destroy(frame);

    EXPECT_NE(dlsym(library, "warp_affine_neon"), nullptr);
    int (*init)() = nullptr;
    ASSERT_EQ(find(init, "_ZN15videostabilizer28video_stabilizer_module_initEv"), HAS_STABILIZER);
    EXPECT_EQ(init != nullptr ? init() : -1, -1);
}
