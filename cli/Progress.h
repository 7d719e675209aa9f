// How far a long job has come, on standard error.
#pragma once

#include <chrono>
#include <cstdint>

namespace cli {

/// When to tell it.
enum class ProgressChoice {
    Auto,  ///< a line that moves, when standard error is a terminal
    Never, ///< not at all
    Json,  ///< one JSON object a line, wherever it goes
};

/// Tells a job's progress a few times a second: bytes done of a total, rate, time left, and where on the volume it is.
class Progress {
public:
    explicit Progress(ProgressChoice choice);
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;
    /// Takes the moving line away.
    ~Progress();

    /// @param total  bytes that there are to do
    void begin(std::uint64_t total);

    /// @param done    bytes
    /// @param offset  byte of the volume
    void update(std::uint64_t done, std::uint64_t offset);

    /// Tells the last state, whenever the one before was told.
    void end();

private:
    using Clock = std::chrono::steady_clock;

    void tell() const;
    void tellLine(double seconds, double rate) const;

    bool isShown_;
    bool isJson_;
    std::uint64_t total_ = 0;
    std::uint64_t done_ = 0;
    std::uint64_t offset_ = 0;
    Clock::time_point begin_;
    Clock::time_point told_;
};

} // namespace cli
