// Fuzzes what is told of single files: their extents, their standard information and their access-control lists.
#include "NtfsVolume.h"

#include <string>

namespace {

/// Without an upcase table a name cannot be looked up, which is an exception of its own.
template <typename Action>
void run(fuzz::NtfsVolume const& ntfs, Action const& action) {
    ntfs.reader.renew();
    fuzz::mayThrow<std::runtime_error, std::invalid_argument, std::bad_alloc>(action);
}

void askAll(fuzz::NtfsVolume const& ntfs, std::string const& path) {
    tests::NtfsAccess& parser = *ntfs.parser;
    run(ntfs, [&] {
        auto const ranges = parser.extents(path);
        fuzz::require(std::is_sorted(ranges.begin(), ranges.end()));
    });
    run(ntfs, [&] { static_cast<void>(parser.getStandardInfo(path)); });
    ntfs.reader.renew();
    // Whatever is wrong with the file comes as one kind of error; only the upcase table and the stream are outside it.
    fuzz::mayThrow<std::runtime_error, std::bad_alloc>([&] { static_cast<void>(parser.readACLFromFile(path)); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::NtfsVolume ntfs({data, size});
    unsigned long const first = ntfs.request.number(1);
    unsigned long const sdsOffset = ntfs.request.number(4);
    std::string const path = ntfs.request.text(200);
    if (!ntfs.open()) {
        return 0;
    }
    for (unsigned long const number : {0UL, 6UL, first, ~0UL}) {
        ntfs.reader.renew();
        fuzz::mayThrow<std::runtime_error, std::bad_alloc>([&] { static_cast<void>(ntfs.parser->extents(number)); });
    }
    askAll(ntfs, path);
    askAll(ntfs, "\\readme.txt");
    fuzz::mayThrow<std::runtime_error, std::logic_error>(
        [&] { static_cast<void>(ntfs.parser->getACLFromSDS(sdsOffset)); });
    ntfs.parser->clearSDS();
    return 0;
}
