#include "Password.h"

#include "Terminal.h"
#include "UsageError.h"

#include "brick/format/PasswordFile.h"
#include "zo/Error.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <string.h>
#include <utility>

namespace cli {

namespace {

// Overwrites a secret before its memory is given back.
class CWipedString {
public:
    ~CWipedString() { explicit_bzero(text.data(), text.size()); }
    std::string text;
};

std::string readPasswordFileOrRefuse(const std::string& path)
{
    try {
        return brick::readPasswordFile(path);
    } catch (const zo::CError& e) {
        throw UsageError(e.getMessage().toUTF8());
    }
}

UsageError noPasswordSource(const std::string& what, const std::string& fileOption,
                            const std::string& environmentVariable)
{
    return UsageError("a " + what + " is needed: give " + fileOption + " FILE or set " + environmentVariable +
                      " (there is no terminal to ask on)");
}

} // namespace

CPasswordSource::CPasswordSource() : CPasswordSource("--password-file", "BRICKDISK_PASSWORD", "password")
{}

CPasswordSource::CPasswordSource(std::string fileOption, std::string environmentVariable, std::string what)
    : m_fileOption(std::move(fileOption)), m_environmentVariable(std::move(environmentVariable)),
      m_what(std::move(what))
{}

void CPasswordSource::addOptionTo(CLI::App& command)
{
    command.add_option(m_fileOption, m_passwordFile,
                       "File whose content (without a trailing newline) is the " + m_what);
}

void CPasswordSource::addAllowExpensiveKdfOptionTo(CLI::App& command)
{
    command.add_flag("--allow-expensive-kdf", m_allowExpensiveKdf,
                     "Open a disk whose key derivation costs more than 16 times the default work, 1 GiB of memory "
                     "or a million PBKDF2 iterations (never more memory than the machine has)");
}

bool CPasswordSource::fromFileOrEnvironment(std::string& password) const
{
    if (!m_passwordFile.empty()) {
        password = readPasswordFileOrRefuse(m_passwordFile);
        return true;
    }
    if (const char* value = std::getenv(m_environmentVariable.c_str())) {
        if (*value == '\0')
            throw UsageError(m_environmentVariable + " is set but empty");
        password = value;
        return true;
    }
    return false;
}

zo::String CPasswordSource::forExistingDisk(const std::string& diskPath) const
{
    CWipedString password;
    if (fromFileOrEnvironment(password.text))
        return zo::String(password.text);
    if (!askOnTerminalWithoutEcho("Password for " + diskPath + ": ", password.text))
        throw noPasswordSource(m_what, m_fileOption, m_environmentVariable);
    return zo::String(password.text);
}

zo::String CPasswordSource::forNewDisk(const std::string& diskPath) const
{
    CWipedString password;
    if (fromFileOrEnvironment(password.text))
        return zo::String(password.text);
    if (!askOnTerminalWithoutEcho("New password for " + diskPath + ": ", password.text))
        throw noPasswordSource(m_what, m_fileOption, m_environmentVariable);
    if (password.text.empty())
        throw UsageError("the password is empty (use --no-encryption for a disk without one)");
    CWipedString again;
    askOnTerminalWithoutEcho("Same password again: ", again.text);
    if (again.text != password.text)
        throw UsageError("the two passwords differ");
    return zo::String(password.text);
}

} // namespace cli
