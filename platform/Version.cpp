#include "platform/Version.h"

#ifndef QUARVEL_VERSION
#error "QUARVEL_VERSION must come from the build (project VERSION)"
#endif

namespace quarvel {

const char* version() {
    return QUARVEL_VERSION;
}

} // namespace quarvel
