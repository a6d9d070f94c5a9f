#include "brick/format/BrickDiskError.h"

#include <typeinfo>

namespace brick {

CBrickDiskError::CBrickDiskError(ErrorCode code, const zo::CURI& diskFolder)
    : zo::CError(makeErrorMessage(code), "brick", static_cast<zo::int64>(code),
                 zo::CProps().add(getDiskFolderPropertyName(), diskFolder.toString(true)))
{}

CBrickDiskError::CBrickDiskError(ErrorCode code, const zo::CURI& diskFolder, const zo::CError* cause)
    : zo::CError(makeErrorMessage(code), "brick", static_cast<zo::int64>(code),
                 zo::CProps().add(getDiskFolderPropertyName(), diskFolder.toString(true)), cause)
{}

zo::String CBrickDiskError::makeErrorMessage(ErrorCode code)
{
    switch (code) {
    case NewerSoftwareRequired:
        return "A newer software version is required to access this disk.";
    case IncorrectPassword:
        return "The encryption password is incorrect.";
    case DiskInUse:
        return "The disk is in use by another process.";
    case UnfinishedSnapshot:
        return "The disk is an unfinished snapshot: its making was cut short. Make the same snapshot again to "
               "finish it, or delete it.";
    case UnfinishedRemoval:
        return "The disk is a snapshot whose deletion was cut short. Delete it again to finish.";
    }
    return "Unknown brick disk error.";
}

zo::CURI CBrickDiskError::getDiskFolder(const zo::CProps& props)
{
    return zo::CURI(props.lookup(getDiskFolderPropertyName()));
}

zo::P<zo::CError> CBrickDiskError::clone() const
{
    return zo::P<zo::CError>(new CBrickDiskError(*this));
}

void CBrickDiskError::throwClone() const
{
    throw CBrickDiskError(*this);
}

bool CBrickDiskError::checkCastAllowed(const std::type_info& type) const
{
    return type == typeid(CBrickDiskError) || zo::CError::checkCastAllowed(type);
}

} // namespace brick
