#include "ErrorText.h"

#include <set>

namespace cli {

namespace {

// Properties that only the library's own code reads.
const std::set<std::string>& internalPropertyNames()
{
    static const std::set<std::string> names{zo::CFileSystemError::getProblemPropertyName(), "errno", "systemMessage"};
    return names;
}

// The file system's classification of a failure in words; empty when the
// message already says it or there is none.
std::string problemInWords(const zo::CProps& props)
{
    switch (zo::CFileSystemError::getProblem(props)) {
    case zo::CFileSystemError::NotFound:
        return "no such file or folder";
    case zo::CFileSystemError::AlreadyExists:
        return "it exists already";
    case zo::CFileSystemError::AccessDenied:
        return "permission denied";
    case zo::CFileSystemError::NoSpace:
        return "no space left on device";
    case zo::CFileSystemError::NotAFolder:
        return "a part of the path is not a folder";
    case zo::CFileSystemError::NotSupported:
        return "not supported by the file system";
    case zo::CFileSystemError::IsAFolder:
        return "it is a folder";
    case zo::CFileSystemError::FolderNotEmpty:
        return "the folder is not empty";
    case zo::CFileSystemError::InvalidName:
        return "invalid name";
    case zo::CFileSystemError::Locked:
        return "locked by someone else";
    default:
        return std::string();
    }
}

bool isInternal(const std::string& name, const std::string& value)
{
    // "action: CBrickDataPreparer::unprepareData" names a function of the library.
    return internalPropertyNames().count(name) != 0 || (name == "action" && value.find("::") != std::string::npos);
}

} // namespace

std::string describeForUser(const zo::CError& error)
{
    std::string text = error.getDescription().toUTF8();
    std::string context;
    for (const auto& [name, value] : error.getProps()) {
        const std::string nameText = name.toUTF8();
        const std::string valueText = value.toUTF8();
        if (isInternal(nameText, valueText))
            continue;
        context += (context.empty() ? "" : ", ") + nameText + ": " + valueText;
    }
    const std::string problem = problemInWords(error.getProps());
    const bool saysProblem = !error.getProps().lookup("systemMessage").isEmpty();
    if (!problem.empty() && !saysProblem)
        context += (context.empty() ? "" : ", ") + problem;
    if (!context.empty())
        text += " (" + context + ")";
    const zo::PC<zo::CError> cause = error.getCause();
    if (cause && (cause->getDescription() != error.getDescription() || cause->getCause()))
        text += " Cause: " + describeForUser(*cause);
    return text;
}

} // namespace cli
