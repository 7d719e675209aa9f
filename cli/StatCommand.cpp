// fsparser stat: a file's record, times and attributes.
#include "cli/FileQuery.h"
#include "cli/FileText.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace cli {

namespace {

Json answer(imaging::ntfs::Files& files, std::string const& path) {
    auto const [record, facts, isWhole] = files.stat(path);
    std::uint32_t const attributes = facts.file_attributes.value();
    Json result{{"record", record},
                {"created", isoTime(facts.creation_time.value())},
                {"modified", isoTime(facts.last_data_change_time.value())},
                {"record_changed", isoTime(facts.last_mft_change_time.value())},
                {"accessed", isoTime(facts.last_access_time.value())},
                {"attributes", attributeNames(attributes)},
                {"attributes_value", attributes},
                {"maximum_versions", facts.maximum_versions.value()},
                {"version_number", facts.version_number.value()},
                {"class_id", facts.class_id.value()}};
    if (isWhole) { // an older standard information ends here
        result["security_id"] = facts.security_id.value();
        result["owner_id"] = facts.owner_id.value();
        result["quota_charged"] = facts.quota_charged.value();
        result["usn"] = facts.usn.value();
    }
    return result;
}

void print(std::string const& path, Json const& facts) {
    auto const text = [&facts](char const* key) { return facts.at(key).get<std::string>(); };
    auto const number = [&facts](char const* key) { return facts.at(key).get<std::uint64_t>(); };
    fmt::print("path            {}\n", path);
    fmt::print("record          {}\n", number("record"));
    fmt::print("created         {}\n", text("created"));
    fmt::print("modified        {}\n", text("modified"));
    fmt::print("record changed  {}\n", text("record_changed"));
    fmt::print("accessed        {}\n", text("accessed"));
    fmt::print("attributes      {:#x} {}\n", number("attributes_value"),
               fmt::join(facts.at("attributes").get<std::vector<std::string>>(), " "));
    fmt::print("versions        {} of {}\n", number("version_number"), number("maximum_versions"));
    fmt::print("class id        {}\n", number("class_id"));
    if (facts.contains("security_id")) {
        fmt::print("security id     {}\n", number("security_id"));
        fmt::print("owner id        {}\n", number("owner_id"));
        fmt::print("quota charged   {}\n", number("quota_charged"));
        fmt::print("usn             {}\n", number("usn"));
    }
}

} // namespace

ExitCode runStat(Options const& options, Console& console) {
    return queryFiles(options, console, "stat", answer, print);
}

} // namespace cli
