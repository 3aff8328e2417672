// SPDX-License-Identifier: Apache-2.0

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "platform/log.h"
#include "videostabilizer/ocl_runtime.h"
#include "warp/ocl.h"

namespace videostabilizer {

namespace {

// Stores the length of the file in bytes and seeks back to its start. Returns false with an error
// in the log if either fails.
bool measure(std::FILE* file, const char* path, unsigned int* length) {
    if (std::fseek(file, 0, SEEK_END) != 0) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to seek EOF of: %s\n", path);
        return false;
    }
    const long end = std::ftell(file);
    if (end < 0 || end >= INT_MAX) {  // LONG_MAX for directories
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to get the length of: %s\n", path);
        return false;
    }
    *length = static_cast<unsigned int>(end);
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to seek BEGIN of: %s\n", path);
        return false;
    }
    return true;
}

// Returns the text of the file, NUL-terminated, or null with an error in the log.
char* read_text(std::FILE* file, std::size_t length) {
    char* const text = static_cast<char*>(std::malloc(length + 1));
    if (text == nullptr) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Out of memory!\n");
        return nullptr;
    }
    const std::size_t count = std::fread(text, 1, length, file);
    if (count != length) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG,
                            "Failed to read source code! source_len: %d, read_size: %d\n",
                            static_cast<int>(length), static_cast<int>(count));
        std::free(text);
        return nullptr;
    }
    __android_log_print(LOG_INFO, WARP_OCL_TAG, "Read source, source_len: %d, read_size: %d\n",
                        static_cast<int>(length), static_cast<int>(count));
    text[length] = '\0';
    return text;
}

}  // namespace

int openKernel(const char* path, char** source, unsigned int* length) {
    std::FILE* const file = std::fopen(path, "r");
    if (file == nullptr) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Can't open file: %s\n", path);
        return -1;
    }
    if (!measure(file, path, length)) {
        std::fclose(file);
        return -1;
    }
    *source = read_text(file, *length);
    if (*source == nullptr) {
        std::fclose(file);
        return -1;
    }
    if (std::fclose(file) != 0) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to close file: %s\n", path);
        std::free(*source);
        *source = nullptr;
        return -1;
    }
    return 0;
}

}  // namespace videostabilizer
