// What imaging makes of an NTFS volume built in memory.
#pragma once

#include "support/HostileVolume.h"
#include "support/NtfsBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tests {

/// The map as the builder knows it.
inline std::vector<bool> ntfsTruth(NtfsBuilder const& builder) {
    std::vector<bool> units;
    for (std::uint64_t i = 0; i < builder.geometry().clusters; ++i) {
        units.push_back(builder.isUsed(i));
    }
    return units;
}

/// Expects the builder's own map without a warning.
inline void expectRightMap(NtfsBuilder const& builder) {
    HostileAnswer const answer = askForMap(builder.bytes);
    std::vector<bool> const truth = ntfsTruth(builder);
    EXPECT_FALSE(answer.isDoubted()) << testing::PrintToString(answer);
    EXPECT_EQ(answer.geometry.units, truth.size());
    EXPECT_EQ(answer.units(truth.size()), truth);
}

/// Expects that every unit counts as used, for this reason.
inline void expectAllUsed(NtfsBuilder const& builder, std::string const& reason) {
    HostileAnswer const answer = askForMap(builder.bytes);
    EXPECT_EQ(answer.geometry.notBelieved, reason) << testing::PrintToString(answer);
    EXPECT_TRUE(answer.isAllUsed());
}

/// Expects that there is no map, in these words.
inline void expectNoMap(NtfsBuilder const& builder, std::string const& error) {
    EXPECT_EQ(askForMap(builder.bytes).error, error);
}

} // namespace tests
