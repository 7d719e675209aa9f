// Turning numbers of NTFS into words.
#include "cli/FileText.h"

#include <array>
#include <chrono>
#include <fmt/format.h>

namespace cli {

namespace {

constexpr std::uint64_t kUnitsPerSecond = 10'000'000;
constexpr std::uint64_t kSecondsPerDay = 86'400;

struct Name {
    std::uint32_t bit;
    char const* text;
};

constexpr std::array kAttributes{
    Name{0x1, "read-only"},         Name{0x2, "hidden"},       Name{0x4, "system"},
    Name{0x10, "directory"},        Name{0x20, "archive"},     Name{0x40, "device"},
    Name{0x80, "normal"},           Name{0x100, "temporary"},  Name{0x200, "sparse"},
    Name{0x400, "reparse-point"},   Name{0x800, "compressed"}, Name{0x1000, "offline"},
    Name{0x2000, "not-indexed"},    Name{0x4000, "encrypted"}, Name{0x8000, "integrity-stream"},
    Name{0x10000, "virtual"},       Name{0x20000, "no-scrub"}, Name{0x10000000, "file-name-index"},
    Name{0x20000000, "view-index"},
};

} // namespace

std::string isoTime(std::uint64_t fileTime) {
    std::uint64_t const seconds = fileTime / kUnitsPerSecond;
    auto const days = std::chrono::days(static_cast<std::int64_t>(seconds / kSecondsPerDay));
    std::chrono::sys_days const epoch = std::chrono::year{1601} / 1 / 1;
    // Days beyond the year 32767 are beyond the calendar of the standard library; nobody has such files but on purpose.
    constexpr std::chrono::days last = std::chrono::sys_days(std::chrono::year{32767} / 12 / 31) -
                                       std::chrono::sys_days(std::chrono::year{1601} / 1 / 1);
    if (days > last) {
        return fmt::format("{} units of 100 ns since 1601", fileTime);
    }
    std::chrono::year_month_day const date{epoch + days};
    std::uint64_t const inDay = seconds % kSecondsPerDay;
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:07}Z", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), inDay / 3600,
                       inDay / 60 % 60, inDay % 60, fileTime % kUnitsPerSecond);
}

std::vector<std::string> attributeNames(std::uint32_t attributes) {
    std::vector<std::string> names;
    for (Name const& name : kAttributes) {
        if ((attributes & name.bit) != 0) {
            names.emplace_back(name.text);
            attributes &= ~name.bit;
        }
    }
    if (attributes != 0) {
        names.push_back(fmt::format("{:#x}", attributes));
    }
    return names;
}

} // namespace cli
