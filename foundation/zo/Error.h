// The CError family: every failure of the system is one of these, thrown by
// value and caught by reference. A CError carries a message, a domain text
// (empty unless a subsystem sets its own), a 64-bit code (-1 when it has none),
// named string properties for context and an optional cause.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"
#include "zo/Props.h"
#include "zo/String.h"

#include <exception>
#include <string>

namespace zo {

class BRICKDISK_EXPORT CError : public std::exception, public CBase {
public:
    explicit CError(const String& message, const String& domain = String(), int64 code = -1,
                    const CProps& props = CProps(), const CError* cause = nullptr);
    CError(const CError& other);
    CError& operator=(const CError& other);
    ~CError() override = default;

    // The message as UTF-8.
    const char* what() const noexcept override { return m_what.c_str(); }
    const String& getMessage() const { return m_message; }
    const String& getDomain() const { return m_domain; }
    int64 getCode() const { return m_code; }
    const CProps& getProps() const { return m_props; }
    // Errors passing through a layer get context added here ("uri", ...).
    CProps& getProps() { return m_props; }
    // The error that led to this one, or null.
    PC<CError> getCause() const { return m_cause; }

    // A heap copy of the most-derived type.
    virtual P<CError> clone() const;
    // Throws a copy of the most-derived type, so a saved error is caught again
    // by its own class.
    [[noreturn]] virtual void throwClone() const;
    // The message, or a standard text for errors whose message is empty.
    virtual String getDescription() const;
    // One line: description, properties and the chain of causes.
    String toString() const;

    bool checkCastAllowed(const std::type_info& type) const override;

private:
    String m_message;
    String m_domain;
    int64 m_code;
    CProps m_props;
    PC<CError> m_cause;
    std::string m_what;
};

// Stream and data errors. The numbers are part of the system's contract.
class BRICKDISK_EXPORT CIOError : public CError {
public:
    enum Code : int {
        Unspecified = 0,
        ReadFailed = 1,
        WriteFailed = 2,
        WriteBeyondSize = 3, // a write would end beyond the size of its target
        EndOfData = 4, // the end of the data was reached during a read or write
        InvalidData = 5,
        TimedOut = 6,
        SeekOutOfRange = 7, // a seek position outside the stream
        LengthUnknown = 8,
        ReadOnly = 9,
        StreamClosed = 10,
        NotOnBoundary = 11, // a write that must start on a block boundary does not
        Busy = 12,
        SetLengthNotSupported = 13,
    };

    CIOError(Code code, const String& message, const CProps& props = CProps(), const CError* cause = nullptr);
    Code getIOCode() const { return static_cast<Code>(getCode()); }

    P<CError> clone() const override;
    [[noreturn]] void throwClone() const override;
    String getDescription() const override;
    bool checkCastAllowed(const std::type_info& type) const override;
};

// A bad argument. `where` is the qualified name of the function that refused it.
class BRICKDISK_EXPORT CInvalidArgError : public CError {
public:
    CInvalidArgError(const String& where, const String& message, const CProps& props = CProps());
    const String& getWhere() const { return m_where; }

    P<CError> clone() const override;
    [[noreturn]] void throwClone() const override;
    bool checkCastAllowed(const std::type_info& type) const override;

private:
    String m_where;
};

// A failed file-system operation, classified by problem. The problem travels
// as the property "fileSystemProblem", so it can be read from any error's
// properties with getProblem(const CProps&). The numbers are fixed.
class BRICKDISK_EXPORT CFileSystemError : public CError {
public:
    enum Problem : int {
        Unclassified = 0, // the caller may ask the file system itself what is there
        NotFound = 1, // the file, or a folder on its path, does not exist
        AlreadyExists = 2, // the target already exists
        AccessDenied = 3,
        NoSpace = 4,
        NotAFolder = 5, // a path component, or the folder asked for, is a file
        NotSupported = 6,
        IsAFolder = 7, // a file operation named a folder
        FolderNotEmpty = 8,
        InvalidName = 9,
        Locked = 10, // a lock held by someone else is in the way
    };

    // Takes the cause's message and properties, adds the problem and keeps the
    // cause itself as the cause.
    CFileSystemError(Problem problem, const CError& cause);

    Problem getProblem() const { return getProblem(getProps()); }
    // The problem carried in `props`; Unclassified when none is.
    static Problem getProblem(const CProps& props);
    static const char* getProblemPropertyName() { return "fileSystemProblem"; }

    P<CError> clone() const override;
    [[noreturn]] void throwClone() const override;
    bool checkCastAllowed(const std::type_info& type) const override;
};

// Any other std::exception, wrapped as a CError.
class BRICKDISK_EXPORT CStdExceptionError : public CError {
public:
    explicit CStdExceptionError(const std::exception& e);
    // A copy of `e` as a CError: a CError is cloned with its own type, any other
    // exception is wrapped. A null pointer gives an error saying so.
    static P<CError> exceptionToError(const std::exception* e);

    P<CError> clone() const override;
    [[noreturn]] void throwClone() const override;
    bool checkCastAllowed(const std::type_info& type) const override;
};

// The one place that turns an errno value into an error: a CFileSystemError
// whose problem follows the errno, with the properties "path", "action",
// "errno" and "systemMessage".
BRICKDISK_EXPORT CFileSystemError makeErrnoError(int errnoValue, const String& action, const String& path);

} // namespace zo
