#include "zo/FileSystemQueries.h"

namespace zo {

std::vector<FolderEntry> listFolderWithInfo(IFileSystem* fs, const CURI& folder)
{
    if (IFileSystemQueries* queries = dynamic_cast<IFileSystemQueries*>(fs))
        return queries->listFolderWithInfo(folder);
    return listFolderEntryByEntry(fs, folder);
}

std::vector<FolderEntry> listFolderEntryByEntry(IFileSystem* fs, const CURI& folder)
{
    std::vector<FolderEntry> entries;
    for (const String& name : fs->listFolder(folder)) {
        const P<IFileInfo> info = fs->getFileInfo(folder << name, false);
        if (info->exists())
            entries.push_back(FolderEntry{name, info->isFolder(), info->isFolder() ? 0 : info->getSize(), String()});
    }
    return entries;
}

void readFileRange(IFileSystem* fs, const CURI& file, int64 offset, void* bytes, int size)
{
    if (IFileSystemQueries* queries = dynamic_cast<IFileSystemQueries*>(fs)) {
        queries->readRange(file, offset, bytes, size);
        return;
    }
    const P<IIOStream> stream = fs->openStream(file, IIOStream::AccessRead, IIOStream::OptionRanges);
    stream->seek(offset);
    stream->read(bytes, size);
}

} // namespace zo
