// A reader that stops a reading that does not end.
#pragma once

#include "agent/core/IVolumeReader.h"
#include "agent/info/Logger.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace imaging {

/// What may be spent on a volume. The defaults are more than any healthy volume takes.
struct Budget {
    std::uint64_t reads = 100'000'000;
    std::uint64_t bytes = std::uint64_t{1} << 56;
    std::chrono::seconds time = std::chrono::hours(24);

    /// Bytes read from one place without a seek: what the library asks for at once and so holds in memory. The longest
    /// piece of a healthy volume's map, 8 MiB of an allocation file of HFS+, takes an eighth of it.
    std::uint64_t atOnce = std::uint64_t{64} << 20;
};

/// Refuses every read once one of its limits is reached: structures on a hostile volume may lead in a circle.
class BudgetReader : public agent::core::IVolumeReader {
public:
    /// @param logger  takes one `Error` entry when the budget is spent; not owned
    /// @param inner   not owned; must outlive this reader
    BudgetReader(agent::info::Logger& logger, agent::core::IVolumeReader const& inner, Budget const& budget);

    long read(void* buffer, long length) const override;
    long seek(long offset, int whence) const override;
    std::string getVolumePath() const override;

    /// Which limit was reached, as one clause ("after 1000 reads"); empty while none was.
    std::string const& spent() const { return spent_; }

private:
    using Clock = std::chrono::steady_clock;

    bool isWithin() const;

    agent::info::Logger& logger_;
    agent::core::IVolumeReader const& inner_;
    Budget budget_;
    Clock::time_point begin_ = Clock::now();
    mutable std::uint64_t reads_ = 0;
    mutable std::uint64_t bytes_ = 0;
    mutable std::uint64_t sinceSeek_ = 0; ///< bytes
    mutable std::string spent_;
};

} // namespace imaging
