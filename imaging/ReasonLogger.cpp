// Remembering errors.
#include "imaging/ReasonLogger.h"

namespace imaging {

namespace {

/// A cause and its consequences are a handful; a volume that fails a million times needs no more.
constexpr std::size_t kMostErrors = 8;

} // namespace

bool ReasonLogger::isEnabled(agent::info::Level level) const {
    return level == agent::info::Level::Error || outer_.isEnabled(level);
}

void ReasonLogger::write(agent::info::Level level, std::string const& text) {
    if (level == agent::info::Level::Error && errors_.size() < kMostErrors) {
        errors_.push_back(text);
    }
    if (outer_.isEnabled(level)) {
        outer_.write(level, text);
    }
}

std::string ReasonLogger::takeReason(std::string const& otherwise) {
    std::string reason;
    for (std::string const& error : errors_) {
        reason += (reason.empty() ? "" : "; ") + error;
    }
    errors_.clear();
    return reason.empty() ? otherwise : reason;
}

} // namespace imaging
