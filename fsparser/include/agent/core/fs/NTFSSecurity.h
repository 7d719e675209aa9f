/// @file
/// Security descriptors of NTFS: access-control lists, their entries, and security identifiers as text.
#pragma once

#include "agent/Export.h"
#include "agent/core/fs/Endian.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace agent::core::fs {

/// One entry of an access-control list.
struct NTFS_ACE {
    std::string sid;          ///< the trustee's security identifier, such as "S-1-5-18"
    std::uint64_t accessMask; ///< the 32-bit access mask, zero-extended
    std::uint8_t accessMode;  ///< 0 not used, 2 set (grant), 3 deny, 5 audit success, 6 audit failure;
                              ///< numbered as in the Windows enumeration of access modes
    std::uint64_t flags;      ///< the flag byte, zero-extended
};

/// One access-control list. Whether it is the system list or the discretionary one, only its place in the result and
/// the modes of its entries tell.
struct NTFS_ACL {
    std::uint8_t revision;      ///< as stored
    bool inheritanceAllowed;    ///< whether the descriptor leaves this list unprotected
    std::vector<NTFS_ACE> aces; ///< in on-disk order
};

/// The types of access-control entries: the numbers are those on disk, in an entry's first byte.
enum AceTypes : std::uint8_t {
    kAccessAllowed = 0,
    kAccessDenied = 1,
    kSystemAudit = 2,
    kSystemAlarm = 3,
    kAccessAllowedCompound = 4,
    kAccessAllowedObject = 5,
    kAccessDeniedObject = 6,
    kSystemAuditObject = 7,
    kSystemAlarmObject = 8,
    kAccessAllowedCallback = 9,
    kAccessDeniedCallback = 10,
    kAccessAllowedCallbackObject = 11,
    kAccessDeniedCallbackObject = 12,
    kSystemAuditCallback = 13,
    kSystemAlarmCallback = 14,
    kSystemAuditCallbackObject = 15,
};

/// Flags of an access-control entry, those that are told apart; the byte may hold others.
enum AceFlags : std::uint8_t {
    kAuditSuccessfulAccess = 0x40,
    kAuditFailedAccess = 0x80,
};

/// A self-relative security descriptor, as it stands on disk.
struct security_descriptor {
    std::uint8_t revision;  ///< 0x00: not looked at
    std::uint8_t alignment; ///< 0x01: not looked at
    le16 control;           ///< 0x02: 0x8000 self-relative, 0x0010 and 0x0004 the system and the discretionary list are
                            ///< present, 0x2000 and 0x1000 they are protected
    le32 owner;             ///< 0x04: offset from the descriptor, as the next three
    le32 group;             ///< 0x08
    le32 sacl;              ///< 0x0C: the system list
    le32 dacl;              ///< 0x10: the discretionary list
};

static_assert(sizeof(security_descriptor) == 20);
static_assert(offsetof(security_descriptor, control) == 0x02);
static_assert(offsetof(security_descriptor, sacl) == 0x0C);
static_assert(offsetof(security_descriptor, dacl) == 0x10);

/// The header of an access-control list, as it stands on disk; its entries follow.
struct security_acl {
    std::uint8_t revision;   ///< 0x00
    std::uint8_t alignment1; ///< 0x01
    le16 size;               ///< 0x02: bytes, entries included
    le16 ace_count;          ///< 0x04
    le16 alignment2;         ///< 0x06
};

static_assert(sizeof(security_acl) == 8);
static_assert(offsetof(security_acl, size) == 0x02);
static_assert(offsetof(security_acl, ace_count) == 0x04);

/// An identifier authority: a 48-bit number, highest byte first.
struct _SID_IDENTIFIER_AUTHORITY {     // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the name is
                                       // given
    std::array<std::uint8_t, 6> value; ///< 0x00
};

static_assert(sizeof(_SID_IDENTIFIER_AUTHORITY) == 6);

/// A security identifier as it stands on disk; only the first `sub_authority_count` sub-authorities are there.
struct _SID {              // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the name is given
    std::uint8_t revision; ///< 0x00
    std::uint8_t sub_authority_count;               ///< 0x01: at most 15
    _SID_IDENTIFIER_AUTHORITY identifier_authority; ///< 0x02
    std::array<le32, 15> sub_authority;             ///< 0x08
};

static_assert(sizeof(_SID) == 68);
static_assert(offsetof(_SID, sub_authority_count) == 0x01);
static_assert(offsetof(_SID, identifier_authority) == 0x02);
static_assert(offsetof(_SID, sub_authority) == 0x08);

/// The lists of a descriptor: first the system list, then the discretionary one, each if it is marked present, does not
/// stand at offset 0 (a null list) and has entries. Nothing else tells them apart.
///
/// Not promised: that the result tells an absent discretionary list from a null one, which lets everyone in, or from an
/// empty one, which lets nobody in. None of them gives an element; only the descriptor tells.
///
/// This function keeps nothing: any thread.
///
/// @code
/// std::vector<char> const bytes(1024); // a self-relative descriptor with all its parts
/// auto const* descriptor = reinterpret_cast<agent::core::fs::security_descriptor const*>(bytes.data());
/// for (agent::core::fs::NTFS_ACL const& list : agent::core::fs::parseSecurityDescriptor(descriptor)) {
///     for (agent::core::fs::NTFS_ACE const& entry : list.aces) { use(entry.sid, entry.accessMode, entry.accessMask); }
/// }
/// @endcode
/// @param descriptor  not null, with all that its offsets and sizes lead to; the caller vouches for the memory.
///     Descriptors from a disk go through NTFSParser, which knows where the bytes end.
/// @return none, one or two lists
/// @throws std::logic_error    "Descriptor is not self-relative! NTFSParser can parse self-relative descriptors only."
/// @throws std::runtime_error  "SID is invalid! Cannot convert to string."; "ACL is cut off!", "ACE is cut off!" or
///     "SID is cut off!" where an offset leads past 4 GiB
AGENT_EXPORT std::vector<NTFS_ACL> parseSecurityDescriptor(security_descriptor const* descriptor);

/// The entries of a list, in their order. Any thread.
/// @param acl  not null, with all its entries; the caller vouches for the memory
/// @return as many entries as the list counts
/// @throws std::runtime_error  "SID is invalid! Cannot convert to string."
AGENT_EXPORT std::vector<NTFS_ACE> parseACEs(security_acl const* acl);

/// A security identifier as text: "S-", revision, authority, sub-authorities. The authority is decimal when it fits in
/// 32 bits, otherwise lower-case hexadecimal without prefix or padding, on purpose: "S-1-5-18", "S-1-10000000000-1".
/// Any thread.
/// @param sid  with as many sub-authorities as it counts
/// @return the text
/// @throws std::runtime_error  "SID is invalid! Cannot convert to string."
AGENT_EXPORT std::string sidToString(_SID const& sid);

/// The access mode of an entry (see NTFS_ACE). Any thread. By the entry's type and flags:
///
/// | type | mode |
/// |---|---|
/// | 0, 3, 4, 5, 8, 9, 11 | 2 set |
/// | 1, 6, 10, 12 | 3 deny |
/// | 2, 7, 13, 15 | 5 with flag 0x40, else 6 with flag 0x80, else 0 |
/// | 14, 16 and above | 0 not used |
///
/// Alarms (3, 8) grant, except those with a callback (14), on purpose.
/// @param type   the first byte of the entry; values without a name are taken, too
/// @param flags  its second byte
/// @return 0, 2, 3, 5 or 6
AGENT_EXPORT std::uint8_t typeToAccessMode(AceTypes type, AceFlags flags);

/// Whether an entry of this type stores its trustee where object entries do, at byte 0x34 of the entry: types 5, 6, 7,
/// 8, 11, 12 and 15. Any thread.
AGENT_EXPORT bool isObjectACE(AceTypes type);

/// Whether the revision is 1 and there are at most 15 sub-authorities. Any thread.
AGENT_EXPORT bool isSIDValid(_SID const& sid);

/// The first two bytes as a 16-bit number, highest byte first; zero when the authority fits in 32 bits. Any thread.
AGENT_EXPORT std::uint16_t first16(_SID_IDENTIFIER_AUTHORITY authority);

} // namespace agent::core::fs
