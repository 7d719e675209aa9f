// fsparser acl: who may access a file.
#include "cli/AclText.h"
#include "cli/FileQuery.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace cli {

using agent::core::fs::NTFS_ACE;
using agent::core::fs::NTFS_ACL;

namespace {

Json describe(NTFS_ACE const& entry) {
    Json result{{"sid", entry.sid}};
    if (std::string const name = wellKnownName(entry.sid); !name.empty()) {
        result["name"] = name;
    }
    result["mode"] = modeName(entry.accessMode);
    result["mode_value"] = entry.accessMode;
    result["mask"] = fmt::format("{:#x}", entry.accessMask);
    result["mask_value"] = entry.accessMask;
    result["rights"] = rightNames(entry.accessMask);
    result["flags"] = flagNames(entry.flags);
    result["flags_value"] = entry.flags;
    return result;
}

Json answer(imaging::ntfs::Files& files, std::string const& path) {
    std::vector<NTFS_ACL> const lists = files.accessLists(path);
    std::vector<ListKind> const kinds = listKinds(lists);
    Json described = Json::array();
    for (std::size_t i = 0; i < lists.size(); ++i) {
        Json entries = Json::array();
        for (NTFS_ACE const& entry : lists[i].aces) {
            entries.push_back(describe(entry));
        }
        described.push_back({{"list", kinds[i] == ListKind::System ? "system" : "discretionary"},
                             {"revision", lists[i].revision},
                             {"inheritance_allowed", lists[i].inheritanceAllowed},
                             {"entries", entries}});
    }
    return {{"lists", described}, {"sddl", toSddl(lists)}};
}

std::string joined(Json const& words) {
    return fmt::format("{}", fmt::join(words.get<std::vector<std::string>>(), ","));
}

void printEntry(Json const& entry) {
    std::string const name = entry.value("name", std::string());
    fmt::print("    {:<13}  {}{}\n", entry.at("mode").get<std::string>(), entry.at("sid").get<std::string>(),
               name.empty() ? "" : " (" + name + ")");
    fmt::print("      mask   {} {}\n", entry.at("mask").get<std::string>(), joined(entry.at("rights")));
    fmt::print("      flags  {:#x} {}\n", entry.at("flags_value").get<std::uint64_t>(), joined(entry.at("flags")));
}

void printLists(std::string const& path, Json const& answered) {
    fmt::print("{}\n", path);
    for (Json const& list : answered.at("lists")) {
        fmt::print("  {} list, revision {}, inheritance {}\n", list.at("list").get<std::string>(),
                   list.at("revision").get<int>(), list.at("inheritance_allowed").get<bool>() ? "allowed" : "blocked");
        for (Json const& entry : list.at("entries")) {
            printEntry(entry);
        }
    }
    if (answered.at("lists").empty()) {
        fmt::print("  no list with entries\n");
    }
}

void printSddl(std::string const& path, Json const& answered) {
    fmt::print("{}\t{}\n", answered.at("sddl").get<std::string>(), path);
}

} // namespace

ExitCode runAcl(Options const& options, Console& console) {
    return queryFiles(options, console, "acl", answer, options.sddl ? printSddl : printLists);
}

} // namespace cli
