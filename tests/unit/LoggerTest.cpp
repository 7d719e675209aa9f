// Log entries: how their pieces become one text, and what an entry costs while its level is off.
#include "agent/info/Logger.h"
#include "AllocationCounter.h"
#include "support/RecordingLogger.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <iomanip>
#include <limits>
#include <locale>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <type_traits>

namespace {

using agent::info::Level;
using agent::info::Logger;
using tests::debugEntry;
using tests::errorEntry;
using tests::LogEntry;
using tests::RecordingLogger;
using tests::warningEntry;

using Entries = std::vector<LogEntry>;

/// The text that one entry made of these pieces hands to its logger.
template <typename... Pieces>
std::string written(Pieces const&... pieces) {
    RecordingLogger logger;
    {
        Logger::Entry entry(logger, Level::Debug);
        (entry << ... << pieces);
    }
    return logger.entries.size() == 1 ? logger.entries.front().text : "not one entry";
}

/// A piece that remembers whether anybody turned it into text.
struct Witness {
    int* formatted;
};

std::ostream& operator<<(std::ostream& out, Witness const& witness) {
    ++*witness.formatted;
    return out << "witness";
}

/// Wants errors only, and counts how often it is asked.
class ErrorsOnlyLogger : public RecordingLogger {
public:
    bool isEnabled(Level level) const override {
        ++asked;
        return level == Level::Error;
    }

    mutable int asked = 0;
};

TEST(Logger, LevelsAreTheBitsOneTwoAndFour) {
    EXPECT_EQ(static_cast<int>(Level::Error), 1);
    EXPECT_EQ(static_cast<int>(Level::Warning), 2);
    EXPECT_EQ(static_cast<int>(Level::Debug), 4);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<Level>, int>));
}

TEST(Logger, WantsEveryLevelByDefault) {
    RecordingLogger const logger;
    EXPECT_TRUE(logger.isEnabled(Level::Error));
    EXPECT_TRUE(logger.isEnabled(Level::Warning));
    EXPECT_TRUE(logger.isEnabled(Level::Debug));
}

TEST(LoggerEntry, JoinsItsPiecesIntoOneMessage) {
    std::string const path = "/dev/sdb1";
    EXPECT_EQ(written("Failed to open block device ", path, ", err: ", 13, std::string_view(".")),
              "Failed to open block device /dev/sdb1, err: 13.");
}

TEST(LoggerEntry, WritesIntegersOfEveryWidthInDecimal) {
    EXPECT_EQ(written(std::numeric_limits<std::int16_t>::min()), "-32768");
    EXPECT_EQ(written(std::numeric_limits<std::uint16_t>::max()), "65535");
    EXPECT_EQ(written(std::numeric_limits<std::int32_t>::min()), "-2147483648");
    EXPECT_EQ(written(std::numeric_limits<std::uint32_t>::max()), "4294967295");
    EXPECT_EQ(written(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(written(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
    EXPECT_EQ(written(std::numeric_limits<long long>::min()), "-9223372036854775808");
    EXPECT_EQ(written(std::numeric_limits<unsigned long long>::max()), "18446744073709551615");
    EXPECT_EQ(written(0, ' ', -1), "0 -1");
}

TEST(LoggerEntry, WritesSingleCharactersAsTheyStand) {
    EXPECT_EQ(written('A'), "A");
    EXPECT_EQ(written(static_cast<unsigned char>(0x03)), "\x03");
    EXPECT_EQ(written(static_cast<unsigned char>(0xF3)), "\xF3");
    EXPECT_EQ(written(static_cast<signed char>('s')), "s");
    EXPECT_EQ(written(std::hex, static_cast<unsigned char>(0xEF)), "\xEF") << "hexadecimal mode changes no character";
    EXPECT_EQ(written("<", static_cast<unsigned char>(0), ">"), std::string("<\0>", 3));
}

TEST(LoggerEntry, SwitchesBetweenHexadecimalAndDecimal) {
    RecordingLogger logger;
    Logger::Entry(logger, Level::Error) << "0x" << std::hex << 0x2A0BU << std::dec << ' ' << 42 << ' ' << std::hex
                                        << -1;
    EXPECT_EQ(logger.entries, Entries{errorEntry("0x2a0b 42 ffffffff")});
}

TEST(LoggerEntry, PadsToAWidthForOnePiece) {
    EXPECT_EQ(written(std::setw(8), std::setfill('0'), 255, '-', 7), "00000255-7");
}

TEST(LoggerEntry, StartsEachMessageInDecimalAgain) {
    EXPECT_EQ(written(std::hex, 255), "ff");
    EXPECT_EQ(written(255), "255");
}

TEST(LoggerEntry, WritesOnceWhenItIsDestroyedAndNotBefore) {
    RecordingLogger logger;
    auto entry = std::make_unique<Logger::Entry>(logger, Level::Warning);
    *entry << "first";
    *entry << ", second";
    EXPECT_TRUE(logger.entries.empty());
    entry.reset();
    EXPECT_EQ(logger.entries, Entries{warningEntry("first, second")});
}

TEST(LoggerEntry, WritesAnEmptyMessageToo) {
    RecordingLogger logger;
    { Logger::Entry const entry(logger, Level::Debug); }
    EXPECT_EQ(logger.entries, Entries{debugEntry("")});
}

TEST(LoggerEntry, KeepsTheOrderInWhichEntriesEnd) {
    RecordingLogger logger;
    {
        Logger::Entry outer(logger, Level::Error);
        outer << "outer";
        Logger::Entry(logger, Level::Debug) << "inner";
    }
    EXPECT_EQ(logger.entries, (Entries{debugEntry("inner"), errorEntry("outer")}));
}

TEST(LoggerEntry, AsksForItsLevelOnce) {
    ErrorsOnlyLogger logger;
    Logger::Entry(logger, Level::Error) << "a" << 1 << std::hex << 2;
    EXPECT_EQ(logger.asked, 1);
    Logger::Entry(logger, Level::Debug) << "b" << 1 << std::hex << 2;
    EXPECT_EQ(logger.asked, 2);
    EXPECT_EQ(logger.entries, Entries{errorEntry("a12")});
}

TEST(LoggerEntry, FormatsNothingAndWritesNothingWhileItsLevelIsOff) {
    tests::SilentLogger logger;
    int formatted = 0;
    Logger::Entry(logger, Level::Error) << Witness{&formatted} << std::hex << 12 << Witness{&formatted};
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(logger.written, 0);

    RecordingLogger wanting;
    Logger::Entry(wanting, Level::Error) << Witness{&formatted};
    EXPECT_EQ(formatted, 1);
    EXPECT_EQ(wanting.entries, Entries{errorEntry("witness")});
}

TEST(LoggerEntry, AllocatesNothingWhileItsLevelIsOff) {
    constexpr std::string_view kLong = "a text that no small string takes without a block of memory from the heap";
    RecordingLogger wanting;
    std::size_t const first = tests::allocationsSoFar();
    Logger::Entry(wanting, Level::Debug) << kLong << 1234567890123456789L << std::hex << 77U << kLong;
    ASSERT_GT(tests::allocationsSoFar(), first) << "the counter does not see the library's allocations";

    tests::SilentLogger silent;
    std::size_t const second = tests::allocationsSoFar();
    Logger::Entry(silent, Level::Debug) << kLong << 1234567890123456789L << std::hex << 77U << kLong;
    EXPECT_EQ(tests::allocationsSoFar(), second);
}

/// Groups digits in threes with a dot, as many locales do.
class Grouping : public std::numpunct<char> {
protected:
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
    char do_decimal_point() const override { return ','; }
};

class GlobalLocale {
public:
    explicit GlobalLocale(std::locale const& locale) : before_(std::locale::global(locale)) {}
    GlobalLocale(GlobalLocale const&) = delete;
    GlobalLocale& operator=(GlobalLocale const&) = delete;
    ~GlobalLocale() { std::locale::global(before_); }

private:
    std::locale before_;
};

TEST(LoggerEntry, GroupsNoDigitsUnderALocaleThatDoes) {
    GlobalLocale const guard(std::locale(std::locale::classic(), new Grouping));
    std::ostringstream proof;
    proof << 1234567;
    ASSERT_EQ(proof.str(), "1.234.567") << "the locale of this test does not group";
    EXPECT_EQ(written(1234567, ' ', std::hex, 0xABCDEF0), "1234567 abcdef0");
}

/// Cannot take any message.
class ThrowingLogger : public Logger {
public:
    void write(Level, std::string const&) override {
        ++calls;
        throw std::runtime_error("disk full");
    }

    int calls = 0;
};

TEST(LoggerEntry, DropsWhatALoggerThrows) {
    ThrowingLogger logger;
    EXPECT_NO_THROW(Logger::Entry(logger, Level::Error) << "lost");
    EXPECT_EQ(logger.calls, 1);
}

TEST(LoggerEntry, DropsWhatALoggerThrowsWhileAnotherExceptionIsOnItsWay) {
    ThrowingLogger logger;
    auto const failing = [&logger] {
        Logger::Entry entry(logger, Level::Error);
        entry << "lost";
        throw std::logic_error("the first one");
    };
    EXPECT_THROW(failing(), std::logic_error);
    EXPECT_EQ(logger.calls, 1);
}

TEST(LoggerEntry, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<Logger::Entry>);
    EXPECT_FALSE(std::is_copy_assignable_v<Logger::Entry>);
}

} // namespace
