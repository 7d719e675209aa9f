// Parsing of security descriptors, access-control lists and security identifiers.
#include "BoundedRead.h"
#include "agent/core/fs/NTFSSecurity.h"
#include "ntfs/BoundedSecurity.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <stdexcept>

namespace agent::core::fs {

namespace {

/// Bits of a descriptor's control field.
constexpr std::uint16_t kSelfRelative = 0x8000;
constexpr std::uint16_t kSaclPresent = 0x0010;
constexpr std::uint16_t kDaclPresent = 0x0004;
constexpr std::uint16_t kSaclProtected = 0x2000;
constexpr std::uint16_t kDaclProtected = 0x1000;

/// The access modes that entries are given.
enum AccessMode : std::uint8_t { kNotUsed = 0, kSet = 2, kDeny = 3, kAuditSuccess = 5, kAuditFailure = 6 };

constexpr std::uint8_t kMostSubAuthorities = 15;

/// Where an entry's trustee stands. Of object entries always behind two GUIDs, also when those are absent; on purpose.
constexpr std::uint64_t kTrustee = 0x08;
constexpr std::uint64_t kObjectTrustee = 0x34;

/// Room is made for so many entries at once; a count on the disk may be anything.
constexpr std::uint32_t kUsualEntries = 16;

constexpr char const* kInvalidSid = "SID is invalid! Cannot convert to string.";

/// The fixed beginning of an access-control entry.
struct AceHeader {
    std::uint8_t type;  // 0x00
    std::uint8_t flags; // 0x01
    le16 size;          // 0x02
    le32 mask;          // 0x04
};

static_assert(sizeof(AceHeader) == 8);
static_assert(offsetof(AceHeader, size) == 0x02);
static_assert(offsetof(AceHeader, mask) == 0x04);

/// The fixed beginning of a security identifier.
struct SidHeader {
    std::uint8_t revision;               // 0x00
    std::uint8_t subAuthorityCount;      // 0x01
    _SID_IDENTIFIER_AUTHORITY authority; // 0x02
};

static_assert(sizeof(SidHeader) == 8);

/// What is not all there: the caller vouched for the memory, or a disk lied.
std::span<std::uint8_t const> unbounded(void const* start) {
    return {static_cast<std::uint8_t const*>(start), std::numeric_limits<std::uint32_t>::max()};
}

bool isSidHeaderValid(SidHeader const& sid) {
    return sid.revision == 1 && sid.subAuthorityCount <= kMostSubAuthorities;
}

/// The text of an identifier as it grows; the longest, of a 48-bit authority and 15 sub-authorities, fits.
class SidText {
public:
    void add(char character) { *end_++ = character; }

    void add(std::uint64_t number, int base = 10) {
        end_ = std::to_chars(end_, text_.data() + text_.size(), number, base).ptr;
    }

    void add(_SID_IDENTIFIER_AUTHORITY const& authority) {
        std::uint64_t number = 0;
        for (std::uint8_t const byte : authority.value) {
            number = (number << 8) | byte;
        }
        add(number, first16(authority) == 0 ? 10 : 16); // lower case, without "0x", on purpose
    }

    std::string take() const { return std::string(text_.begin(), text_.begin() + (end_ - text_.data())); }

private:
    static constexpr std::size_t kLongest = 4 + 15 + kMostSubAuthorities * 11;
    std::array<char, kLongest> text_{};
    char* end_ = text_.data();
};

std::string sidText(std::span<std::uint8_t const> bytes) {
    auto const header = readAt<SidHeader>(bytes, 0);
    if (!header) {
        throw std::runtime_error("SID is cut off!");
    }
    if (!isSidHeaderValid(*header)) {
        throw std::runtime_error(kInvalidSid);
    }
    SidText text;
    text.add('S');
    text.add('-');
    text.add(std::uint64_t{header->revision});
    text.add('-');
    text.add(header->authority);
    for (std::uint64_t i = 0; i < header->subAuthorityCount; ++i) {
        auto const subAuthority = readAt<le32>(bytes, sizeof(SidHeader) + i * sizeof(le32));
        if (!subAuthority) {
            throw std::runtime_error("SID is cut off!");
        }
        text.add('-');
        text.add(std::uint64_t{subAuthority->value()});
    }
    return text.take();
}

NTFS_ACE parseAce(std::span<std::uint8_t const> bytes, AceHeader const& header) {
    auto const type = static_cast<AceTypes>(header.type);
    auto const flags = static_cast<AceFlags>(header.flags);
    return {sidText(from(bytes, isObjectACE(type) ? kObjectTrustee : kTrustee)), header.mask.value(),
            typeToAccessMode(type, flags), header.flags};
}

/// Appends the list at `offset` if it has entries. Offset 0 is a null list: there is none.
void appendAcl(std::span<std::uint8_t const> descriptor, std::uint32_t offset, bool isProtected,
               std::vector<NTFS_ACL>& lists) {
    if (offset == 0) {
        return;
    }
    auto const acl = readAt<security_acl>(descriptor, offset);
    if (!acl) {
        throw std::runtime_error("ACL is cut off!");
    }
    if (acl->ace_count.value() != 0) {
        lists.push_back({acl->revision, !isProtected, parseAclBytes(from(descriptor, offset))});
    }
}

} // namespace

std::vector<NTFS_ACL> parseDescriptorBytes(std::span<std::uint8_t const> bytes) {
    auto const descriptor = readAt<security_descriptor>(bytes, 0);
    if (!descriptor) {
        throw std::runtime_error("Security descriptor is cut off!");
    }
    std::uint16_t const control = descriptor->control.value();
    if ((control & kSelfRelative) == 0) {
        throw std::logic_error("Descriptor is not self-relative! NTFSParser can parse self-relative descriptors only.");
    }
    std::vector<NTFS_ACL> lists;
    if ((control & kSaclPresent) != 0) {
        appendAcl(bytes, descriptor->sacl.value(), (control & kSaclProtected) != 0, lists);
    }
    if ((control & kDaclPresent) != 0) {
        appendAcl(bytes, descriptor->dacl.value(), (control & kDaclProtected) != 0, lists);
    }
    return lists;
}

std::vector<NTFS_ACE> parseAclBytes(std::span<std::uint8_t const> bytes) {
    auto const acl = readAt<security_acl>(bytes, 0);
    if (!acl) {
        throw std::runtime_error("ACL is cut off!");
    }
    std::vector<NTFS_ACE> entries;
    entries.reserve(std::min<std::uint32_t>(acl->ace_count.value(), kUsualEntries));
    std::uint64_t place = sizeof(security_acl);
    for (std::uint32_t i = 0; i < acl->ace_count.value(); ++i) {
        auto const header = readAt<AceHeader>(bytes, place);
        if (!header) {
            throw std::runtime_error("ACE is cut off!");
        }
        entries.push_back(parseAce(from(bytes, place), *header));
        place += header->size.value(); // not compared with the list's size, on purpose
    }
    return entries;
}

std::vector<NTFS_ACL> parseSecurityDescriptor(security_descriptor const* descriptor) {
    return parseDescriptorBytes(unbounded(descriptor));
}

std::vector<NTFS_ACE> parseACEs(security_acl const* acl) {
    return parseAclBytes(unbounded(acl));
}

std::string sidToString(_SID const& sid) {
    if (!isSIDValid(sid)) {
        throw std::runtime_error(kInvalidSid);
    }
    return sidText(unbounded(&sid));
}

std::uint8_t typeToAccessMode(AceTypes type, AceFlags flags) {
    switch (type) {
    case kAccessDenied:
    case kAccessDeniedObject:
    case kAccessDeniedCallback:
    case kAccessDeniedCallbackObject:
        return kDeny;
    case kAccessAllowed:
    case kSystemAlarm: // alarms grant, but for the one with a callback; on purpose
    case kAccessAllowedCompound:
    case kAccessAllowedObject:
    case kSystemAlarmObject:
    case kAccessAllowedCallback:
    case kAccessAllowedCallbackObject:
        return kSet;
    case kSystemAudit:
    case kSystemAuditObject:
    case kSystemAuditCallback:
    case kSystemAuditCallbackObject:
        if ((flags & kAuditSuccessfulAccess) != 0) {
            return kAuditSuccess;
        }
        return (flags & kAuditFailedAccess) != 0 ? kAuditFailure : kNotUsed;
    case kSystemAlarmCallback:
    default:
        return kNotUsed;
    }
}

bool isObjectACE(AceTypes type) {
    switch (type) {
    case kAccessAllowedObject:
    case kAccessDeniedObject:
    case kSystemAuditObject:
    case kSystemAlarmObject:
    case kAccessAllowedCallbackObject:
    case kAccessDeniedCallbackObject:
    case kSystemAuditCallbackObject:
        return true;
    default:
        return false;
    }
}

bool isSIDValid(_SID const& sid) {
    return sid.revision == 1 && sid.sub_authority_count <= kMostSubAuthorities;
}

std::uint16_t first16(_SID_IDENTIFIER_AUTHORITY authority) {
    return static_cast<std::uint16_t>(authority.value[0] << 8 | authority.value[1]);
}

} // namespace agent::core::fs
