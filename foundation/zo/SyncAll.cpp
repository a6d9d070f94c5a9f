#include "zo/SyncAll.h"

namespace zo {

bool syncAllBelow(IFileSystem* fs, const CURI& folder)
{
    ISyncAll* syncing = dynamic_cast<ISyncAll*>(fs);
    if (!syncing)
        return false;
    syncing->syncAllBelow(folder);
    return true;
}

} // namespace zo
