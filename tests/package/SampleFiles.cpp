// An NTFS volume as somebody's own disk might be.
#include "SampleFiles.h"

#include "support/Files.h"
#include "support/NtfsBuilder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace tests {

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kPartitionStart = 2048; // sectors

/// \Users\guest\notes.txt and \pagefile.sys, instead of the standard volume's own files.
NtfsBytes makeVolume() {
    using ntfs_record_number::kRoot;
    constexpr std::uint64_t kUsers = ntfs_record_number::kFirstUser + 3;
    constexpr std::uint64_t kGuest = kUsers + 1;
    constexpr std::uint64_t kNotes = kUsers + 2;
    constexpr std::uint64_t kPageFile = kUsers + 3;
    NtfsBuilder builder = NtfsBuilder::standard();
    NtfsRecord& users = builder.file(kUsers, kRoot, u"Users");
    NtfsRecord& guest = builder.file(kGuest, kUsers, u"guest");
    NtfsRecord& notes = builder.file(kNotes, kGuest, u"notes.txt");
    notes.resident(ntfs_type::kData, u"", {'n', 'o', 't', 'e'});
    NtfsRecord& pageFile = builder.file(kPageFile, kRoot, u"pagefile.sys");
    builder.store(pageFile, ntfs_type::kData, u"", NtfsBytes(5 * 4096, 0x50), 2);
    builder.directory(guest, {{u"notes.txt", notes.reference()}});
    builder.directory(users, {{u"guest", guest.reference()}});
    NtfsRecord& root = builder.record(kRoot).remove(ntfs_type::kIndexRoot);
    builder.directory(root, {{u"Users", users.reference()}, {u"pagefile.sys", pageFile.reference()}});
    return builder.seal().bytes;
}

NtfsBytes const& volume() {
    static NtfsBytes const bytes = makeVolume();
    return bytes;
}

/// A partition table with one entry, and the volume.
NtfsBytes makeDisk() {
    constexpr std::uint64_t kEntry = 446;
    NtfsBytes disk(kPartitionStart * kSector);
    disk[kEntry + 4] = 0x07; // the type of NTFS
    putNumber(disk, kEntry + 8, kPartitionStart, 4);
    putNumber(disk, kEntry + 12, volume().size() / kSector, 4);
    putNumber(disk, 510, 0xAA55, 2);
    disk.insert(disk.end(), volume().begin(), volume().end());
    return disk;
}

} // namespace

SampleFiles::SampleFiles() {
    fs::create_directories(directory_.path() / "dev");
    fs::create_directories(directory_.path() / "mnt/Users/guest");
    for (char const* const name : {"disk.img", "full-copy.img", "dev/sdb1"}) {
        writeFile(directory_.file(name), volume());
    }
    writeFile(directory_.file("dev/sdb"), makeDisk());
    std::ofstream(directory_.file("paths.txt")) << "/Users/guest/notes.txt\n/pagefile.sys\n";
    std::ofstream(directory_.file("mnt/Users/guest/notes.txt")) << "note";
    std::ofstream(directory_.file("mnt/pagefile.sys")) << "P";
}

bool SampleFiles::makeDevice() {
    if (!Loop::isPossible()) {
        return false;
    }
    writeFile(directory_.file("sdc1.bytes"), NtfsBytes(volume().size()));
    device_ = std::make_unique<Loop>(directory_.file("sdc1.bytes"));
    if (device_->path().empty()) {
        return false;
    }
    fs::create_symlink(device_->path(), directory_.file("dev/sdc1"));
    return true;
}

CommandResult SampleFiles::run(std::string script) const {
    std::string const device = "/dev/sd";
    std::string const sample = directory_.file("dev/sd");
    for (auto at = script.find(device); at != std::string::npos; at = script.find(device, at + sample.size())) {
        script.replace(at, device.size(), sample);
    }
    // A server would stay; here it answers one client and ends with it.
    script = R"(nbdkit() { command nbdkit -U - --run 'nbdinfo --size "$uri"' "$@"; })"
             "\n" +
             script;
    char const* const path = std::getenv("PATH");
    CommandOptions options;
    options.workingDirectory = directory_.path().string();
    options.environment = {{"PATH", fs::path(FSPARSER_COMMAND).parent_path().string() + ":" +
                                        (path == nullptr ? "" : path) + ":/usr/sbin:/sbin"},
                           {"LC_ALL", "C.UTF-8"},
                           {"NO_COLOR", std::nullopt},
                           {"COLUMNS", std::nullopt},
                           {"LINES", std::nullopt}};
    return runCommand({"bash", "--norc", "-e", "-o", "pipefail", "-c", script}, options);
}

} // namespace tests
