// The thread that writes.
#include "imaging/copy/Pipeline.h"

#include <chrono>
#include <utility>

namespace imaging {

namespace {

/// How often somebody who waits looks whether to go on.
constexpr std::chrono::milliseconds kLook{100};

} // namespace

Pipeline::Pipeline(Source const& source, Destination& destination, std::function<void()> idle)
    : destination_(destination), idle_(std::move(idle)) {
    for (std::size_t i = 0; i < kBatches; ++i) {
        empty_.push_back(std::make_unique<Batch>(source));
    }
    writer_ = std::thread([this] { run(); });
}

Pipeline::~Pipeline() {
    {
        std::lock_guard const lock(mutex_);
        isStopped_ = true;
    }
    changed_.notify_all();
    destination_.cancel();
    writer_.join();
}

template <typename Condition>
void Pipeline::waitFor(std::unique_lock<std::mutex>& lock, Condition const& condition) {
    while (!changed_.wait_for(lock, kLook, condition)) {
        if (idle_) {
            lock.unlock();
            idle_();
            lock.lock();
        }
    }
}

std::unique_ptr<Batch> Pipeline::acquire() {
    std::unique_lock lock(mutex_);
    waitFor(lock, [this] { return !empty_.empty() || error_; });
    if (error_) {
        std::rethrow_exception(error_);
    }
    std::unique_ptr<Batch> batch = std::move(empty_.front());
    empty_.pop_front();
    return batch;
}

void Pipeline::submit(std::unique_ptr<Batch> batch) {
    {
        std::lock_guard const lock(mutex_);
        filled_.push_back(std::move(batch));
    }
    changed_.notify_all();
}

void Pipeline::drain() {
    std::unique_lock lock(mutex_);
    waitFor(lock, [this] { return empty_.size() == kBatches || error_; });
    if (error_) {
        std::rethrow_exception(error_);
    }
}

void Pipeline::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return !filled_.empty() || isStopped_; });
        if (isStopped_) {
            return;
        }
        std::unique_ptr<Batch> batch = std::move(filled_.front());
        filled_.pop_front();
        lock.unlock();
        std::exception_ptr error;
        try {
            write(*batch);
        } catch (...) {
            error = std::current_exception();
        }
        lock.lock();
        if (error) {
            error_ = error;
            changed_.notify_all();
            return;
        }
        empty_.push_back(std::move(batch));
        changed_.notify_all();
    }
}

void Pipeline::write(Batch& batch) {
    for (Piece const& piece : batch.pieces) {
        if (piece.isZero) {
            destination_.zero(piece.range.begin, piece.range.size());
        } else {
            destination_.write(piece.range.begin, batch.window.bytes(piece.range));
        }
    }
    batch.pieces.clear();
}

} // namespace imaging
