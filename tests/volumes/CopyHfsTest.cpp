// Copies of HFS+ volumes, judged by two readers that share no code with this one: that of fsstat, fls and icat, and
// that of fshfsinfo.
#include "support/HfsBuilder.h"
#include "volumes/CopyCase.h"
#include "volumes/ExtRecipe.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

using Path = std::filesystem::path;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kRootFolder = 2;
constexpr std::uint32_t kFirstFileId = 16;
constexpr std::uint16_t kCatalogNodeSize = 4096; // as the builder makes it
constexpr std::uint32_t kFileDate = 0xD6000000;
constexpr std::uint64_t kMostFiles = 10; ///< with their threads they fit the one leaf

/// Blocks between the pieces of a file, which stay free.
constexpr std::uint32_t kGap = 3;

struct HfsCopyRecipe {
    HfsGeometry geometry;
    bool isWrapped = false;
};

void append(Bytes& bytes, std::uint64_t value, unsigned width) {
    bytes.resize(bytes.size() + width);
    putBig(bytes, bytes.size() - width, value, width);
}

void appendName(Bytes& bytes, std::string const& name) {
    append(bytes, name.size(), 2);
    for (char const character : name) {
        append(bytes, static_cast<std::uint8_t>(character), 2);
    }
}

/// What the catalog says of a file in the root.
Bytes fileRecord(std::string const& name, std::uint32_t id, std::uint64_t size, HfsExtents const& extents) {
    Bytes record;
    append(record, 6 + 2 * name.size(), 2);
    append(record, kRootFolder, 4);
    appendName(record, name);
    std::size_t const data = record.size();
    record.resize(data + 248);
    putBig(record, data, 2, 2);
    putBig(record, data + 2, 2, 2); // it has a thread
    putBig(record, data + 8, id, 4);
    for (std::size_t date = data + 12; date < data + 32; date += 4) {
        putBig(record, date, kFileDate, 4);
    }
    putBig(record, data + 42, 0100644, 2);
    putBig(record, data + 88, size, 8);
    std::uint32_t blocks = 0;
    for (std::size_t i = 0; i < extents.size(); ++i) {
        putBig(record, data + 104 + 8 * i, extents[i].start, 4);
        putBig(record, data + 108 + 8 * i, extents[i].count, 4);
        blocks += extents[i].count;
    }
    putBig(record, data + 100, blocks, 4);
    return record;
}

/// What leads from a file's number back to its name.
Bytes threadRecord(std::string const& name, std::uint32_t id) {
    Bytes record;
    append(record, 6, 2);
    append(record, id, 4);
    append(record, 0, 2);
    append(record, 4, 2);
    append(record, 0, 2);
    append(record, kRootFolder, 4);
    appendName(record, name);
    return record;
}

Bytes readBytes(Path const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Puts files into the empty catalog of a builder, each in two pieces.
class HfsFiller {
public:
    explicit HfsFiller(HfsBuilder& builder)
        : builder_(builder), next_(static_cast<std::uint32_t>(builder.bytes.size() / builder.geometry().blockSize)) {
        builder_.bytes.resize(builder_.geometry().bytes());
    }

    void add(Path const& path) {
        Bytes const content = readBytes(path);
        std::uint32_t const blockSize = builder_.geometry().blockSize;
        auto const blocks = static_cast<std::uint32_t>((content.size() + blockSize - 1) / blockSize);
        HfsExtents extents;
        std::size_t written = 0;
        for (std::uint32_t const count : {blocks / 2, blocks - blocks / 2}) {
            if (count == 0) {
                continue;
            }
            extents.push_back({next_, count});
            std::size_t const length = std::min<std::size_t>(content.size() - written, std::size_t{count} * blockSize);
            std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(written), length,
                        builder_.bytes.begin() + std::ptrdiff_t{next_} * blockSize);
            builder_.setUsedFrom(next_, count);
            written += length;
            next_ += count + kGap;
        }
        std::string const name = path.filename().string();
        std::uint32_t const id = kFirstFileId + files_++;
        records_.push_back(fileRecord(name, id, content.size(), extents));
        threads_.push_back(threadRecord(name, id));
    }

    /// Writes the leaf behind the two records of the root, and counts.
    void finish() {
        records_.insert(records_.end(), threads_.begin(), threads_.end());
        std::uint64_t const catalog = std::uint64_t{builder_.catalogFile().at(0).start} * builder_.geometry().blockSize;
        std::uint64_t const leafAt = catalog + kCatalogNodeSize;
        HfsNode leaf(kCatalogNodeSize, hfs_node::kLeaf, 1);
        auto const begin = builder_.bytes.begin() + static_cast<std::ptrdiff_t>(leafAt);
        std::copy_n(begin, kCatalogNodeSize, leaf.bytes.begin());
        for (Bytes const& record : records_) {
            leaf.add(record);
        }
        std::copy(leaf.bytes.begin(), leaf.bytes.end(), begin);
        builder_.put(catalog + hfs_tree_header::kLeafRecords, 2 + records_.size(), 4);
        builder_.setHeader32(32, files_);
        builder_.setHeader32(64, kFirstFileId + files_);
        // The number of files in the root: behind the key of its record, which is the leaf's first.
        std::uint64_t const record = leafAt + hfs_node::kDescriptorBytes;
        builder_.put(record + 2 + builder_.get(record, 2) + 4, files_, 4);
    }

private:
    HfsBuilder& builder_;
    std::uint32_t next_; ///< block behind all that is taken
    std::uint32_t files_ = 0;
    std::vector<Bytes> records_;
    std::vector<Bytes> threads_;
};

/// The content that fits one leaf, in the order of its names.
std::vector<Path> chooseContent(Path const& content) {
    writeContent(content, true);
    removeSome(content);
    std::vector<Path> paths;
    for (auto const& entry : std::filesystem::directory_iterator(content)) {
        paths.push_back(entry.path());
    }
    std::sort(paths.rbegin(), paths.rend()); // those with a name of their own come first
    for (std::size_t i = kMostFiles; i < paths.size(); ++i) {
        std::filesystem::remove(paths[i]);
    }
    paths.resize(kMostFiles);
    std::sort(paths.begin(), paths.end());
    return paths;
}

void makeVolume(HfsCopyRecipe const& recipe, Path const& directory) {
    HfsBuilder builder(recipe.geometry);
    HfsFiller filler(builder);
    for (Path const& path : chooseContent(directory / "content")) {
        filler.add(path);
    }
    filler.finish();
    Bytes const bytes = recipe.isWrapped ? wrapHfsVolume(builder.image()) : builder.image();
    std::ofstream file(directory / "volume.img", std::ios::binary);
    file.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        throw std::runtime_error("cannot write the volume");
    }
}

std::uint64_t startOf(HfsCopyRecipe const& recipe) {
    return recipe.isWrapped ? HfsWrapper{}.volumeOffset() : 0;
}

/// The bits of the allocation file, which icat copies out.
SpaceAnswer askIcat(std::string const& volume, HfsCopyRecipe const& recipe) {
    std::string const bitmap = outputOfTool({"icat", "-f", "hfs", volume, "6"});
    SpaceAnswer answer{BlockMap(recipe.geometry.totalBlocks), recipe.geometry.blockSize, startOf(recipe)};
    for (std::size_t block = 0; block < answer.used.size(); ++block) {
        answer.used[block] = ((static_cast<unsigned char>(bitmap.at(block / 8)) << (block % 8)) & 0x80) != 0;
    }
    return answer;
}

Verdict checkHfs(std::string const& volume, HfsCopyRecipe const& recipe) {
    Verdict verdict;
    addCheck(verdict, {"fsstat", "-f", "hfs", volume}, volume);
    addCheck(verdict, {"fls", "-f", "hfs", "-r", "-l", volume}, volume);
    addCheck(verdict, {"fshfsinfo", "-H", "-o", std::to_string(startOf(recipe)), volume}, volume);
    return verdict;
}

void extractHfs(std::string const& volume, Path const&, Path const& target) {
    std::istringstream lines(outputOfTool({"fls", "-f", "hfs", "-F", "-u", volume}));
    for (std::string line; std::getline(lines, line);) { // "r/r 16:\tf101"
        std::size_t const tab = line.find('\t');
        std::string const name = line.substr(tab + 1);
        if (line.starts_with("r/r ") && !name.starts_with("$")) {
            std::ofstream file(target / name, std::ios::binary);
            file << outputOfTool({"icat", "-f", "hfs", volume, line.substr(4, tab - 5)});
        }
    }
}

CopyCase hfsCase(std::string const& name, HfsCopyRecipe const& recipe) {
    return {name,
            {"fsstat", "fls", "icat", "fshfsinfo"},
            false,
            [recipe](Path const& directory) { makeVolume(recipe, directory); },
            [recipe](std::string const& volume) { return askIcat(volume, recipe); },
            [recipe](std::string const& volume) { return checkHfs(volume, recipe); },
            extractHfs};
}

HfsGeometry geometryOf(std::uint32_t blockSize, std::uint32_t blocks) {
    HfsGeometry geometry;
    geometry.blockSize = blockSize;
    geometry.totalBlocks = blocks;
    return geometry;
}

HfsGeometry withMapInPieces() {
    HfsGeometry geometry = geometryOf(512, 40000);
    geometry.allocationFile = hfsFragments(30, 1, 100);
    geometry.recordsPerNode = 1; // the tree has several leaves
    return geometry;
}

INSTANTIATE_TEST_SUITE_P(Hfs, CopiedVolume,
                         testing::Values(hfsCase("Blocks4096", {geometryOf(4096, 4000)}),
                                         hfsCase("MapInPieces", {withMapInPieces()}),
                                         hfsCase("Wrapped", {geometryOf(4096, 4000), true})),
                         copyCaseName);
INSTANTIATE_TEST_SUITE_P(Hfs, CopiedDevice, testing::Values(hfsCase("MapInPieces", {withMapInPieces()})), copyCaseName);

} // namespace

} // namespace tests
