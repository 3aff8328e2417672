// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "tests/faults/library_calls.h"

namespace test_support {

inline const bool library_is_watched = watch_library();

inline int opencl_calls(const char* name) {
    return calls(name);
}

}  // namespace test_support
