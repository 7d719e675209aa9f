// The rows: small volumes, and everything that their parsers can be asked.
#include "support/FaultOperations.h"

#include "support/ExtRun.h"
#include "support/FatRun.h"
#include "support/HfsRun.h"
#include "support/NtfsAccess.h"
#include "support/NtfsFaultVolume.h"
#include "support/XfsRun.h"

#include <initializer_list>

namespace tests {

namespace {

using agent::core::IVolumeReader;
using agent::info::Logger;
using Bytes = std::vector<std::uint8_t>;
using Volume = std::shared_ptr<Bytes const>;

constexpr unsigned kAlignment = 512;

Volume share(Bytes bytes) {
    return std::make_shared<Bytes const>(std::move(bytes));
}

/// Every chunk of the map, and how many units it has; a negative code ends it.
std::string walkMap(agent::core::fs::IBlockBitmapChunkProvider const& parser, std::size_t chunkBytes) {
    std::string answer;
    std::vector<char> chunk(chunkBytes);
    for (unsigned long unit = 0;;) {
        long const count = parser.getChunk(unit, chunk.data(), chunk.size());
        if (count < 0) {
            return "code " + std::to_string(count);
        }
        answer += std::to_string(count) + ":";
        if (count == 0) {
            return answer;
        }
        if (count % 8 != 0) { // bits past the last unit mean nothing
            auto const rest = static_cast<unsigned>(count % 8);
            auto const mask = parser.isMostSignificantBitFirst() ? 0xFFU << (8 - rest) : (1U << rest) - 1;
            char& last = chunk.at(static_cast<std::size_t>(count) / 8);
            last = static_cast<char>(static_cast<unsigned char>(last) & mask);
        }
        answer.append(chunk.data(), (static_cast<std::size_t>(count) + 7) / 8);
        unit += static_cast<unsigned long>(count);
    }
}

/// The question asks a parser that stands.
template <typename Parser, typename Ask>
auto asking(Ask const& ask) {
    return [ask](Logger& logger, IVolumeReader const& reader) -> Question {
        auto const parser = std::make_shared<Parser>(logger, kAlignment, reader);
        return [parser, ask] { return ask(*parser); };
    };
}

/// The question makes a parser.
template <typename Parser>
auto constructing() {
    return [](Logger& logger, IVolumeReader const& reader) -> Question {
        return [&logger, &reader] {
            Parser const parser(logger, kAlignment, reader);
            return std::string("made");
        };
    };
}

std::string thrown(std::string const& text) {
    return "threw runtime_error: " + text;
}

/// Construction, and the walk in chunks of several sizes.
template <typename Parser>
std::vector<Operation> mapRows(std::string const& name, Volume const& volume, std::vector<std::string> const& refusals,
                               std::initializer_list<std::size_t> chunks, std::vector<std::string> const& codes) {
    std::vector<Operation> rows{{name + "Construction", volume, constructing<Parser>(), refusals}};
    for (std::size_t const chunk : chunks) {
        auto const walk = [chunk](Parser& parser) { return walkMap(parser, chunk); };
        rows.push_back({name + "MapBy" + std::to_string(chunk), volume, asking<Parser>(walk), codes});
    }
    return rows;
}

} // namespace

std::vector<Operation> extOperations() {
    Volume const volume = share(ExtBuilder().fillBitmapsAtRandom(71).bytes);
    return mapRows<ExposedExtParser>("Ext", volume,
                                     {thrown("Could not read EXT super block."), thrown("Not an EXT filesystem.")},
                                     {200, 800, 2500, 4000}, {"code -1"});
}

std::vector<Operation> fatOperations() {
    FatBuilder builder(FatGeometry::tiny());
    builder.fillAtRandom(72);
    return mapRows<ExposedFatParser>("Fat", share(builder.resize(408 * 512).bytes),
                                     {thrown("Can't read fat boot sector"), thrown("Not a FAT filesystem")}, {26, 40},
                                     {"code -1", "code -400"});
}

std::vector<Operation> hfsOperations() {
    HfsGeometry geometry;
    geometry.totalBlocks = 44 * 512 * 8;
    geometry.allocationFile = hfsFragments(44, 1, 100);
    geometry.recordsPerNode = 2;
    geometry.otherRecords = {{5, 8, {{50, 1}}}, {17, 8, {{51, 1}}}};
    Bytes bytes = HfsBuilder(geometry).fillBitmapAtRandom(73).bytes;
    std::copy_n(bytes.begin() + kHfsHeaderOffset, kHfsHeaderBytes, bytes.begin()); // where the parser looks for it
    Volume const volume = share(std::move(bytes));
    auto rows = mapRows<ExposedHfsParser>("Hfs", volume,
                                          {thrown("Error reading HFS+ superblock."), thrown("Not an HFS+ filesystem.")},
                                          {2000, 10000, 22528}, {"code -1"});
    auto const search = [header = hfsHeaderOf(*volume)](ExposedHfsParser& parser) {
        std::vector<agent::core::fs::HFSPlusExtentDescriptor> found;
        std::string answer = parser.fs_search_overflow(header, kHfsAllocationFileId, found) ? "found" : "code failed";
        for (HfsExtent const& extent : toHfsExtents(found)) {
            answer += ' ' + std::to_string(extent.start) + '+' + std::to_string(extent.count);
        }
        return answer;
    };
    rows.push_back({"HfsOverflowSearch", volume, asking<ExposedHfsParser>(search), {"code failed"}, {"found"}});
    return rows;
}

std::vector<Operation> xfsOperations() {
    XfsGeometry geometry;
    geometry.logStart = (1 << 9) + 300;
    geometry.logBlocks = 50;
    XfsBuilder builder(geometry);
    builder.plantTree(0, {{100, 5}, {410, 20}, {450, 7}, {480, 10}}, {2, 2, 4});
    builder.setFreeList(0, 0, {402, 403});
    builder.plantTree(1, {{5, 20}, {40, 2}, {60, 30}, {120, 9}, {150, 100}}, {2, 2, 300});
    builder.setFreeList(1, 5, {30, 31, 32});
    Volume const volume = share(builder.bytes);
    auto rows = mapRows<ExposedXfsParser>("Xfs", volume,
                                          {thrown("Can't read XFS super block."), thrown("Not an XFS filesystem")},
                                          {40, 62, 163, 200}, {"code -1"});
    auto const journal = [](ExposedXfsParser& parser) { return std::to_string(parser.getXFSJournalBlocks()); };
    rows.push_back({"XfsJournal", volume, asking<ExposedXfsParser>(journal), {}});
    return rows;
}

namespace {

std::string describe(std::vector<agent::BlockRange> const& ranges) {
    std::string text = ranges.empty() ? "no extents" : "extents";
    for (auto const& [first, count] : ranges) {
        text += ' ' + std::to_string(first) + '+' + std::to_string(count);
    }
    return text;
}

std::string describe(std::vector<agent::core::fs::NTFS_ACL> const& lists) {
    std::string text = std::to_string(lists.size()) + " lists:";
    for (auto const& list : lists) {
        text += " list";
        for (auto const& ace : list.aces) {
            text += ' ' + ace.sid + '=' + std::to_string(ace.accessMask) + ',' + std::to_string(ace.accessMode);
        }
    }
    return text;
}

/// What a record's reading and a look into its index may say.
std::vector<std::string> recordFailures() {
    std::vector<std::string> failures;
    for (char const* const text :
         {"Could not read MFT record ", "Could not find INDEX_ROOT", "Could not find INDEX_ALLOCATION",
          "Unable to read INDEX ENTRY", "Corrupt index block signature", "Could not read from device."}) {
        failures.push_back(thrown(text));
    }
    return failures;
}

template <typename Ask>
void addNtfsRow(std::vector<Operation>& rows, std::string const& name, Ask const& ask,
                std::vector<std::string> const& more = {}) {
    Operation row{"Ntfs" + name, rows.front().volume, asking<NtfsAccess>(ask), recordFailures()};
    row.failures.insert(row.failures.end(), more.begin(), more.end());
    // Zeros may hide a name, a descriptor or an attribute.
    row.gaps = {thrown("Entry not found"), thrown("Could not find "), thrown("Failed to read ACLs for ")};
    row.keepsTable = true;
    rows.push_back(row);
}

void addNtfsFileRows(std::vector<Operation>& rows) {
    addNtfsRow(rows, "Path",
               [](NtfsAccess& parser) {
                   parser.resetMftCache();
                   parser.read_upcase();
                   return "record " + std::to_string(parser.convert_to_inode("\\many\\c"));
               },
               {thrown("MFT Record 0x0 has invalid file magic")});
    addNtfsRow(rows, "ExtentsOfPath", [](NtfsAccess& parser) { return describe(parser.extents("\\README.TXT")); },
               {"no extents"});
    addNtfsRow(rows, "ExtentsOfRecord", [](NtfsAccess& parser) { return describe(parser.extents(kNtfsReadme)); },
               {"no extents"});
    addNtfsRow(rows, "StandardInformation", [](NtfsAccess& parser) {
        parser.read_upcase();
        auto const information = parser.getStandardInfo("\\many\\c");
        return "identifier " + std::to_string(information.security_id.value());
    });
    addNtfsRow(rows, "AccessLists",
               [](NtfsAccess& parser) {
                   parser.clearSDS();
                   return describe(parser.readACLFromFile("\\readme.txt"));
               },
               {thrown("Failed to read ACLs for \"\\readme.txt\": "), thrown("Unable to read SDS entry")});
}

} // namespace

std::vector<Operation> ntfsOperations() {
    Volume const volume = share(makeNtfsFaultVolume().bytes);
    std::vector<std::string> const refusals{thrown("Can't read ntfs boot sector"), thrown("Not an NTFS filesystem"),
                                            thrown("MFT Record 0x0 has invalid file magic"),
                                            thrown("Could not read MFT record for inode number 1")};
    // Of the bitmap's record nothing is said but that its runs are too short.
    auto rows = mapRows<NtfsAccess>("Ntfs", volume, refusals, {8, 24, 64, 100}, {"code -1", "code -559"});
    auto const reset = [](NtfsAccess& parser) {
        parser.resetMftCache();
        return std::string("reset");
    };
    rows.push_back({"NtfsReset", volume, asking<NtfsAccess>(reset), refusals});
    auto const again = [](NtfsAccess& parser) {
        parser.reinit();
        return std::string("made again");
    };
    rows.push_back({"NtfsReinit", volume, asking<NtfsAccess>(again), refusals});
    auto const record = [](NtfsAccess& parser) {
        Bytes bytes(1024);
        parser.read_mft_record_throw(kNtfsReadme, bytes.data(), "");
        return std::string(bytes.begin(), bytes.end());
    };
    rows.push_back({"NtfsRecord", volume, asking<NtfsAccess>(record), recordFailures()});
    addNtfsFileRows(rows);
    return rows;
}

std::vector<Operation> everyOperation() {
    std::vector<Operation> all;
    for (auto const& rows : {extOperations(), fatOperations(), hfsOperations(), xfsOperations(), ntfsOperations()}) {
        all.insert(all.end(), rows.begin(), rows.end());
    }
    return all;
}

} // namespace tests
