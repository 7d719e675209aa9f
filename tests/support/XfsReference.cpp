// The slow way to an XFS map: every read by hand, every bit alone.
#include "support/XfsReference.h"

#include "support/XfsBuilder.h"

#include <algorithm>
#include <array>
#include <deque>
#include <fmt/format.h>
#include <string>

namespace tests {

namespace {

constexpr std::uint64_t kPiece = 4194304;
constexpr std::uint64_t kMostSteps = 1000000;
constexpr std::uint64_t kMostBits = 64000000;

struct TooLong {};

struct NodeError {
    std::string text;
};

struct Node {
    std::uint32_t magic = 0;
    std::uint32_t level = 0;
    std::uint32_t left = 0;
    std::uint32_t right = 0;
    std::vector<XfsRun> records;
    std::vector<std::uint32_t> children;
};

std::uint64_t number(std::uint8_t const* bytes, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

std::uint32_t number32(std::uint8_t const* bytes) {
    return static_cast<std::uint32_t>(number(bytes, 4));
}

class Reference {
public:
    Reference(std::span<std::uint8_t const> image, XfsRequest const& request) : image_(image), request_(request) {
        blockSize_ = super(xfs_super::kBlockSize);
        totalBlocks_ = number(image.data() + xfs_super::kTotalBlocks, 8);
        groupBlocks_ = super(xfs_super::kGroupBlocks);
        groups_ = super(xfs_super::kGroups);
        sectorSize_ = number(image.data() + xfs_super::kSectorSize, 2);
        hasChecksums_ = (number(image.data() + xfs_super::kVersion, 2) & 15) == 5;
    }

    XfsOutcome run() {
        outcome_.buffer.assign(request_.length, 0);
        outcome_.result = chunk();
        if (outcome_.result < 0) {
            error("A logical error occurred while attempting to parse XFS bitmap, err: -1");
        }
        return outcome_;
    }

private:
    std::uint32_t super(std::uint64_t field) const { return number32(image_.data() + field); }

    void debug(std::string text) { outcome_.entries.push_back(debugEntry(std::move(text))); }
    void error(std::string text) { outcome_.entries.push_back(errorEntry(std::move(text))); }

    static void step(std::uint64_t& counter, std::uint64_t most) {
        if (++counter > most) {
            throw TooLong();
        }
    }

    long chunk() {
        std::uint64_t const bits = request_.length * 8;
        debug(fmt::format("buf off = {}, buffer_size = {}", request_.start, bits));
        if (request_.start >= totalBlocks_) {
            return 0;
        }
        if (request_.start % 8 != 0 || groupBlocks_ == 0) {
            return -1;
        }
        std::uint64_t const end = request_.start + bits;
        auto const first = static_cast<std::uint32_t>(request_.start / groupBlocks_);
        auto const last = static_cast<std::uint32_t>((end + groupBlocks_ - 1) / groupBlocks_);
        debug(fmt::format("Iterating over allocation group(s) {} - {}", first, last));
        for (std::uint32_t group = first; group < last && group < groups_; ++group) {
            step(steps_, kMostSteps);
            if (!markGroup(group)) {
                return -1;
            }
        }
        for (std::uint64_t i = 0; i < request_.length && i * 8 < totalBlocks_; ++i) {
            outcome_.buffer[i] = static_cast<std::uint8_t>(~outcome_.buffer[i]);
        }
        debug(fmt::format("count = {}", count_));
        return static_cast<long>(end < totalBlocks_ ? bits : totalBlocks_ - request_.start);
    }

    bool markGroup(std::uint32_t group) {
        debug("Reading the free space info.");
        std::uint64_t const start = std::uint64_t{group} * groupBlocks_;
        std::array<std::uint8_t, 512> header{};
        debug(fmt::format("fsi addr = {}", start * blockSize_ + sectorSize_));
        if (!read(start * blockSize_ + sectorSize_, header)) {
            error("Can't read fsi block.");
            return false;
        }
        if (number32(header.data()) != 0x58414746) {
            error("Invalid fsi magic number.");
            return false;
        }
        std::uint32_t const firstEntry = number32(&header[40]);
        std::uint32_t const lastEntry = number32(&header[44]);
        std::uint32_t const root = number32(&header[16]);
        debug("magic 0x58414746");
        debug(fmt::format("fl_first {}", firstEntry));
        debug(fmt::format("fl_last {}", lastEntry));
        debug(fmt::format("offset_bt_root {}", root));
        debug("Reading the allocation group free list.");
        debug(fmt::format("agfl addr = {}, len = 512", start + 3 * sectorSize_));
        std::vector<std::uint8_t> list(hasChecksums_ ? 476 : 512);
        if (!read(start * blockSize_ + 3 * sectorSize_ + (hasChecksums_ ? 36 : 0), list)) {
            return false;
        }
        debug("Marking free list");
        for (std::uint32_t i = firstEntry; i < lastEntry + 1 && i < list.size() / 4; ++i) {
            std::uint32_t const block = number32(&list[std::size_t{i} * 4]);
            debug(fmt::format("{}: {} -> 1", group, block));
            mark(group, block);
        }
        debug("Reading the root b+ node.");
        return walk(group, root);
    }

    bool walk(std::uint32_t group, std::uint32_t root) {
        try {
            std::deque<Node> waiting;
            waiting.push_back(load(group, root));
            while (!waiting.empty()) {
                Node const node = waiting.back();
                waiting.pop_back();
                if (node.level != 0) {
                    Node next = load(group, node.children[0]);
                    while (next.right != kXfsNoBlock) {
                        Node right = load(group, next.right);
                        waiting.push_back(next);
                        next = right;
                    }
                    waiting.push_back(next);
                    continue;
                }
                for (XfsRun const& run : node.records) {
                    debug(fmt::format("{}: {} -> {}", group, run.start, run.count));
                    for (std::uint32_t block = run.start; block != run.start + run.count; ++block) {
                        mark(group, block);
                    }
                }
            }
        } catch (NodeError const& failure) {
            error(failure.text);
            return false;
        }
        return true;
    }

    Node load(std::uint32_t group, std::uint32_t block) {
        step(steps_, kMostSteps);
        if (block == kXfsNoBlock) {
            throw NodeError{"XFS: cannot create null btree node"};
        }
        std::uint64_t const address = blockSize_ * (std::uint64_t{groupBlocks_} * group + block);
        debug(fmt::format("btn addr = {}", address));
        std::array<std::uint8_t, 56> header{};
        if (!read(address, header)) {
            throw NodeError{"XFS: cannot read btree node header"};
        }
        Node node{number32(&header[0]),
                  static_cast<std::uint32_t>(number(&header[4], 2)),
                  number32(&header[8]),
                  number32(&header[12]),
                  {},
                  {}};
        auto const records = static_cast<std::uint32_t>(number(&header[6], 2));
        if (node.magic != kXfsPlainNode && node.magic != kXfsChecksumNode) {
            throw NodeError{"XFS: Invalid btree node magic number."};
        }
        std::uint32_t const length = node.magic == kXfsChecksumNode ? 56 : 16;
        std::uint32_t const room = static_cast<std::uint32_t>(blockSize_) - length;
        if (records > room / (node.level == 0 ? 8 : 12)) {
            throw NodeError{"XFS: Invalid num_recs in btree node."};
        }
        if (records == 0 && node.level != 0) {
            throw NodeError{"XFS: Internal node can't have 0 records."};
        }
        std::vector<std::uint8_t> bytes(std::size_t{records} * 8);
        if (records != 0 && !read(address + length, bytes)) {
            throw NodeError{"XFS: Can't read records in btree node."};
        }
        for (std::size_t i = 0; i < records; ++i) {
            node.records.push_back({number32(&bytes[i * 8]), number32(&bytes[i * 8 + 4])});
        }
        if (node.level != 0) {
            bytes.assign(std::size_t{records} * 4, 0);
            if (!read(address + length + std::uint64_t{room / 12} * 8, bytes)) {
                throw NodeError{"XFS: Can't read children in btree node."};
            }
            for (std::size_t i = 0; i < records; ++i) {
                node.children.push_back(number32(&bytes[i * 4]));
            }
        }
        debug("---BTN HERE---");
        debug(fmt::format("magic 0x{:08x}", node.magic));
        debug(fmt::format("level {}", node.level));
        debug(fmt::format("num_recs {}", records));
        debug(fmt::format("left_sib {}", node.left));
        debug(fmt::format("right_sib {}", node.right));
        debug("---BTN END---");
        return node;
    }

    void mark(std::uint32_t group, std::uint32_t agBlock) {
        step(bits_, kMostBits);
        std::uint64_t const block = std::uint64_t{group} * groupBlocks_ + agBlock;
        std::uint64_t const first = request_.start / 8 * 8;
        if (block < first || block >= first + request_.length * 8) {
            return;
        }
        std::uint64_t const bit = block - first;
        auto const mask = static_cast<std::uint8_t>(1U << (bit % 8));
        if ((outcome_.buffer[bit / 8] & mask) == 0) {
            outcome_.buffer[bit / 8] = static_cast<std::uint8_t>(outcome_.buffer[bit / 8] | mask);
            ++count_;
        }
    }

    /// Whole units, in pieces; what lies past the image arrives as zeros.
    bool read(std::uint64_t address, std::span<std::uint8_t> to) {
        std::uint64_t const start = address / request_.alignment * request_.alignment;
        std::uint64_t const lead = address - start;
        std::uint64_t const size =
            (lead + to.size() + request_.alignment - 1) / request_.alignment * request_.alignment;
        outcome_.calls.push_back(seekCall(static_cast<long>(start)));
        if (static_cast<long>(start) < 0) {
            return false;
        }
        for (std::uint64_t rest = size; rest > 0; rest -= std::min(rest, kPiece)) {
            outcome_.calls.push_back(readCall(static_cast<long>(std::min(rest, kPiece))));
        }
        for (std::size_t i = 0; i < to.size(); ++i) {
            to[i] = address + i < image_.size() ? image_[address + i] : std::uint8_t{0};
        }
        return true;
    }

    std::span<std::uint8_t const> image_;
    XfsRequest request_;
    std::uint64_t blockSize_ = 0;
    std::uint64_t totalBlocks_ = 0;
    std::uint32_t groupBlocks_ = 0;
    std::uint32_t groups_ = 0;
    std::uint64_t sectorSize_ = 0;
    bool hasChecksums_ = false;
    std::uint64_t count_ = 0;
    std::uint64_t steps_ = 0;
    std::uint64_t bits_ = 0;
    XfsOutcome outcome_;
};

} // namespace

std::optional<XfsOutcome> referenceXfsChunk(std::span<std::uint8_t const> image, XfsRequest const& request) {
    try {
        return Reference(image, request).run();
    } catch (TooLong const&) {
        return std::nullopt;
    }
}

void PrintTo(XfsOutcome const& outcome, std::ostream* out) {
    *out << "result " << outcome.result << ", " << outcome.entries.size() << " entries, the last:";
    for (std::size_t i = outcome.entries.size() - std::min<std::size_t>(outcome.entries.size(), 20);
         i < outcome.entries.size(); ++i) {
        *out << '\n' << outcome.entries[i];
    }
    *out << "\ncalls:";
    for (std::size_t i = 0; i < outcome.calls.size() && i < 40; ++i) {
        *out << ' ' << outcome.calls[i] << ';';
    }
    *out << ' ' << outcome.calls.size() << " in all; buffer of " << outcome.buffer.size() << " bytes";
}

} // namespace tests
