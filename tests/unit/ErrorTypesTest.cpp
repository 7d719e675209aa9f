// The error types: their text, their code, and how they are caught on this side of the library border.
#include "agent/PosixError.h"
#include "agent/core/backup/VolumeReader.h"
#include "agent/exception/library_error.h"
#include "support/RecordingLogger.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <locale>
#include <type_traits>

namespace {

using agent::PosixError;
using agent::exception::generic_library_error;
using agent::exception::library_error;
using IntError = generic_library_error<int>;

std::string describe(int code) {
    return "text of " + std::to_string(code);
}

std::string describeNothing(int) {
    return {};
}

TEST(ErrorFormat, JoinsMessageTextLibraryAndCode) {
    EXPECT_EQ(IntError::format("Lib", "What failed", 13, describe),
              "What failed: text of 13 | ERROR(Lib) : 13 (0x0000000d)");
}

TEST(ErrorFormat, AnEmptyMessageStartsWithTheText) {
    EXPECT_EQ(IntError::format("Lib", "", 5, describe), "text of 5 | ERROR(Lib) : 5 (0x00000005)");
}

TEST(ErrorFormat, AnEmptyTextIsAnUnknownError) {
    EXPECT_EQ(IntError::format("Lib", "M", 5, describeNothing), "M: Unknown error | ERROR(Lib) : 5 (0x00000005)");
    EXPECT_EQ(IntError::format("", "", 0, describeNothing), "Unknown error | ERROR() : 0 (0x00000000)");
}

TEST(ErrorFormat, NegativeCodesShowTheirTwosComplement) {
    EXPECT_EQ(IntError::format("Lib", "", -1, describeNothing), "Unknown error | ERROR(Lib) : -1 (0xffffffff)");
    EXPECT_EQ(IntError::format("Lib", "", std::numeric_limits<int>::min(), describeNothing),
              "Unknown error | ERROR(Lib) : -2147483648 (0x80000000)");
}

TEST(ErrorFormat, LargeCodesShowLowerCaseHexadecimal) {
    EXPECT_EQ(IntError::format("Lib", "", std::numeric_limits<int>::max(), describeNothing),
              "Unknown error | ERROR(Lib) : 2147483647 (0x7fffffff)");
    EXPECT_EQ(IntError::format("Lib", "", 0xABCDEF, describeNothing),
              "Unknown error | ERROR(Lib) : 11259375 (0x00abcdef)");
}

TEST(ErrorFormat, AnEmptyDescriberIsABadFunctionCall) {
    EXPECT_THROW(IntError::format("Lib", "M", 1, nullptr), std::bad_function_call);
    EXPECT_THROW(IntError("Lib", "M", 1, nullptr), std::bad_function_call);
}

/// Groups digits, as many locales do.
class Grouping : public std::numpunct<char> {
protected:
    std::string do_grouping() const override { return "\3"; }
};

TEST(ErrorFormat, GroupsNoDigitsUnderALocaleThatDoes) {
    std::locale const before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    std::string const text = IntError::format("Lib", "", 1234567, describeNothing);
    std::locale::global(before);
    EXPECT_EQ(text, "Unknown error | ERROR(Lib) : 1234567 (0x0012d687)");
}

TEST(LibraryError, KeepsTheCodeBesideTheText) {
    int calls = 0;
    IntError const error("Lib", "M", -400, [&calls](int) {
        ++calls;
        return std::string("short");
    });
    EXPECT_EQ(error.code(), -400);
    EXPECT_STREQ(error.what(), "M: short | ERROR(Lib) : -400 (0xfffffe70)");
    EXPECT_STREQ(error.what(), "M: short | ERROR(Lib) : -400 (0xfffffe70)");
    EXPECT_EQ(calls, 1) << "the text is fixed at construction";
}

TEST(LibraryError, CopiesKeepTextAndCode) {
    IntError const error("Lib", "M", 7, describe);
    IntError const copy(error); // NOLINT(performance-unnecessary-copy-initialization): the copy is what is tested
    EXPECT_STREQ(copy.what(), error.what());
    EXPECT_EQ(copy.code(), 7);
    IntError assigned("Other", "N", 8, describe);
    assigned = error;
    EXPECT_STREQ(assigned.what(), error.what());
    EXPECT_EQ(assigned.code(), 7);
}

TEST(LibraryError, DerivesInOneLine) {
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, library_error>));
    EXPECT_TRUE((std::is_base_of_v<library_error, IntError>));
    EXPECT_TRUE((std::is_base_of_v<IntError, PosixError>));
    EXPECT_TRUE(std::has_virtual_destructor_v<PosixError>);
    EXPECT_STREQ(library_error("plain").what(), "plain");
}

TEST(PosixError, ShowsTheSystemsText) {
    PosixError const error("Unable to open block device to calculate size", 13);
    std::string const expected = "Unable to open block device to calculate size: " + std::string(std::strerror(13)) +
                                 " | ERROR(Posix) : 13 (0x0000000d)";
    EXPECT_EQ(error.what(), expected);
    EXPECT_EQ(error.code(), 13);
}

TEST(PosixError, AnEmptyMessageStartsWithTheSystemsText) {
    PosixError const error("", ENOENT);
    EXPECT_EQ(error.what(), std::string(std::strerror(ENOENT)) + " | ERROR(Posix) : 2 (0x00000002)");
}

TEST(PosixError, ANegativeCodeEndsWithItsTwosComplement) {
    std::string const text = PosixError("M", -1).what();
    std::string const tail = ") : -1 (0xffffffff)";
    ASSERT_GT(text.size(), tail.size());
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    EXPECT_EQ(text.find("M: "), 0U);
}

TEST(PosixError, StrerrorGivesTheTextOfEveryErrno) {
    for (int const code : {0, EPERM, ENOENT, EIO, EBADF, EACCES, EINVAL, ESPIPE, EOVERFLOW}) {
        EXPECT_EQ(PosixError::strerror(code), std::strerror(code));
    }
    EXPECT_FALSE(PosixError::strerror(-1).empty());
    EXPECT_NE(PosixError::strerror(99999).find("99999"), std::string::npos);
}

/// Makes the library throw: nothing stands at this path.
void throwInsideTheLibrary() {
    tests::RecordingLogger logger;
    agent::core::backup::VolumeReader const reader(logger, "/nonexistent/volume");
}

template <typename Caught>
int codeWhenCaughtAs() {
    try {
        throwInsideTheLibrary();
    } catch (Caught const& error) {
        auto const* const posix = dynamic_cast<PosixError const*>(&error);
        return posix == nullptr ? -1 : posix->code();
    } catch (...) {
        return -2;
    }
    return -3;
}

TEST(PosixError, ThrownByTheLibraryIsCaughtAsEachOfItsBases) {
    EXPECT_EQ(codeWhenCaughtAs<PosixError>(), ENOENT);
    EXPECT_EQ(codeWhenCaughtAs<IntError>(), ENOENT);
    EXPECT_EQ(codeWhenCaughtAs<library_error>(), ENOENT);
    EXPECT_EQ(codeWhenCaughtAs<std::runtime_error>(), ENOENT);
    EXPECT_EQ(codeWhenCaughtAs<std::exception>(), ENOENT);
}

TEST(PosixError, IsNotCaughtAsAnotherKindOfError) {
    EXPECT_EQ((codeWhenCaughtAs<std::logic_error>()), -2);
    EXPECT_EQ((codeWhenCaughtAs<std::bad_alloc>()), -2);
}

} // namespace
