// Asking libfdisk.
#include "imaging/disk/PartitionTable.h"

#include <libfdisk/libfdisk.h>
#include <memory>

namespace imaging {

namespace {

struct Unref {
    void operator()(fdisk_context* context) const { fdisk_unref_context(context); }
    void operator()(fdisk_table* table) const { fdisk_unref_table(table); }
    void operator()(fdisk_iter* iterator) const { fdisk_free_iter(iterator); }
};

template <typename Thing>
using Owned = std::unique_ptr<Thing, Unref>;

std::string orEmpty(char const* text) {
    return text == nullptr ? "" : text;
}

/// In an MBR that only protects a GPT: all that is left where the GPT itself cannot be read.
constexpr unsigned kProtective = 0xEE;

bool isProtective(fdisk_partition* partition, std::string const& kind) {
    fdisk_parttype const* const type = fdisk_partition_get_type(partition);
    return kind == "dos" && type != nullptr && fdisk_parttype_get_code(type) == kProtective;
}

/// The protective entry begins right behind the MBR.
bool isWholeDisk(fdisk_partition* partition) {
    return fdisk_partition_has_start(partition) != 0 && fdisk_partition_get_start(partition) == 1;
}

bool isListed(fdisk_partition* partition) {
    return fdisk_partition_is_used(partition) != 0 && fdisk_partition_is_container(partition) == 0 &&
           fdisk_partition_has_start(partition) != 0 && fdisk_partition_has_size(partition) != 0 &&
           fdisk_partition_has_partno(partition) != 0;
}

/// Tables may name sectors whose bytes nobody can number.
bool isAddressable(fdisk_partition* partition, std::uint64_t sectorSize) {
    std::uint64_t const most = (std::uint64_t{1} << 62) / sectorSize;
    return fdisk_partition_get_start(partition) < most && fdisk_partition_get_size(partition) < most;
}

Partition describe(fdisk_partition* partition, std::uint64_t sectorSize) {
    fdisk_parttype const* const type = fdisk_partition_get_type(partition);
    return {fdisk_partition_get_partno(partition) + 1, fdisk_partition_get_start(partition) * sectorSize,
            fdisk_partition_get_size(partition) * sectorSize,
            type == nullptr ? "" : orEmpty(fdisk_parttype_get_name(type)),
            orEmpty(fdisk_partition_get_name(partition))};
}

/// @param sectorSize  bytes; 0: what the system says
std::optional<PartitionTable> readWithSectors(std::string const& path, unsigned sectorSize) {
    Owned<fdisk_context> const context(fdisk_new_context());
    if (!context || fdisk_disable_dialogs(context.get(), 1) != 0 ||
        (sectorSize != 0 && fdisk_save_user_sector_size(context.get(), sectorSize, sectorSize) != 0) ||
        fdisk_assign_device(context.get(), path.c_str(), 1) != 0 || fdisk_has_label(context.get()) == 0) {
        return std::nullopt;
    }
    fdisk_table* read = nullptr;
    int const result = fdisk_get_partitions(context.get(), &read);
    Owned<fdisk_table> const table(read);
    Owned<fdisk_iter> const iterator(fdisk_new_iter(FDISK_ITER_FORWARD));
    if (result != 0 || !table || !iterator) {
        return std::nullopt;
    }
    PartitionTable disk{orEmpty(fdisk_label_get_name(fdisk_get_label(context.get(), nullptr))),
                        fdisk_get_sector_size(context.get()),
                        {}};
    bool protects = false;
    fdisk_partition* partition = nullptr;
    while (fdisk_table_next_partition(table.get(), iterator.get(), &partition) == 0) {
        if (isProtective(partition, disk.kind)) {
            protects = protects || isWholeDisk(partition);
        } else if (isListed(partition) && isAddressable(partition, disk.sectorSize)) {
            disk.partitions.push_back(describe(partition, disk.sectorSize));
        }
    }
    disk.isUnreadable = protects && disk.partitions.empty();
    if (disk.kind != "gpt" && disk.partitions.empty() && !protects) {
        return std::nullopt; // boot sectors of volumes end like one of these, too
    }
    return disk;
}

} // namespace

std::optional<PartitionTable> readPartitionTable(std::string const& path) {
    std::optional<PartitionTable> const asTheSystemSays = readWithSectors(path, 0);
    if (asTheSystemSays && !asTheSystemSays->isUnreadable) {
        return asTheSystemSays;
    }
    for (unsigned const sectorSize : {4096U, 512U}) {
        std::optional<PartitionTable> disk = readWithSectors(path, sectorSize);
        if (disk && disk->kind == "gpt") {
            return disk;
        }
    }
    return asTheSystemSays;
}

} // namespace imaging
