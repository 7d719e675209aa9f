// libFuzzer's hooks.
#include "Mutator.h"

#include <algorithm>
#include <array>
#include <optional>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned seed);
extern "C" std::size_t LLVMFuzzerCustomCrossOver(std::uint8_t const* data1, std::size_t size1,
                                                 std::uint8_t const* data2, std::size_t size2, std::uint8_t* out,
                                                 std::size_t maxOut, unsigned seed);

namespace {

using namespace fuzz;

constexpr std::uint64_t kLargestPlace = 4096;

Image load(std::span<std::uint8_t const> input) {
    if (formatUnderTest.isPacked) {
        return Image::unpack(input);
    }
    Image image;
    image.write(0, input);
    return image;
}

/// Puts the volume where libFuzzer wants it; nothing where it does not fit.
std::optional<std::size_t> store(Image const& image, std::size_t plainSize, std::uint8_t* data, std::size_t maxSize) {
    if (!formatUnderTest.isPacked) {
        std::size_t const size = std::min(plainSize, maxSize);
        image.read(0, {data, size});
        return size;
    }
    Bytes const packed = image.pack();
    if (packed.empty() || packed.size() > maxSize) {
        return std::nullopt;
    }
    std::copy(packed.begin(), packed.end(), data);
    return packed.size();
}

Place pick(std::vector<Place> const& places, Dice& dice) {
    Place place = places[dice.below(places.size())];
    place.length = std::min(place.length, kLargestPlace);
    if (dice.oneIn(2) && place.length > 8) {
        std::uint64_t const step = dice.oneIn(4) ? 1 : 4;
        std::uint64_t const from = dice.below(place.length / step) * step;
        place = {place.offset + from, std::min<std::uint64_t>(place.length - from, 1 + dice.below(16))};
    }
    return place;
}

/// Makes a field one of the values on whose borders checks are.
void changeNumber(Image& image, Place const& place, Dice& dice) {
    static constexpr std::array<std::uint64_t, 20> borders{
        0,   1,    2,    4,    8,     16,    24,         32,         64,         255,
        512, 1020, 1024, 4096, 32768, 65536, 0x10000000, 0x80000000, 1ULL << 32, 1ULL << 63,
    };
    auto const width = static_cast<unsigned>(1 << dice.below(4));
    std::uint64_t const offset = place.offset + dice.below(place.length / width) * width;
    std::uint64_t value = borders[dice.below(borders.size())];
    if (dice.oneIn(2)) {
        value += dice.below(17) - 8;
    }
    if (formatUnderTest.isBigEndian) {
        image.putBig(offset, value, width);
    } else {
        image.putLittle(offset, value, width);
    }
}

void change(Image& image, std::vector<Place> const& places, Dice& dice) {
    if (dice.oneIn(3)) {
        changeNumber(image, places[dice.below(places.size())], dice);
        return;
    }
    Place const place = pick(places, dice);
    Bytes bytes(place.length);
    if (dice.oneIn(8)) { // another structure's bytes
        image.read(places[dice.below(places.size())].offset, bytes);
    } else {
        image.read(place.offset, bytes);
        LLVMFuzzerMutate(bytes.data(), bytes.size(), bytes.size());
    }
    image.write(place.offset, bytes);
}

} // namespace

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed) {
    Dice dice(seed);
    if (size == 0 || dice.oneIn(32)) {
        size = LLVMFuzzerMutate(data, size, maxSize); // lengths change, too
    }
    Image image = load({data, size});
    std::vector<Place> const places = formatUnderTest.places(image);
    for (std::uint64_t rounds = 1 + dice.below(3); rounds > 0 && !places.empty(); --rounds) {
        change(image, places, dice);
    }
    if (!dice.oneIn(16)) {
        formatUnderTest.repair(image, dice);
    }
    auto const stored = store(image, size, data, maxSize);
    return stored ? *stored : LLVMFuzzerMutate(data, size, maxSize);
}

std::size_t LLVMFuzzerCustomCrossOver(std::uint8_t const* data1, std::size_t size1, std::uint8_t const* data2,
                                      std::size_t size2, std::uint8_t* out, std::size_t maxOut, unsigned seed) {
    Dice dice(seed);
    Image image = load({data1, size1});
    Image const other = load({data2, size2});
    std::vector<Place> const places = formatUnderTest.places(other);
    for (std::uint64_t rounds = 1 + dice.below(4); rounds > 0 && !places.empty(); --rounds) {
        Place const place = pick(places, dice);
        Bytes bytes(place.length);
        other.read(place.offset, bytes);
        image.write(place.offset, bytes);
    }
    formatUnderTest.repair(image, dice);
    return store(image, size1, out, maxOut).value_or(0);
}
