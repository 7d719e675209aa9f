// Hashing stretches of a volume.
#pragma once

#include "imaging/ByteRange.h"
#include "imaging/Sha256.h"
#include "imaging/copy/Source.h"
#include "imaging/copy/Window.h"

#include <functional>
#include <string>

namespace imaging {

/// Reads a volume's content into hashes, in large reads; holes are not read.
class ContentHasher {
public:
    /// Called after each read; what it throws ends the hashing.
    using Pause = std::function<void()>;

    /// @param source  not owned, and neither is the path, which begins the sentences of errors
    ContentHasher(Source const& source, std::string const& path, Pause pause = {})
        : source_(source), path_(path), pause_(std::move(pause)), window_(source) {}

    /// Adds the bytes of a range.
    /// @throws VolumeError  they cannot be read
    void add(ByteRange const& range, Sha256& hash);

private:
    void addRead(ByteRange const& part, Sha256& hash);

    Source const& source_;
    std::string const& path_;
    Pause pause_;
    Window window_;
};

} // namespace imaging
