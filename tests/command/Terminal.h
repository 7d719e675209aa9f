// A pseudo-terminal that a program's standard output goes to.
#pragma once

#include "support/Command.h"

#include <array>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace tests {

/// A terminal of a given size; what is written to it is read back with "\n" as the end of a line.
class Terminal {
public:
    /// @throws std::runtime_error  there are no pseudo-terminals here
    Terminal(unsigned short columns, unsigned short lines) {
        winsize const window{lines, columns, 0, 0};
        std::array<char, 256> name{};
        if (::openpty(&master_, &slave_, name.data(), nullptr, &window) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        path_ = name.data();
    }
    Terminal(Terminal const&) = delete;
    Terminal& operator=(Terminal const&) = delete;
    ~Terminal() {
        ::close(slave_);
        ::close(master_);
    }

    /// Runs a program whose standard output is the terminal and puts what it displayed into the result. For output
    /// that fits the terminal's buffer of 4 KiB: nobody reads while the program runs.
    CommandResult run(std::vector<std::string> const& arguments, CommandOptions options) const {
        options.outputPath = path_;
        CommandResult result = runCommand(arguments, options);
        result.output = displayed();
        return result;
    }

private:
    std::string displayed() const {
        std::string text;
        for (pollfd entry{master_, POLLIN, 0}; ::poll(&entry, 1, 0) == 1;) {
            std::array<char, 4096> piece{};
            ssize_t const count = ::read(master_, piece.data(), piece.size());
            if (count <= 0) {
                break;
            }
            text.append(piece.data(), static_cast<std::size_t>(count));
        }
        std::erase(text, '\r');
        return text;
    }

    int master_ = -1;
    int slave_ = -1;
    std::string path_;
};

} // namespace tests
