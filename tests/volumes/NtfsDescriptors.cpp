// Bytes of security descriptors.
#include "volumes/NtfsDescriptors.h"

#include <array>
#include <sstream>
#include <stdexcept>

namespace tests {

using agent::core::fs::NTFS_ACE;
using agent::core::fs::NTFS_ACL;

namespace {

constexpr unsigned kDaclPresent = 0x0004;
constexpr unsigned kSaclPresent = 0x0010;
constexpr unsigned kDaclProtected = 0x1000;
constexpr unsigned kSaclProtected = 0x2000;
constexpr unsigned kSelfRelative = 0x8000;
constexpr std::size_t kHeaderBytes = 20;
constexpr std::size_t kGuidBytes = 16;

std::string number(std::uint64_t value, unsigned width) {
    std::string bytes;
    for (unsigned i = 0; i < width; ++i) {
        bytes += static_cast<char>(value >> (8 * i));
    }
    return bytes;
}

std::uint64_t load(std::string const& bytes, std::size_t offset, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes.at(offset + i))) << (8 * i);
    }
    return value;
}

std::string entryBytes(unsigned type, unsigned flags, std::string const& body) {
    return number(type, 1) + number(flags, 1) + number(body.size() + 4, 2) + body;
}

std::string listBytes(unsigned revision, std::vector<std::string> const& entries) {
    std::string body;
    for (std::string const& entry : entries) {
        body += entry;
    }
    return number(revision, 2) + number(body.size() + 8, 2) + number(entries.size(), 4) + body;
}

/// The mode that a type of entry stands for; 1 in place of what the audit flags decide.
unsigned modeOf(unsigned type, unsigned flags) {
    constexpr unsigned kByFlags = 1;
    constexpr std::array<unsigned, 16> kModes{2, 3, kByFlags, 2, 2, 2,        3, kByFlags,
                                              2, 2, 3,        2, 3, kByFlags, 0, kByFlags};
    unsigned const mode = type < kModes.size() ? kModes[type] : 0;
    if (mode != kByFlags) {
        return mode;
    }
    return (flags & 0x40) != 0 ? 5 : (flags & 0x80) != 0 ? 6 : 0;
}

bool isObject(unsigned type) {
    return (type >= 5 && type <= 8) || type == 11 || type == 12 || type == 15;
}

std::string sidText(std::string const& bytes, std::size_t at) {
    std::uint64_t const count = load(bytes, at + 1, 1);
    if (load(bytes, at, 1) != 1 || count > 15) {
        throw std::runtime_error("SID is invalid! Cannot convert to string.");
    }
    std::uint64_t authority = 0;
    for (std::size_t i = 2; i < 8; ++i) {
        authority = authority << 8 | load(bytes, at + i, 1);
    }
    std::ostringstream text;
    text << "S-1-";
    if (authority >> 32 == 0) {
        text << authority;
    } else {
        text << std::hex << authority << std::dec;
    }
    for (std::size_t i = 0; i < count; ++i) {
        text << '-' << load(bytes, at + 8 + 4 * i, 4);
    }
    return text.str();
}

NTFS_ACL listAt(std::string const& bytes, std::size_t at, bool isProtected) {
    NTFS_ACL list{static_cast<std::uint8_t>(load(bytes, at, 1)), !isProtected, {}};
    std::uint64_t const count = load(bytes, at + 4, 2);
    std::size_t entry = at + 8;
    for (std::uint64_t i = 0; i < count; ++i) {
        auto const type = static_cast<unsigned>(load(bytes, entry, 1));
        auto const flags = static_cast<unsigned>(load(bytes, entry + 1, 1));
        list.aces.push_back({sidText(bytes, entry + (isObject(type) ? 0x34 : 8)), load(bytes, entry + 4, 4),
                             static_cast<std::uint8_t>(modeOf(type, flags)), flags});
        entry += load(bytes, entry + 2, 2);
    }
    return list;
}

} // namespace

std::string sidBytes(std::uint64_t authority, std::vector<std::uint32_t> const& subAuthorities) {
    std::string bytes = number(1, 1) + number(subAuthorities.size(), 1);
    for (unsigned i = 6; i-- > 0;) {
        bytes += static_cast<char>(authority >> (8 * i));
    }
    for (std::uint32_t const one : subAuthorities) {
        bytes += number(one, 4);
    }
    return bytes;
}

std::string aceBytes(unsigned type, unsigned flags, std::uint32_t mask, std::string const& sid) {
    return entryBytes(type, flags, number(mask, 4) + sid);
}

std::string objectAceBytes(unsigned type, unsigned flags, std::uint32_t mask, std::string const& sid) {
    constexpr unsigned kBothGuids = 3;
    return entryBytes(type, flags, number(mask, 4) + number(kBothGuids, 4) + std::string(2 * kGuidBytes, 'g') + sid);
}

std::string descriptorBytes(DescriptorParts const& parts) {
    std::string const owner = sidBytes(5, {32, 544});
    std::string const group = sidBytes(5, {18});
    std::string const sacl = parts.sacl ? listBytes(parts.revision, *parts.sacl) : "";
    std::string const dacl = parts.dacl ? listBytes(parts.revision, *parts.dacl) : "";
    unsigned const control = kSelfRelative | parts.moreControl | (parts.sacl ? kSaclPresent : 0) |
                             (parts.dacl || parts.hasNullDacl ? kDaclPresent : 0);
    std::size_t const ownerAt = kHeaderBytes + sacl.size() + dacl.size();
    return number(1, 2) + number(control, 2) + number(ownerAt, 4) + number(ownerAt + owner.size(), 4) +
           number(sacl.empty() ? 0 : kHeaderBytes, 4) + number(dacl.empty() ? 0 : kHeaderBytes + sacl.size(), 4) +
           sacl + dacl + owner + group;
}

std::vector<NTFS_ACL> listsOf(std::string const& descriptor) {
    std::uint64_t const control = load(descriptor, 2, 2);
    std::vector<NTFS_ACL> lists;
    auto const append = [&](unsigned present, std::size_t field, unsigned isProtected) {
        std::size_t const at = load(descriptor, field, 4);
        if ((control & present) != 0 && at != 0 && load(descriptor, at + 4, 2) != 0) {
            lists.push_back(listAt(descriptor, at, (control & isProtected) != 0));
        }
    };
    append(kSaclPresent, 12, kSaclProtected);
    append(kDaclPresent, 16, kDaclProtected);
    return lists;
}

std::string asText(std::vector<NTFS_ACL> const& lists) {
    std::ostringstream text;
    for (NTFS_ACL const& list : lists) {
        text << "list " << unsigned{list.revision} << (list.inheritanceAllowed ? " open" : " protected") << '\n';
        for (NTFS_ACE const& entry : list.aces) {
            text << unsigned{entry.accessMode} << ' ' << std::hex << entry.flags << ' ' << entry.accessMask << std::dec
                 << ' ' << entry.sid << '\n';
        }
    }
    return text.str();
}

} // namespace tests
