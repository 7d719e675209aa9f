// Filling mounted volumes.
#include "volumes/NtfsFill.h"

#include "volumes/NtfsVolume.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <stdexcept>
#include <unistd.h>

namespace tests {

namespace {

using std::filesystem::path;

/// A directory with this attribute compresses what is made in it.
constexpr std::string_view kCompressedDirectory("\x10\x08\x00\x00", 4);

class OpenFile {
public:
    explicit OpenFile(path const& name) : descriptor_(::open(name.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644)) {
        if (descriptor_ == -1) {
            throw std::runtime_error(name.string() + ": " + std::strerror(errno));
        }
    }
    OpenFile(OpenFile const&) = delete;
    OpenFile& operator=(OpenFile const&) = delete;
    ~OpenFile() { ::close(descriptor_); }

    /// False when the volume is full.
    bool write(std::string const& bytes, std::uint64_t offset) const {
        ssize_t const written = ::pwrite(descriptor_, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno != ENOSPC) {
            throw std::runtime_error(std::string("cannot write: ") + std::strerror(errno));
        }
        return written == static_cast<ssize_t>(bytes.size());
    }

private:
    int descriptor_;
};

std::string randomBytes(std::size_t size) {
    std::mt19937 random(size);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

std::string repeated(std::string const& text, unsigned times) {
    std::string result;
    for (unsigned i = 0; i < times; ++i) {
        result += text;
    }
    return result;
}

void fillWithNames(path const& root) {
    path const deep = root / "Données" / "日本語" / "папка" / "ελληνικά" / "deep" / "deeper";
    std::filesystem::create_directories(deep);
    for (unsigned i = 0; i < 40; ++i) {
        std::string const number = std::to_string(i);
        writeLetters(deep / ("é" + number + " ßüÄ 名前 " + number + ".txt"), i * 700);
        writeLetters(root / ("Файл" + number + repeated("-длинное имя", 10)), i * 300);
    }
    writeLetters(root / std::string(255, 'n'), 5000);
}

void fillWithPieces(path const& root) {
    path const directory = root / "pieces";
    std::filesystem::create_directory(directory);
    for (unsigned i = 0; i < 200; ++i) {
        writeLetters(directory / ("piece" + std::to_string(i)), 8192);
    }
    OpenFile const broken(directory / "broken"); // grows a little each time that another file has grown
    OpenFile const other(directory / "other");
    for (unsigned i = 0; i < 60; ++i) {
        broken.write(std::string(8192, 'b'), std::uint64_t{8192} * i);
        other.write(std::string(8192, 'o'), std::uint64_t{8192} * i);
    }
    for (unsigned i = 0; i < 200; i += 2) {
        std::filesystem::remove(directory / ("piece" + std::to_string(i)));
    }
    writeLetters(directory / "into-gaps", 700000);
}

void fillWithHoles(path const& root) {
    OpenFile const file(root / "sparse");
    for (unsigned i = 0; i < 20; ++i) {
        file.write(std::string(5000, 's'), std::uint64_t{777000} * i * i);
    }
    OpenFile const first(root / "hole-first");
    first.write("end", std::uint64_t{40} << 20);
}

void fillCompressed(path const& root) {
    path const directory = root / "compressed";
    std::filesystem::create_directory(directory);
    setAttribute(directory, "system.ntfs_attrib", std::string(kCompressedDirectory));
    OpenFile(directory / "text").write(repeated("the same again and again ", 20000), 0);
    OpenFile(directory / "random").write(randomBytes(300000), 0);
    OpenFile(directory / "mixed").write(randomBytes(100000) + std::string(200000, 'm') + randomBytes(50000), 0);
}

void fillWithLinksAndStreams(path const& root) {
    path const directory = root / "links";
    std::filesystem::create_directory(directory);
    writeLetters(directory / "linked", 3);
    for (unsigned i = 0; i < 40; ++i) {
        std::string const number = std::to_string(i);
        std::filesystem::create_hard_link(directory / "linked", directory / ("link " + number + std::string(120, 'l')));
        setAttribute(directory / "linked", "user.stream" + number, std::string(3000 + i, 'u'));
    }
    writeLetters(directory / "with a stream", 20000);
    setAttribute(directory / "with a stream", "user.side", std::string(9000, 'v'));
}

} // namespace

void writeLetters(path const& name, std::size_t size, char letter) {
    if (!OpenFile(name).write(std::string(size, letter), 0)) {
        throw std::runtime_error(name.string() + ": the volume is full");
    }
}

void fillWithVariety(path const& root, bool withCompression) {
    fillWithNames(root);
    fillWithPieces(root);
    fillWithHoles(root);
    fillWithLinksAndStreams(root);
    if (withCompression) {
        fillCompressed(root);
    }
}

std::string nameInLargeDirectory(unsigned number) {
    // Not in the order in which they are made, and neighbours differ in their first letters.
    return std::to_string(number * 7919U % 100000U) + " is a name that is long enough to fill index blocks.txt";
}

void fillDirectory(path const& directory, unsigned files) {
    std::filesystem::create_directory(directory);
    for (unsigned i = 0; i < files; ++i) {
        writeLetters(directory / nameInLargeDirectory(i), i % 100);
    }
}

void breakUpMft(path const& root) {
    constexpr unsigned kFiles = 2000;
    constexpr std::size_t kGap = 1024;
    constexpr std::size_t kPiece = 4096;
    for (unsigned i = 0; i < kFiles; ++i) {
        writeLetters(root / std::to_string(i), kGap);
    }
    {
        OpenFile const rest(root / "rest");
        for (std::uint64_t i = 0; rest.write(std::string(kPiece, 'r'), i * kPiece); ++i) {
        }
    }
    for (unsigned i = 0; i < kFiles; i += 2) {
        std::filesystem::remove(root / std::to_string(i));
    }
    try { // into their own records, until there are no more gaps
        for (unsigned i = 0; i < kFiles; ++i) {
            writeLetters(root / ("r" + std::to_string(i)), 1);
        }
    } catch (std::runtime_error const&) {
        return;
    }
    throw std::runtime_error("the volume never became full");
}

} // namespace tests
