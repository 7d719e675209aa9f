// $Secure whose stream and index contradict each other, and files that name descriptors in more than one way.
#include "imaging/BudgetReader.h"
#include "support/NtfsFileBench.h"
#include "support/NtfsSecureVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace tests;

constexpr char const* kPath = "\\readme.txt";
constexpr std::uint64_t kSecure = ntfs_record_number::kSecure;
constexpr std::uint64_t kCopyDistance = 0x40000;
constexpr std::uint32_t kSecurityDescriptor = 0x50;

constexpr char const* kNotSelfRelative =
    "Descriptor is not self-relative! NTFSParser can parse self-relative descriptors only.";

/// The first trustee of \readme.txt, or the reason why there is none, without the wrapper's beginning.
std::string trustee(NtfsBuilder const& builder) {
    NtfsFileBench bench(builder);
    try {
        return bench.parser.readACLFromFile(kPath).at(0).aces.at(0).sid;
    } catch (std::exception const& error) {
        std::string const text = error.what();
        std::string const prefix = "Failed to read ACLs for \"\\readme.txt\": ";
        return text.starts_with(prefix) ? text.substr(prefix.size()) : text;
    }
}

/// A stream with one descriptor at an offset, whose header says what it should.
NtfsBytes streamWith(std::uint64_t size, std::uint64_t offset, NtfsBytes const& descriptor, std::uint32_t length) {
    NtfsBytes stream(size);
    putNumber(stream, offset + 0x04, 0x100, 4);
    putNumber(stream, offset + 0x08, offset, 8);
    putNumber(stream, offset + 0x10, length, 4);
    std::copy(descriptor.begin(), descriptor.end(), stream.begin() + static_cast<std::ptrdiff_t>(offset + 20));
    return stream;
}

std::uint32_t entryLength(NtfsBytes const& descriptor) {
    return static_cast<std::uint32_t>(20 + descriptor.size());
}

/// A volume whose entry for 0x100 in $SII has one field changed.
NtfsBuilder withEntryField(std::uint64_t offset, std::uint64_t value, std::size_t width) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsBytes entry = ntfsIdentifierEntries({ntfsSdsPlaces(builder.descriptors).at(0)}).at(0);
    EXPECT_NE(getNumber(entry, offset, width), value) << "nothing is damaged";
    putNumber(entry, offset, value, width);
    NtfsIndexShape shape = builder.directoryShape();
    shape.type = 0;
    shape.collation = 16;
    builder.index(builder.record(kSecure).remove(ntfs_type::kIndexRoot), u"$SII", shape, {entry});
    builder.seal();
    return builder;
}

TEST(NtfsHostileIdentifier, ExtremeOnesAreFoundWhereTheIndexHasThem) {
    NtfsBytes const descriptor = security::makeSimpleDescriptor(77);
    for (std::uint32_t const identifier : {0U, 0xFFFFFFFFU}) {
        NtfsBuilder builder = makeVolumeWithLastDescriptor(descriptor);
        std::uint64_t const offset = 4096 - entryLength(descriptor);
        setSecurityIndex(builder, {{identifier, 0, offset, entryLength(descriptor)}, {0x100, 0, 1, 20}});
        setSecurityId(builder, identifier);
        EXPECT_EQ(trustee(builder.seal()), "S-1-5-21-77") << identifier;
    }
}

TEST(NtfsHostileIdentifier, OfAFileButNotOfTheIndexIsNamed) {
    for (std::uint32_t const identifier : {0U, 0xFFU, 0x102U, 0xFFFFFFFFU}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        setSecurityId(builder, identifier);
        EXPECT_EQ(trustee(builder.seal()),
                  "Entry not found - between root entries for key " + std::to_string(identifier));
    }
}

TEST(NtfsHostileIdentifier, WinsOverADescriptorOfTheFilesOwn) {
    NtfsBytes const own = security::makeSimpleDescriptor(99);
    NtfsBuilder builder = makeVolumeWithLastDescriptor(security::makeSimpleDescriptor(77));
    builder.record(kSecuredFile).resident(kSecurityDescriptor, u"", own);
    EXPECT_EQ(trustee(builder.seal()), "S-1-5-21-77");
    setSecurityId(builder, 0);
    EXPECT_EQ(trustee(builder.seal()), "Entry not found - between root entries for key 0") << "it is never read";
}

TEST(NtfsHostileIdentifier, OfAStandardInformationOf48BytesIsWhatFollows) {
    NtfsBytes older = ntfsStandardInformation(0x100);
    older.resize(48);
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& file = builder.record(kSecuredFile).remove(ntfs_type::kStandardInformation);
    file.resident(ntfs_type::kStandardInformation, u"", older);
    builder.seal();
    std::uint64_t const next = builder.peekRecord(kSecuredFile, file.offsetOf(ntfs_type::kFileName) + 4, 4);
    ASSERT_NE(next, 0x100U);
    EXPECT_EQ(trustee(builder), "Entry not found - between root entries for key " + std::to_string(next))
        << "the length of the next attribute stands there";
}

TEST(NtfsHostileStream, LengthsOfEntriesAreNotRead) {
    NtfsBytes const descriptor = security::makeSimpleDescriptor(77);
    for (std::uint32_t const length : {0U, 19U, 20U, 0x10014U, 0x40001U, 0xFFFFFFFFU}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        setSecurityStream(builder, streamWith(4096, 0x200, descriptor, length));
        setSecurityIndex(builder, {{0x100, 0, 0x200, length}});
        EXPECT_EQ(trustee(builder.seal()), "S-1-5-21-77") << length;
    }
}

TEST(NtfsHostileStream, AnEntryMayCrossIntoTheCopy) {
    NtfsBytes const descriptor = security::makeSimpleDescriptor(77);
    std::uint64_t const offset = kCopyDistance - 32;
    NtfsBuilder builder = NtfsBuilder::standard();
    setSecurityStream(builder, streamWith(2 * kCopyDistance, offset, descriptor, entryLength(descriptor)));
    setSecurityIndex(builder, {{0x100, 0, offset, entryLength(descriptor)}});
    EXPECT_EQ(trustee(builder.seal()), "S-1-5-21-77");
}

TEST(NtfsHostileStream, AnEntryThatEndsPastTheStreamIsCutOff) {
    NtfsBytes const descriptor = security::makeSimpleDescriptor(77);
    NtfsBuilder builder = NtfsBuilder::standard();
    std::uint64_t const offset = 4096 - 20;
    setSecurityStream(builder, streamWith(4096, offset, {}, entryLength(descriptor)));
    setSecurityIndex(builder, {{0x100, 0, offset, entryLength(descriptor)}});
    EXPECT_EQ(trustee(builder.seal()), "Security descriptor is cut off!");
}

TEST(NtfsHostileStream, TheCopyIsNotTried) {
    NtfsBuilder builder = NtfsBuilder::standard();
    auto const places = ntfsSdsPlaces(builder.descriptors);
    NtfsBytes stream = ntfsSdsStream(builder.descriptors);
    std::fill_n(stream.begin(), kCopyDistance, std::uint8_t{0});
    setSecurityStream(builder, stream);
    EXPECT_EQ(trustee(builder.seal()), kNotSelfRelative) << "zeros are the entry of offset 0";
    setSecurityId(builder, 0x101);
    std::string const offset = std::to_string(places.at(1).offset);
    EXPECT_EQ(trustee(builder.seal()),
              "Given $SDS offset " + offset + " doesn't yield $SDS header with matching offset.");
    // Nor is it taken when the index leads there: its header tells the place of the first one.
    setSecurityIndex(builder, {{0x101, 0, places.at(1).offset + kCopyDistance, 20}});
    EXPECT_EQ(trustee(builder.seal()), "Given $SDS offset " + std::to_string(places.at(1).offset + kCopyDistance) +
                                           " doesn't yield $SDS header with matching offset.");
}

TEST(NtfsHostileStream, AnEntryWithAnotherOffsetIsRefused) {
    NtfsBytes const descriptor = security::makeSimpleDescriptor(77);
    for (std::uint64_t const told : {std::uint64_t{0}, std::uint64_t{0x1FF}, std::uint64_t{1} << 63}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        NtfsBytes stream = streamWith(4096, 0x200, descriptor, entryLength(descriptor));
        putNumber(stream, 0x208, told, 8);
        setSecurityStream(builder, stream);
        setSecurityIndex(builder, {{0x100, 0, 0x200, 20}});
        EXPECT_EQ(trustee(builder.seal()), "Given $SDS offset 512 doesn't yield $SDS header with matching offset.");
    }
}

TEST(NtfsHostileStream, PlacesOutsideItAreRefused) {
    for (std::uint64_t const offset : {std::uint64_t{8193}, std::uint64_t{0xFFFFFFFF}, ~std::uint64_t{0}}) {
        NtfsBuilder builder = NtfsBuilder::standard();
        setSecurityStream(builder, NtfsBytes(8192));
        setSecurityIndex(builder, {{0x100, 0, offset, 20}});
        EXPECT_EQ(trustee(builder.seal()),
                  "Given $SDS offset " + std::to_string(offset) + " exceeds length of $SDS data, which is 8192");
    }
}

TEST(NtfsHostileSii, WhereAnEntrysDataStandIsOnlyHeldAgainstItsLength) {
    for (std::uint64_t const offset : {0U, 16U, 19U}) {
        EXPECT_EQ(trustee(withEntryField(0x00, offset, 2)), "S-1-5-18") << offset;
    }
    for (std::uint64_t const length : {0U, 1U, 19U}) {
        EXPECT_EQ(trustee(withEntryField(0x02, length, 2)), "S-1-5-18") << length;
    }
    EXPECT_EQ(trustee(withEntryField(0x00, 0xFFFF, 2)), "Data overflow from index entry for key: 256");
    EXPECT_EQ(trustee(withEntryField(0x02, 21, 2)), "Data overflow from index entry for key: 256");
}

TEST(NtfsHostileSii, AKeysLengthIsOnlyHeldAgainstTheEntry) {
    for (std::uint64_t const length : {0U, 3U, 8U, 24U}) {
        EXPECT_EQ(trustee(withEntryField(0x0A, length, 2)), "S-1-5-18") << length;
    }
    for (std::uint64_t const length : {25U, 0xFFFFU}) {
        EXPECT_EQ(trustee(withEntryField(0x0A, length, 2)), "Overflow from index entry for key: 256") << length;
    }
}

/// A volume whose $SII leads to its block 0, which leads on to another one.
NtfsBuilder withCycle(std::vector<std::uint64_t> const& children) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsIndexShape shape = builder.directoryShape();
    shape.type = 0;
    shape.collation = 16;
    NtfsRecord& secure = builder.record(kSecure).remove(ntfs_type::kIndexRoot);
    secure.resident(ntfs_type::kIndexRoot, u"$SII", ntfsIndexRoot(shape, ntfsNodeEntries({}, {0}), true));
    NtfsBytes blocks;
    for (std::uint64_t vcn = 0; vcn < children.size(); ++vcn) {
        NtfsBytes const block = ntfsIndexBlock(shape, vcn, ntfsNodeEntries({}, {children[vcn]}), true);
        blocks.insert(blocks.end(), block.begin(), block.end());
    }
    builder.store(secure, ntfs_type::kIndexAllocation, u"$SII", blocks);
    builder.seal();
    return builder;
}

class NtfsHostileSiiCycle : public testing::TestWithParam<std::vector<std::uint64_t>> {};

TEST_P(NtfsHostileSiiCycle, EndsWithTheBudget) {
    MemoryReader const memory(withCycle(GetParam()).bytes);
    RecordingLogger logger;
    imaging::BudgetReader const reader(logger, memory, imaging::Budget{1000});
    NtfsAccess parser(logger, 512, reader);
    EXPECT_EQ(failureOf([&] { parser.readACLFromFile(kPath); }),
              "Failed to read ACLs for \"\\readme.txt\": Unable to read INDEX ENTRY");
    EXPECT_EQ(reader.spent(), "after 1000 reads");
}

INSTANTIATE_TEST_SUITE_P(Children, NtfsHostileSiiCycle,
                         testing::Values(std::vector<std::uint64_t>{0}, std::vector<std::uint64_t>{1, 0},
                                         std::vector<std::uint64_t>{1, 2, 3, 1}));

TEST(NtfsHostileSii, ManyLevelsAreWalked) {
    NtfsGeometry geometry;
    geometry.clusters = 1024;
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    auto const place = ntfsSdsPlaces(builder.descriptors).at(0);
    std::vector<NtfsSdsPlace> places;
    for (std::uint32_t i = 0; i < 200; ++i) {
        places.push_back({0x100 + i, 0, place.offset, place.length});
    }
    setSecurityIndex(builder, places, 5);
    for (std::uint32_t const identifier : {0x100U, 0x17FU, 0x1C7U}) {
        setSecurityId(builder, identifier);
        EXPECT_EQ(trustee(builder.seal()), "S-1-5-18") << identifier;
    }
}

} // namespace
