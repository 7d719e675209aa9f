// The logger's defaults, and the life of one entry.
#include "agent/info/Logger.h"

#include <locale>

namespace agent::info {

Logger::~Logger() = default;

bool Logger::isEnabled(Level) const {
    return true;
}

Logger::Entry::Entry(Logger& logger, Level level) : logger_(logger), level_(level) {
    if (logger.isEnabled(level)) {
        stream_.emplace();
        // The host process may have set a locale that groups digits; messages are the same everywhere.
        stream_->imbue(std::locale::classic());
    }
}

Logger::Entry::~Entry() {
    if (!stream_) {
        return;
    }
    try {
        logger_.write(level_, stream_->str());
    } catch (...) { // NOLINT(bugprone-empty-catch): see the header
    }
}

} // namespace agent::info
