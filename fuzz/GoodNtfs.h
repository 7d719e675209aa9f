// A parser on a sound NTFS volume, for targets that hand single structures to it.
#pragma once

#include "FuzzReader.h"
#include "support/NtfsAccess.h"
#include "support/NtfsBuilder.h"
#include "support/Readers.h"

namespace fuzz {

inline tests::NtfsAccess& goodNtfs() {
    static SinkLogger logger;
    static tests::MemoryReader const reader(tests::NtfsBuilder::standard().bytes);
    static tests::NtfsAccess parser(logger, 512, reader);
    return parser;
}

inline constexpr std::size_t kRecordBytes = 1024; ///< of an MFT record there

} // namespace fuzz
