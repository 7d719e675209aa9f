// Batches of ranges, holes, and what to do when a read fails.
#include "imaging/copy/Copier.h"

#include "imaging/Error.h"

#include <algorithm>
#include <numeric>
#include <system_error>
#include <utility>

namespace imaging {

namespace {

/// Ranges that lie no further apart are read at once: reading on costs less than another read.
constexpr std::uint64_t kSmallGap = std::uint64_t{64} * 1024;

/// More holes than this are handed over before the batch is full.
constexpr std::size_t kMostPieces = 65536;

} // namespace

std::uint64_t CopyResult::unreadableBytes() const {
    return std::accumulate(unreadable.begin(), unreadable.end(), std::uint64_t{0},
                           [](std::uint64_t sum, ByteRange const& range) { return sum + range.size(); });
}

Copier::Copier(Source const& source, Destination& destination, std::string path, bool skipUnreadable, Progress progress)
    : source_(source), path_(std::move(path)), skipUnreadable_(skipUnreadable), progress_(std::move(progress)),
      pipeline_(source, destination, [this] {
          if (progress_) {
              progress_(last_);
          }
      }) {}

void Copier::add(ByteRange const& range) {
    for (std::uint64_t begin = range.begin; begin < range.end;) {
        if (begin >= stretch_.end) {
            stretch_ = source_.stretchAt(begin);
            if (stretch_.end <= begin) {
                stretch_ = {range.end, false}; // it became shorter; reading will tell
            }
        }
        ByteRange const part{begin, std::min(range.end, stretch_.end)};
        if (stretch_.isHole) {
            addHole(part);
        } else {
            addData(part);
        }
        begin = part.end;
    }
}

Batch& Copier::batch() {
    if (!batch_) {
        batch_ = pipeline_.acquire();
    }
    return *batch_;
}

void Copier::addHole(ByteRange const& range) {
    batch().pieces.push_back({range, true});
    result_.zero += range.size();
    if (batch_->pieces.size() >= kMostPieces) {
        flush();
    }
}

void Copier::addData(ByteRange range) {
    while (!range.isEmpty()) {
        bool const isNear =
            !span_.isEmpty() && range.begin - span_.end <= kSmallGap && range.begin - span_.begin < kWindowBytes;
        if (!isNear && !span_.isEmpty()) {
            flush();
        }
        if (span_.isEmpty()) {
            span_ = {range.begin, range.begin};
        }
        ByteRange const part{range.begin, std::min(range.end, span_.begin + kWindowBytes)};
        batch().pieces.push_back({part, false});
        span_.end = part.end;
        range.begin = part.end;
        if (span_.size() == kWindowBytes || batch_->pieces.size() >= kMostPieces) {
            flush();
        }
    }
}

void Copier::flush() {
    if (!batch_) {
        return;
    }
    if (!span_.isEmpty()) {
        try {
            batch_->window.read(span_, path_);
        } catch (std::system_error const&) {
            salvageAll();
            return;
        }
    }
    span_ = {0, 0};
    submit();
}

void Copier::submit() {
    std::uint64_t offset = 0;
    for (Piece const& piece : batch_->pieces) {
        result_.copied += piece.isZero ? 0 : piece.range.size();
        offset = piece.range.end;
    }
    pipeline_.submit(std::move(batch_));
    if (progress_) {
        last_ = {result_.copied + result_.zero + result_.unreadableBytes(), offset};
        progress_(last_);
    }
}

/// A large read failed: each of its pieces is read alone, as far as it can be.
void Copier::salvageAll() {
    span_ = {0, 0};
    for (Piece const& piece : std::exchange(batch_->pieces, {})) {
        if (piece.isZero) {
            batch().pieces.push_back(piece);
            submit();
        } else {
            salvage(piece.range);
        }
    }
}

/// Reads a range, or its halves, down to the units that cannot be read.
void Copier::salvage(ByteRange const& range) {
    std::uint64_t const unit = source_.alignment();
    std::uint64_t const nextUnit = range.begin / unit * unit + unit;
    std::uint64_t const middle = std::max((range.begin + range.size() / 2) / unit * unit, nextUnit);
    try {
        batch().window.read(range, path_);
        batch().pieces.push_back({range, false});
        submit();
    } catch (std::system_error const& error) {
        if (middle >= range.end) { // it lies in one unit
            giveUp(range, error.code().message());
            return;
        }
        salvage({range.begin, middle});
        salvage({middle, range.end});
    }
}

void Copier::giveUp(ByteRange const& range, std::string const& reason) {
    if (!skipUnreadable_) {
        throw VolumeError(Trouble::Io,
                          path_ + ": cannot be read at byte " + std::to_string(range.begin) + ": " + reason);
    }
    if (!result_.unreadable.empty() && result_.unreadable.back().end == range.begin) {
        result_.unreadable.back().end = range.end;
    } else {
        result_.unreadable.push_back(range);
    }
    batch().pieces.push_back({range, true});
    submit();
}

CopyResult Copier::finish() {
    flush();
    pipeline_.drain();
    return result_;
}

} // namespace imaging
