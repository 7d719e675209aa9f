// The system files of NTFS volumes for tests, and a few others.
#include "support/NtfsBuilder.h"

namespace tests {

namespace {

using ntfs_record_number::kRoot;

NtfsBytes asBytes(std::string const& text) {
    return {text.begin(), text.end()};
}

} // namespace

NtfsBuilder NtfsBuilder::standard(NtfsGeometry const& geometry) {
    NtfsBuilder builder(geometry);
    builder.descriptors = {{0x100, ntfsSampleDescriptor()}, {0x101, ntfsSampleDescriptor()}};
    builder.makeMetadataFiles();
    builder.makeSecure();
    builder.makeUserFiles();
    builder.seal();
    return builder;
}

void NtfsBuilder::makeMetadataFiles() {
    std::vector<NtfsRun> const& mftRuns = geometry_.mftRuns;
    NtfsRecord& mft = file(ntfs_record_number::kMft, kRoot, u"$MFT");
    mft.nonResident(ntfs_type::kData, u"", mftRuns, geometry_.records * geometry_.recordBytes);
    NtfsBytes inUse(alignTo8((geometry_.records + 7) / 8));
    for (std::size_t i = 0; i < 4; ++i) {
        inUse[i] = i == 3 ? 0x07 : 0xFF; // records 0 to 26
    }
    store(mft, ntfs_type::kBitmap, u"", inUse);

    file(1, kRoot, u"$MFTMirr").nonResident(ntfs_type::kData, u"", {mirror_}, 4 * geometry_.recordBytes);
    store(file(2, kRoot, u"$LogFile"), ntfs_type::kData, u"", NtfsBytes(4096, 0xFF));
    file(3, kRoot, u"$Volume")
        .resident(ntfs_type::kVolumeName, u"", ntfsText(u"standard"))
        .resident(ntfs_type::kVolumeInformation, u"", {0, 0, 0, 0, 0, 0, 0, 0, 3, 1, 0, 0}) // NTFS 3.1, clean
        .resident(ntfs_type::kData, u"", {});
    store(file(4, kRoot, u"$AttrDef"), ntfs_type::kData, u"", NtfsBytes(2560));
    NtfsRecord& bitmap = file(ntfs_record_number::kBitmap, kRoot, u"$Bitmap");
    std::uint64_t const bitmapBytes = alignTo8((used_.size() + 7) / 8);
    bitmapRuns = allocatePieces(std::max<std::uint64_t>(clustersFor(bitmapBytes), geometry_.bitmapPieces),
                                geometry_.bitmapPieces);
    bitmap.nonResident(ntfs_type::kData, u"", bitmapRuns, bitmapBytes);
    file(7, kRoot, u"$Boot")
        .nonResident(ntfs_type::kData, u"", {{0, static_cast<std::int64_t>(clustersFor(8192))}}, 8192);
    file(8, kRoot, u"$BadClus")
        .resident(ntfs_type::kData, u"", {})
        .nonResident(ntfs_type::kData, u"$Bad", {{-1, static_cast<std::int64_t>(used_.size())}});
    store(file(ntfs_record_number::kUpcase, kRoot, u"$UpCase"), ntfs_type::kData, u"", ntfsUpcaseBytes(),
          geometry_.upcasePieces);
    directory(file(11, kRoot, u"$Extend"), {});
    for (std::uint64_t number = 12; number < 16; ++number) { // kept for extensions of $MFT
        record(number).resident(ntfs_type::kStandardInformation, u"", ntfsStandardInformation(0x100));
        record(number).resident(ntfs_type::kData, u"", {});
    }
}

void NtfsBuilder::makeSecure() {
    NtfsRecord& secure = file(ntfs_record_number::kSecure, kRoot, u"$Secure");
    secure.flags = 9; // in use, with an index that is no directory
    store(secure, ntfs_type::kData, u"$SDS", ntfsSdsStream(descriptors));
    NtfsIndexShape shape = directoryShape();
    shape.type = 0;
    shape.collation = 18; // by hash: never read, so it stays empty
    index(secure, u"$SDH", shape, {});
    shape.collation = 16;
    shape.levels = geometry_.securityLevels;
    index(secure, u"$SII", shape, ntfsIdentifierEntries(ntfsSdsPlaces(descriptors)));
}

void NtfsBuilder::makeUserFiles() {
    constexpr std::uint64_t kReadme = ntfs_record_number::kFirstUser;
    constexpr std::uint64_t kDocs = kReadme + 1;
    constexpr std::uint64_t kLetter = kReadme + 2;
    NtfsRecord& root = file(kRoot, kRoot, u".");

    std::vector<NtfsRun> runs = allocatePieces(5, 2);
    std::swap(runs.front(), runs.back());
    write(runs, NtfsBytes(5 * geometry_.clusterBytes, 0x52));
    file(kReadme, kRoot, u"readme.txt").nonResident(ntfs_type::kData, u"", runs);
    NtfsRecord& docs = file(kDocs, kRoot, u"docs");
    NtfsRecord& letter = file(kLetter, kDocs, u"letter.txt").resident(ntfs_type::kData, u"", asBytes("Dear all"));
    directory(docs, {{u"letter.txt", letter.reference()}});

    std::vector<std::u16string> const systemNames{u"$MFT",     u"$MFTMirr", u"$LogFile", u"$Volume",
                                                  u"$AttrDef", u".",        u"$Bitmap",  u"$Boot",
                                                  u"$BadClus", u"$Secure",  u"$UpCase",  u"$Extend"};
    std::vector<NtfsName> names{{u"readme.txt", record(kReadme).reference()}, {u"docs", docs.reference()}};
    // A root of 1 KiB cannot hold them all itself: one level then shows the files of users alone.
    for (std::uint64_t i = 0; i < systemNames.size() && geometry_.rootLevels > 1; ++i) {
        names.push_back({systemNames[i], record(i).reference(), 3});
    }
    directory(root, names, geometry_.rootLevels);
}

} // namespace tests
