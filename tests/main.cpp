// SPDX-License-Identifier: Apache-2.0

// The library exports a main of its own, which would satisfy the linker before a test-main archive
// does; so the test programs bring this object.

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
