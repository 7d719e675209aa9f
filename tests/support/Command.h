// Runs a program without a shell and keeps what it leaves behind.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tests {

/// Variables by name; no value: the variable is removed.
using Environment = std::map<std::string, std::optional<std::string>>;

/// What a program is given beside its arguments.
struct CommandOptions {
    Environment environment = {}; ///< set on top of what the test inherited

    std::string input = {};            ///< bytes of standard input, which ends after them
    std::string outputPath = {};       ///< standard output goes to this existing file or device, and is not kept
    std::string workingDirectory = {}; ///< empty: the test's own
    std::chrono::milliseconds timeout{60'000}; ///< the program and its children are killed then
};

/// How a program ended.
struct CommandResult {
    int exitCode = -1;           ///< -1 when a signal ended it; 127 also when it could not be executed
    int signal = 0;              ///< the signal that ended it, or 0
    bool timedOut = false;       ///< that signal came from the timeout
    std::string output;          ///< standard output
    std::string error;           ///< standard error
    std::uint64_t peakBytes = 0; ///< the largest resident memory that it had

    bool succeeded() const { return exitCode == 0; }
};

/// For the message of a failed assertion: the end, and the beginning of what was printed.
std::ostream& operator<<(std::ostream& out, CommandResult const& result);

/// A program that runs beside the test, in a process group of its own.
class Process {
public:
    /// Starts arguments[0]; a name without a slash is looked for by findProgram().
    /// @throws std::runtime_error  there is no such program, or it cannot be started
    explicit Process(std::vector<std::string> const& arguments, CommandOptions const& options = {});
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    /// Kills the program if nobody waited for it.
    ~Process();

    pid_t id() const { return pid_; }

    /// Sends a signal to the program alone.
    void send(int signal) const;

    /// What it has printed so far.
    std::string output() const;
    std::string error() const;

    /// Waits for the end, at most until the timeout. Called once.
    CommandResult wait();

private:
    /// A descriptor that is closed at the end.
    class File {
    public:
        explicit File(int descriptor) : descriptor_(descriptor) {}
        File(File const&) = delete;
        File& operator=(File const&) = delete;
        ~File();
        int get() const { return descriptor_; }

    private:
        int descriptor_;
    };

    void start(std::vector<std::string> const& arguments, CommandOptions const& options);
    bool endsBefore(std::chrono::steady_clock::time_point deadline) const;

    File input_;
    File output_;
    File error_;
    bool keepsOutput_;
    std::chrono::steady_clock::time_point deadline_;
    pid_t pid_ = -1;
};

/// Runs a program to its end.
/// @throws std::runtime_error  as the constructor of Process
CommandResult runCommand(std::vector<std::string> const& arguments, CommandOptions const& options = {});

/// Looks for a program in PATH, then in /usr/sbin and /sbin, where file system tools live.
std::optional<std::string> findProgram(std::string const& name);

} // namespace tests
