// Whether an XFS journal was closed, told by journals made record by record.
#include "imaging/xfs/XfsLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace {

using testing::AnyOf;
using testing::Optional;
using testing::StartsWith;

using Reason = std::optional<std::string>;

constexpr std::uint64_t kBlock = 512;
constexpr char kOpen[] = "its journal holds changes that are not in place yet";

/// A journal in memory: a ring that records are written into, one behind the other.
class SyntheticLog {
public:
    /// @param blocks  of 512 bytes
    /// @param turn    of the first record
    explicit SyntheticLog(std::uint64_t blocks, std::uint32_t turn = 1) : bytes_(blocks * kBlock), turn_(turn) {
        for (std::uint64_t i = 0; i < blocks; ++i) {
            put(i * kBlock, turn - 1, 4); // what the turn before left
        }
    }

    /// A record of changes with so many blocks of data.
    SyntheticLog& addChanges(std::uint64_t data = 7, std::uint32_t operations = 5) {
        return addRecord(data, operations, 0);
    }

    /// The record of a clean unmount.
    SyntheticLog& addUnmount(std::uint64_t padding = 0) { return addRecord(1 + padding, 1, 0x20); }

    /// Fills with records of changes until so many blocks are left in this turn.
    SyntheticLog& fillUntilLeft(std::uint64_t left) {
        std::uint64_t room = bytes_.size() / kBlock - head_ - left;
        while (room != 0) {
            std::uint64_t const data = room > 9 ? 7 : room - 1;
            addChanges(data);
            room -= 1 + data;
        }
        return *this;
    }

    SyntheticLog& setVersion(std::uint32_t version, std::uint32_t recordBytes) {
        version_ = version;
        recordBytes_ = recordBytes;
        return *this;
    }

    std::uint64_t head() const { return head_; }

    Reason findOpen() const {
        return imaging::xfs::findOpenLog(bytes_.size(), [this](std::uint64_t offset, std::uint64_t length) {
            EXPECT_LE(offset + length, bytes_.size());
            auto const from = bytes_.begin() + static_cast<std::ptrdiff_t>(offset);
            return std::vector<std::uint8_t>(from, from + static_cast<std::ptrdiff_t>(length));
        });
    }

    std::vector<std::uint8_t>& bytes() { return bytes_; }

    void put(std::uint64_t offset, std::uint64_t value, unsigned width) {
        for (unsigned i = 0; i < width; ++i) {
            bytes_.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
        }
    }

private:
    std::uint64_t headers() const { return version_ > 1 ? (recordBytes_ + 32767) / 32768 : 1; }

    /// The next block of the ring, zeroed, with its turn in front.
    std::uint64_t next() {
        std::uint64_t const offset = head_ * kBlock;
        std::fill_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), kBlock, std::uint8_t{0});
        put(offset, turn_, 4);
        if (++head_ == bytes_.size() / kBlock) {
            head_ = 0;
            ++turn_;
        }
        return offset;
    }

    SyntheticLog& addRecord(std::uint64_t data, std::uint32_t operations, std::uint8_t flags) {
        std::uint32_t const turn = turn_;
        std::uint64_t const header = next();
        put(header, 0xFEEDBABE, 4);
        put(header + 4, turn, 4);
        put(header + 8, version_, 4);
        put(header + 12, data * kBlock, 4);
        put(header + 40, operations, 4);
        put(header + 320, recordBytes_, 4);
        for (std::uint64_t i = 1; i < headers(); ++i) {
            next();
        }
        for (std::uint64_t i = 0; i < data; ++i) {
            std::uint64_t const block = next();
            if (i == 0) {
                put(block + 9, flags, 1);
            }
        }
        return *this;
    }

    std::vector<std::uint8_t> bytes_;
    std::uint32_t turn_;
    std::uint32_t version_ = 2;
    std::uint32_t recordBytes_ = 32768;
    std::uint64_t head_ = 0;
};

TEST(ImagingCopyXfsLog, OneThatWasNeverWrittenIsClosed) {
    SyntheticLog log(2048);
    EXPECT_EQ(log.findOpen(), std::nullopt);
}

TEST(ImagingCopyXfsLog, ANewOneWithTheUnmountRecordOfMkfsIsClosed) {
    EXPECT_EQ(SyntheticLog(2048).addUnmount().findOpen(), std::nullopt);
    EXPECT_EQ(SyntheticLog(2048, 77).addUnmount().findOpen(), std::nullopt);
}

TEST(ImagingCopyXfsLog, AnUnmountRecordClosesItWhereverItStands) {
    for (std::uint64_t const left : {1000U, 513U, 512U, 300U, 40U, 3U, 2U}) {
        for (std::uint32_t const turn : {1U, 2U, 0xFFFFFFU}) {
            SyntheticLog log(1024, turn);
            log.fillUntilLeft(left);
            ASSERT_EQ(log.head(), 1024 - left);
            EXPECT_THAT(log.findOpen(), Optional(std::string(kOpen))) << left << " in turn " << turn;
            EXPECT_EQ(log.addUnmount().findOpen(), std::nullopt) << left << " in turn " << turn;
        }
    }
}

TEST(ImagingCopyXfsLog, OneThatWasJustFilledIsJudgedByItsLastRecord) {
    SyntheticLog log(1024, 3);
    log.fillUntilLeft(2).addUnmount();
    ASSERT_EQ(log.head(), 0U);
    EXPECT_EQ(log.findOpen(), std::nullopt);
    SyntheticLog open(1024, 3);
    open.fillUntilLeft(0);
    ASSERT_EQ(open.head(), 0U);
    EXPECT_THAT(open.findOpen(), Optional(std::string(kOpen)));
}

TEST(ImagingCopyXfsLog, ARecordThatRunsOverTheEndOfTheRingIsFound) {
    SyntheticLog log(1024, 3);
    log.fillUntilLeft(5).addChanges(20);
    ASSERT_EQ(log.head(), 16U);
    EXPECT_NE(log.findOpen(), std::nullopt);
    EXPECT_EQ(log.addUnmount().findOpen(), std::nullopt);
}

TEST(ImagingCopyXfsLog, AnUnmountRecordWhoseHeaderIsTheLastBlockOfTheRingClosesIt) {
    SyntheticLog log(1024, 3);
    log.fillUntilLeft(1).addUnmount();
    ASSERT_EQ(log.head(), 1U);
    EXPECT_EQ(log.findOpen(), std::nullopt);
}

TEST(ImagingCopyXfsLog, ChangesBehindAnUnmountRecordOpenItAgain) {
    SyntheticLog log(1024, 5);
    log.addChanges().addUnmount();
    EXPECT_EQ(log.findOpen(), std::nullopt);
    EXPECT_THAT(log.addChanges().findOpen(), Optional(std::string(kOpen)));
    EXPECT_EQ(log.addUnmount().findOpen(), std::nullopt);
}

TEST(ImagingCopyXfsLog, AnUnmountRecordOfTheTurnBeforeDoesNotCloseIt) {
    SyntheticLog log(1024);
    log.addChanges().addUnmount().fillUntilLeft(0);
    log.addChanges(3);
    EXPECT_THAT(log.findOpen(), Optional(std::string(kOpen)));
}

TEST(ImagingCopyXfsLog, RecordsOfOtherSizesAndVersionsAreMeasuredRightly) {
    for (std::uint32_t const recordBytes : {16384U, 32768U, 65536U, 262144U}) {
        SyntheticLog log(4096, 2);
        log.setVersion(2, recordBytes).addChanges(recordBytes / kBlock);
        EXPECT_THAT(log.findOpen(), Optional(std::string(kOpen))) << recordBytes;
        EXPECT_EQ(log.addUnmount().findOpen(), std::nullopt) << recordBytes;
    }
    SyntheticLog old(4096, 2);
    EXPECT_EQ(old.setVersion(1, 0).addChanges().addUnmount().findOpen(), std::nullopt);
}

TEST(ImagingCopyXfsLog, AnUnmountRecordMayBePaddedToAStripe) {
    EXPECT_EQ(SyntheticLog(4096, 2).addChanges(31).addUnmount(62).findOpen(), std::nullopt);
}

TEST(ImagingCopyXfsLog, ASingleOperationThatIsNoUnmountLeavesItOpen) {
    EXPECT_THAT(SyntheticLog(1024).addChanges(1, 1).findOpen(), Optional(std::string(kOpen)));
}

TEST(ImagingCopyXfsLog, AnUnmountRecordThatWasNotWrittenToItsEndLeavesItOpen) {
    SyntheticLog log(1024, 2);
    log.addChanges().addUnmount(6);
    log.put((log.head() - 1) * kBlock, 1, 4); // of the turn before
    EXPECT_THAT(log.findOpen(), Optional(std::string(kOpen)));
}

TEST(ImagingCopyXfsLog, BlocksWithoutARecordLeaveItOpen) {
    SyntheticLog log(8192, 2);
    for (std::uint64_t block = 0; block < 3000; ++block) {
        log.put(block * kBlock, 2, 4);
    }
    EXPECT_THAT(log.findOpen(), Optional(std::string("its journal has no record before block 3000 of it")));
}

TEST(ImagingCopyXfsLog, TurnsThatDoNotFollowEachOtherLeaveItOpen) {
    SyntheticLog log(1024, 9);
    log.addUnmount();
    log.put(1023 * kBlock, 3, 4);
    EXPECT_THAT(log.findOpen(),
                Optional(std::string("its journal begins in turn 9 and ends in turn 3, which cannot be")));
}

TEST(ImagingCopyXfsLog, OneWithoutRoomForARecordLeavesItOpen) {
    for (std::uint64_t const blocks : {0U, 1U}) {
        EXPECT_THAT(SyntheticLog(blocks).findOpen(), Optional(StartsWith("its journal of "))) << blocks;
    }
}

TEST(ImagingCopyXfsLog, GarbageIsNeverTakenForAClosedOne) {
    std::mt19937 generator(11);
    for (unsigned i = 0; i < 200; ++i) {
        SyntheticLog log(64);
        for (std::uint8_t& byte : log.bytes()) {
            byte = static_cast<std::uint8_t>(generator());
        }
        EXPECT_THAT(log.findOpen(), Optional(AnyOf(StartsWith("its journal begins in turn"), std::string(kOpen),
                                                   StartsWith("its journal has no record"))));
    }
}

} // namespace
