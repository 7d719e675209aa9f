// Integers read from bytes of a known order.
#include "agent/core/fs/Endian.h"

#include <cstring>
#include <gtest/gtest.h>
#include <type_traits>

namespace {

using namespace agent::core::fs;

constexpr std::array<std::uint8_t, 8> kBytes{0x81, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xF8};

/// The field as it stands at a byte offset of kBytes.
template <typename Field>
auto readAt(std::size_t offset) {
    Field field{};
    std::memcpy(&field, kBytes.data() + offset, sizeof field);
    return field.value();
}

TEST(Endian, LittleEndianFieldsTakeTheirFirstByteAsTheLowest) {
    EXPECT_EQ(readAt<le16>(0), 0x0281U);
    EXPECT_EQ(readAt<le32>(0), 0x04030281U);
    EXPECT_EQ(readAt<le64>(0), 0xF807060504030281U);
}

TEST(Endian, BigEndianFieldsTakeTheirFirstByteAsTheHighest) {
    EXPECT_EQ(readAt<be16>(0), 0x8102U);
    EXPECT_EQ(readAt<be32>(0), 0x81020304U);
    EXPECT_EQ(readAt<be64>(0), 0x81020304050607F8U);
}

TEST(Endian, FieldsStandAtOddAddresses) {
    struct Packed {
        std::uint8_t one;
        le32 two;
        be16 three;
        be64 four;
    };
    EXPECT_EQ(sizeof(Packed), 15U);
    EXPECT_EQ(offsetof(Packed, two), 1U);
    EXPECT_EQ(offsetof(Packed, three), 5U);
    EXPECT_EQ(offsetof(Packed, four), 7U);
    EXPECT_EQ(readAt<le32>(3), 0x07060504U);
    EXPECT_EQ(readAt<be32>(3), 0x04050607U);
}

TEST(Endian, ValuesAreUnsignedOfTheFieldsWidth) {
    EXPECT_TRUE((std::is_same_v<decltype(le16{}.value()), std::uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(le32{}.value()), std::uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(le64{}.value()), std::uint64_t>));
    EXPECT_TRUE((std::is_same_v<decltype(be16{}.value()), std::uint16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(be32{}.value()), std::uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(be64{}.value()), std::uint64_t>));
}

TEST(Endian, ReadsBeforeTheProgramRuns) {
    constexpr le16 kMagic{{0x53, 0xEF}};
    constexpr be16 kSignature{{0x48, 0x2B}};
    static_assert(kMagic.value() == 0xEF53);
    static_assert(kSignature.value() == 0x482B);
    EXPECT_EQ(kMagic.value(), 0xEF53U);
}

} // namespace
