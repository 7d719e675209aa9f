// An NTFS volume whose n-th seek or read goes wrong while a file's runs and the bitmap are asked for.
#include "support/FaultMatrix.h"
#include "support/NtfsListVolume.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace tests;
using agent::core::fs::ntfs_runlist;

/// What a walk came to: the text of the constructor's exception, or the runs of record 40 (or why not) and the chunk.
struct Walk {
    std::string refusal;
    std::string runsError;
    std::vector<std::int64_t> runs; ///< first clusters
    long result = 0;
    std::vector<std::uint8_t> bits;

    bool operator==(Walk const&) const = default;
};

void PrintTo(Walk const& walk, std::ostream* out) {
    *out << "refusal '" << walk.refusal << "', error '" << walk.runsError << "', runs "
         << testing::PrintToString(walk.runs) << ", chunk " << walk.result;
}

class NtfsMapFaults : public NtfsListVolume {
protected:
    NtfsMapFaults() {
        NtfsGeometry geometry = NtfsGeometry::withClusters(512);
        geometry.clusters = 12000; // three clusters of bitmap
        geometry.bitmapPieces = 2;
        builder = NtfsBuilder::standard(geometry);
        extension(41);
        list = builder.store(base(), ntfs_type::kAttributeList, u"", ntfsAttributeList({dataIn(41)})).front().lcn;
        base().nonResident(ntfs_type::kData, u"", {{90, 1}});
        open();
        sound = walk(*volume);
    }

    Walk walk(agent::core::IVolumeReader const& from) {
        Walk done;
        try {
            parser.emplace(logger, 512, from);
            ask(done);
        } catch (std::runtime_error const& error) {
            done.refusal = error.what();
        }
        return done;
    }

    /// The questions, to a parser that stands.
    void ask(Walk& done) {
        try {
            for (ntfs_runlist const& run : parser->get_inode_runlist(kListBase)) {
                done.runs.push_back(run.lcn);
            }
        } catch (std::runtime_error const& error) {
            done.runsError = error.what();
        }
        done.bits.assign(1500, 0xAA);
        done.result = parser->getChunk(0, reinterpret_cast<char*>(done.bits.data()), done.bits.size());
    }

    std::int64_t list = 0;
    Walk sound;
};

TEST_F(NtfsMapFaults, WithoutAFaultAllIsThere) {
    EXPECT_EQ(sound.refusal + sound.runsError, "");
    EXPECT_EQ(sound.runs, (std::vector<std::int64_t>{141, 90, list}));
    EXPECT_EQ(sound.result, 12000);
    for (std::uint64_t cluster = 0; cluster < 12000; ++cluster) {
        ASSERT_EQ((sound.bits[cluster / 8] >> (cluster % 8) & 1) != 0, builder.isUsed(cluster)) << cluster;
    }
}

TEST_F(NtfsMapFaults, EachSeekAndReadThatFailsHasItsOwnEnd) {
    Walk const noRuns{"", "", {}, 12000, sound.bits};
    Walk const listLost{"", "Could not read from device.", {}, 12000, sound.bits};
    auto const refused = [](std::string const& text) { return Walk{text, "", {}, 0, {}}; };
    auto const chunk = [this](long result, NtfsBytes const& bits) { return Walk{"", "", sound.runs, result, bits}; };
    std::size_t const firstRun = builder.byteOfCluster(builder.bitmapRuns.front().length);
    NtfsBytes half = sound.bits;
    std::fill(half.begin() + static_cast<std::ptrdiff_t>(firstRun), half.end(), std::uint8_t{0});
    std::vector<Walk> const expected{
        refused("Can't read ntfs boot sector"),
        refused("MFT Record 0x0 has invalid file magic"),
        refused("Could not read MFT record for inode number 1"),
        noRuns,                                      // record 40
        listLost,                                    // the list, looked through for data
        Walk{"", "", {90, list}, 12000, sound.bits}, // record 41 is skipped
        listLost,                                    // the list, looked through for lists
        noRuns,                                      // record 41, for its runs
        Walk{"", "", {141}, 12000, sound.bits},      // record 40 again
        chunk(-559, NtfsBytes(1500, 0xAA)),          // record 6
        chunk(-1, NtfsBytes(1500)),                  // the bitmap's first run
        chunk(-1, half),                             // and its second
    };
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails}) {
        unsigned const calls = forEachCall(*volume, fault, 0, [&](FaultyReader const& faulty, unsigned n) {
            ASSERT_LE(n, expected.size()) << "the walk has no other access";
            EXPECT_EQ(walk(faulty), n < expected.size() ? expected[n] : sound);
        });
        EXPECT_EQ(calls, expected.size());
    }
}

TEST_F(NtfsMapFaults, ShortReadsNeverGiveBitsThatAreNotThere) {
    for (Fault const fault : {Fault::ReadShort, Fault::ReadEmpty}) {
        unsigned const calls = forEachCall(*volume, fault, 0, [&](FaultyReader const& faulty, unsigned) {
            Walk const done = walk(faulty);
            for (std::int64_t const lcn : done.runs) {
                EXPECT_NE(std::find(sound.runs.begin(), sound.runs.end(), lcn), sound.runs.end());
            }
            if (done.result == 12000) {
                EXPECT_EQ(done.bits, sound.bits);
            } else if (done.refusal.empty()) {
                EXPECT_LT(done.result, 12000) << "what was not delivered is not counted";
            }
        });
        EXPECT_GE(calls, 11U);
    }
}

TEST_F(NtfsMapFaults, AfterAFaultTheSameParserAnswersAsEver) {
    for (Fault const fault : {Fault::SeekFails, Fault::ReadFails, Fault::ReadShort, Fault::ReadEmpty}) {
        // Calls 0 to 2 are the constructor's.
        unsigned const calls = forEachCall(*volume, fault, 3, [&](FaultyReader const& faulty, unsigned) {
            walk(faulty);
            if (!faulty.fired) {
                return;
            }
            Walk again;
            ask(again);
            EXPECT_EQ(again, sound);
        });
        EXPECT_GT(calls, 3U);
    }
}

} // namespace
