// Reading ahead of writing.
#pragma once

#include "imaging/copy/Destination.h"
#include "imaging/copy/Window.h"

#include <array>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace imaging {

/// A part of a batch.
struct Piece {
    ByteRange range;
    bool isZero; ///< nothing was read for it: it is a hole of the source, or it could not be read
};

/// A window and what of it goes to the destination.
struct Batch {
    explicit Batch(Source const& source) : window(source) {}

    Window window;
    std::vector<Piece> pieces;
};

/// A few batches that go round: whoever reads fills one while a thread of the pipeline writes another.
class Pipeline {
public:
    /// @param source, destination  not owned; the destination is used by the pipeline's thread until drain()
    /// @param idle  called now and then while the writing is waited for; what it throws ends the waiting
    Pipeline(Source const& source, Destination& destination, std::function<void()> idle = {});
    Pipeline(Pipeline const&) = delete;
    Pipeline& operator=(Pipeline const&) = delete;
    /// Stops without writing what still waits.
    ~Pipeline();

    /// An empty batch to fill.
    /// @throws  what the writing threw
    std::unique_ptr<Batch> acquire();

    /// Hands a filled batch over to be written.
    void submit(std::unique_ptr<Batch> batch);

    /// Waits until everything is written.
    /// @throws  what the writing threw
    void drain();

private:
    static constexpr std::size_t kBatches = 4;

    template <typename Condition>
    void waitFor(std::unique_lock<std::mutex>& lock, Condition const& condition);
    void run();
    void write(Batch& batch);

    Destination& destination_;
    std::function<void()> idle_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::unique_ptr<Batch>> empty_;
    std::deque<std::unique_ptr<Batch>> filled_;
    std::exception_ptr error_;
    bool isStopped_ = false;
    std::thread writer_; // last: it uses everything above
};

} // namespace imaging
