// Joining paths of the host system.
#include "agent/Path.h"

#include <gtest/gtest.h>

namespace {

using agent::Path;

TEST(Path, OneComponentStaysAsItIs) {
    for (char const* const path :
         {"", "/", "/dev/sdb1", "relative/name", "//double//", "/trailing/", "a/../b", "./x"}) {
        EXPECT_EQ(Path::concat(path), path);
    }
    EXPECT_EQ(Path::concat(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(Path, TwoComponentsAreJoinedByExactlyOneSeparator) {
    EXPECT_EQ(Path::concat("/dev", "sdb1"), "/dev/sdb1");
    EXPECT_EQ(Path::concat("/dev/", "sdb1"), "/dev/sdb1");
    EXPECT_EQ(Path::concat("/dev", "/sdb1"), "/dev/sdb1");
    EXPECT_EQ(Path::concat("/dev/", "/sdb1"), "/dev/sdb1");
    EXPECT_EQ(Path::concat("/", "/"), "/");
}

TEST(Path, AnEmptyComponentAddsNothing) {
    EXPECT_EQ(Path::concat("", "sdb1"), "sdb1");
    EXPECT_EQ(Path::concat("/dev", ""), "/dev");
    EXPECT_EQ(Path::concat("", ""), "");
    EXPECT_EQ(Path::concat("/dev/", ""), "/dev/");
}

} // namespace
