// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/log.h"

namespace videostabilizer {

// Android log priorities.
constexpr int LOG_INFO = 4;
constexpr int LOG_WARN = 5;
constexpr int LOG_ERROR = 6;

// Logged by all modules when an allocation fails.
constexpr char OUT_OF_MEMORY_TEXT[] = "OUT OF MEMORY!!!";

}  // namespace videostabilizer
