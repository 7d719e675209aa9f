/// @file
/// Where every message of the libraries goes.
#pragma once

#include "agent/Export.h"

#include <ios>
#include <optional>
#include <sstream>
#include <string>

namespace agent::info {

/// How grave a message is. The values are bits, so that a logger can keep a mask of them.
enum class Level : int {
    Error = 1,   ///< a failed system call, invalid on-disk data, a failed chunk
    Warning = 2, ///< a short read, an advisory check that failed
    Debug = 4,   ///< trace
};

/// A sink of messages, implemented by the caller and handed to the libraries by reference.
///
/// The libraries never own a logger: it must outlive everything that was built on it. They call it from the thread that
/// called them and never keep a message. Parsers on two threads call it at the same time: a logger that they share
/// locks for itself.
///
/// @code
/// struct StderrLogger : agent::info::Logger {
///     bool isEnabled(agent::info::Level level) const override { return level != agent::info::Level::Debug; }
///     void write(agent::info::Level, std::string const& text) override { std::fprintf(stderr, "%s\n", text.c_str()); }
/// };
/// @endcode
class AGENT_EXPORT Logger {
public:
    class Entry;

    Logger() = default;
    Logger(Logger const&) = default;
    Logger& operator=(Logger const&) = default;
    virtual ~Logger();

    /// Whether messages of this level are wanted. Asked once for each entry, and sometimes once for many; true by
    /// default. What it throws leaves the library, but where the library catches: a std::runtime_error in the tree walk
    /// of XFSParser::getChunk() becomes an `Error` entry and -1; a std::exception in the later part of
    /// NTFSParser::readACLFromFile() becomes the reason in its std::runtime_error; and what is thrown for the entry of
    /// a failed allocation is dropped, so that the failure itself is heard of.
    /// @param level  of the message to come
    /// @return false: the message is neither formatted nor written
    virtual bool isEnabled(Level level) const;

    /// Takes one whole message, without a trailing newline. Called once for each enabled entry. What it throws is
    /// dropped.
    /// @param level  of the message
    /// @param text   bytes; parts that come from a volume are not checked, and may be no UTF-8. Valid during the call.
    virtual void write(Level level, std::string const& text) = 0;
};

/// One message, written as a stream of pieces and handed to Logger::write when the entry is destroyed.
///
/// Takes whatever a standard output stream takes: text pieces, integers, single raw characters (`char`, `unsigned char`
/// and `signed char` are written as they stand, not as numbers), `std::hex`, `std::dec`, `std::setw`, `std::setfill`.
/// Numbers are decimal until a manipulator says otherwise, and are never grouped, whatever the process's locale.
///
/// While the level is off, nothing is formatted and nothing is allocated: the pieces are dropped as they come.
///
/// @code
/// agent::info::Logger::Entry(logger, agent::info::Level::Warning) << "block " << 42 << " at 0x" << std::hex << 43008;
/// @endcode
class AGENT_EXPORT Logger::Entry {
public:
    /// Asks `logger` once whether `level` is wanted.
    /// @param logger  must outlive the entry
    /// @param level   of the message
    Entry(Logger& logger, Level level);

    /// Hands the text to the logger if its level is on, also when the text is empty. An exception that the logger
    /// throws is dropped: a lost message must not end the process that the libraries are guests in.
    ~Entry();

    Entry(Entry const&) = delete;
    Entry& operator=(Entry const&) = delete;

    /// Adds one piece to the text.
    /// @param piece  anything a standard output stream takes
    /// @return the entry
    template <typename Piece>
    Entry& operator<<(Piece const& piece) {
        if (stream_) {
            *stream_ << piece;
        }
        return *this;
    }

    /// Applies a manipulator to the numbers that follow.
    /// @param manipulator  such as `std::hex` or `std::dec`
    /// @return the entry
    Entry& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
        if (stream_) {
            manipulator(*stream_);
        }
        return *this;
    }

private:
    Logger& logger_;
    Level level_;
    std::optional<std::ostringstream> stream_;
};

} // namespace agent::info
