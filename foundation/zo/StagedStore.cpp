#include "zo/StagedStore.h"

namespace zo {

P<IFileSystemOp> beginStoreFileStaged(IFileSystem* fs, const CURI& file, int size, IInStream* source,
                                      IDoneListener* listener)
{
    if (IStagedStores* staged = dynamic_cast<IStagedStores*>(fs))
        return staged->beginStoreFileStaged(file, size, source, listener);
    return fs->beginStoreFileBatched(file, size, source, true, listener);
}

} // namespace zo
