// What the libraries answer, as text.
#pragma once

#include "GuestCalls.h"

#include "agent/core/fs/IBlockBitmapChunkProvider.h"

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tests {

/// The visits to NTFS volumes, which are a part of guestCalls().
std::vector<GuestCall> ntfsGuestCalls();

/// What an action answers, or the documented exception that ended it.
template <typename Action>
std::string answerTo(Action const& action) {
    try {
        return action();
    } catch (std::bad_alloc const&) {
        return "bad_alloc";
    } catch (std::invalid_argument const& error) {
        return std::string("invalid_argument: ") + error.what();
    } catch (std::length_error const& error) {
        return std::string("length_error: ") + error.what();
    } catch (std::runtime_error const& error) {
        return std::string("runtime_error: ") + error.what();
    } catch (...) {
        return "undocumented exception";
    }
}

/// A few digits that tell one buffer's first bytes from another's, in this process.
inline std::string digestOf(std::vector<char> const& buffer, std::size_t count) {
    return std::to_string(std::hash<std::string_view>()({buffer.data(), count}));
}

/// Walks a map in chunks of some bytes; enough of them for the small volumes here.
inline std::string walk(agent::core::fs::IBlockBitmapChunkProvider const& provider, std::size_t chunkBytes) {
    constexpr unsigned kMostChunks = 50;
    std::string answer = provider.isMostSignificantBitFirst() ? "most significant first" : "least significant first";
    std::vector<char> buffer(chunkBytes);
    unsigned long offset = 0;
    for (unsigned chunk = 0; chunk < kMostChunks; ++chunk) {
        long const units = provider.getChunk(offset, buffer.data(), buffer.size());
        answer += ' ' + std::to_string(units);
        if (units <= 0) {
            break;
        }
        answer += ':' + digestOf(buffer, static_cast<std::size_t>(units + 7) / 8);
        offset += static_cast<unsigned long>(units);
    }
    return answer;
}

} // namespace tests
