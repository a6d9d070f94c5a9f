// Where the password of a disk comes from. In this order: the file named by
// --password-file, the environment variable BRICKDISK_PASSWORD, a question on
// the terminal. A password is never taken from the command line itself,
// where other users of the machine could read it.
#pragma once

#include "zo/String.h"

#include <string>

namespace CLI {
class App;
}

namespace cli {

class CPasswordSource {
public:
    // The password of --password-file and BRICKDISK_PASSWORD.
    CPasswordSource();
    // A password from the file option `fileOption` (e.g.
    // "--new-password-file") and the variable `environmentVariable`, in the
    // same order as above; `what` names it on the terminal and in --help
    // ("new password").
    CPasswordSource(std::string fileOption, std::string environmentVariable, std::string what);

    // Adds the file option to `command`, filling this source.
    void addOptionTo(CLI::App& command);
    // Adds --allow-expensive-kdf to a command that opens existing disks: the
    // key of a disk whose header asks for a costlier derivation than the
    // library allows without permission is then derived all the same.
    void addAllowExpensiveKdfOptionTo(CLI::App& command);
    bool allowsExpensiveKdf() const { return m_allowExpensiveKdf; }

    // The password of an existing disk. A password file's content counts
    // without one trailing newline ("\n" or "\r\n"). Throws UsageError when the
    // file cannot be read or is empty, when BRICKDISK_PASSWORD is set but
    // empty, and when there is neither a file, nor the variable, nor a terminal.
    zo::String forExistingDisk(const std::string& diskPath) const;

    // The password for a new disk: from the file or the variable as above, or
    // asked twice on the terminal (the answers must match and not be empty).
    zo::String forNewDisk(const std::string& diskPath) const;

private:
    // The password from the file or the variable; false when neither is given.
    bool fromFileOrEnvironment(std::string& password) const;

    std::string m_fileOption;
    std::string m_environmentVariable;
    std::string m_what;
    std::string m_passwordFile;
    bool m_allowExpensiveKdf = false;
};

} // namespace cli
