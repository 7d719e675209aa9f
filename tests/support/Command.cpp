// Starting programs, and waiting for them with a limit.
#include "support/Command.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tests {

namespace {

using Clock = std::chrono::steady_clock;

/// What a shell says, too, when a program cannot be executed.
constexpr int kNotExecuted = 127;

[[noreturn]] void fail(std::string const& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

/// A file in memory: unlike a pipe it takes any amount while nobody reads, and no surviving grandchild holds up the
/// reader.
int memoryFile(std::string const& content) {
    int const descriptor = ::memfd_create("tests", MFD_CLOEXEC);
    if (descriptor == -1) {
        fail("memfd_create");
    }
    if (::pwrite(descriptor, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
        fail("pwrite to memory");
    }
    return descriptor;
}

int outputFile(std::string const& path) {
    if (path.empty()) {
        return memoryFile({});
    }
    int const descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (descriptor == -1) {
        fail(path);
    }
    return descriptor;
}

std::string contentOf(int descriptor) {
    std::string content;
    std::array<char, 65536> piece{};
    for (;;) {
        ssize_t const count = ::pread(descriptor, piece.data(), piece.size(), static_cast<off_t>(content.size()));
        if (count <= 0) {
            return content;
        }
        content.append(piece.data(), static_cast<std::size_t>(count));
    }
}

std::vector<std::string> environmentWith(CommandOptions const& options) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string const text = *entry;
        if (!options.environment.contains(text.substr(0, text.find('=')))) {
            environment.push_back(text);
        }
    }
    for (auto const& [name, value] : options.environment) {
        if (value) {
            environment.push_back(name + "=" + *value);
        }
    }
    return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// The program's standard streams and how it is called, ready before the fork: what follows it allocates nothing.
struct Start {
    std::array<int, 3> streams;
    char const* workingDirectory;
    char const* path;
    char* const* arguments;
    char* const* environment;
};

[[noreturn]] void becomeProgram(Start const& start) {
    ::setpgid(0, 0);
    for (int stream = 0; stream < 3; ++stream) {
        if (::dup2(start.streams.at(static_cast<std::size_t>(stream)), stream) == -1) {
            ::_exit(kNotExecuted);
        }
    }
    if (*start.workingDirectory != '\0' && ::chdir(start.workingDirectory) != 0) {
        ::_exit(kNotExecuted);
    }
    ::execve(start.path, start.arguments, start.environment);
    ::_exit(kNotExecuted);
}

std::string requireProgram(std::vector<std::string> const& arguments) {
    std::string const name = arguments.empty() ? "" : arguments.front();
    auto const path = name.find('/') == std::string::npos ? findProgram(name) : std::optional(name);
    if (!path || ::access(path->c_str(), X_OK) != 0) {
        throw std::runtime_error("no program " + name);
    }
    return *path;
}

} // namespace

Process::File::~File() {
    ::close(descriptor_);
}

Process::Process(std::vector<std::string> const& arguments, CommandOptions const& options)
    : input_(memoryFile(options.input)), output_(outputFile(options.outputPath)), error_(memoryFile({})),
      keepsOutput_(options.outputPath.empty()), deadline_(Clock::now() + options.timeout) {
    start(arguments, options);
}

void Process::start(std::vector<std::string> const& arguments, CommandOptions const& options) {
    std::string const path = requireProgram(arguments);
    std::vector<std::string> words = arguments;
    std::vector<std::string> variables = environmentWith(options);
    auto const wordPointers = pointersTo(words);
    auto const variablePointers = pointersTo(variables);
    Start const start{{input_.get(), output_.get(), error_.get()},
                      options.workingDirectory.c_str(),
                      path.c_str(),
                      wordPointers.data(),
                      variablePointers.data()};
    pid_ = ::fork();
    if (pid_ == -1) {
        fail("fork");
    }
    if (pid_ == 0) {
        becomeProgram(start);
    }
    ::setpgid(pid_, pid_); // Here too, so that the group exists when the timeout wants to kill it.
}

Process::~Process() {
    if (pid_ > 0) {
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

void Process::send(int signal) const {
    ::kill(pid_, signal);
}

std::string Process::output() const {
    return keepsOutput_ ? contentOf(output_.get()) : std::string();
}

std::string Process::error() const {
    return contentOf(error_.get());
}

bool Process::endsBefore(Clock::time_point deadline) const {
    File const handle(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    if (handle.get() == -1) {
        fail("pidfd_open");
    }
    for (;;) {
        auto const rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (rest <= 0) {
            return false;
        }
        pollfd entry{handle.get(), POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(rest)) == 1) {
            return true;
        }
    }
}

CommandResult Process::wait() {
    CommandResult result;
    result.timedOut = !endsBefore(deadline_);
    if (result.timedOut) {
        ::kill(-pid_, SIGKILL);
    }
    int status = 0;
    rusage usage{};
    while (::wait4(pid_, &status, 0, &usage) == -1) {
        if (errno != EINTR) {
            fail("wait4");
        }
    }
    pid_ = -1;
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    result.output = output();
    result.error = error();
    result.peakBytes = static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
    return result;
}

CommandResult runCommand(std::vector<std::string> const& arguments, CommandOptions const& options) {
    return Process(arguments, options).wait();
}

std::optional<std::string> findProgram(std::string const& name) {
    char const* const path = std::getenv("PATH");
    std::istringstream directories(std::string(path == nullptr ? "" : path) + ":/usr/sbin:/sbin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        std::filesystem::path const candidate = std::filesystem::path(directory) / name;
        std::error_code ignored;
        if (!name.empty() && !directory.empty() && std::filesystem::is_regular_file(candidate, ignored) &&
            ::access(candidate.c_str(), X_OK) == 0) {
            return candidate.string();
        }
    }
    return std::nullopt;
}

std::ostream& operator<<(std::ostream& out, CommandResult const& result) {
    constexpr std::size_t kShown = 2000;
    if (result.timedOut) {
        out << "did not end in time";
    } else if (result.signal != 0) {
        out << "ended by signal " << result.signal;
    } else {
        out << "exit code " << result.exitCode;
    }
    return out << "\nstandard output: " << result.output.substr(0, kShown)
               << "\nstandard error: " << result.error.substr(0, kShown);
}

} // namespace tests
