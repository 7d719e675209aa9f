// The volumes of the guests' calls, and what is asked of each.
#include "GuestAnswers.h"

#include "agent/AlignedAllocator.h"
#include "agent/LruCache.h"
#include "agent/Path.h"
#include "agent/PosixError.h"
#include "agent/StringUtils.h"
#include "agent/core/backup/VolumeReader.h"
#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/FATParser.h"
#include "agent/core/fs/FileSystemType.h"
#include "agent/core/fs/HFSParser.h"
#include "agent/core/fs/UnrecognizedParser.h"
#include "agent/core/fs/XFSParser.h"
#include "support/ExtBuilder.h"
#include "support/FatBuilder.h"
#include "support/Files.h"
#include "support/HfsReader.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"
#include "support/TempDirectory.h"
#include "support/XfsBuilder.h"

#include <utility>

namespace tests {

namespace {

using namespace agent::core::fs;
using agent::core::IVolumeReader;
using agent::info::Logger;

template <typename Parser>
std::string askMap(Logger& logger, IVolumeReader const& volume, std::size_t chunkBytes = 256) {
    return answerTo([&] { return walk(Parser(logger, 512, volume), chunkBytes); });
}

// ext

GuestCall ext(std::string const& name, ExtBuilder const& builder) {
    return {"Ext" + name, builder.bytes,
            [](Logger& logger, IVolumeReader const& volume) { return askMap<EXTParser>(logger, volume); }};
}

ExtBuilder withSuper(std::uint64_t field, std::uint32_t value) {
    return ExtBuilder().fillBitmapsAtRandom(1).setSuper32(field, value);
}

std::vector<GuestCall> extCalls() {
    ExtGeometry wide = ExtGeometry::with4KiBBlocks(70000);
    wide.is64Bit = true;
    wide.descriptorSize = 64;
    ExtGeometry greedy = ExtGeometry();
    greedy.is64Bit = true;
    greedy.descriptorSize = 64;
    return {ext("Good", ExtBuilder().fillBitmapsAtRandom(1)),
            ext("Good64Bit", ExtBuilder(wide).fillBitmapsAtRandom(2)),
            ext("WithoutMagic", ExtBuilder().setSuper16(ext_super::kMagic, 0)),
            ext("NoBlocksInAGroup", withSuper(ext_super::kBlocksPerGroup, 0)),
            ext("AllBlocksInAGroup", withSuper(ext_super::kBlocksPerGroup, 0xFFFFFFF8)),
            ext("MostBlocks", withSuper(ext_super::kBlocksCountLow, 0xFFFFFFFF)),
            ext("BlocksOfNegativeSize", withSuper(ext_super::kLogBlockSize, 21)),
            ext("LargestDescriptors", ExtBuilder(greedy).setSuper16(ext_super::kDescriptorSize, 0xFFFF)),
            ext("BitmapOutside", ExtBuilder().fillBitmapsAtRandom(1).setBitmapLocation(1, 0xFFFFFFFF)),
            ext("CutOff", ExtBuilder().resize(2000))};
}

// FAT32: one request for everything, as the parser wants it.

GuestCall fat(std::string const& name, FatBuilder const& builder) {
    return {"Fat" + name, builder.bytes, [](Logger& logger, IVolumeReader const& volume) {
                return answerTo([&] {
                    FATParser const parser(logger, 512, volume);
                    std::vector<char> buffer(32768);
                    long const units = parser.getChunk(0, buffer.data(), buffer.size());
                    return std::to_string(units) + ' ' + digestOf(buffer, buffer.size());
                });
            }};
}

FatBuilder withBoot(std::uint64_t field, std::uint64_t value, unsigned width) {
    return FatBuilder(FatGeometry::tiny()).setBoot(field, value, width);
}

std::vector<GuestCall> fatCalls() {
    FatBuilder const tiny(FatGeometry::tiny());
    return {fat("Good", FatBuilder().fillAtRandom(1)),
            fat("GoodTiny", tiny),
            fat("Fat12", FatBuilder(tiny).setText(fat_boot::kOldLabel, "FAT12")),
            fat("Fat16", FatBuilder(tiny).setText(fat_boot::kOldLabel, "FAT16")),
            fat("WithoutLabel", FatBuilder(tiny).setText(fat_boot::kFat32Label, "     ")),
            fat("SectorsOfNoBytes", withBoot(fat_boot::kBytesPerSector, 0, 2)),
            fat("ClustersOfThreeSectors", withBoot(fat_boot::kSectorsPerCluster, 3, 1)),
            fat("MostSectors", withBoot(fat_boot::kTotalSectors32, 0xFFFFFFFF, 4)),
            fat("CutOff", FatBuilder(tiny).resize(600))};
}

// HFS+

GuestCall hfs(std::string const& name, HfsBuilder const& builder) {
    return {"Hfs" + name, builder.bytes, [](Logger& logger, IVolumeReader const& volume) {
                return askMap<HFSParser>(logger, HfsFrontReader(volume));
            }};
}

/// A volume whose allocation file has more extents in a tree of these nodes; node 1 is the root.
HfsBuilder withNodes(std::vector<HfsNode> nodes) {
    HfsGeometry geometry;
    geometry.totalBlocks = 20000;
    geometry.nodes = makeHfsTreeOf(std::move(nodes));
    HfsBuilder builder(geometry);
    return builder.setHeader32(hfs_header::kAllocationFile + hfs_fork::kTotalBlocks, 1000);
}

HfsNode hfsIndexNode(std::uint32_t child) {
    return HfsNode(512, hfs_node::kIndex, 2).addChild(child);
}

/// A thousand levels of one node each.
HfsBuilder makeDeepHfsVolume() {
    std::vector<HfsNode> nodes;
    for (std::uint32_t node = 1; node <= 1000; ++node) {
        nodes.push_back(hfsIndexNode(node + 1));
    }
    nodes.push_back(HfsNode(512, hfs_node::kLeaf, 1).addLeafRecord({kHfsAllocationFileId, 0, {{7, 7}}}));
    return withNodes(std::move(nodes));
}

std::vector<GuestCall> hfsCalls() {
    HfsGeometry fragmented;
    fragmented.totalBlocks = 60 * 512 * 8 - 3;
    fragmented.allocationFile = hfsFragments(60, 1, 100, 2);
    fragmented.recordsPerNode = 2;
    return {hfs("Good", HfsBuilder().fillBitmapAtRandom(1)),
            hfs("Fragmented", HfsBuilder(fragmented).fillBitmapAtRandom(2)),
            hfs("AThousandLevels", makeDeepHfsVolume()),
            hfs("RootNamesItself", withNodes({hfsIndexNode(1)})),
            hfs("NodesNameEachOther", withNodes({hfsIndexNode(2), hfsIndexNode(3), hfsIndexNode(2)})),
            hfs("WithoutSignature", HfsBuilder().put(kHfsHeaderOffset, 0, 2)),
            hfs("BlocksOfNoBytes", HfsBuilder().setHeader32(hfs_header::kBlockSize, 0)),
            hfs("BlocksOfOddSize", HfsBuilder().setHeader32(hfs_header::kBlockSize, 1000)),
            hfs("LargestBlocks", HfsBuilder().setHeader32(hfs_header::kBlockSize, 0x80000000))};
}

// XFS

GuestCall xfs(std::string const& name, XfsBuilder const& builder) {
    return {"Xfs" + name, builder.bytes, [](Logger& logger, IVolumeReader const& volume) {
                return askMap<XFSParser>(logger, volume) + " journal " +
                       answerTo([&] { return std::to_string(XFSParser(logger, 512, volume).getXFSJournalBlocks()); });
            }};
}

/// A tree of single nodes.
XfsBuilder makeDeepXfsVolume(std::uint32_t levels) {
    XfsBuilder builder;
    for (std::uint32_t i = 0; i + 1 < levels; ++i) {
        builder.makeNode(0, 4 + i, 1, 1).setChild(0, 4 + i, 0, 5 + i);
    }
    return builder.makeNode(0, 3 + levels, 0, 1).setRecord(0, 3 + levels, 0, {200, 6});
}

std::vector<GuestCall> xfsCalls() {
    XfsGeometry withJournal;
    withJournal.logStart = 100;
    withJournal.logBlocks = 20;
    return {
        xfs("Good", XfsBuilder(withJournal).fillAtRandom(1)),
        xfs("SixtyFourLevels", makeDeepXfsVolume(64)),
        xfs("ThreeHundredLevels", makeDeepXfsVolume(300)),
        xfs("SiblingNamesItself", XfsBuilder().makeNode(0, 4, 1, 1).setChild(0, 4, 0, 5).makeNode(0, 5, 0, 0, 5, 5)),
        xfs("NodeOfManyRecords", XfsBuilder().makeNode(0, 4, 0, 0xFFFF)),
        xfs("RootThatIsNone", XfsBuilder().setHeader32(0, xfs_header::kRoot, kXfsNoBlock)),
        xfs("WithoutHeader", XfsBuilder().setHeader32(1, xfs_header::kMagic, 0)),
        xfs("GroupsOfNoBlocks", XfsBuilder().setSuper32(xfs_super::kGroupBlocks, 0)),
        xfs("WithoutMagic", XfsBuilder().setSuper32(xfs_super::kMagic, 0))};
}

// What needs no volume, or a file

std::string askDetector(Logger& logger, IVolumeReader const& volume) {
    FileSystemType const detector(logger);
    std::string answer;
    std::vector<char> buffer(512);
    for (long const offset : {0L, 1024L}) {
        volume.seek(offset, SEEK_SET);
        volume.read(buffer.data(), 512);
        answer += std::to_string(detector.getFileSystemType(buffer.data())) + ' ';
    }
    return answer + std::to_string(detector.getFileSystemType(nullptr)) + ' ' + walk(UnrecognizedParser(1000), 50);
}

std::string askVolumeReader(Logger& logger, std::string const& path) {
    return answerTo([&] {
        agent::core::backup::VolumeReader reader(logger, path);
        std::string answer = std::to_string(reader.size());
        answer += reader.open() ? " open " : " closed ";
        std::vector<char, agent::AlignedAllocator<char>> buffer(8192, 0, agent::AlignedAllocator<char>(4096));
        for (long const offset : {0L, 4096L, -1L}) {
            answer += std::to_string(reader.seek(offset, SEEK_SET)) + ' ' +
                      std::to_string(reader.read(buffer.data(), 8192)) + ' ' + std::to_string(reader.getLastError()) +
                      ' ';
        }
        return answer;
    });
}

std::string askFiles(Logger& logger, IVolumeReader const&) {
    static TempDirectory const directory; // the path stands in the log, which is to be the same each time
    static std::string const path = writeFile(directory.file("volume"), std::vector<std::uint8_t>(8192, 7));
    return askVolumeReader(logger, path) + "; " + answerTo([] {
               throw agent::PosixError("no file", 123456); // a code that no system names
               return std::string();
           });
}

std::string askMissingFiles(Logger& logger, IVolumeReader const&) {
    return askVolumeReader(logger, "/nowhere/at/all") + "; " + askVolumeReader(logger, "/proc/self/status");
}

std::string askSupport(Logger& logger, IVolumeReader const&) {
    agent::LruCache<int> cache(2);
    for (int const element : {1, 2, 3, 1}) {
        cache.put(element);
    }
    Logger::Entry(logger, agent::info::Level::Warning) << 1234567 << ' ' << std::hex << 1234567 << ' ' << 1234567.5;
    std::string answer = agent::Path::concat("a", "b") + ' ' + std::to_string(cache.size());
    answer += ' ' + std::to_string(agent::StringUtils::StrToWStr("\xC3\x84\xF0\x9F\x98\x80\xFF").size());
    for (std::size_t const bytes : {std::size_t{0}, std::size_t{100}, std::size_t{1} << 20, ~std::size_t{0} / 4}) {
        for (std::size_t const alignment : {std::size_t{3}, std::size_t{512}, std::size_t{1} << 21}) {
            answer += ' ' + answerTo([&] {
                          agent::deallocateAligned(agent::allocateAligned(bytes, alignment), bytes, alignment);
                          return std::string("had");
                      });
        }
    }
    return answer;
}

std::vector<GuestCall> otherCalls() {
    return {{"Detector", std::vector<std::uint8_t>(4096, 0x55), askDetector},
            {"DetectorOnNtfs", NtfsBuilder::standard().bytes, askDetector},
            {"Support", {}, askSupport},
            {"Files", {}, askFiles, true},
            {"MissingFiles", {}, askMissingFiles, true}};
}

} // namespace

std::vector<GuestCall> const& guestCalls() {
    static std::vector<GuestCall> const calls = [] {
        std::vector<GuestCall> all;
        for (auto const& some : {extCalls(), fatCalls(), hfsCalls(), xfsCalls(), ntfsGuestCalls(), otherCalls()}) {
            all.insert(all.end(), some.begin(), some.end());
        }
        return all;
    }();
    return calls;
}

std::vector<std::string> transcriptOf(GuestCall const& call) {
    MemoryReader const reader(call.volume);
    RecordingLogger logger;
    std::vector<std::string> transcript{call.ask(logger, reader)};
    for (LogEntry const& entry : logger.entries) {
        transcript.push_back(std::to_string(static_cast<int>(entry.level)) + ' ' + entry.text);
    }
    return transcript;
}

} // namespace tests
