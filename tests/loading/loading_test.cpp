// SPDX-License-Identifier: Apache-2.0

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <type_traits>

#include "videostabilizer/version.h"

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

    EXPECT_NE(dlsym(library, "warp_affine_neon"), nullptr);
    int (*init)() = nullptr;
    ASSERT_EQ(find(init, "_ZN15videostabilizer28video_stabilizer_module_initEv"), HAS_STABILIZER);
    EXPECT_EQ(init != nullptr ? init() : -1, -1);
}
