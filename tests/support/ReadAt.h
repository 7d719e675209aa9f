// Reading stretches of a volume in tests.
#pragma once

#include "agent/core/IVolumeReader.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace tests {

/// The same bytes for the same size.
inline std::vector<std::uint8_t> randomBytes(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::mt19937 generator(11);
    std::generate(bytes.begin(), bytes.end(), [&generator] { return static_cast<std::uint8_t>(generator()); });
    return bytes;
}

/// What there is of the bytes asked for; expects that they can be read.
inline std::vector<std::uint8_t> readAt(agent::core::IVolumeReader const& reader, std::uint64_t offset,
                                        std::size_t length) {
    std::vector<std::uint8_t> bytes(length);
    EXPECT_EQ(reader.seek(static_cast<long>(offset), SEEK_SET), static_cast<long>(offset));
    long const count = reader.read(bytes.data(), static_cast<long>(length));
    EXPECT_GE(count, 0);
    bytes.resize(static_cast<std::size_t>(std::max(count, 0L)));
    return bytes;
}

} // namespace tests
