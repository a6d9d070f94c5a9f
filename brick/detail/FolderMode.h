// The mode that the library gives every folder it creates: disk folders,
// their "fallback" folder and the folders of the brick tree. Used inside the
// library only; not part of the public API.
#pragma once

namespace brick {

// rwx for everyone; the process's umask narrows it as usual.
constexpr int kFolderMode = 0x1ff;

} // namespace brick
