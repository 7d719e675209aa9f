// A logger that remembers the library's errors, so that a failure can be told with its reason.
#pragma once

#include "agent/info/Logger.h"

#include <algorithm>
#include <string>
#include <vector>

namespace imaging {

/// Hands every entry on to another logger, as far as that one wants it, and keeps the texts of errors.
class ReasonLogger : public agent::info::Logger {
public:
    /// @param outer  not owned; must outlive this logger
    explicit ReasonLogger(agent::info::Logger& outer) : outer_(outer) {}

    bool isEnabled(agent::info::Level level) const override;
    void write(agent::info::Level level, std::string const& text) override;

    /// The errors since the last call, joined by "; ", or `otherwise` when there were none. Forgets them.
    std::string takeReason(std::string const& otherwise);

    /// How many errors there are since the last call of takeReason().
    std::size_t count() const { return errors_.size(); }

    /// Forgets the errors beyond the first `count`: what they told of has come right after all. The other logger has
    /// them already.
    void forgetSince(std::size_t count) { errors_.resize(std::min(count, errors_.size())); }

private:
    agent::info::Logger& outer_;
    std::vector<std::string> errors_;
};

} // namespace imaging
