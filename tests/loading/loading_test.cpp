#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "videostabilizer/frame.h"
#include "videostabilizer/version.h"

namespace videostabilizer {
namespace {

// The function that the library exports under a mangled name.
template <typename Function>
Function* find(void* library, const char* name) {
    return reinterpret_cast<Function*>(dlsym(library, name));
}

TEST(Loading, LibraryServesAHostWithoutADevice) {
    // Whatever devices this machine has, the OpenCL loader is not to find them.
    // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread
    setenv("OCL_ICD_VENDORS", "/nonexistent/", 1);
    unsetenv("OCL_ICD_FILENAMES");
    void* const library = dlopen(VIDEOSTABILIZER_LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    // NOLINTEND(concurrency-mt-unsafe)

    auto* const get_version = find<const char*()>(library, "_ZN15videostabilizer7versionEv");
    ASSERT_NE(get_version, nullptr);
    EXPECT_STREQ(get_version(), VIDEOSTABILIZER_VERSION);

    auto* const create = find<Frame*(int, int, int, int, PixFmt, unsigned char*)>(
        library, "_ZN15videostabilizer12frame_createEiiiiNS_6PixFmtEPh");
    auto* const destroy =
        find<void(Frame*)>(library, "_ZN15videostabilizer12frame_deleteEPNS_5FrameE");
    ASSERT_NE(create, nullptr);
    ASSERT_NE(destroy, nullptr);
    Frame* const frame = create(64, 48, 64, 32, PIX_FMT_YUV420P, nullptr);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->plane_uv - frame->plane_y, 64 * 48);
    std::memset(frame->plane_y, 1, std::size_t{64} * 48 * 3 / 2);
    destroy(frame);

    EXPECT_NE(dlsym(library, "warp_affine_neon"), nullptr);

    auto* const init = find<int()>(library, "_ZN15videostabilizer28video_stabilizer_module_initEv");
    ASSERT_EQ(init != nullptr, HAS_STABILIZER);
    if (init != nullptr) {
        EXPECT_EQ(init(), -1);
    }
}

}  // namespace
}  // namespace videostabilizer
