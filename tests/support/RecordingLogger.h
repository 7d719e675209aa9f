// A logger that keeps every entry, so that a test can compare them in their order.
#pragma once

#include "agent/info/Logger.h"

#include <ostream>
#include <string>
#include <vector>

namespace tests {

/// One message as the logger got it.
struct LogEntry {
    agent::info::Level level;
    std::string text;

    bool operator==(LogEntry const&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, LogEntry const& entry) {
    return out << '[' << static_cast<int>(entry.level) << "] " << entry.text;
}

inline LogEntry errorEntry(std::string text) {
    return {agent::info::Level::Error, std::move(text)};
}

inline LogEntry warningEntry(std::string text) {
    return {agent::info::Level::Warning, std::move(text)};
}

inline LogEntry debugEntry(std::string text) {
    return {agent::info::Level::Debug, std::move(text)};
}

/// Keeps what is written, at every level.
class RecordingLogger : public agent::info::Logger {
public:
    void write(agent::info::Level level, std::string const& text) override { entries.push_back({level, text}); }

    std::vector<LogEntry> entries;
};

/// Wants nothing and fails the test's purpose if something is written all the same.
class SilentLogger : public agent::info::Logger {
public:
    bool isEnabled(agent::info::Level) const override { return false; }
    void write(agent::info::Level, std::string const&) override { ++written; }

    int written = 0;
};

} // namespace tests
