// Fuzzes the search in indexes: paths through the cache and without, names, and security identifiers.
#include "NtfsVolume.h"

#include <array>
#include <string>

namespace {

using Key = tests::NtfsAccess::BTreeKey;

void lookUp(fuzz::NtfsVolume& ntfs, unsigned long directory, Key const& key) {
    ntfs.reader.renew();
    fuzz::mayThrow<std::runtime_error, std::invalid_argument, std::bad_alloc>(
        [&] { static_cast<void>(ntfs.parser->btree_lookup(directory, key)); });
}

void resolve(fuzz::NtfsVolume& ntfs, std::string const& path) {
    ntfs.reader.renew();
    fuzz::mayThrow<std::runtime_error, std::invalid_argument, std::bad_alloc>(
        [&] { static_cast<void>(ntfs.parser->convert_to_inode(path)); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::NtfsVolume ntfs({data, size});
    unsigned long const directory = ntfs.request.number(1);
    auto const identifier = static_cast<unsigned>(ntfs.request.number(4));
    std::string const path = ntfs.request.text(200);
    if (!ntfs.open()) {
        return 0;
    }
    resolve(ntfs, path); // before the upcase table is there
    ntfs.reader.renew();
    fuzz::mayThrow<std::runtime_error, std::bad_alloc>([&] { ntfs.parser->read_upcase(); });
    for (std::string const& text : {path, std::string("\\readme.txt"), std::string("\\docs\\letter.txt")}) {
        resolve(ntfs, text);
    }
    lookUp(ntfs, directory, {&path, 1});
    for (unsigned const id : {0x100U, identifier}) {
        lookUp(ntfs, 9, {&id, 16});
    }
    return 0;
}
