// Access lists of files: from a path through the index of identifiers to a descriptor in the stream.
#include "support/NtfsFileBench.h"
#include "support/NtfsSecureVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace tests;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr char const* kFailed = "Failed to read ACLs for \"\\readme.txt\": ";
constexpr std::uint64_t kSecure = ntfs_record_number::kSecure;

std::string failureFor(NtfsBuilder const& builder, std::string const& path = "\\readme.txt") {
    NtfsFileBench bench(builder);
    return failureOf([&] { bench.parser.readACLFromFile(path); });
}

VolumeRead readOfRuns(NtfsRun const& run) {
    return {run.lcn * 4096, run.length * 4096};
}

TEST(NtfsSecurity, TheListsOfAFileAreItsDescriptors) {
    NtfsFileBench bench;
    auto const lists = bench.parser.readACLFromFile("\\docs\\letter.txt");
    ASSERT_THAT(lists, SizeIs(1));
    EXPECT_EQ(lists[0].revision, 2);
    EXPECT_TRUE(lists[0].inheritanceAllowed);
    ASSERT_THAT(lists[0].aces, SizeIs(2));
    EXPECT_EQ(lists[0].aces[0].sid, "S-1-5-18");
    EXPECT_EQ(lists[0].aces[0].accessMask, 0x1F01FFU);
    EXPECT_EQ(lists[0].aces[0].accessMode, 2);
    EXPECT_EQ(lists[0].aces[0].flags, 0U);
    EXPECT_EQ(lists[0].aces[1].sid, "S-1-1-0");
    EXPECT_EQ(lists[0].aces[1].accessMask, 0x1200A9U);
    EXPECT_EQ(bench.logger.entries.at(0), debugEntry("Reading ACLs for \"\\docs\\letter.txt\"..."));
}

TEST(NtfsSecurity, ADirectoryHasListsAsWell) {
    NtfsFileBench bench;
    EXPECT_THAT(bench.parser.readACLFromFile("\\docs"), SizeIs(1));
    EXPECT_THAT(bench.parser.readACLFromFile("\\"), SizeIs(1));
}

TEST(NtfsSecurity, ListsThatAreThereAndNotEmptyComeTheSystemListFirst) {
    using namespace tests::security;
    NtfsBytes const system = makeAcl({makeAce(2, 0xC0, 1, makeSid(1, {0}))});
    NtfsBytes const discretionary = makeAcl({makeAce(1, 0, 2, makeSid(5, {19}))});
    constexpr unsigned both = kSelfRelative | kSaclPresent | kDaclPresent | kDaclProtected;
    NtfsFileBench bench(makeVolumeWithLastDescriptor(makeDescriptor(both, system, discretionary)));
    auto const lists = bench.parser.readACLFromFile("\\readme.txt");
    ASSERT_THAT(lists, SizeIs(2));
    EXPECT_EQ(lists[0].aces.at(0).accessMode, 5);
    EXPECT_TRUE(lists[0].inheritanceAllowed);
    EXPECT_EQ(lists[1].aces.at(0).accessMode, 3);
    EXPECT_FALSE(lists[1].inheritanceAllowed);

    NtfsFileBench none(makeVolumeWithLastDescriptor(makeDescriptor(both, makeAcl({}), makeAcl({}))));
    EXPECT_THAT(none.parser.readACLFromFile("\\readme.txt"), IsEmpty());
    NtfsFileBench null(makeVolumeWithLastDescriptor(makeDescriptor(both, std::nullopt, std::nullopt)));
    EXPECT_THAT(null.parser.readACLFromFile("\\readme.txt"), IsEmpty());
}

TEST(NtfsSecurity, EveryIdentifierLeadsToItsDescriptorAlsoInTheSecondHalfOfTheStream) {
    NtfsGeometry geometry;
    geometry.clusters = 1024;
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    std::vector<NtfsDescriptor> descriptors;
    for (std::uint32_t i = 0; i < 6; ++i) {
        NtfsBytes bytes = security::makeSimpleDescriptor(1000 + i);
        bytes.resize(60000); // so that the fifth is past the first copy
        descriptors.push_back({0x100 + 0x1000001 * i, bytes});
    }
    auto const places = ntfsSdsPlaces(descriptors);
    ASSERT_GE(places.at(4).offset, 0x80000U);
    for (unsigned const pieces : {1U, 3U}) {
        setSecurityStream(builder, ntfsSdsStream(descriptors), pieces);
        setSecurityIndex(builder, places, pieces);
        for (std::uint32_t i = 0; i < 6; ++i) {
            setSecurityId(builder, descriptors[i].id);
            NtfsFileBench bench(builder.seal());
            auto const lists = bench.parser.readACLFromFile("\\readme.txt");
            ASSERT_THAT(lists, SizeIs(1));
            EXPECT_EQ(lists[0].aces.at(0).sid, "S-1-5-21-" + std::to_string(1000 + i));
        }
    }
}

TEST(NtfsSecurity, FailuresOnTheWayAreWrappedWithThePath) {
    EXPECT_EQ(failureFor(NtfsBuilder::standard(), "\\no such"),
              "Failed to read ACLs for \"\\no such\": Entry not found - between root entries for key no such");
    NtfsBuilder builder = NtfsBuilder::standard();
    setSecurityId(builder, 999);
    EXPECT_EQ(failureFor(builder.seal()), std::string(kFailed) + "Entry not found - between root entries for key 999");
    setSecurityId(builder, 0);
    EXPECT_EQ(failureFor(builder.seal()), std::string(kFailed) + "Entry not found - between root entries for key 0");
    setSecurityId(builder, 0xFFFFFFFF);
    EXPECT_EQ(failureFor(builder.seal()),
              std::string(kFailed) + "Entry not found - between root entries for key 4294967295");
    builder.record(kSecuredFile).remove(ntfs_type::kStandardInformation);
    EXPECT_EQ(failureFor(builder.seal()),
              std::string(kFailed) + "Could not find STANDARD_INFORMATION for file \\readme.txt");
    NtfsBuilder withoutIndex = NtfsBuilder::standard();
    withoutIndex.record(kSecure).remove(ntfs_type::kIndexRoot);
    EXPECT_EQ(failureFor(withoutIndex.seal()),
              std::string(kFailed) + "Could not find INDEX_ROOT for key 256 in parent inode 9");
}

TEST(NtfsSecurity, DescriptorsThatCannotBeParsedAreWrappedWithThePath) {
    using namespace tests::security;
    Bytes const absolute = makeDescriptor(kDaclPresent, std::nullopt, makeAcl({}));
    EXPECT_EQ(failureFor(makeVolumeWithLastDescriptor(absolute)),
              std::string(kFailed) +
                  "Descriptor is not self-relative! NTFSParser can parse self-relative descriptors only.");
    Bytes const foreign =
        makeDescriptor(kSelfRelative | kDaclPresent, std::nullopt, makeAcl({makeAce(0, 0, 1, makeSid(5, {18}, 2))}));
    EXPECT_EQ(failureFor(makeVolumeWithLastDescriptor(foreign)),
              std::string(kFailed) + "SID is invalid! Cannot convert to string.");
}

/// The answer where $SII says that the descriptor of \readme.txt stands at `offset`; the stream has 4096 bytes.
std::string failureAt(std::uint64_t offset) {
    NtfsBuilder builder = makeVolumeWithLastDescriptor(security::makeSimpleDescriptor());
    setSecurityIndex(builder, {{0x100, 0, offset, 100}});
    return failureFor(builder.seal());
}

TEST(NtfsSecurity, OffsetsAreHeldAgainstTheStreamAndAgainstTheEntry) {
    std::string const given = std::string(kFailed) + "Given $SDS offset ";
    std::string const mismatch = " doesn't yield $SDS header with matching offset.";
    EXPECT_EQ(failureAt(4097), given + "4097 exceeds length of $SDS data, which is 4096");
    EXPECT_EQ(failureAt(~std::uint64_t{0}), given + "18446744073709551615 exceeds length of $SDS data, which is 4096");
    EXPECT_EQ(failureAt(4096), given + "4096" + mismatch) << "the size itself is let through, and finds nothing";
    EXPECT_EQ(failureAt(4096 - 8), given + "4088" + mismatch);
    EXPECT_EQ(failureAt(4096 - 15), given + "4081" + mismatch);
    EXPECT_EQ(failureAt(16), given + "16" + mismatch) << "zeros";
    // At the start, zeros are a matching header of a descriptor that is not self-relative.
    EXPECT_EQ(failureAt(0), std::string(kFailed) + "Descriptor is not self-relative! NTFSParser can parse "
                                                   "self-relative descriptors only.");
}

TEST(NtfsSecurity, TheOtherFieldsOfAnEntryAreNotRead) {
    NtfsBuilder builder = makeVolumeWithLastDescriptor(security::makeSimpleDescriptor());
    std::uint64_t const offset = 4096 - 20 - security::makeSimpleDescriptor().size();
    NtfsFileBench bench(builder);
    std::uint64_t const place =
        static_cast<std::uint64_t>(bench.parser.get_inode_runlist(kSecure).at(0).lcn) * 4096 + offset;
    putNumber(bench.volume.bytes, place, 0xFFFFFFFFFFFFFFFF, 8); // hash and identifier
    putNumber(bench.volume.bytes, place + 0x10, 0, 4);           // length
    EXPECT_THAT(bench.parser.readACLFromFile("\\readme.txt"), SizeIs(1));
}

TEST(NtfsSecurityStream, IsReadOnceUntilItIsForgotten) {
    NtfsBuilder builder = NtfsBuilder::standard();
    auto const runs = setSecurityStream(builder, ntfsSdsStream(builder.descriptors), 2);
    ASSERT_THAT(runs, SizeIs(2));
    NtfsFileBench bench(builder.seal());
    auto const readsFor = [&](std::string const& path) {
        bench.forget();
        EXPECT_THAT(bench.parser.readACLFromFile(path), SizeIs(1));
        return bench.reads();
    };
    auto const record = [&](std::uint64_t number) {
        return VolumeRead{static_cast<long>(builder.byteOffsetOf(number)), 1024};
    };
    auto const first = readsFor("\\readme.txt");
    EXPECT_THAT(first, Contains(readOfRuns(runs[0])));
    EXPECT_THAT(first, Contains(readOfRuns(runs[1])));
    // The directory, the file, and the index: nothing else.
    EXPECT_THAT(readsFor("\\readme.txt"), ElementsAre(record(5), record(24), record(kSecure)));
    EXPECT_THAT(readsFor("\\docs\\letter.txt"), ElementsAre(record(5), record(25), record(26), record(kSecure)));
    bench.parser.resetMftCache();
    EXPECT_THAT(readsFor("\\readme.txt"), Not(Contains(readOfRuns(runs[0]))));
    bench.parser.clearSDS();
    EXPECT_THAT(readsFor("\\readme.txt"), ElementsAre(record(kSecure), readOfRuns(runs[0]), readOfRuns(runs[1]),
                                                      record(5), record(24), record(kSecure)));
}

TEST(NtfsSecurityStream, IsNotRefreshedByItself) {
    NtfsFileBench bench;
    EXPECT_THAT(bench.parser.readACLFromFile("\\readme.txt"), SizeIs(1));
    auto const run = bench.parser.get_inode_runlist(kSecure).at(0);
    std::fill_n(bench.volume.bytes.begin() + run.lcn * 4096, 4096, std::uint8_t{0});
    EXPECT_THAT(bench.parser.readACLFromFile("\\readme.txt"), SizeIs(1));
    bench.parser.clearSDS();
    EXPECT_NE(failureOf([&] { bench.parser.readACLFromFile("\\readme.txt"); }), "nothing was thrown");
}

TEST(NtfsSecurityStream, IsEveryDataAttributeOfTheRecordWhateverItsName) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& secure = builder.record(kSecure).remove(ntfs_type::kData);
    builder.store(secure, ntfs_type::kData, u"", NtfsBytes(4096, 0xEE)); // comes first, so all offsets shift by it
    NtfsBytes stream(4096);
    putNumber(stream, 0x08, 4096, 8);
    NtfsBytes const descriptor = security::makeSimpleDescriptor(77);
    std::copy(descriptor.begin(), descriptor.end(), stream.begin() + 20);
    builder.store(secure, ntfs_type::kData, u"$SDS", stream);
    secure.resident(ntfs_type::kData, u"x", {1, 2, 3}); // has no runs
    setSecurityIndex(builder, {{0x100, 0, 4096, 20}});
    NtfsFileBench bench(builder.seal());
    EXPECT_EQ(bench.parser.readACLFromFile("\\readme.txt").at(0).aces.at(0).sid, "S-1-5-21-77");
    EXPECT_EQ(failureOf([&] { bench.parser.getACLFromSDS(8193); }),
              "Given $SDS offset 8193 exceeds length of $SDS data, which is 8192");
}

TEST(NtfsSecurityStream, IsFoundInAnExtensionRecord) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& secure = builder.record(kSecure).remove(ntfs_type::kData);
    NtfsRecord& extension = builder.record(40);
    extension.baseReference = secure.reference();
    builder.store(extension, ntfs_type::kData, u"$SDS", ntfsSdsStream(builder.descriptors));
    secure.attributeList({{ntfs_type::kData, extension.reference(), 0, u"$SDS"}});
    NtfsFileBench bench(builder.seal());
    EXPECT_THAT(bench.parser.readACLFromFile("\\readme.txt"), SizeIs(1));
}

TEST(NtfsSecurityStream, GoesOnInTheRecordItselfBehindAnExtensionRecord) {
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& secure = builder.record(kSecure).remove(ntfs_type::kData);
    NtfsRecord& extension = builder.record(40);
    extension.baseReference = secure.reference();
    builder.store(extension, ntfs_type::kData, u"$SDS", NtfsBytes(4096, 0xEE)); // the list comes before the rest
    secure.attributeList({{ntfs_type::kData, extension.reference(), 0, u"$SDS"}});
    NtfsBytes stream(4096);
    putNumber(stream, 0x08, 4096, 8);
    NtfsBytes const descriptor = security::makeSimpleDescriptor(78);
    std::copy(descriptor.begin(), descriptor.end(), stream.begin() + 20);
    builder.store(secure, ntfs_type::kData, u"$SDS", stream);
    setSecurityIndex(builder, {{0x100, 0, 4096, 20}});
    NtfsFileBench bench(builder.seal());
    EXPECT_EQ(bench.parser.readACLFromFile("\\readme.txt").at(0).aces.at(0).sid, "S-1-5-21-78");
}

TEST(NtfsSecurityStream, ItsOwnFailuresAreNotWrapped) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.record(kSecure).remove(ntfs_type::kData);
    EXPECT_EQ(failureFor(builder.seal()), "Could not find AtData for file $Secure");
    NtfsBuilder unreadable = NtfsBuilder::standard();
    unreadable.poke(unreadable.byteOffsetOf(kSecure), 0, 4);
    EXPECT_EQ(failureFor(unreadable), "Could not read MFT record 9 for $Secure");
    NtfsBuilder withoutTable = NtfsBuilder::standard();
    withoutTable.poke(withoutTable.byteOffsetOf(ntfs_record_number::kUpcase), 0, 4);
    EXPECT_EQ(failureFor(withoutTable), "Could not read MFT record for inode number 10");
}

TEST(NtfsSecurityStream, AfterAFailedReadItIsUsedAsFarAsItCame) {
    NtfsBuilder const builder = NtfsBuilder::standard();
    MemoryReader const volume(builder.bytes);
    for (unsigned n = 0; n < 40; ++n) {
        FaultyReader const faulty(volume, Fault::ReadFails, n);
        RecordingLogger logger;
        try {
            NtfsAccess parser(logger, 512, faulty);
            parser.read_upcase();
            if (failureOf([&] { parser.readSDS(); }) != "Unable to read SDS entry") {
                continue;
            }
            EXPECT_EQ(failureOf([&] { parser.readACLFromFile("\\readme.txt"); }),
                      std::string(kFailed) + "Descriptor is not self-relative! NTFSParser can parse self-relative "
                                             "descriptors only.");
            parser.clearSDS();
            EXPECT_THAT(parser.readACLFromFile("\\readme.txt"), SizeIs(1));
            return;
        } catch (std::exception const&) {
            continue; // the construction met the fault
        }
    }
    FAIL() << "no fault met the stream";
}

TEST(NtfsSecurityStream, WithoutRunsItIsEmptyAndAskedForAgain) {
    NtfsBuilder builder = NtfsBuilder::standard();
    builder.record(kSecure).remove(ntfs_type::kData).resident(ntfs_type::kData, u"$SDS", NtfsBytes(100));
    NtfsFileBench bench(builder.seal());
    for (int i = 0; i < 2; ++i) {
        bench.forget();
        EXPECT_EQ(failureOf([&] { bench.parser.readACLFromFile("\\readme.txt"); }),
                  std::string(kFailed) + "Given $SDS offset 0 doesn't yield $SDS header with matching offset.");
        VolumeRead const secure{static_cast<long>(builder.byteOffsetOf(kSecure)), 1024};
        EXPECT_THAT(bench.reads(), Contains(secure).Times(2)) << "for the stream and for the index";
    }
}

TEST(NtfsSecurityStream, BeforeItIsReadNothingIsInIt) {
    NtfsFileBench const bench;
    EXPECT_EQ(failureOf([&] { bench.parser.getACLFromSDS(0); }),
              "Given $SDS offset 0 doesn't yield $SDS header with matching offset.");
    EXPECT_EQ(failureOf([&] { bench.parser.getACLFromSDS(1); }),
              "Given $SDS offset 1 exceeds length of $SDS data, which is 0");
}

} // namespace
