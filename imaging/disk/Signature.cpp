// Asking libblkid.
#include "imaging/disk/Signature.h"

#include "imaging/copy/Descriptor.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <memory>

namespace imaging {

std::string identifySignature(std::string const& path, std::uint64_t start, std::uint64_t size) {
    Descriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> const probe(blkid_new_probe(), &blkid_free_probe);
    if (!file.isOpen() || !probe ||
        blkid_probe_set_device(probe.get(), file.get(), static_cast<blkid_loff_t>(start),
                               static_cast<blkid_loff_t>(size)) != 0) {
        return {};
    }
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE);
    char const* type = nullptr;
    if (blkid_do_safeprobe(probe.get()) != 0 || blkid_probe_lookup_value(probe.get(), "TYPE", &type, nullptr) != 0) {
        return {};
    }
    return type;
}

} // namespace imaging
