#include "brick/Version.h"

namespace brick {

const char* getLibraryVersion()
{
    return kVersion;
}

} // namespace brick
