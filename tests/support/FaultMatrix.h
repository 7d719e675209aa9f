// Faults at every call: readers that go wrong, the loop over the calls, and the rows of operations that it is run for.
#pragma once

#include "agent/info/Logger.h"
#include "support/Readers.h"
#include "support/RecordingLogger.h"
#include "support/SpanReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace tests {

inline std::string faultName(Fault fault) {
    static std::map<Fault, std::string> const names{{Fault::SeekFails, "SeekFails"},
                                                    {Fault::ReadFails, "ReadFails"},
                                                    {Fault::ReadShort, "ReadShort"},
                                                    {Fault::ReadEmpty, "ReadEmpty"}};
    return names.at(fault);
}

inline auto everyFault() {
    return testing::Values(Fault::SeekFails, Fault::ReadFails, Fault::ReadShort, Fault::ReadEmpty);
}

/// A fault, and an alignment or block size.
using FaultAndSize = std::tuple<Fault, unsigned>;

inline std::string faultAndSizeName(testing::TestParamInfo<FaultAndSize> const& instance) {
    return faultName(std::get<0>(instance.param)) + "By" + std::to_string(std::get<1>(instance.param));
}

/// The entry of a read that failed.
template <typename Offset, typename Size>
LogEntry failedReadEntry(Offset offset, Size size) {
    return debugEntry("CHUNK READ FILE FAILED: OFFSET: " + std::to_string(offset) + " - " + std::to_string(size) +
                      " BYTES");
}

/// Runs a body on the volume while its n-th call goes wrong, for each n from `first` on, and at last once while none
/// does. Returns that last n: how many calls there are.
template <typename Body>
unsigned forEachCall(agent::core::IVolumeReader const& volume, Fault fault, unsigned first, Body const& body) {
    for (unsigned n = first;; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        FaultyReader const faulty(volume, fault, n);
        body(faulty, n);
        if (!faulty.fired || testing::Test::HasFatalFailure()) {
            return n;
        }
    }
}

/// A reader that another one can be put in front of for a while.
class SwitchedReader : public agent::core::IVolumeReader {
public:
    explicit SwitchedReader(agent::core::IVolumeReader const& usual) : usual_(usual) {}

    void use(agent::core::IVolumeReader const& other) { current_ = &other; }
    void useUsual() { current_ = &usual_; }

    long read(void* buffer, long length) const override { return current_->read(buffer, length); }
    long seek(long offset, int whence) const override { return current_->seek(offset, whence); }

private:
    agent::core::IVolumeReader const& usual_;
    agent::core::IVolumeReader const* current_ = &usual_;
};

/// Passes calls on, up to the n-th seek or read; from then on each of them fails.
class BrokenReader : public agent::core::IVolumeReader {
public:
    BrokenReader(agent::core::IVolumeReader const& inner, unsigned n) : inner_(inner), left_(n) {}

    long read(void* buffer, long length) const override { return isBroken() ? -1 : inner_.read(buffer, length); }
    long seek(long offset, int whence) const override { return isBroken() ? -1 : inner_.seek(offset, whence); }

    mutable bool fired = false;

private:
    bool isBroken() const {
        fired = fired || left_ == 0;
        left_ -= left_ == 0 ? 0 : 1;
        return fired;
    }

    agent::core::IVolumeReader const& inner_;
    mutable unsigned left_;
};

/// What a device delivers in place of what stands there.
enum class Other { Zeros, Flipped, Random, Moved, OneByte };

inline std::string otherName(Other other) {
    static std::map<Other, std::string> const names{{Other::Zeros, "Zeros"},
                                                    {Other::Flipped, "Flipped"},
                                                    {Other::Random, "Random"},
                                                    {Other::Moved, "Moved"},
                                                    {Other::OneByte, "OneByte"}};
    return names.at(other);
}

inline auto everyOther() {
    return testing::Values(Other::Zeros, Other::Flipped, Other::Random, Other::Moved, Other::OneByte);
}

/// Changes what a read delivered. `Moved` keeps the sum of the bits.
inline void deliverOther(Other other, unsigned seed, std::uint8_t* bytes, std::size_t count) {
    std::mt19937 generator(seed);
    if (count == 0) {
        return;
    }
    switch (other) {
    case Other::Zeros:
        std::fill_n(bytes, count, std::uint8_t{0});
        break;
    case Other::Flipped:
        std::transform(bytes, bytes + count, bytes, [](std::uint8_t byte) { return static_cast<std::uint8_t>(~byte); });
        break;
    case Other::Random:
        std::generate_n(bytes, count, [&generator] { return static_cast<std::uint8_t>(generator()); });
        break;
    case Other::Moved:
        std::rotate(bytes, bytes + 1, bytes + count);
        break;
    case Other::OneByte:
        bytes[generator() % count] ^= static_cast<std::uint8_t>(generator() % 255 + 1);
        break;
    }
}

/// Passes calls on, except that the n-th read delivers other bytes.
class OtherBytesReader : public agent::core::IVolumeReader {
public:
    OtherBytesReader(agent::core::IVolumeReader const& inner, Other other, unsigned n, unsigned seed)
        : inner_(inner), other_(other), n_(n), seed_(seed) {}

    long read(void* buffer, long length) const override {
        long const result = inner_.read(buffer, length);
        if (reads++ == n_ && result > 0) {
            fired = true;
            deliverOther(other_, seed_, static_cast<std::uint8_t*>(buffer), static_cast<std::size_t>(result));
        }
        return result;
    }
    long seek(long offset, int whence) const override { return inner_.seek(offset, whence); }

    mutable bool fired = false;
    mutable unsigned reads = 0;

private:
    agent::core::IVolumeReader const& inner_;
    Other other_;
    unsigned n_;
    unsigned seed_;
};

/// Passes calls on, except that the n-th of either kind has no memory to work with.
class ExhaustedReader : public agent::core::IVolumeReader {
public:
    ExhaustedReader(agent::core::IVolumeReader const& inner, unsigned n) : inner_(inner), left_(n) {}

    long read(void* buffer, long length) const override {
        count();
        return inner_.read(buffer, length);
    }
    long seek(long offset, int whence) const override {
        count();
        return inner_.seek(offset, whence);
    }

    mutable bool fired = false;

private:
    void count() const {
        if (left_-- == 0) {
            fired = true;
            throw std::bad_alloc();
        }
    }

    agent::core::IVolumeReader const& inner_;
    mutable unsigned left_;
};

/// The answer to a question, or how it failed, as text: "threw KIND: TEXT" or "code NUMBER".
using Question = std::function<std::string()>;

inline std::string answerOf(Question const& question) {
    try {
        return question();
    } catch (std::bad_alloc const&) {
        return "threw bad_alloc";
    } catch (std::invalid_argument const& error) {
        return std::string("threw invalid_argument: ") + error.what();
    } catch (std::length_error const& error) {
        return std::string("threw length_error: ") + error.what();
    } catch (std::logic_error const& error) {
        return std::string("threw logic_error: ") + error.what();
    } catch (std::runtime_error const& error) {
        return std::string("threw runtime_error: ") + error.what();
    }
}

inline bool isFailure(std::string const& answer) {
    return answer.starts_with("threw ") || answer.starts_with("code ");
}

/// One operation of a parser: a row of the table.
struct Operation {
    std::string name;
    std::shared_ptr<std::vector<std::uint8_t> const> volume;

    /// Makes a parser on the reader and gives the question to it; both must outlive the question, which may be asked
    /// again.
    std::function<Question(agent::info::Logger&, agent::core::IVolumeReader const&)> make;

    /// How it may fail when reads fail or come short: beginnings of answers.
    std::vector<std::string> failures;

    /// Beginnings of answers that are right for zeros in place of what was not delivered.
    std::vector<std::string> gaps = {};

    /// Whether the parser keeps what it read of a table, also if that is nothing.
    bool keepsTable = false;

    /// What the question comes to on the volume as it is.
    std::string answer() const {
        SpanReader const reader(*volume);
        RecordingLogger logger;
        return answerOf(make(logger, reader));
    }
};

inline bool beginsWithAny(std::string const& text, std::vector<std::string> const& beginnings) {
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [&text](std::string const& beginning) { return text.starts_with(beginning); });
}

inline std::string operationName(testing::TestParamInfo<Operation> const& instance) {
    return instance.param.name;
}

inline void PrintTo(Operation const& operation, std::ostream* out) {
    *out << operation.name;
}

} // namespace tests
