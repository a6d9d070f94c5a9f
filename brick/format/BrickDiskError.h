// CBrickDiskError: the error that callers tell apart by kind rather than by
// text. Its code says what went wrong, its property "diskFolder" names the
// folder of the disk concerned.
#pragma once

#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/Props.h"
#include "zo/URI.h"

namespace brick {

class BRICKDISK_EXPORT CBrickDiskError : public zo::CError {
public:
    // The kinds of brick disk errors; the numbers are part of the contract.
    enum ErrorCode : int {
        // The disk was written by a version that this software cannot read.
        NewerSoftwareRequired = 0,
        // The password does not give the key recorded in the disk header.
        IncorrectPassword = 1,
        // Another process (or another lock in this one) uses the disk in a
        // way that excludes this use; the property "holder" says who, where
        // it is known.
        DiskInUse = 2,
        // The disk is a child whose making was cut short: making it again
        // finishes it, removing it takes it away.
        UnfinishedSnapshot = 3,
        // The disk is a child whose removal from its chain was cut short:
        // its parent no longer keeps its view; removing it again finishes.
        UnfinishedRemoval = 4,
    };

    // Message from makeErrorMessage(code), domain "brick", the code as the
    // error code, and one property "diskFolder" with diskFolder.toString(true).
    // No cause.
    CBrickDiskError(ErrorCode code, const zo::CURI& diskFolder);
    // The same with `cause` (copied) as the cause.
    CBrickDiskError(ErrorCode code, const zo::CURI& diskFolder, const zo::CError* cause);
    CBrickDiskError(const CBrickDiskError& other) = default;
    CBrickDiskError& operator=(const CBrickDiskError& other) = default;
    ~CBrickDiskError() override = default;

    // The message for `code`; codes without a name get "Unknown brick disk error.".
    static zo::String makeErrorMessage(ErrorCode code);
    // The folder named by the property "diskFolder" of `props`; an empty path
    // when the property is absent. Works on the properties of any error.
    static zo::CURI getDiskFolder(const zo::CProps& props);

    ErrorCode getErrorCode() const { return static_cast<ErrorCode>(getCode()); }
    // The folder of the disk concerned (getDiskFolder of this error's properties).
    zo::CURI getDiskFolder() const { return getDiskFolder(getProps()); }

    // A heap copy that is still a CBrickDiskError.
    zo::P<zo::CError> clone() const override;
    // Throws a copy as CBrickDiskError, so that a saved error is caught again
    // by handlers of this class.
    [[noreturn]] void throwClone() const override;
    bool checkCastAllowed(const std::type_info& type) const override;

    static const char* getDiskFolderPropertyName() { return "diskFolder"; }
};

} // namespace brick
