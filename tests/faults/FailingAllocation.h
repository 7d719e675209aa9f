// Lets an allocation of this thread fail, the libraries' included.
#pragma once

#include <cstddef>

namespace tests {

/// While it lives, the n-th operator new of this thread (counted from 0) throws std::bad_alloc. One at a time.
class FailingAllocation {
public:
    explicit FailingAllocation(std::size_t n);
    FailingAllocation(FailingAllocation const&) = delete;
    FailingAllocation& operator=(FailingAllocation const&) = delete;
    ~FailingAllocation();

    /// Whether that allocation was asked for.
    bool fired() const;
};

} // namespace tests
