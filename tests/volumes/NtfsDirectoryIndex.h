// A directory's index as it stands on a volume, searched in the test's own way.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tests {

/// What a search leads to.
struct IndexAnswer {
    std::optional<std::uint64_t> record; ///< of the name that was found
    std::string error;                   ///< what the library says where it is not
    bool endless = false;                ///< the search comes to a block again, and would never end
};

/// Names of ASCII characters alone: no upcase table is needed to put them in order.
class DirectoryIndex {
public:
    /// Copies the index out with ntfscat.
    /// @throws std::runtime_error  ntfscat failed, or the index is not one
    DirectoryIndex(std::string const& volume, std::uint64_t record, std::uint64_t clusterBytes);

    /// Follows the numbers of child blocks as they are.
    IndexAnswer find(std::string const& name) const { return search(name, ~std::uint64_t{0}); }

    /// Follows their lowest byte alone, as the library does.
    IndexAnswer findByLowestByte(std::string const& name) const { return search(name, 0xFF); }

    std::size_t blocks() const { return blocks_.size() / blockBytes_; }

private:
    struct Stop {
        std::optional<std::uint64_t> match;
        std::optional<std::uint64_t> child;
    };

    static Stop walk(std::string const& bytes, std::size_t header, std::string const& name);
    IndexAnswer search(std::string const& name, std::uint64_t mask) const;
    std::string block(std::uint64_t vcn) const;

    std::uint64_t record_;
    std::string root_;
    std::string blocks_;
    std::size_t blockBytes_;
    std::uint64_t unitBytes_; ///< what a block's number counts
};

} // namespace tests
