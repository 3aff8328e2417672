#include "videostabilizer/version.h"

namespace videostabilizer {

const char* version() {
    return VIDEOSTABILIZER_VERSION;
}

}  // namespace videostabilizer
