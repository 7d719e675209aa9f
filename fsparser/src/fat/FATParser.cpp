// Recognition of FAT32 volumes.
#include "agent/core/fs/FATParser.h"

#include "fat/FatLayout.h"

#include <string_view>

namespace agent::core::fs {

int FATParser::fat_get_type(fat_boot_sector* bootSector) {
    std::string_view const old(bootSector->label_area.data(), 5);
    if (old == "FAT12") {
        return 0;
    }
    if (old == "FAT16") {
        return 1;
    }
    return std::string_view(bootSector->fat32_label.data(), 5) == "FAT32" ? 2 : 3;
}

bool FATParser::isFATFileSystem(void* buffer) {
    return buffer != nullptr && fat_get_type(static_cast<fat_boot_sector*>(buffer)) == 2;
}

} // namespace agent::core::fs
