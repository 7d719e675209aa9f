// NTFS volumes of a few kilobytes, and their structures alone.
#include "NtfsVolume.h"
#include "Seeds.h"
#include "support/NtfsBuilder.h"
#include "support/NtfsSecureVolume.h"

#include <algorithm>
#include <set>

namespace fuzz {

namespace {

using namespace tests;

/// Takes away the records that no operation asks for, and from the others the names, which stand in directories again.
void forgetUnread(NtfsBuilder& builder) {
    for (unsigned const number : {2U, 3U, 4U, 7U, 8U, 12U, 13U, 14U, 15U}) {
        builder.record(number).clear();
    }
    for (unsigned const number : {0U, 1U, 5U, 6U, 9U, 10U, 11U, 25U}) {
        builder.record(number).remove(ntfs_type::kFileName);
    }
}

/// A standard volume without what takes room and tells nothing: a short upcase table, a short security stream.
NtfsBuilder smallVolume(NtfsGeometry geometry) {
    geometry.records = 34;
    geometry.clusters = std::max<std::uint64_t>(geometry.clusters, (std::uint64_t{2} << 20) / geometry.clusterBytes);
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    NtfsRecord& upcase = builder.record(ntfs_record_number::kUpcase).remove(ntfs_type::kData);
    NtfsBytes table = ntfsUpcaseBytes();
    table.resize(256);
    builder.store(upcase, ntfs_type::kData, u"", table, geometry.upcasePieces);
    NtfsBytes stream = ntfsSdsStream(builder.descriptors);
    stream.resize(1024);
    setSecurityStream(builder, stream);
    forgetUnread(builder);
    return builder;
}

/// The pieces of the whole upcase table, which the short one replaced.
std::set<NtfsBytes> const& oldTable() {
    static std::set<NtfsBytes> const pieces = [] {
        NtfsBytes const table = ntfsUpcaseBytes();
        std::set<NtfsBytes> found;
        for (std::size_t from = 0; from < table.size(); from += kSector) {
            auto const begin = table.begin() + static_cast<std::ptrdiff_t>(from);
            found.emplace(begin, begin + kSector);
        }
        return found;
    }();
    return pieces;
}

/// Without what fills files: only its place matters.
Image sealedImage(NtfsBuilder& builder) {
    NtfsBytes& bytes = builder.seal().bytes;
    for (std::size_t sector = kSector; sector < bytes.size(); sector += kSector) {
        auto const begin = bytes.begin() + static_cast<std::ptrdiff_t>(sector);
        NtfsBytes const content(begin, begin + kSector);
        if (content == NtfsBytes(kSector, content.front()) || oldTable().contains(content)) {
            std::fill_n(begin, kSector, std::uint8_t{0});
        }
    }
    return imageOf(bytes);
}

/// \readme.txt's data in extension records that a list names.
NtfsBuilder withList(bool isResident, NtfsGeometry const& geometry) {
    NtfsBuilder builder = smallVolume(geometry);
    NtfsRecord& base = builder.record(kSecuredFile).remove(ntfs_type::kData);
    std::vector<NtfsListEntry> entries{{ntfs_type::kStandardInformation, base.reference(), 0, {}}};
    for (std::uint64_t number = 30; number < 33; ++number) {
        NtfsRecord& holder = builder.record(number);
        holder.baseReference = base.reference();
        auto const cluster = static_cast<std::int64_t>(100 + number);
        holder.nonResident(ntfs_type::kData, u"", {{cluster, 2}, {cluster - 40, 3}}, {},
                           static_cast<std::int64_t>(number - 30) * 5);
        entries.push_back({ntfs_type::kData, holder.reference(), (number - 30) * 5, {}});
    }
    if (isResident) {
        base.attributeList(entries);
    } else {
        builder.store(base, ntfs_type::kAttributeList, u"", ntfsAttributeList(entries));
    }
    return builder;
}

/// Lists inside extension records: a chain from \readme.txt on, and two records that name each other.
NtfsBuilder withNestedLists(NtfsGeometry const& geometry) {
    NtfsBuilder builder = smallVolume(geometry);
    auto const name = [&builder](std::uint64_t number, std::uint64_t base, std::uint64_t next) {
        builder.record(number).baseReference = builder.record(base).reference();
        builder.record(number).attributeList({{ntfs_type::kData, builder.record(next).reference(), 0, {}}});
        builder.record(number).nonResident(ntfs_type::kData, u"", {{static_cast<std::int64_t>(100 + number), 2}});
    };
    builder.record(kSecuredFile).attributeList({{ntfs_type::kData, builder.record(28).reference(), 0, {}}});
    name(28, kSecuredFile, 29);
    name(29, 28, 30);
    name(30, 29, kSecuredFile);
    name(31, 32, 32);
    name(32, 31, 31);
    return builder;
}

/// A directory with enough names for a tree of the given levels.
NtfsBuilder withTree(unsigned levels, NtfsGeometry geometry) {
    geometry.securityLevels = levels > 1 ? 2 : 1;
    geometry.rootLevels = levels;
    return smallVolume(geometry);
}

void addStructures(SeedFolder const& seeds, NtfsBuilder const& builder) {
    for (std::uint64_t const number : {0UL, 5UL, 6UL, 9UL, 24UL, 30UL}) {
        NtfsBytes const record = builder.protectedRecord(number);
        seeds.add("records", "record-" + std::to_string(number), record);
        NtfsBytes const plain = builder.plainRecord(number);
        std::size_t const first = getNumber(plain, 0x14, 2);
        seeds.add("records", "attribute-" + std::to_string(number), std::span(plain).subspan(first));
    }
    NtfsIndexShape shape;
    shape.blockBytes = 512;
    shape.clusterBytes = 512;
    NtfsBytes const entries =
        ntfsNodeEntries(ntfsNameEntries({{u"docs", 25}, {u"readme.txt", 24}, {u"zebra", 26}}, 5), {});
    seeds.add("records", "entries", entries);
    seeds.add("records", "block", ntfsIndexBlock(shape, 0, entries, false));
    seeds.add("records", "identifiers",
              ntfsNodeEntries(ntfsIdentifierEntries({{0x100, 1, 0, 100}, {0x101, 2, 112, 100}}), {}));
}

void addRunlists(SeedFolder const& seeds) {
    std::vector<std::vector<NtfsRun>> const lists{
        {{10, 5}},
        {{100, 1}, {50, 300}, {70000, 70000}},
        {{-1, 16}, {4, 4}},
        {{0x7FFFFFFFFF, 0x100000000}, {1, 1}},
    };
    for (std::size_t i = 0; i < lists.size(); ++i) {
        NtfsRecord record(24, 1024, 4096);
        record.nonResident(ntfs_type::kData, u"", lists[i]);
        seeds.add("runlists", "runs-" + std::to_string(i), record.attributes.front());
    }
    seeds.add("runlists", "resident", ntfsResident(ntfs_type::kData, u"", {1, 2, 3}));
    seeds.add("runlists", "unended", ntfsNonResident(ntfs_type::kData, u"", {{0x11, 0x05, 0x0A, 0x21, 0x03}, 0, 7}));
}

void addDescriptors(SeedFolder const& seeds) {
    using namespace tests::security;
    security::Bytes const everyone = makeSid(1, {0});
    security::Bytes const dacl = makeAcl({makeAce(0, 0, 0x1F01FF, everyone), makeAce(1, 0x10, 1, makeSid(5, {18})),
                                          makeAce(5, 0, 3, makeSid(5, {21, 1, 2, 3, 1000}), kObjectTrustee)});
    security::Bytes const sacl =
        makeAcl({makeAce(2, 0x40, 0x10000, everyone), makeAce(7, 0x80, 1, everyone, kObjectTrustee)});
    unsigned const all = kSelfRelative | kDaclPresent | kSaclPresent | kSaclProtected;
    seeds.add("security", "both", makeDescriptor(all, sacl, dacl));
    seeds.add("security", "simple", makeSimpleDescriptor());
    seeds.add("security", "null-list", makeDescriptor(kSelfRelative | kDaclPresent, {}, {}));
    seeds.add("security", "list", dacl);
    seeds.add("security", "identifier", makeSid(0x123456789ABC, {1, 2, 3}));
    seeds.add("security", "sample", ntfsSampleDescriptor());
}

} // namespace

void addNtfs(SeedFolder const& seeds, std::string const& name, Image const& image, std::string const& path,
             std::uint8_t record) {
    Bytes const text(path.begin(), path.end());
    Bytes walk{0, 0, 0x40, 0, 0, 0, 0, 0};
    Bytes lookup{0, 0, 5, 0x01, 0x01, 0, 0, static_cast<std::uint8_t>(text.size())};
    Bytes files{0, 0, record, 0, 0, 0, 0, static_cast<std::uint8_t>(text.size())};
    lookup.insert(lookup.end(), text.begin(), text.end());
    files.insert(files.end(), text.begin(), text.end());
    seeds.addVolume("ntfs", name, image, kNtfsRequest, walk);
    seeds.addVolume("ntfs_lookup", name, image, kNtfsRequest, lookup);
    seeds.addVolume("ntfs_files", name, image, kNtfsRequest, files);
}

void addNtfsSeeds(SeedFolder const& seeds) {
    auto const addOne = [&seeds](std::string const& name, NtfsBuilder builder, std::string const& path) {
        addNtfs(seeds, name, sealedImage(builder), path);
    };
    NtfsGeometry geometry;
    geometry.clusterBytes = 1024;
    geometry.indexBlockBytes = 1024;
    addOne("plain", smallVolume(geometry), "\\docs\\letter.txt");
    addOne("resident-list", withList(true, geometry), "\\readme.txt");
    addOne("other-list", withList(false, geometry), "\\README.TXT");
    NtfsBuilder nested = withNestedLists(geometry);
    addNtfs(seeds, "nested-lists", sealedImage(nested), "\\readme.txt", 31);
    addOne("two-levels", withTree(2, geometry), "\\docs\\letter.txt");
    addOne("three-levels", withTree(3, geometry), "\\$Extend");
    geometry.clusterBytes = 512;
    geometry.indexBlockBytes = 512;
    addOne("small-blocks", withTree(3, geometry), "\\readme.txt");
    geometry.clusterBytes = 4096;
    geometry.indexBlockBytes = 1024;
    addOne("blocks-below-clusters", withTree(2, geometry), "\\$Secure");
    geometry.indexBlockBytes = 4096;
    geometry.bitmapPieces = 2;
    geometry.upcasePieces = 2;
    geometry.mftRuns = {{8, 4}, {20, 8}};
    addOne("in-pieces", smallVolume(geometry), "\\readme.txt");
    geometry = NtfsGeometry::withClusters(65536);
    addOne("large-clusters", smallVolume(geometry), "\\readme.txt");
    geometry = NtfsGeometry::withClusters(4096);
    geometry.recordBytes = 4096;
    addOne("large-records", smallVolume(geometry), "\\nowhere\\at all");
    NtfsBuilder structures = withList(true, {});
    addStructures(seeds, structures.seal());
    addRunlists(seeds);
    addDescriptors(seeds);
}

} // namespace fuzz
