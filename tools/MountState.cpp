#include "MountState.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace cli {

namespace {

// A field of /proc/self/mountinfo or /proc/self/mounts, whose spaces, tabs,
// newlines and backslashes are written as octal escapes ("\040").
std::string unescapeMountField(const std::string& field)
{
    std::string text;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const std::string octal = field.substr(i + 1, 3);
            if (octal.find_first_not_of("01234567") == std::string::npos) {
                text += static_cast<char>(std::stoi(octal, nullptr, 8));
                i += 3;
                continue;
            }
        }
        text += field[i];
    }
    return text;
}

std::string firstLineOf(const std::filesystem::path& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// Where `device` is mounted; empty when it is not.
std::string mountPointOf(const std::string& device)
{
    std::ifstream mounts("/proc/self/mounts");
    std::string line;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string source, target;
        fields >> source >> target;
        if (unescapeMountField(source) == device)
            return unescapeMountField(target);
    }
    return std::string();
}

} // namespace

bool isMountPoint(const std::string& folder)
{
    std::ifstream mountInfo("/proc/self/mountinfo");
    std::string line;
    while (std::getline(mountInfo, line)) {
        // Mount ID, parent ID, major:minor, root, mount point, ...
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint;
        fields >> id >> parent >> device >> root >> mountPoint;
        if (unescapeMountField(mountPoint) == folder)
            return true;
    }
    return false;
}

std::optional<LoopUse> findLoopDevice(const std::string& file)
{
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/block", error)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("loop", 0) != 0)
            continue;
        // The kernel appends " (deleted)" to a backing file that is gone.
        if (firstLineOf(entry.path() / "loop" / "backing_file") != file)
            continue;
        LoopUse use;
        use.device = "/dev/" + name;
        use.mountPoint = mountPointOf(use.device);
        return use;
    }
    return std::nullopt;
}

std::string releaseCommand(const LoopUse& use)
{
    return use.mountPoint.empty() ? "losetup -d " + use.device : "umount " + use.mountPoint;
}

} // namespace cli
