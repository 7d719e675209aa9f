// All that a host asks of the libraries, on good volumes and on hostile ones, with everything that comes of it as text.
#pragma once

#include "agent/core/IVolumeReader.h"
#include "agent/info/Logger.h"

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// One visit of the libraries to a volume.
struct GuestCall {
    std::string name;
    std::vector<std::uint8_t> volume;

    /// Asks everything there is to ask, and gives the answers.
    std::function<std::string(agent::info::Logger&, agent::core::IVolumeReader const&)> ask;

    bool opensFiles = false; ///< system calls may fail, and then leave their errno
};

inline void PrintTo(GuestCall const& call, std::ostream* out) {
    *out << call.name;
}

/// Every parser, the detector, the volume reader and the support library.
std::vector<GuestCall> const& guestCalls();

/// The answers, or which of the documented exceptions ended them, and then the log, entry by entry. Any other exception
/// is the answer "undocumented exception".
std::vector<std::string> transcriptOf(GuestCall const& call);

} // namespace tests
