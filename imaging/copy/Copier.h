// Copying stretches of a volume.
#pragma once

#include "imaging/copy/Pipeline.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace imaging {

/// How far a copy has come.
struct CopyProgress {
    std::uint64_t done;   ///< bytes taken along so far
    std::uint64_t offset; ///< of the volume
};

/// What a copy did; bytes.
struct CopyResult {
    std::uint64_t copied = 0; ///< read and written
    std::uint64_t zero = 0;   ///< holes of the source, which were not read

    /// What could not be read, in order. It reads as zeros in the copy.
    std::vector<ByteRange> unreadable = {};

    std::uint64_t unreadableBytes() const;
};

/// Copies ranges from a source to a destination: reads are large, ranges that lie close together are read at once, and
/// holes are not read.
class Copier {
public:
    using Progress = std::function<void(CopyProgress const&)>;

    /// @param path            of the volume; begins the sentences of errors
    /// @param skipUnreadable  goes on where the source cannot be read
    /// @param progress        called now and then; what it throws ends the copy
    Copier(Source const& source, Destination& destination, std::string path, bool skipUnreadable, Progress progress);

    /// Takes the next range, behind all earlier ones.
    /// @throws VolumeError  reading or writing failed
    void add(ByteRange const& range);

    /// Writes what is left. The destination is not finished.
    /// @throws VolumeError  reading or writing failed
    CopyResult finish();

private:
    void addData(ByteRange range);
    void addHole(ByteRange const& range);
    Batch& batch();
    void flush();
    void submit();
    void salvageAll();
    void salvage(ByteRange const& range);
    void giveUp(ByteRange const& range, std::string const& reason);

    Source const& source_;
    std::string path_;
    bool skipUnreadable_;
    Progress progress_;
    CopyProgress last_{0, 0}; ///< what was told last
    CopyResult result_;
    Source::Stretch stretch_{0, false}; ///< the one that the last byte taken lies in
    ByteRange span_{0, 0};              ///< what the batch's window will hold
    std::unique_ptr<Batch> batch_;
    Pipeline pipeline_;
};

} // namespace imaging
