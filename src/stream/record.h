// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "videostabilizer/stream.h"

namespace videostabilizer {

// Records of the C interface, which begin with their size and grow at their end. `smallest` is that of
// the first version.
constexpr std::size_t LARGEST_RECORD = 4096;  // more means that the size is not initialised

// What is wrong with a caller's record, or null and the record as we know it.
template <typename Record>
const char* read_record(const Record* given, std::size_t smallest, Record& out) {
    if (given == nullptr || given->size < smallest || given->size > LARGEST_RECORD) {
        return "the record has no size that any version of it has";
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(given);
    if (std::any_of(bytes + std::min(sizeof(Record), given->size), bytes + given->size,
                    [](unsigned char byte) { return byte != 0; })) {
        return "the record is newer than the library";
    }
    out = Record{};
    std::memcpy(static_cast<void*>(&out), given, std::min(sizeof(Record), given->size));
    out.size = sizeof(Record);
    return nullptr;
}

// Fills in a caller's record, whose size is set. Returns false, with the record untouched, for a size
// that no version has.
template <typename Record>
bool write_record(const Record& values, std::size_t smallest, Record* out) {
    if (out == nullptr || out->size < smallest || out->size > LARGEST_RECORD) {
        return false;
    }
    const std::size_t size = out->size;
    std::memset(static_cast<void*>(out), 0, size);
    std::memcpy(static_cast<void*>(out), &values, std::min(sizeof(Record), size));
    out->size = size;
    return true;
}

// Of the first versions.
constexpr std::size_t SMALLEST_OPTIONS =
    offsetof(VideoStabilizerStreamOptions, ready_context) + sizeof(void*);
constexpr std::size_t SMALLEST_INPUT =
    offsetof(VideoStabilizerInput, release_context) + sizeof(void*);
constexpr std::size_t SMALLEST_OUTPUT = offsetof(VideoStabilizerOutput, host) + sizeof(void*);
constexpr std::size_t SMALLEST_REPORT =
    offsetof(VideoStabilizerStreamReport, correction) + 9 * sizeof(float);
constexpr std::size_t SMALLEST_SHAPE =
    offsetof(VideoStabilizerPlaneShape, rows) + sizeof(std::int32_t);

}  // namespace videostabilizer
