// The NTFS volumes of the guests' calls, and what is asked of each.
#include "GuestAnswers.h"
#include "support/NtfsFileBench.h"

namespace tests {

namespace {

using namespace agent::core::fs;
using agent::core::IVolumeReader;
using agent::info::Logger;

std::string textOf(std::vector<agent::BlockRange> const& ranges) {
    std::string text;
    for (agent::BlockRange const& range : ranges) {
        text += std::to_string(range.first) + '+' + std::to_string(range.count) + ' ';
    }
    return text;
}

std::string textOf(std::vector<NTFS_ACL> const& lists) {
    std::string text;
    for (NTFS_ACL const& list : lists) {
        for (NTFS_ACE const& entry : list.aces) {
            text += entry.sid + ' ';
        }
    }
    return text;
}

/// What can be asked of a file's path.
std::string askPath(NTFSParser& parser, std::string const& path) {
    // The extents first: this question loads the table that names are compared by.
    std::string const extents = answerTo([&] { return textOf(parser.extents(path)); });
    std::string answer = answerTo([&] { return std::to_string(parser.convert_to_inode(path)); });
    answer += "; " + extents;
    answer += "; " + answerTo([&] { return std::to_string(parser.getStandardInfo(path).security_id.value()); });
    return answer + "; " + answerTo([&] { return textOf(parser.readACLFromFile(path)); });
}

std::string askNtfs(Logger& logger, IVolumeReader const& volume) {
    return answerTo([&] {
        NTFSParser parser(logger, 512, volume);
        std::string answer = answerTo([&] { return walk(parser, 64); });
        for (unsigned long const record : {0UL, 6UL, 24UL, 40UL}) {
            answer += "; " + answerTo([&] { return textOf(parser.extents(record)); });
        }
        for (char const* const path : {"\\readme.txt", "\\docs\\letter.txt", "\\none", ""}) {
            answer += "; " + askPath(parser, path);
        }
        parser.clearSDS();
        return answer + "; " + answerTo([&] {
                   parser.resetMftCache();
                   return std::string("read again");
               });
    });
}

/// A cycle of index blocks ends when nothing more can be read.
GuestCall ntfs(std::string const& name, NtfsBuilder const& builder) {
    return {"Ntfs" + name, builder.bytes,
            [](Logger& logger, IVolumeReader const& volume) { return askNtfs(logger, BudgetReader(volume, 3000)); }};
}

/// The root directory leads through so many blocks, the last of which holds a name, or leads to another block.
NtfsBuilder makeDeepNtfsVolume(std::uint64_t blocks, std::uint64_t afterLast) {
    NtfsGeometry geometry;
    geometry.clusters = 2048;
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    NtfsIndexShape const shape = builder.directoryShape(2);
    NtfsRecord& root = builder.record(ntfs_record_number::kRoot);
    root.remove(ntfs_type::kIndexRoot).remove(ntfs_type::kIndexAllocation).remove(ntfs_type::kBitmap);
    root.resident(ntfs_type::kIndexRoot, u"$I30", ntfsIndexRoot(shape, ntfsNodeEntries({}, {0}), true));
    NtfsBytes content;
    auto const names = ntfsNameEntries({{u"readme.txt", builder.record(24).reference()}}, 5);
    for (std::uint64_t vcn = 0; vcn < blocks; ++vcn) {
        bool const isLeaf = vcn + 1 == blocks && afterLast == 0;
        std::uint64_t const child = vcn + 1 == blocks ? afterLast : vcn + 1;
        NtfsBytes const block = isLeaf ? ntfsIndexBlock(shape, vcn, ntfsNodeEntries(names, {}), false)
                                       : ntfsIndexBlock(shape, vcn, ntfsNodeEntries({}, {child}), true);
        content.insert(content.end(), block.begin(), block.end());
    }
    builder.store(root, ntfs_type::kIndexAllocation, u"$I30", content);
    return builder.seal();
}

/// The attribute list of each record names the next one, which takes it for its base.
NtfsBuilder makeChainOfLists() {
    NtfsBuilder builder = NtfsBuilder::standard();
    constexpr std::uint64_t kLast = 60;
    for (std::uint64_t number = 40; number <= kLast; ++number) {
        NtfsRecord& made = builder.record(number).clear();
        made.baseReference = number == 40 ? 0 : number - 1;
        if (number < kLast) {
            made.attributeList({{ntfs_type::kData, number + 1, 0, {}}});
        }
        made.nonResident(ntfs_type::kData, u"", {{static_cast<std::int64_t>(100 + number), 1}});
    }
    return builder.seal();
}

} // namespace

std::vector<GuestCall> ntfsGuestCalls() {
    NtfsGeometry deep;
    deep.rootLevels = 3;
    deep.securityLevels = 2;
    deep.upcasePieces = 2;
    deep.bitmapPieces = 2;
    NtfsBuilder const good = NtfsBuilder::standard();
    NtfsBuilder withoutRoot = good;
    withoutRoot.poke(good.byteOffsetOf(ntfs_record_number::kRoot), 0, 4);
    NtfsBuilder withoutUpcase = good;
    withoutUpcase.poke(good.byteOffsetOf(ntfs_record_number::kUpcase), 0x44414142, 4); // "BAAD"
    NtfsBuilder largeStream = good;
    NtfsRecord secure = largeStream.record(ntfs_record_number::kSecure);
    largeStream.pokeRecord(ntfs_record_number::kSecure, secure.offsetOf(ntfs_type::kData) + 0x30, 1UL << 62, 8);
    return {ntfs("Good", good),
            ntfs("Deep", NtfsBuilder::standard(deep)),
            ntfs("ClustersOf512Bytes", NtfsBuilder::standard(NtfsGeometry::withClusters(512))),
            ntfs("TwoHundredLevels", makeDeepNtfsVolume(200, 0)),
            ntfs("BlocksInACircle", makeDeepNtfsVolume(5, 2)),
            ntfs("ListsInAChain", makeChainOfLists()),
            ntfs("WithoutRootDirectory", withoutRoot),
            ntfs("WithoutUpcaseTable", withoutUpcase),
            ntfs("LargeStream", largeStream),
            ntfs("NoClusters", NtfsBuilder(good).setBoot(ntfs_boot::kSectorsPerCluster, 0, 1)),
            ntfs("MftOutside", NtfsBuilder(good).setBoot(ntfs_boot::kMftLcn, 1UL << 62, 8)),
            ntfs("CutOff", [&] {
                NtfsBuilder cut = good;
                cut.bytes.resize(20000);
                return cut;
            }())};
}

} // namespace tests
