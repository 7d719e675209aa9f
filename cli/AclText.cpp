// Names of rights, flags and trustees.
#include "cli/AclText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <span>

namespace cli {

using agent::core::fs::NTFS_ACE;
using agent::core::fs::NTFS_ACL;

namespace {

/// The access modes of the library.
enum Mode : std::uint8_t { kGrant = 2, kDeny = 3, kAuditSuccess = 5, kAuditFailure = 6 };

struct Name {
    std::uint64_t bit;
    char const* text;
    char const* sddl; ///< null where SDDL has none for files
};

constexpr std::array kRights{
    Name{0x1, "read-data", nullptr},
    Name{0x2, "write-data", nullptr},
    Name{0x4, "append-data", nullptr},
    Name{0x8, "read-ea", nullptr},
    Name{0x10, "write-ea", nullptr},
    Name{0x20, "execute", nullptr},
    Name{0x40, "delete-child", nullptr},
    Name{0x80, "read-attributes", nullptr},
    Name{0x100, "write-attributes", nullptr},
    Name{0x10000, "delete", nullptr},
    Name{0x20000, "read-control", nullptr},
    Name{0x40000, "write-dac", nullptr},
    Name{0x80000, "write-owner", nullptr},
    Name{0x100000, "synchronize", nullptr},
    Name{0x1000000, "access-system-security", nullptr},
    Name{0x2000000, "maximum-allowed", nullptr},
    Name{0x10000000, "generic-all", nullptr},
    Name{0x20000000, "generic-execute", nullptr},
    Name{0x40000000, "generic-write", nullptr},
    Name{0x80000000, "generic-read", nullptr},
};

constexpr std::array kFlags{
    Name{0x01, "object-inherit", "OI"}, Name{0x02, "container-inherit", "CI"}, Name{0x04, "no-propagate", "NP"},
    Name{0x08, "inherit-only", "IO"},   Name{0x10, "inherited", "ID"},         Name{0x40, "successful-access", "SA"},
    Name{0x80, "failed-access", "FA"},
};

/// Whole masks that SDDL has a word for. That for all rights is left out: not every reader takes it for 0x1f01ff.
constexpr std::array kFileRights{
    Name{0x120089, nullptr, "FR"},
    Name{0x120116, nullptr, "FW"},
    Name{0x1200A0, nullptr, "FX"},
};

struct Trustee {
    char const* sid;
    char const* name;
    char const* sddl; ///< null where SDDL has no abbreviation
};

constexpr std::array kTrustees{
    Trustee{"S-1-0-0", "Nobody", nullptr},
    Trustee{"S-1-1-0", "Everyone", "WD"},
    Trustee{"S-1-3-0", "Creator Owner", "CO"},
    Trustee{"S-1-3-1", "Creator Group", "CG"},
    Trustee{"S-1-3-4", "Owner Rights", "OW"},
    Trustee{"S-1-5-2", "Network", "NU"},
    Trustee{"S-1-5-4", "Interactive", "IU"},
    Trustee{"S-1-5-6", "Service", "SU"},
    Trustee{"S-1-5-7", "Anonymous", "AN"},
    Trustee{"S-1-5-10", "Self", "PS"},
    Trustee{"S-1-5-11", "Authenticated Users", "AU"},
    Trustee{"S-1-5-12", "Restricted Code", "RC"},
    Trustee{"S-1-5-18", "Local System", "SY"},
    Trustee{"S-1-5-19", "Local Service", "LS"},
    Trustee{"S-1-5-20", "Network Service", "NS"},
    Trustee{"S-1-5-32-544", "Administrators", "BA"},
    Trustee{"S-1-5-32-545", "Users", "BU"},
    Trustee{"S-1-5-32-546", "Guests", "BG"},
    Trustee{"S-1-5-32-547", "Power Users", "PU"},
    Trustee{"S-1-5-32-551", "Backup Operators", "BO"},
    Trustee{"S-1-16-4096", "Low Mandatory Level", "LW"},
    Trustee{"S-1-16-8192", "Medium Mandatory Level", "ME"},
    Trustee{"S-1-16-12288", "High Mandatory Level", "HI"},
    Trustee{"S-1-16-16384", "System Mandatory Level", "SI"},
};

constexpr char const* kLabelPrefix = "S-1-16-";

std::vector<std::string> names(std::span<Name const> table, std::uint64_t value) {
    std::vector<std::string> result;
    for (Name const& name : table) {
        if ((value & name.bit) != 0) {
            result.emplace_back(name.text);
            value &= ~name.bit;
        }
    }
    if (value != 0) {
        result.push_back(fmt::format("{:#x}", value));
    }
    return result;
}

Trustee const* findTrustee(std::string const& sid) {
    auto const found =
        std::find_if(kTrustees.begin(), kTrustees.end(), [&sid](Trustee const& trustee) { return sid == trustee.sid; });
    return found == kTrustees.end() ? nullptr : &*found;
}

std::string sddlType(NTFS_ACE const& entry) {
    switch (entry.accessMode) {
    case kGrant:
        return "A";
    case kDeny:
        return "D";
    case kAuditSuccess:
    case kAuditFailure:
        return "AU";
    default:
        return entry.sid.rfind(kLabelPrefix, 0) == 0 ? "ML" : "";
    }
}

std::string sddlFlags(std::uint64_t flags) {
    std::string text;
    for (Name const& flag : kFlags) {
        text += (flags & flag.bit) != 0 ? flag.sddl : "";
    }
    return text;
}

std::string sddlRights(std::uint64_t mask, std::string const& type) {
    if (type == "ML") {
        if ((mask & ~std::uint64_t{7}) != 0) {
            return fmt::format("{:#x}", mask);
        }
        return std::string((mask & 1) != 0 ? "NW" : "") + ((mask & 2) != 0 ? "NR" : "") + ((mask & 4) != 0 ? "NX" : "");
    }
    for (Name const& right : kFileRights) {
        if (mask == right.bit) {
            return right.sddl;
        }
    }
    return fmt::format("{:#x}", mask);
}

/// As SDDL has it: abbreviated, or with an authority of more than 32 bits marked as hexadecimal.
std::string sddlTrustee(std::string const& sid) {
    constexpr std::size_t authority = 4; // behind "S-1-"
    Trustee const* const trustee = findTrustee(sid);
    if (trustee != nullptr && trustee->sddl != nullptr) {
        return trustee->sddl;
    }
    std::string const number = sid.substr(authority, sid.find('-', authority) - authority);
    bool const isHexadecimal = number.size() > 10 || number.find_first_of("abcdef") != std::string::npos;
    return isHexadecimal ? sid.substr(0, authority) + "0x" + sid.substr(authority) : sid;
}

std::string sddlList(char letter, NTFS_ACL const& list) {
    std::string text = fmt::format("{}:{}", letter, list.inheritanceAllowed ? "" : "P");
    for (NTFS_ACE const& entry : list.aces) {
        std::string const type = sddlType(entry);
        if (type.empty()) {
            continue;
        }
        text += fmt::format("({};{};{};;;{})", type, sddlFlags(entry.flags), sddlRights(entry.accessMask, type),
                            sddlTrustee(entry.sid));
    }
    return text;
}

} // namespace

std::vector<ListKind> listKinds(std::vector<NTFS_ACL> const& lists) {
    if (lists.size() == 2) {
        return {ListKind::System, ListKind::Discretionary};
    }
    std::vector<ListKind> kinds;
    for (NTFS_ACL const& list : lists) {
        bool const decides = std::any_of(list.aces.begin(), list.aces.end(), [](NTFS_ACE const& entry) {
            return entry.accessMode == kGrant || entry.accessMode == kDeny;
        });
        kinds.push_back(decides ? ListKind::Discretionary : ListKind::System);
    }
    return kinds;
}

char const* modeName(std::uint8_t mode) {
    switch (mode) {
    case kGrant:
        return "grant";
    case kDeny:
        return "deny";
    case kAuditSuccess:
        return "audit success";
    case kAuditFailure:
        return "audit failure";
    default:
        return "other";
    }
}

std::vector<std::string> rightNames(std::uint64_t mask) {
    return names(kRights, mask);
}

std::vector<std::string> flagNames(std::uint64_t flags) {
    return names(kFlags, flags);
}

std::string wellKnownName(std::string const& sid) {
    Trustee const* const trustee = findTrustee(sid);
    return trustee == nullptr ? std::string() : trustee->name;
}

std::string toSddl(std::vector<NTFS_ACL> const& lists) {
    std::vector<ListKind> const kinds = listKinds(lists);
    std::string discretionary;
    std::string system;
    for (std::size_t i = 0; i < lists.size(); ++i) {
        bool const isSystem = kinds[i] == ListKind::System;
        (isSystem ? system : discretionary) = sddlList(isSystem ? 'S' : 'D', lists[i]);
    }
    return discretionary + system;
}

} // namespace cli
