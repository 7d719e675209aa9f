// The file that appears under its name only when it is whole: whatever goes wrong, what stood there is untouched.
#include "imaging/OutputFile.h"

#include "imaging/Error.h"
#include "support/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using imaging::OutputFile;
using namespace tests;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::uint8_t> const kContent{1, 2, 3, 250, 0, 7};
std::vector<std::uint8_t> const kOld{'o', 'l', 'd'};

/// The sentence of the error that `action` ends with; empty when it ends well.
std::string failureOf(std::function<void()> const& action) {
    try {
        action();
        return {};
    } catch (imaging::VolumeError const& error) {
        EXPECT_EQ(error.trouble(), imaging::Trouble::Io);
        return error.what();
    }
}

class ImagingOutputFile : public testing::Test {
protected:
    std::string file(std::string const& name) const { return directory_.file(name); }

    /// Tries to make an output file; the sentence of its error.
    std::string openFailure(std::string const& path) const {
        return failureOf([&] { OutputFile const output(path, source_); });
    }

    /// Writes an output file to its end.
    void writeWhole(std::string const& path) const {
        OutputFile output(path, source_);
        output.write(kContent);
        output.commit();
    }

    TempDirectory directory_;
    std::string source_ = writeFile(directory_.file("source"), {9, 9});
};

TEST_F(ImagingOutputFile, AppearsUnderItsNameOnlyAtCommit) {
    OutputFile output(file("out"), source_);
    output.write(kContent);
    EXPECT_FALSE(std::filesystem::exists(file("out")));
    output.commit();
    EXPECT_EQ(readFile(file("out")), kContent);
    EXPECT_THAT(namesIn(directory_), ElementsAre("out", "source"));
}

TEST_F(ImagingOutputFile, WritesAddUp) {
    OutputFile output(file("out"), source_);
    std::vector<std::uint8_t> expected;
    for (unsigned i = 0; i < 300; ++i) {
        std::vector<std::uint8_t> const piece(i, static_cast<std::uint8_t>(i));
        output.write(piece);
        expected.insert(expected.end(), piece.begin(), piece.end());
    }
    output.commit();
    EXPECT_EQ(readFile(file("out")), expected);
}

TEST_F(ImagingOutputFile, AnEmptyFileIsAFile) {
    OutputFile(file("out"), source_).commit();
    EXPECT_THAT(readFile(file("out")), IsEmpty());
}

TEST_F(ImagingOutputFile, WithoutCommitNothingIsLeft) {
    {
        OutputFile output(file("out"), source_);
        output.write(kContent);
        EXPECT_EQ(namesIn(directory_).size(), 2U) << "the temporary file stands beside the name";
    }
    EXPECT_THAT(namesIn(directory_), ElementsAre("source"));
}

TEST_F(ImagingOutputFile, AnExceptionThatPassesByLeavesTheOldFile) {
    writeFile(file("out"), kOld);
    EXPECT_THROW(
        {
            OutputFile output(file("out"), source_);
            output.write(kContent);
            throw std::runtime_error("the walk failed");
        },
        std::runtime_error);
    EXPECT_EQ(readFile(file("out")), kOld);
    EXPECT_THAT(namesIn(directory_), ElementsAre("out", "source"));
}

TEST_F(ImagingOutputFile, CommitReplacesTheOldFile) {
    writeFile(file("out"), kOld);
    writeWhole(file("out"));
    EXPECT_EQ(readFile(file("out")), kContent);
    EXPECT_THAT(namesIn(directory_), ElementsAre("out", "source"));
}

TEST_F(ImagingOutputFile, ANameWithoutADirectoryIsInTheWorkingDirectory) {
    auto const before = std::filesystem::current_path();
    std::filesystem::current_path(directory_.path());
    std::string const failure = failureOf([&] { writeWhole("out"); });
    std::filesystem::current_path(before);
    EXPECT_EQ(failure, "");
    EXPECT_EQ(readFile(file("out")), kContent);
}

TEST_F(ImagingOutputFile, ThePermissionsFollowTheUmask) {
    mode_t const before = ::umask(0);
    for (mode_t const mask : {mode_t{0}, mode_t{022}, mode_t{027}, mode_t{077}}) {
        ::umask(mask);
        std::string const path = file("out" + std::to_string(mask));
        writeWhole(path);
        struct stat facts {};
        ASSERT_EQ(::stat(path.c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 07777, 0666 & ~mask);
        EXPECT_EQ(::umask(mask), mask) << "and the umask is what it was";
    }
    ::umask(before);
}

TEST_F(ImagingOutputFile, ADirectoryIsLeftAlone) {
    std::string const path = file("folder");
    std::filesystem::create_directory(path);
    EXPECT_EQ(openFailure(path), path + ": exists and is not a regular file; it is left alone");
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_THAT(namesIn(directory_), ElementsAre("folder", "source"));
}

TEST_F(ImagingOutputFile, ADeviceAndAFifoAreLeftAlone) {
    EXPECT_EQ(openFailure("/dev/null"), "/dev/null: exists and is not a regular file; it is left alone");
    std::string const fifo = file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(openFailure(fifo), fifo + ": exists and is not a regular file; it is left alone");
    EXPECT_THAT(namesIn(directory_), ElementsAre("fifo", "source"));
}

TEST_F(ImagingOutputFile, TheVolumeItselfIsLeftAloneUnderEveryName) {
    std::filesystem::create_symlink(source_, file("symbolic"));
    std::filesystem::create_hard_link(source_, file("hard"));
    for (std::string const& path :
         {source_, file("symbolic"), file("hard"), (directory_.path() / "." / "source").string()}) {
        EXPECT_EQ(openFailure(path), path + ": is the volume itself; it is left alone");
    }
    EXPECT_EQ(readFile(source_), (std::vector<std::uint8_t>{9, 9}));
    EXPECT_THAT(namesIn(directory_), ElementsAre("hard", "source", "symbolic"));
}

TEST_F(ImagingOutputFile, TheVolumeNamedThroughALinkIsLeftAlone) {
    std::filesystem::create_symlink(source_, file("symbolic"));
    EXPECT_EQ(failureOf([&] { OutputFile const output(source_, file("symbolic")); }),
              source_ + ": is the volume itself; it is left alone");
}

TEST_F(ImagingOutputFile, AMissingDirectoryIsToldWithItsReason) {
    std::string const path = file("missing/out");
    EXPECT_EQ(openFailure(path), path + ": cannot be created: No such file or directory");
}

TEST_F(ImagingOutputFile, ANameThatBecomesADirectoryMeanwhileIsLeftAlone) {
    std::string const failure = failureOf([&] {
        OutputFile output(file("out"), source_);
        output.write(kContent);
        std::filesystem::create_directory(file("out"));
        output.commit();
    });
    EXPECT_EQ(failure, file("out") + ": cannot be renamed into place: Is a directory");
    EXPECT_TRUE(std::filesystem::is_directory(file("out")));
    EXPECT_THAT(namesIn(directory_), ElementsAre("out", "source"));
}

/// Lets no file of this process grow beyond a size while it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : oldHandler_(::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &old_);
        rlimit const limited{bytes, old_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limited);
    }
    FileSizeLimit(FileSizeLimit const&) = delete;
    FileSizeLimit& operator=(FileSizeLimit const&) = delete;
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &old_);
        ::signal(SIGXFSZ, oldHandler_);
    }

private:
    rlimit old_{};
    void (*oldHandler_)(int);
};

TEST_F(ImagingOutputFile, AFileThatMayNotGrowFailsAndLeavesTheOldOne) {
    writeFile(file("out"), kOld);
    std::string failure;
    {
        FileSizeLimit const limit(65536);
        failure = failureOf([&] {
            OutputFile output(file("out"), source_);
            output.write(std::vector<std::uint8_t>(100000, 1)); // the first 65536 go in, the rest does not
            output.commit();
        });
    }
    EXPECT_EQ(failure, file("out") + ": cannot be written: File too large");
    EXPECT_EQ(readFile(file("out")), kOld);
    EXPECT_THAT(namesIn(directory_), ElementsAre("out", "source"));
}

/// Runs `action` in a child process and gives what it returned; nothing the child does to its mounts is seen here.
std::string inChild(std::function<std::string()> const& action) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe(ends.data()), 0);
    pid_t const child = ::fork();
    if (child == 0) {
        std::string const text = action();
        bool const told = ::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::_exit(told ? 0 : 1);
    }
    ::close(ends[1]);
    std::string text;
    std::array<char, 4096> piece{};
    for (ssize_t count = 0; (count = ::read(ends[0], piece.data(), piece.size())) > 0;) {
        text.append(piece.data(), static_cast<std::size_t>(count));
    }
    ::close(ends[0]);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    return text;
}

TEST_F(ImagingOutputFile, AFullDiskFailsAndLeavesTheOldFile) {
    std::string const disk = file("disk");
    std::filesystem::create_directory(disk);
    std::string const report = inChild([&]() -> std::string {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k") != 0) {
            return "no mount";
        }
        writeFile(disk + "/out", kOld);
        std::string const failure = failureOf([&] {
            OutputFile output(disk + "/out", source_);
            output.write(std::vector<std::uint8_t>(1000000, 1));
            output.commit();
        });
        auto const files = std::distance(std::filesystem::directory_iterator(disk), {});
        return failure + "; " + std::to_string(files) + (readFile(disk + "/out") == kOld ? " old" : " changed");
    });
    if (report == "no mount") {
        GTEST_SKIP() << "this user may not mount a small tmpfs";
    }
    EXPECT_EQ(report, disk + "/out: cannot be written: No space left on device; 1 old");
}

} // namespace
