// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/version.h"

namespace videostabilizer {

const char* version() {
    return VIDEOSTABILIZER_VERSION;
}

}  // namespace videostabilizer
