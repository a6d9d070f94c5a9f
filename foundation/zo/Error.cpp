#include "zo/Error.h"

#include <cerrno>
#include <cstring>
#include <typeinfo>

namespace zo {

CError::CError(const String& message, const String& domain, int64 code, const CProps& props, const CError* cause)
    : m_message(message), m_domain(domain), m_code(code), m_props(props),
      m_cause(cause ? PC<CError>(cause->clone()) : PC<CError>()), m_what(message.toUTF8())
{}

CError::CError(const CError& other)
    : std::exception(other), CBase(other), m_message(other.m_message), m_domain(other.m_domain), m_code(other.m_code),
      m_props(other.m_props), m_cause(other.m_cause), m_what(other.m_what)
{}

CError& CError::operator=(const CError& other)
{
    if (this != &other) {
        m_message = other.m_message;
        m_domain = other.m_domain;
        m_code = other.m_code;
        m_props = other.m_props;
        m_cause = other.m_cause;
        m_what = other.m_what;
    }
    return *this;
}

P<CError> CError::clone() const
{
    return P<CError>(new CError(*this));
}
void CError::throwClone() const
{
    throw CError(*this);
}
String CError::getDescription() const
{
    return m_message.isEmpty() ? String("Error.") : m_message;
}

String CError::toString() const
{
    String text = getDescription();
    if (!m_props.isEmpty()) {
        text += " (";
        bool first = true;
        for (const auto& [name, value] : m_props) {
            if (!first)
                text += ", ";
            first = false;
            text += name + ": " + value;
        }
        text += ")";
    }
    // A wrapper that repeats its cause's text (CFileSystemError) already shows
    // the cause's properties; the cause is named only when it adds something.
    if (m_cause && (m_cause->getDescription() != getDescription() || m_cause->getCause()))
        text += " Cause: " + m_cause->toString();
    return text;
}

bool CError::checkCastAllowed(const std::type_info& type) const
{
    return type == typeid(CError) || CBase::checkCastAllowed(type);
}

CIOError::CIOError(Code code, const String& message, const CProps& props, const CError* cause)
    : CError(message, String(), code, props, cause)
{}

P<CError> CIOError::clone() const
{
    return P<CError>(new CIOError(*this));
}
void CIOError::throwClone() const
{
    throw CIOError(*this);
}

String CIOError::getDescription() const
{
    if (!getMessage().isEmpty())
        return getMessage();
    switch (getIOCode()) {
    case ReadFailed:
        return "Read failed.";
    case WriteFailed:
        return "Write failed.";
    case WriteBeyondSize:
        return "Write would end beyond the size.";
    case EndOfData:
        return "End of data reached.";
    case InvalidData:
        return "Invalid data.";
    case TimedOut:
        return "Timed out.";
    case SeekOutOfRange:
        return "Seek position out of range.";
    case LengthUnknown:
        return "Length unknown.";
    case ReadOnly:
        return "Stream is read-only.";
    case StreamClosed:
        return "Stream is closed.";
    case NotOnBoundary:
        return "Position is not on a block boundary.";
    case Busy:
        return "Busy.";
    case SetLengthNotSupported:
        return "Setting the length is not supported.";
    default:
        return "I/O error " + toDecimalString(getCode()) + ".";
    }
}

bool CIOError::checkCastAllowed(const std::type_info& type) const
{
    return type == typeid(CIOError) || CError::checkCastAllowed(type);
}

CInvalidArgError::CInvalidArgError(const String& where, const String& message, const CProps& props)
    : CError(message, String(), -1, props), m_where(where)
{}

P<CError> CInvalidArgError::clone() const
{
    return P<CError>(new CInvalidArgError(*this));
}
void CInvalidArgError::throwClone() const
{
    throw CInvalidArgError(*this);
}

bool CInvalidArgError::checkCastAllowed(const std::type_info& type) const
{
    return type == typeid(CInvalidArgError) || CError::checkCastAllowed(type);
}

CFileSystemError::CFileSystemError(Problem problem, const CError& cause)
    : CError(cause.getMessage(), String(), -1,
             CProps(cause.getProps()).add(getProblemPropertyName(), static_cast<int64>(problem)), &cause)
{}

CFileSystemError::Problem CFileSystemError::getProblem(const CProps& props)
{
    const String value = props.lookup(getProblemPropertyName());
    if (value.isEmpty())
        return Unclassified;
    try {
        return static_cast<Problem>(parseInt64(value, false));
    } catch (const CError&) {
        return Unclassified;
    }
}

P<CError> CFileSystemError::clone() const
{
    return P<CError>(new CFileSystemError(*this));
}
void CFileSystemError::throwClone() const
{
    throw CFileSystemError(*this);
}

bool CFileSystemError::checkCastAllowed(const std::type_info& type) const
{
    return type == typeid(CFileSystemError) || CError::checkCastAllowed(type);
}

CStdExceptionError::CStdExceptionError(const std::exception& e)
    : CError(e.what(), String(), -1, CProps().add("exceptionType", typeid(e).name()))
{}

P<CError> CStdExceptionError::exceptionToError(const std::exception* e)
{
    if (!e)
        return P<CError>(new CError("Unknown exception."));
    if (const auto* error = dynamic_cast<const CError*>(e))
        return error->clone();
    return P<CError>(new CStdExceptionError(*e));
}

P<CError> CStdExceptionError::clone() const
{
    return P<CError>(new CStdExceptionError(*this));
}
void CStdExceptionError::throwClone() const
{
    throw CStdExceptionError(*this);
}

bool CStdExceptionError::checkCastAllowed(const std::type_info& type) const
{
    return type == typeid(CStdExceptionError) || CError::checkCastAllowed(type);
}

CFileSystemError makeErrnoError(int errnoValue, const String& action, const String& path)
{
    CFileSystemError::Problem problem = CFileSystemError::Unclassified;
    switch (errnoValue) {
    case ENOENT:
        problem = CFileSystemError::NotFound;
        break;
    case EEXIST:
        problem = CFileSystemError::AlreadyExists;
        break;
    case EACCES:
    case EPERM:
    case EROFS:
        problem = CFileSystemError::AccessDenied;
        break;
    case ENOSPC:
    case EDQUOT:
        problem = CFileSystemError::NoSpace;
        break;
    case ENOTDIR:
        problem = CFileSystemError::NotAFolder;
        break;
    case ENOTSUP:
        problem = CFileSystemError::NotSupported;
        break;
    case EISDIR:
        problem = CFileSystemError::IsAFolder;
        break;
    case ENOTEMPTY:
        problem = CFileSystemError::FolderNotEmpty;
        break;
    case ENAMETOOLONG:
    case EINVAL:
        problem = CFileSystemError::InvalidName;
        break;
    default:
        break;
    }
    char buffer[256];
    const char* systemMessage = strerror_r(errnoValue, buffer, sizeof buffer);
    const CError cause(action + " failed: " + String(systemMessage) + ".", String(), -1,
                       CProps()
                           .add("path", path)
                           .add("action", action)
                           .add("errno", errnoValue)
                           .add("systemMessage", String(systemMessage)));
    return CFileSystemError(problem, cause);
}

} // namespace zo
