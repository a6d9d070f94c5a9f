// An environment variable set for as long as the object lives, then restored
// (or removed when it was not set). Tests only: the environment is shared by
// every thread of the process.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace testsupport {

class CEnvironmentVariable {
public:
    CEnvironmentVariable(const char* name, const std::string& value) : m_name(name)
    {
        if (const char* old = std::getenv(name))
            m_old = old;
        ::setenv(name, value.c_str(), 1);
    }
    ~CEnvironmentVariable()
    {
        if (m_old)
            ::setenv(m_name.c_str(), m_old->c_str(), 1);
        else
            ::unsetenv(m_name.c_str());
    }
    CEnvironmentVariable(const CEnvironmentVariable&) = delete;
    CEnvironmentVariable& operator=(const CEnvironmentVariable&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_old;
};

} // namespace testsupport
