#include "zo/Machine.h"

#include <unistd.h>

namespace zo {

int64 getPhysicalMemorySize()
{
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0)
        return -1;
    return static_cast<int64>(pages) * pageSize;
}

} // namespace zo
