#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <typeinfo>

using zo::CError;
using zo::CFileSystemError;
using zo::CInvalidArgError;
using zo::CIOError;
using zo::CProps;
using zo::CStdExceptionError;
using zo::P;

namespace {

// Throws `error` through its throwClone and reports the type that a catch by
// CError reference sees.
const std::type_info& typeThrownBy(const CError& error)
{
    try {
        error.throwClone();
    } catch (const CError& caught) {
        return typeid(caught);
    }
    return typeid(void);
}

} // namespace

TEST(CError, CarriesMessageDomainCodeAndProperties)
{
    const CError error("Something failed.", "brick", 1, CProps().add("diskFolder", "/d"));
    EXPECT_STREQ(error.what(), "Something failed.");
    EXPECT_EQ(error.getMessage(), "Something failed.");
    EXPECT_EQ(error.getDomain(), "brick");
    EXPECT_EQ(error.getCode(), 1);
    EXPECT_EQ(error.getProps().lookup("diskFolder"), "/d");
    EXPECT_FALSE(error.getCause());
}

TEST(CError, DefaultsToEmptyDomainAndCodeMinusOne)
{
    const CError error("Failed.");
    EXPECT_TRUE(error.getDomain().isEmpty());
    EXPECT_EQ(error.getCode(), -1);
    EXPECT_TRUE(error.getProps().isEmpty());
}

TEST(CError, WhatIsUtf8OfMessage)
{
    const CError error(zo::String(u"Gr\u00FC\u00DFe."));
    EXPECT_STREQ(error.what(),
                 "Gr\xC3\xBC\xC3\x9F"
                 "e.");
}

TEST(CError, IsCaughtAsStdException)
{
    try {
        throw CIOError(CIOError::EndOfData, "End.");
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "End.");
        return;
    }
    FAIL();
}

TEST(CError, PropertiesCanBeAddedOnTheWayUp)
{
    try {
        try {
            throw CError("Inner.");
        } catch (CError& e) {
            e.getProps().add("uri", "/disk/x");
            throw;
        }
    } catch (const CError& e) {
        EXPECT_EQ(e.getProps().lookup("uri"), "/disk/x");
    }
}

TEST(CError, KeepsCopyOfCauseAndItsChain)
{
    const CError root("Root.", "", 5);
    const CError middle("Middle.", "", -1, CProps(), &root);
    const CError top("Top.", "", -1, CProps(), &middle);
    ASSERT_TRUE(top.getCause());
    EXPECT_EQ(top.getCause()->getMessage(), "Middle.");
    ASSERT_TRUE(top.getCause()->getCause());
    EXPECT_EQ(top.getCause()->getCause()->getMessage(), "Root.");
    EXPECT_EQ(top.getCause()->getCause()->getCode(), 5);
    EXPECT_FALSE(top.getCause()->getCause()->getCause());
}

TEST(CError, CauseKeepsItsMostDerivedType)
{
    const CIOError io(CIOError::SeekOutOfRange, "Seek.");
    const CError wrapper("Wrapper.", "", -1, CProps(), &io);
    ASSERT_TRUE(wrapper.getCause());
    EXPECT_NE(dynamic_cast<const CIOError*>(wrapper.getCause().get()), nullptr);
}

TEST(CError, CloneKeepsEverythingAndStartsUncounted)
{
    const CError cause("Cause.");
    const CError error("Error.", "dom", 9, CProps().add("k", "v"), &cause);
    P<CError> clone = error.clone();
    EXPECT_EQ(typeid(*clone), typeid(CError));
    EXPECT_EQ(clone->getRefCount(), 1);
    EXPECT_EQ(clone->getMessage(), "Error.");
    EXPECT_EQ(clone->getDomain(), "dom");
    EXPECT_EQ(clone->getCode(), 9);
    EXPECT_EQ(clone->getProps(), error.getProps());
    ASSERT_TRUE(clone->getCause());
    EXPECT_EQ(clone->getCause()->getMessage(), "Cause.");
}

TEST(CError, CloneAndThrowCloneKeepMostDerivedType)
{
    const CError plain("Plain.");
    const CIOError io(CIOError::StreamClosed, "");
    const CInvalidArgError invalid("zo::f", "Bad.");
    const CFileSystemError fileSystem(CFileSystemError::NotFound, CError("Missing."));
    const CStdExceptionError wrapped{std::runtime_error("std")};

    for (const CError* error : std::initializer_list<const CError*>{&plain, &io, &invalid, &fileSystem, &wrapped}) {
        SCOPED_TRACE(typeid(*error).name());
        EXPECT_EQ(typeid(*error->clone()), typeid(*error));
        EXPECT_EQ(typeThrownBy(*error), typeid(*error));
    }
}

TEST(CError, ThrowCloneOfSavedErrorIsCaughtByItsOwnClass)
{
    P<CError> saved = CIOError(CIOError::EndOfData, "", CProps().add("uri", "/d")).clone();
    try {
        saved->throwClone();
    } catch (const CIOError& e) {
        EXPECT_EQ(e.getIOCode(), CIOError::EndOfData);
        EXPECT_EQ(e.getProps().lookup("uri"), "/d");
        return;
    }
    FAIL();
}

TEST(CError, ToStringShowsDescriptionPropertiesAndCauses)
{
    const CError cause("Disk full.", "", -1, CProps().add("path", "/x"));
    const CError error("Store failed.", "", -1, CProps().add("uri", "/d/b").add("size", 4), &cause);
    EXPECT_EQ(error.toString(), "Store failed. (uri: /d/b, size: 4) Cause: Disk full. (path: /x)");
}

TEST(CError, EmptyMessageHasStandardDescription)
{
    EXPECT_EQ(CError("").getDescription(), "Error.");
    EXPECT_EQ(CIOError(CIOError::EndOfData, "").getDescription(), "End of data reached.");
    EXPECT_EQ(CIOError(CIOError::StreamClosed, "").toString(), "Stream is closed.");
    EXPECT_EQ(CIOError(CIOError::SeekOutOfRange, "Custom.").getDescription(), "Custom.");
}

TEST(CError, CastCheckAcceptsOwnClassAndBases)
{
    const CIOError io(CIOError::ReadFailed, "");
    EXPECT_TRUE(io.checkCastAllowed(typeid(CIOError)));
    EXPECT_TRUE(io.checkCastAllowed(typeid(CError)));
    EXPECT_TRUE(io.checkCastAllowed(typeid(zo::CBase)));
    EXPECT_FALSE(io.checkCastAllowed(typeid(CInvalidArgError)));
    EXPECT_FALSE(CError("x").checkCastAllowed(typeid(CIOError)));
}

TEST(CIOError, CodesHaveTheirFixedNumbers)
{
    EXPECT_EQ(CIOError::WriteBeyondSize, 3);
    EXPECT_EQ(CIOError::EndOfData, 4);
    EXPECT_EQ(CIOError::SeekOutOfRange, 7);
    EXPECT_EQ(CIOError::StreamClosed, 10);
    EXPECT_EQ(CIOError::NotOnBoundary, 11);
    EXPECT_EQ(CIOError::SetLengthNotSupported, 13);
}

TEST(CIOError, CarriesCodeAsErrorCodeWithEmptyDomain)
{
    const CIOError error(CIOError::SeekOutOfRange, "", CProps().add("pos", 5));
    EXPECT_EQ(error.getCode(), 7);
    EXPECT_EQ(error.getIOCode(), CIOError::SeekOutOfRange);
    EXPECT_TRUE(error.getDomain().isEmpty());
    EXPECT_TRUE(error.getMessage().isEmpty());
    EXPECT_EQ(error.getProps().lookup("pos"), "5");
}

TEST(CInvalidArgError, CarriesWhereMessageAndProperties)
{
    const CInvalidArgError error("CParallelReadAheadManager::seekToBrick", "brickIndex is invalid",
                                 CProps().add("brickIndex", int64_t(-1)));
    EXPECT_EQ(error.getWhere(), "CParallelReadAheadManager::seekToBrick");
    EXPECT_STREQ(error.what(), "brickIndex is invalid");
    EXPECT_EQ(error.getProps().lookup("brickIndex"), "-1");
    EXPECT_EQ(error.getCode(), -1);
    EXPECT_EQ(error.clone().get()->getMessage(), "brickIndex is invalid");
    EXPECT_EQ(dynamic_cast<CInvalidArgError&>(*error.clone()).getWhere(), "CParallelReadAheadManager::seekToBrick");
}

TEST(CFileSystemError, ProblemsHaveTheirFixedNumbers)
{
    EXPECT_EQ(CFileSystemError::Unclassified, 0);
    EXPECT_EQ(CFileSystemError::NotFound, 1);
    EXPECT_EQ(CFileSystemError::AlreadyExists, 2);
    EXPECT_EQ(CFileSystemError::NotSupported, 6);
}

TEST(CFileSystemError, TakesCauseMessagePropertiesAndAddsProblem)
{
    const CError cause("Brick disk stream does not support lockRange.", "", -1, CProps().add("uri", "/d"));
    const CFileSystemError error(CFileSystemError::NotSupported, cause);
    EXPECT_STREQ(error.what(), "Brick disk stream does not support lockRange.");
    EXPECT_EQ(error.getProblem(), CFileSystemError::NotSupported);
    EXPECT_EQ(error.getProps().lookup("uri"), "/d");
    ASSERT_TRUE(error.getCause());
    EXPECT_EQ(error.getCause()->getMessage(), cause.getMessage());
}

TEST(CFileSystemError, ProblemIsReadFromAnyPropertySet)
{
    const CFileSystemError error(CFileSystemError::AlreadyExists, CError("Exists."));
    EXPECT_EQ(CFileSystemError::getProblem(error.getProps()), CFileSystemError::AlreadyExists);
    EXPECT_EQ(CFileSystemError::getProblem(CProps()), CFileSystemError::Unclassified);
    EXPECT_EQ(CFileSystemError::getProblem(CProps().add("fileSystemProblem", "junk")), CFileSystemError::Unclassified);
    EXPECT_EQ(CFileSystemError::getProblem(CProps().add("fileSystemProblem", 1)), CFileSystemError::NotFound);
}

TEST(CFileSystemError, ProblemSurvivesCloneAndRethrow)
{
    P<CError> saved = CFileSystemError(CFileSystemError::NotFound, CError("Gone.")).clone();
    try {
        saved->throwClone();
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::NotFound);
        return;
    }
    FAIL();
}

TEST(CStdExceptionError, WrapsOtherExceptionsWithTheirText)
{
    const std::runtime_error original("disk on fire");
    P<CError> error = CStdExceptionError::exceptionToError(&original);
    EXPECT_EQ(typeid(*error), typeid(CStdExceptionError));
    EXPECT_STREQ(error->what(), "disk on fire");
    EXPECT_FALSE(error->getProps().lookup("exceptionType").isEmpty());
}

TEST(CStdExceptionError, ClonesErrorsOfTheFamilyWithTheirOwnType)
{
    const CIOError original(CIOError::EndOfData, "", CProps().add("uri", "/d"));
    P<CError> error = CStdExceptionError::exceptionToError(&original);
    EXPECT_EQ(typeid(*error), typeid(CIOError));
    EXPECT_NE(error.get(), static_cast<const CError*>(&original));
    EXPECT_EQ(error->getProps().lookup("uri"), "/d");
}

TEST(CStdExceptionError, NullExceptionGivesAnError)
{
    P<CError> error = CStdExceptionError::exceptionToError(nullptr);
    ASSERT_TRUE(error);
    EXPECT_FALSE(error->getMessage().isEmpty());
}

TEST(MakeErrnoError, ClassifiesMissingAndExisting)
{
    EXPECT_EQ(zo::makeErrnoError(ENOENT, "open", "/x").getProblem(), CFileSystemError::NotFound);
    EXPECT_EQ(zo::makeErrnoError(EEXIST, "mkdir", "/x").getProblem(), CFileSystemError::AlreadyExists);
    EXPECT_EQ(zo::makeErrnoError(ENOTSUP, "lock", "/x").getProblem(), CFileSystemError::NotSupported);
    EXPECT_EQ(zo::makeErrnoError(EIO, "read", "/x").getProblem(), CFileSystemError::Unclassified);
}

TEST(MakeErrnoError, CarriesPathActionErrnoAndSystemMessage)
{
    const CFileSystemError error = zo::makeErrnoError(ENOENT, "open", "/disk/file");
    EXPECT_EQ(error.getProps().lookup("path"), "/disk/file");
    EXPECT_EQ(error.getProps().lookup("action"), "open");
    EXPECT_EQ(error.getProps().lookup("errno"), zo::toDecimalString(ENOENT));
    EXPECT_FALSE(error.getProps().lookup("systemMessage").isEmpty());
    EXPECT_TRUE(error.getMessage().StartsWith("open failed: "));
}
