// What no reader of a volume can go below.
//
//   floor VOLUME RANGES   reads the byte ranges of a file ("offset length" a line) once, into one buffer
//   floor --map BYTES     passes over a map of so many bytes: clears it, fills it, inverts it and counts its bits
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::uint64_t kPiece = std::uint64_t{4} << 20;

bool readRange(int volume, std::uint64_t offset, std::uint64_t length, std::vector<char>& buffer) {
    for (std::uint64_t done = 0; done < length;) {
        std::uint64_t const wanted = std::min(kPiece, length - done);
        ssize_t const count = ::pread(volume, buffer.data(), wanted, static_cast<off_t>(offset + done));
        if (count <= 0) {
            return count == 0; // the volume's end
        }
        done += static_cast<std::uint64_t>(count);
    }
    return true;
}

int readRanges(char const* volumePath, char const* rangesPath) {
    int const volume = ::open(volumePath, O_RDONLY | O_CLOEXEC);
    std::ifstream ranges(rangesPath);
    if (volume == -1 || !ranges) {
        std::fputs("floor: the volume or its ranges cannot be opened\n", stderr);
        return 1;
    }
    std::vector<char> buffer(kPiece);
    std::uint64_t total = 0;
    for (std::uint64_t offset = 0, length = 0; ranges >> offset >> length;) {
        if (!readRange(volume, offset, length, buffer)) {
            std::perror("floor");
            return 1;
        }
        total += length;
    }
    ::close(volume);
    std::printf("%llu\n", static_cast<unsigned long long>(total));
    return 0;
}

int passOverMap(std::uint64_t bytes) {
    std::vector<std::uint64_t> map(bytes / 8); // cleared
    std::memset(map.data(), 0xFF, map.size() * 8);
    for (std::uint64_t& word : map) {
        word = ~word;
    }
    std::uint64_t used = 0;
    for (std::uint64_t const word : map) {
        used += word == 0 ? 0 : static_cast<std::uint64_t>(std::popcount(word));
    }
    std::printf("%llu\n", static_cast<unsigned long long>(used));
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: floor VOLUME RANGES | floor --map BYTES\n", stderr);
        return 2;
    }
    if (std::string(arguments[1]) == "--map") {
        return passOverMap(std::stoull(arguments[2]));
    }
    return readRanges(arguments[1], arguments[2]);
}
