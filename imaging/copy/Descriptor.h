// An open file that closes itself.
#pragma once

#include <unistd.h>
#include <utility>

namespace imaging {

/// Owns a file descriptor.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    ~Descriptor() {
        if (number_ != -1) {
            ::close(number_);
        }
    }

    int get() const { return number_; }
    bool isOpen() const { return number_ != -1; }

private:
    int number_ = -1;
};

} // namespace imaging
