#include "rados/RadosFileSystem.h"

#include "rados/RadosObjectStore.h"

namespace zo {

CRadosFileSystem::CRadosFileSystem(const RadosOptions& options)
    : CObjectStoreFileSystem(new CRadosObjectStore(options), getScheme(), options.threadCount)
{}

const char* CRadosFileSystem::getScheme()
{
    return "rados";
}

} // namespace zo
