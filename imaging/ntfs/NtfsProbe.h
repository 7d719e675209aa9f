// The NTFS parser, with a look at the records behind its answers.
#pragma once

#include "agent/core/fs/NTFSParser.h"
#include "imaging/Answerer.h"
#include "imaging/Error.h"
#include "imaging/Volume.h"
#include "imaging/ntfs/NtfsBoot.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace imaging::ntfs {

/// An attribute's bytes from its header to the end of its record; empty when there is none.
using AttributeBytes = std::vector<std::uint8_t>;

/// A parser that also tells how records are built, so that imaging can see where an answer must not be believed.
class Probe : public agent::core::fs::NTFSParser {
public:
    using NTFSParser::NTFSParser;

    /// The unnamed attributes of one type that a record has, those in extension records included.
    struct Attributes {
        std::size_t count = 0;     ///< how many; one in an extension record counts whatever its name
        AttributeBytes first = {}; ///< the first one's bytes, when it stands in the record itself before all others
    };

    /// @throws std::runtime_error  the record is damaged
    Attributes attributesOf(unsigned long record, agent::core::fs::NtfsAttrTypes type, Boot const& boot) const;
};

/// A parser and the boot sector that it was constructed on.
struct OpenProbe {
    std::unique_ptr<Probe> parser;
    Boot boot;
};

/// Opens a volume; `more` goes to the parser's constructor.
/// @throws VolumeError  the parser refuses the volume, or its boot sector changes while it is read
template <typename... More>
OpenProbe openProbe(Volume& volume, More const&... more) {
    std::vector<std::uint8_t> const sector = volume.readBytes(0, kBootBytes);
    auto parser = makeParser<Probe>(volume, more...);
    if (volume.readBytes(0, kBootBytes) != sector) {
        throw VolumeError(Trouble::Io, volume.path() + ": changed while it was read: its boot sector is another one");
    }
    return {std::move(parser), parseBoot(sector)};
}

} // namespace imaging::ntfs
