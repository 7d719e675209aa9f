// The thread that writes.
#include "imaging/copy/Pipeline.h"

namespace imaging {

Pipeline::Pipeline(Source const& source, Destination& destination) : destination_(destination) {
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
    writer_.join();
}

std::unique_ptr<Batch> Pipeline::acquire() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !empty_.empty() || error_; });
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
    changed_.wait(lock, [this] { return empty_.size() == kBatches || error_; });
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
