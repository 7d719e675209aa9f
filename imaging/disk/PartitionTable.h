// The partitions of a whole disk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace imaging {

/// One partition.
struct Partition {
    std::uint64_t number; ///< from 1 on, as the system numbers them
    std::uint64_t start;  ///< byte of the disk
    std::uint64_t size;   ///< bytes
    std::string type;     ///< what the table says it is for, in words
    std::string name;     ///< GPT: its name; may be empty
};

struct PartitionTable {
    std::string kind;                  ///< "gpt" or "dos"
    std::uint64_t sectorSize;          ///< bytes
    std::vector<Partition> partitions; ///< in the table's order; free space and extended containers are left out
    bool isUnreadable = false;         ///< only the MBR that protects a GPT is left of it; nothing is listed
};

/// Reads the partition table of a disk or of its image, which is opened read-only. Sectors are as long as the system
/// says, and 512 bytes in a file. A GPT is also looked for in sectors of 4096 and 512 bytes, for the image of a disk
/// whose sectors are of another length; an MBR is not, since nothing in it says how long its sectors are.
/// @return nothing where there is no table that the system's library knows
std::optional<PartitionTable> readPartitionTable(std::string const& path);

} // namespace imaging
