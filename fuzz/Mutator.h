// Mutation of volumes: changes go where the structures are, and what would end a parser at once is put right mostly.
#pragma once

#include "Image.h"

#include <array>
#include <random>
#include <vector>

namespace fuzz {

/// The random numbers of one mutation, and how strict it is.
class Dice {
public:
    explicit Dice(unsigned seed) : engine_(seed) {
        static constexpr std::array<unsigned, 4> strictness{2, 8, 32, 128};
        strictness_ = strictness[below(strictness.size())];
    }

    std::uint64_t below(std::uint64_t count) { return count == 0 ? 0 : engine_() % count; }
    bool oneIn(unsigned count) { return below(count) == 0; }

    /// Whether damage that was met is put right.
    bool repairs() { return !oneIn(strictness_); }

private:
    std::mt19937 engine_;
    unsigned strictness_ = 1;
};

/// A stretch worth changing.
struct Place {
    std::uint64_t offset;
    std::uint64_t length;
};

/// A format that is mutated; each target is linked with one.
struct Format {
    bool isPacked;    ///< inputs are packed volumes, not bytes that stand for themselves
    bool isBigEndian; ///< numbers have their highest byte first
    std::vector<Place> (*places)(Image const& image);
    void (*repair)(Image& image, Dice& dice);
};

extern Format const formatUnderTest;

/// Gives a field one of the values that make sense, unless it has one.
template <typename IsSound>
void repairLittle(Image& image, Dice& dice, std::uint64_t offset, unsigned width, std::uint64_t value,
                  IsSound const& isSound) {
    if (!isSound(image.little(offset, width)) && dice.repairs()) {
        image.putLittle(offset, value, width);
    }
}

template <typename IsSound>
void repairBig(Image& image, Dice& dice, std::uint64_t offset, unsigned width, std::uint64_t value,
               IsSound const& isSound) {
    if (!isSound(image.big(offset, width)) && dice.repairs()) {
        image.putBig(offset, value, width);
    }
}

/// A test for one value.
inline auto equals(std::uint64_t value) {
    return [value](std::uint64_t found) { return found == value; };
}

/// A test for powers of two.
inline auto isPowerBetween(std::uint64_t least, std::uint64_t most) {
    return [least, most](std::uint64_t found) { return found >= least && found <= most && (found & (found - 1)) == 0; };
}

} // namespace fuzz
