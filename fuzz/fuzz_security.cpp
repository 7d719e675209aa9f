// Fuzzes security descriptors, lists and identifiers alone.
#include "FuzzReader.h"

#include "agent/core/fs/NTFSSecurity.h"
#include "ntfs/BoundedSecurity.h"

#include <cstring>
#include <stdexcept>

namespace {

using namespace agent::core::fs;

bool same(NTFS_ACE const& left, NTFS_ACE const& right) {
    return left.sid == right.sid && left.accessMask == right.accessMask && left.accessMode == right.accessMode &&
           left.flags == right.flags;
}

bool same(std::vector<NTFS_ACE> const& left, std::vector<NTFS_ACE> const& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](NTFS_ACE const& a, NTFS_ACE const& b) { return same(a, b); });
}

bool same(NTFS_ACL const& left, NTFS_ACL const& right) {
    return left.revision == right.revision && left.inheritanceAllowed == right.inheritanceAllowed &&
           same(left.aces, right.aces);
}

/// What can be read within the bytes must be read the same by those who vouch for them.
void parseDescriptor(std::span<std::uint8_t const> bytes) {
    std::vector<NTFS_ACL> bounded;
    if (!fuzz::mayThrow<std::logic_error, std::runtime_error>([&] { bounded = parseDescriptorBytes(bytes); })) {
        return;
    }
    auto const trusted = parseSecurityDescriptor(reinterpret_cast<security_descriptor const*>(bytes.data()));
    fuzz::require(std::equal(bounded.begin(), bounded.end(), trusted.begin(), trusted.end(),
                             [](NTFS_ACL const& a, NTFS_ACL const& b) { return same(a, b); }));
}

void parseList(std::span<std::uint8_t const> bytes) {
    std::vector<NTFS_ACE> bounded;
    if (fuzz::mayThrow<std::runtime_error>([&] { bounded = parseAclBytes(bytes); })) {
        fuzz::require(same(bounded, parseACEs(reinterpret_cast<security_acl const*>(bytes.data()))));
    }
}

void parseIdentifier(std::span<std::uint8_t const> bytes) {
    _SID sid{};
    std::memcpy(&sid, bytes.data(), std::min(bytes.size(), sizeof sid));
    std::string text;
    bool const isText = fuzz::mayThrow<std::runtime_error>([&] { text = sidToString(sid); });
    fuzz::require(isText == isSIDValid(sid));
    fuzz::require(!isText || text.starts_with("S-1-"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    fuzz::Bytes const bytes(data, data + size); // of exactly this length
    parseDescriptor(bytes);
    parseList(bytes);
    parseIdentifier(bytes);
    static_cast<void>(typeToAccessMode(static_cast<AceTypes>(data[0]), static_cast<AceFlags>(data[size - 1])));
    static_cast<void>(isObjectACE(static_cast<AceTypes>(data[0])));
    return 0;
}
