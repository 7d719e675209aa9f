// A small NTFS volume on which paths and identifiers take every kind of reading.
#pragma once

#include "support/NtfsBuilder.h"

#include <string>
#include <vector>

namespace tests {

inline constexpr std::uint64_t kNtfsReadme = 24; ///< \readme.txt, of two runs

/// The directory \many (30) has two levels, $SII too; the index of \many lies in an extension record.
inline NtfsBuilder makeNtfsFaultVolume() {
    NtfsGeometry geometry;
    geometry.securityLevels = 2;
    NtfsBuilder builder = NtfsBuilder::standard(geometry);
    NtfsIndexShape const shape = builder.directoryShape(2);
    NtfsRecord& many = builder.file(30, 5, u"many");
    NtfsRecord& extension = builder.record(31);
    extension.baseReference = many.reference();
    std::vector<NtfsName> names;
    for (char16_t letter = u'a'; letter <= u'h'; ++letter) {
        names.push_back({std::u16string(1, letter), builder.record(26).reference()});
    }
    builder.index(extension, u"$I30", shape, ntfsNameEntries(names, many.reference()));
    many.attributeList({{ntfs_type::kIndexRoot, extension.reference(), 0, u"$I30"},
                        {ntfs_type::kIndexAllocation, extension.reference(), 0, u"$I30"}});
    builder.directory(builder.record(5).remove(ntfs_type::kIndexRoot),
                      {{u"many", many.reference()}, {u"readme.txt", builder.record(kNtfsReadme).reference()}});
    builder.seal();
    return builder;
}

} // namespace tests
