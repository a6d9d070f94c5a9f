// What the program can learn about the machine it runs on.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

namespace zo {

// The machine's physical memory in bytes; -1 when the system does not tell.
// Any thread.
BRICKDISK_EXPORT int64 getPhysicalMemorySize();

} // namespace zo
