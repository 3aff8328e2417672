#pragma once

#include "videostabilizer/log.h"

namespace videostabilizer {

// Android log priorities, as __android_log_print takes them.
constexpr int LOG_INFO = 4;
constexpr int LOG_WARN = 5;
constexpr int LOG_ERROR = 6;

// The text of every failed allocation, whatever the module.
constexpr char OUT_OF_MEMORY_TEXT[] = "OUT OF MEMORY!!!";

}  // namespace videostabilizer
