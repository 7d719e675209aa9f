// Runs of used and free units, made from bits.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

namespace imaging {

/// Consecutive units in the same state.
struct Run {
    std::uint64_t first; ///< number of the first unit
    std::uint64_t count; ///< units, at least 1
    bool used;

    bool operator==(Run const&) const = default;
};

/// Takes runs in order; what it throws ends the walk.
using RunSink = std::function<void(Run const&)>;

/// The order of the bits inside a byte.
enum class BitOrder {
    LeastSignificantFirst,
    MostSignificantFirst,
};

/// Merges bits into runs: each run that reaches the sink is as long as it can be, so used and free ones alternate.
class RunBuilder {
public:
    explicit RunBuilder(RunSink sink) : sink_(std::move(sink)) {}

    /// Adds the units of the first `count` bits.
    /// @param bits  at least (count + 7) / 8 bytes
    void addBits(std::span<std::uint8_t const> bits, std::uint64_t count, BitOrder order);

    /// Adds `count` units in one state.
    void addRun(std::uint64_t count, bool used);

    /// Hands over the last run.
    void finish();

    /// Units added so far.
    std::uint64_t units() const { return run_.first + run_.count; }

    /// Used units among them.
    std::uint64_t usedUnits() const { return used_; }

private:
    void addWord(std::uint64_t word, unsigned count);
    void emit();

    RunSink sink_;
    Run run_{0, 0, false};
    std::uint64_t used_ = 0;
};

} // namespace imaging
