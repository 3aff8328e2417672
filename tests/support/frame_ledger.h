// SPDX-License-Identifier: Apache-2.0

#pragma once

// A test program that links frame_ledger.cpp knows every frame that exists: its frame_create and
// frame_delete stand before the library's own, also for the calls inside the library. A frame that
// is deleted twice, or that never existed, is a test failure at once.

namespace test_support {

int live_frames();

}  // namespace test_support
