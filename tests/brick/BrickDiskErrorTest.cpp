#include "brick/format/BrickDiskError.h"

#include <gtest/gtest.h>

#include <typeinfo>

using brick::CBrickDiskError;
using zo::CError;
using zo::CProps;
using zo::CURI;

TEST(BrickDiskError, NewerSoftwareRequiredCarriesMessageDomainCodeAndFolder)
{
    const CBrickDiskError error(CBrickDiskError::NewerSoftwareRequired, CURI("/disks/a"));
    EXPECT_STREQ(error.what(), "A newer software version is required to access this disk.");
    EXPECT_EQ(error.getMessage(), "A newer software version is required to access this disk.");
    EXPECT_EQ(error.getDomain(), "brick");
    EXPECT_EQ(error.getCode(), 0);
    EXPECT_EQ(error.getErrorCode(), CBrickDiskError::NewerSoftwareRequired);
    EXPECT_EQ(error.getDiskFolder(), CURI("/disks/a"));
    EXPECT_FALSE(error.getCause());
}

TEST(BrickDiskError, IncorrectPasswordCarriesItsMessageAndCode)
{
    const CBrickDiskError error(CBrickDiskError::IncorrectPassword, CURI("mem://x/disk"));
    EXPECT_EQ(error.getMessage(), "The encryption password is incorrect.");
    EXPECT_EQ(error.getCode(), 1);
    EXPECT_EQ(error.getProps().lookup("diskFolder"), "mem://x/disk");
}

TEST(BrickDiskError, HasExactlyTheDiskFolderProperty)
{
    const CBrickDiskError error(CBrickDiskError::IncorrectPassword, CURI("/d"));
    EXPECT_EQ(error.getProps(), CProps().add("diskFolder", "/d"));
}

TEST(BrickDiskError, UnnamedCodeGivesUnknownMessage)
{
    EXPECT_EQ(CBrickDiskError::makeErrorMessage(static_cast<CBrickDiskError::ErrorCode>(5)),
              "Unknown brick disk error.");
    EXPECT_EQ(CBrickDiskError::makeErrorMessage(static_cast<CBrickDiskError::ErrorCode>(-1)),
              "Unknown brick disk error.");
    const CBrickDiskError error(static_cast<CBrickDiskError::ErrorCode>(5), CURI("/d"));
    EXPECT_EQ(error.getMessage(), "Unknown brick disk error.");
    EXPECT_EQ(error.getCode(), 5);
}

TEST(BrickDiskError, MakeErrorMessageNamesBothCodes)
{
    EXPECT_EQ(CBrickDiskError::makeErrorMessage(CBrickDiskError::NewerSoftwareRequired),
              "A newer software version is required to access this disk.");
    EXPECT_EQ(CBrickDiskError::makeErrorMessage(CBrickDiskError::IncorrectPassword),
              "The encryption password is incorrect.");
}

TEST(BrickDiskError, ErrorCaughtAsCErrorAndThrownAgainIsCaughtByItsOwnClass)
{
    zo::P<CError> saved;
    try {
        throw CBrickDiskError(CBrickDiskError::IncorrectPassword, CURI("/disks/b"));
    } catch (const CError& error) {
        saved = error.clone();
    }
    ASSERT_TRUE(saved);
    try {
        saved->throwClone();
        FAIL() << "throwClone returned";
    } catch (const CBrickDiskError& error) {
        EXPECT_EQ(error.getCode(), CBrickDiskError::IncorrectPassword);
        EXPECT_EQ(error.getDiskFolder(), CURI("/disks/b"));
        EXPECT_EQ(error.getDomain(), "brick");
    }
}

TEST(BrickDiskError, CloneIsABrickDiskErrorWithTheSameFields)
{
    const CBrickDiskError error(CBrickDiskError::NewerSoftwareRequired, CURI("/e"));
    const zo::P<CError> copy = error.clone();
    const auto* typed = dynamic_cast<const CBrickDiskError*>(copy.get());
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->getMessage(), error.getMessage());
    EXPECT_EQ(typed->getCode(), error.getCode());
    EXPECT_EQ(typed->getProps(), error.getProps());
}

TEST(BrickDiskError, CopyAndAssignmentCopyEverything)
{
    const CBrickDiskError original(CBrickDiskError::IncorrectPassword, CURI("/one"));
    const CBrickDiskError copied(original);
    EXPECT_EQ(copied.getCode(), 1);
    EXPECT_EQ(copied.getDiskFolder(), CURI("/one"));

    CBrickDiskError assigned(CBrickDiskError::NewerSoftwareRequired, CURI("/two"));
    assigned = original;
    EXPECT_EQ(assigned.getCode(), 1);
    EXPECT_EQ(assigned.getMessage(), "The encryption password is incorrect.");
    EXPECT_EQ(assigned.getDiskFolder(), CURI("/one"));
}

TEST(BrickDiskError, TypeCheckAcceptsItsOwnClassAndItsBases)
{
    const CBrickDiskError error(CBrickDiskError::IncorrectPassword, CURI("/d"));
    EXPECT_TRUE(error.checkCastAllowed(typeid(CBrickDiskError)));
    EXPECT_TRUE(error.checkCastAllowed(typeid(CError)));
    EXPECT_TRUE(error.checkCastAllowed(typeid(zo::CBase)));
    EXPECT_FALSE(error.checkCastAllowed(typeid(zo::CIOError)));
}

TEST(BrickDiskError, DiskFolderOfPropertiesWithoutItIsEmpty)
{
    EXPECT_TRUE(CBrickDiskError::getDiskFolder(CProps()).isEmpty());
    EXPECT_TRUE(CBrickDiskError::getDiskFolder(CProps().add("uri", "/x")).isEmpty());
}

TEST(BrickDiskError, DiskFolderIsReadFromAnyErrorThatCarriesIt)
{
    const CError other("Something else.", "", -1, CProps().add("diskFolder", "/disks/c"));
    EXPECT_EQ(CBrickDiskError::getDiskFolder(other.getProps()), CURI("/disks/c"));
}
