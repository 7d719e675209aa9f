// NTFS attributes, lists and runs that lie: sizes that no volume has, lists that name one another, records of noise.
#include "support/NtfsListVolume.h"
#include "support/ResidentMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <new>
#include <pthread.h>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace {

using namespace tests;
using namespace agent::core::fs;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kMostGrowth = std::size_t{64} << 20;

class NtfsAttributeDamage : public NtfsListVolume {
protected:
    /// The hits in record 40, or the text of the exception that is documented for it.
    std::string outcome() {
        try {
            return std::to_string(find().size()) + " hits";
        } catch (std::bad_alloc const&) {
            return "no memory";
        } catch (std::runtime_error const& error) {
            return error.what();
        }
    }

    /// A list of this data size in runs of these mapping pairs, the first at cluster 200, which holds one entry.
    void makeList(NtfsBytes const& pairs, std::uint64_t dataSize) {
        extension(41);
        builder.write({{200, 1}}, ntfsAttributeList({dataIn(41)}));
        base().nonResidentRaw(ntfs_type::kAttributeList, u"", pairs, dataSize);
        open();
    }

    /// A chain: the list of each record names the next one, which takes it for its base.
    void makeChain(std::uint64_t last, unsigned listsInEach = 1) {
        for (std::uint64_t number = kListBase; number <= last; ++number) {
            NtfsRecord& made = builder.record(number).clear();
            made.baseReference = number == kListBase ? 0 : number - 1;
            for (unsigned i = 0; number < last && i < listsInEach; ++i) {
                made.attributeList({dataIn(number + 1)});
            }
            made.nonResident(ntfs_type::kData, u"", {{static_cast<std::int64_t>(100 + number), 1}});
        }
        open();
    }
};

/// Runs something in a thread whose stack is as small as threads of services have it.
void onSmallStack(std::function<void()> const& work) {
    constexpr std::size_t kStack = 128 * 1024;
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStack), 0);
    pthread_t thread{};
    auto const enter = [](void* argument) -> void* {
        (*static_cast<std::function<void()> const*>(argument))();
        return nullptr;
    };
    auto copy = work;
    ASSERT_EQ(pthread_create(&thread, &attributes, enter, &copy), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST_F(NtfsAttributeDamage, ListSizesThatNoVolumeHasTakeNoMemory) {
    makeList({0x21, 1, 200, 0, 0}, 4096);
    std::uint64_t const sizeField = builder.record(kListBase).offsetOf(ntfs_type::kAttributeList) + 0x30;
    ASSERT_EQ(builder.peekRecord(kListBase, sizeField, 8), 4096U);
    std::size_t const before = residentBytes();
    for (unsigned bit = 13; bit < 63; ++bit) {
        builder.pokeRecord(kListBase, sizeField, std::uint64_t{1} << bit, 8);
        volume->bytes = builder.bytes;
        EXPECT_EQ(outcome(), "1 hits") << "the run holds no more than a cluster; bit " << bit;
    }
    for (std::uint64_t const size : {std::uint64_t{1} << 63, ~std::uint64_t{0}, ~std::uint64_t{0} - 4095}) {
        builder.pokeRecord(kListBase, sizeField, size, 8);
        volume->bytes = builder.bytes;
        EXPECT_EQ(outcome(), "no memory") << size;
    }
    EXPECT_LT(residentBytes(), before + kMostGrowth);
}

TEST_F(NtfsAttributeDamage, RunLengthsThatNoVolumeHasTakeNoMemory) {
    // A length of eight bytes at 0x41, a cluster of two at 0x49.
    makeList({0x28, 1, 0, 0, 0, 0, 0, 0, 0, 200, 0, 0}, 0x7FFFFFFFFFFFF000);
    std::uint64_t const lengthField = builder.record(kListBase).offsetOf(ntfs_type::kAttributeList) + 0x41;
    ASSERT_EQ(builder.peekRecord(kListBase, lengthField, 8), 1U);
    std::size_t const before = residentBytes();
    std::size_t refused = 0;
    for (unsigned bit = 1; bit < 64; ++bit) {
        builder.pokeRecord(kListBase, lengthField, std::uint64_t{1} << bit, 8);
        volume->bytes = builder.bytes;
        std::string const found = outcome();
        EXPECT_THAT(found, AnyOf("1 hits", "0 hits", "no memory", "Could not read from device.")) << bit;
        refused += found == "1 hits" ? 0U : 1U;
    }
    EXPECT_GT(refused, 20U);
    EXPECT_LT(residentBytes(), before + kMostGrowth);
}

TEST_F(NtfsAttributeDamage, ARunLengthBelowZeroIsCutAtTheDataSize) {
    makeList({0x21, 0xFF, 200, 0, 0}, 32);
    EXPECT_EQ(outcome(), "1 hits");
    EXPECT_EQ(reader->calls.at(0), seekCall(200 * 4096));
    EXPECT_EQ(reader->calls.at(1), readCall(512));
}

TEST_F(NtfsAttributeDamage, ManyRunsOverOneClusterTakeNoMoreThanTheVolumeHas) {
    NtfsBytes pairs{0x21, 1, 200, 0};
    while (pairs.size() < 600) {
        pairs.insert(pairs.end(), {0x12, 0xFF, 0x7F, 0}); // 32767 clusters from the same place on
    }
    pairs.push_back(0);
    makeList(pairs, std::uint64_t{1} << 50);
    std::size_t const before = residentBytes();
    EXPECT_THAT(outcome(), AnyOf("no memory", "Could not read from device."));
    EXPECT_LT(residentBytes(), before + kMostGrowth);
}

TEST_F(NtfsAttributeDamage, AListsValueOutsideItsAttributeIsNotRead) {
    extension(41);
    base().attributeList({dataIn(41)});
    open();
    std::uint64_t const list = builder.record(kListBase).offsetOf(ntfs_type::kAttributeList);
    ASSERT_EQ(outcome(), "1 hits");
    for (std::uint64_t const offset : {0x3F0UL, 0x400UL, 0x8000UL, 0xFFFFUL}) {
        builder.pokeRecord(kListBase, list + 0x14, offset, 2);
        volume->bytes = builder.bytes;
        EXPECT_EQ(outcome(), "0 hits") << offset;
        EXPECT_EQ(logger.entries.back(), debugEntry("No more entries in ATTRIBUTE LIST"));
    }
    builder.pokeRecord(kListBase, list + 0x14, 0x18, 2).pokeRecord(kListBase, list + 0x10, 0xFFFFFFFF, 4);
    volume->bytes = builder.bytes;
    EXPECT_EQ(outcome(), "1 hits") << "a length of 4 GiB: the record ends it";
}

TEST_F(NtfsAttributeDamage, EntriesThatAreCutOffEndTheList) {
    extension(41);
    NtfsBytes const whole = ntfsAttributeList({dataIn(41), dataIn(41)});
    open();
    for (std::size_t size = 1; size <= whole.size(); ++size) {
        auto list = std::make_unique<unsigned char[]>(size); // exactly, so that the sanitizer sees a read behind
        std::copy_n(whole.begin(), size, list.get());
        forget();
        bool const isFirstWhole = size >= 0x18;
        bool const isSecondCut = size > 32 && size < 32 + 0x18;
        EXPECT_EQ(parser->traverse_attr_list(kListBase, kData, size, list.get()).size(), isFirstWhole ? 1U : 0U);
        bool const isCut = !isFirstWhole || isSecondCut;
        EXPECT_EQ(logger.entries.back().text == "No more entries in ATTRIBUTE LIST", isCut) << size;
    }
}

TEST_F(NtfsAttributeDamage, AnEntryWhoseLengthLeadsPastTheListEndsIt) {
    extension(41);
    NtfsBytes list = ntfsAttributeList({dataIn(41), dataIn(42)});
    putNumber(list, 4, 0xFFFF, 2);
    open();
    EXPECT_THAT(parser->traverse_attr_list(kListBase, kData, list.size(), list.data()), ElementsAre(hit(41)));
}

TEST_F(NtfsAttributeDamage, AListAttributeWithoutAWholeHeaderHasNoHits) {
    open();
    for (std::size_t length = 0x10; length < 0x18; ++length) {
        auto attribute = std::make_unique<unsigned char[]>(length);
        std::span<std::uint8_t> const bytes{attribute.get(), length};
        putNumber(bytes, 0, 0x20, 4);
        putNumber(bytes, 4, length, 4);
        auto* const header = reinterpret_cast<ntfs_attribute_record*>(attribute.get());
        EXPECT_THAT(parser->get_attribute_external(kListBase, header, kData), IsEmpty());
        attribute[8] = 1;
        try {
            parser->get_attribute_external(kListBase, header, kData);
            ADD_FAILURE() << "accepted";
        } catch (std::runtime_error const& error) {
            EXPECT_STREQ(error.what(), "No run list can be found");
        }
    }
}

TEST_F(NtfsAttributeDamage, ListsThatNameOneAnotherEnd) {
    for (std::uint64_t const number : {kListBase, kListBase + 1}) {
        std::uint64_t const partner = number == kListBase ? kListBase + 1 : kListBase;
        NtfsRecord& made = builder.record(number);
        made.baseReference = partner;
        made.attributeList({dataIn(partner)}).nonResident(ntfs_type::kData, u"", {{150, 1}});
    }
    open();
    onSmallStack([this] { EXPECT_LE(find().size(), 3U); });
    EXPECT_LT(reader->calls.size(), 10U);
}

TEST_F(NtfsAttributeDamage, ListsInExtensionRecordsAreFollowedAFewRecordsDeep) {
    makeChain(60);
    onSmallStack([this] {
        NtfsHits const hits = find();
        EXPECT_GE(hits.size(), 2U);
        EXPECT_LE(hits.size(), 21U);
        EXPECT_EQ(hits.back(), hit(kListBase));
        EXPECT_EQ(hits.end()[-2], hit(kListBase + 1));
    });
}

TEST_F(NtfsAttributeDamage, ManyListsInEachRecordOfAChainDoNotMultiply) {
    makeChain(60, 10);
    NtfsHits const hits = find();
    EXPECT_LT(reader->calls.size(), 2U * 10 * 64) << "each of the base record's lists may read each record once";
    EXPECT_LT(hits.size(), 10U * 64);
    forget();
    parser->extents(kListBase);
    EXPECT_LT(reader->calls.size(), 6U * 10 * 64);
}

TEST_F(NtfsAttributeDamage, ARecordThatTakesItselfForItsBaseIsNotFollowed) {
    base().baseReference = kListBase;
    base().attributeList({dataIn(kListBase)}).nonResident(ntfs_type::kData, u"", {{150, 1}});
    open();
    EXPECT_THAT(find(), ElementsAre(hit(kListBase)));
}

TEST_F(NtfsAttributeDamage, ABitmapWhoseListNamesItsOwnExtensionsEnds) {
    NtfsRecord& bitmap = builder.record(6);
    bitmap.attributeList({dataIn(41), dataIn(42)});
    for (std::uint64_t const number : {41UL, 42UL}) {
        NtfsRecord& made = builder.record(number);
        made.baseReference = 6;
        made.attributeList({dataIn(6), dataIn(41), dataIn(42)}).nonResident(ntfs_type::kData, u"", {{300, 1}});
    }
    open();
    onSmallStack([this] {
        std::vector<char> buffer(64);
        EXPECT_EQ(parser->getChunk(0, buffer.data(), buffer.size()), 512);
    });
    EXPECT_LT(reader->calls.size(), 60U);
}

/// What a damaged record may lead to, by its text.
bool isDocumented(std::string const& text) {
    static std::vector<std::string> const wholes{"No run list can be found", "Invalid runlist", "Corrupt runlist",
                                                 "Found no run list for attribute.", "Could not read from device."};
    return std::find(wholes.begin(), wholes.end(), text) != wholes.end() ||
           text.starts_with("Invalid buffer passed in to traverse attributes for inode: ") ||
           text.starts_with("Invalid buffer passed in to traverse attribute record for inode: ");
}

TEST_F(NtfsAttributeDamage, AnyBytesInARecordGiveRunsOrADocumentedError) {
    extension(41, 2);
    builder.store(base(), ntfs_type::kAttributeList, u"", ntfsAttributeList({dataIn(41), {0x20, 41, 0, {}}}));
    base().nonResident(ntfs_type::kData, u"", {{90, 1}, {95, 2}}).nonResident(ntfs_type::kData, u"named", {{99, 1}});
    open();
    auto const sound = parser->get_inode_runlist(kListBase);
    ASSERT_EQ(sound.size(), 6U);
    std::mt19937 random(99);
    NtfsBytes const original = builder.plainRecord(kListBase);
    std::size_t const end = static_cast<std::size_t>(getNumber(original, 0x18, 4));
    unsigned refused = 0;
    unsigned changed = 0;
    for (int round = 0; round < 6000; ++round) {
        NtfsBytes bytes = original;
        for (unsigned i = 0; i < 1 + random() % 4; ++i) {
            std::size_t const place = 0x14 + random() % (end - 0x14);
            bool const isArray = place >= 0x2C && place < 0x36; // number and update sequence: other tests' subject
            bytes[isArray ? 0x14 : place] = static_cast<std::uint8_t>(random() % 3 == 0 ? 0xFF : random());
        }
        ntfsProtect(bytes);
        builder.putRecord(kListBase, bytes);
        volume->bytes = builder.bytes;
        logger.entries.clear();
        try {
            auto const runs = parser->get_inode_runlist(kListBase);
            changed += runs.size() != sound.size() ? 1U : 0U;
        } catch (std::bad_alloc const&) {
            ++refused;
        } catch (std::runtime_error const& error) {
            ASSERT_TRUE(isDocumented(error.what())) << error.what();
            ++refused;
        }
    }
    EXPECT_GT(refused, 500U);
    EXPECT_GT(changed, 500U);
}

} // namespace
