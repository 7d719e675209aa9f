// What the command says beside its data: on standard error.
#pragma once

#include "agent/info/Logger.h"

#include <string>
#include <vector>

namespace cli {

/// How much is said.
enum class Verbosity {
    Quiet,    ///< errors only
    Normal,   ///< errors and warnings of the command
    Warnings, ///< and the library's errors and warnings
    Debug,    ///< and the library's debug log
};

/// Standard error: the command's own sentences, and the library's log as far as it is wanted.
class Console : public agent::info::Logger {
public:
    explicit Console(Verbosity verbosity) : verbosity_(verbosity) {}

    bool isEnabled(agent::info::Level level) const override;
    void write(agent::info::Level level, std::string const& text) override;

    /// Says why the command fails.
    void error(std::string const& sentence) const;

    /// Prints something that is worth knowing and no fault, unless quiet.
    void note(std::string const& sentence) const;

    /// Says what is wrong with a volume that was answered for all the same.
    void warnings(std::vector<std::string> const& sentences) const;

    bool isQuiet() const { return verbosity_ == Verbosity::Quiet; }

private:
    Verbosity verbosity_;
};

} // namespace cli
