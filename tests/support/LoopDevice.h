// Files as block devices.
#pragma once

#include "support/Command.h"

#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

namespace tests {

/// A file as a block device, for as long as this lives. Needs root and losetup.
class Loop {
public:
    /// @param options  of losetup
    explicit Loop(std::string const& file, std::vector<std::string> const& options = {}) {
        std::vector<std::string> arguments{"losetup", "-f", "--show"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back(file);
        CommandResult const result = runCommand(arguments);
        path_ = result.succeeded() ? result.output.substr(0, result.output.find('\n')) : "";
    }
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;
    ~Loop() {
        if (!path_.empty()) {
            runCommand({"losetup", "-d", path_});
        }
    }

    static bool isPossible() { return ::geteuid() == 0 && findProgram("losetup"); }

    /// Empty where there is none.
    std::string const& path() const { return path_; }

private:
    std::string path_;
};

/// The first partition of a loop device, for as long as this lives. The kernel is told of it by partx, so it need not
/// know the partition table.
class LoopPartition {
public:
    explicit LoopPartition(Loop const& disk) : disk_(disk.path()) {
        isAdded_ = findProgram("partx") && runCommand({"partx", "-a", "--nr", "1", disk_}).succeeded();
        std::error_code error;
        if (isAdded_ && std::filesystem::is_block_file(disk_ + "p1", error)) {
            path_ = disk_ + "p1";
        }
    }
    LoopPartition(LoopPartition const&) = delete;
    LoopPartition& operator=(LoopPartition const&) = delete;
    ~LoopPartition() {
        if (isAdded_) {
            runCommand({"partx", "-d", "--nr", "1", disk_});
        }
    }

    /// Empty where there is none.
    std::string const& path() const { return path_; }

private:
    std::string disk_;
    std::string path_;
    bool isAdded_ = false;
};

} // namespace tests
