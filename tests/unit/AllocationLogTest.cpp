// The entry of a failed aligned allocation.
#include "AllocationLog.h"

#include "support/RecordingLogger.h"

#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <stdexcept>

namespace {

using agent::core::fs::logFailedAllocation;
using tests::debugEntry;
using tests::RecordingLogger;

std::string loggedFor(std::string_view path) {
    RecordingLogger logger;
    logFailedAllocation(logger, 4096, 512, 7, path, std::runtime_error("why"));
    return logger.entries.size() == 1 ? logger.entries.front().text : "not one entry";
}

TEST(AllocationLog, NamesSizeAlignmentLineFileAndError) {
    RecordingLogger logger;
    logFailedAllocation(logger, std::numeric_limits<unsigned long>::max(), 4096, 81, "/a/b/FSUtil.cpp",
                        std::bad_alloc());
    EXPECT_EQ(logger.entries,
              std::vector{debugEntry("Failed to create aligned memory of size: 18446744073709551615, alignment: 4096 "
                                     "from line: 81 in file: FSUtil.cpp, error: std::bad_alloc")});
}

TEST(AllocationLog, ShowsWhatFollowsTheLastSeparatorOfEitherKind) {
    std::string const before = "Failed to create aligned memory of size: 4096, alignment: 512 from line: 7 in file: ";
    EXPECT_EQ(loggedFor("File.cpp"), before + "File.cpp, error: why");
    EXPECT_EQ(loggedFor("/usr/src/File.cpp"), before + "File.cpp, error: why");
    EXPECT_EQ(loggedFor("src\\dir\\File.cpp"), before + "File.cpp, error: why");
    EXPECT_EQ(loggedFor("src\\dir/File.cpp"), before + "File.cpp, error: why");
    EXPECT_EQ(loggedFor("src/dir\\File.cpp"), before + "File.cpp, error: why");
    EXPECT_EQ(loggedFor("dir/"), before + ", error: why");
    EXPECT_EQ(loggedFor(""), before + ", error: why");
}

} // namespace
