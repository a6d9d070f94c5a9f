// What the system says about a brickdisk mount: whether its folder is a
// mount point, and whether a loop device still holds its disk file (the
// kernel then keeps the file busy, and taking the file away would give the
// loop device's users I/O errors).
#pragma once

#include <optional>
#include <string>

namespace cli {

// True when the absolute, normalised `folder` is a mount point of this
// process's mount namespace.
bool isMountPoint(const std::string& folder);

// A loop device whose backing file is a given file.
struct LoopUse {
    std::string device; // "/dev/loop3"
    std::string mountPoint; // where the device is mounted; empty when it is only attached
};

// The loop device backed by the file at the absolute path `file`; nullopt
// when none is.
std::optional<LoopUse> findLoopDevice(const std::string& file);

// How to let go of `use`, as a command to give the user ("umount /mnt",
// "losetup -d /dev/loop3").
std::string releaseCommand(const LoopUse& use);

} // namespace cli
