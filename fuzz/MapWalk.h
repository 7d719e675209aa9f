// The walk over a volume's map, as callers make it.
#pragma once

#include "FuzzReader.h"
#include "agent/core/fs/IBlockBitmapChunkProvider.h"

#include <memory>
#include <new>
#include <vector>

namespace fuzz {

/// Whole small maps, and the beginning of those that a volume only claims.
inline constexpr int kMostChunks = 16;

/// One request into a buffer of exactly its length; the result, or nothing when one of the exceptions came.
template <typename... Allowed>
long chunkOf(agent::core::fs::IBlockBitmapChunkProvider const& parser, unsigned long start, std::vector<char>& buffer) {
    long result = -1;
    bool const answered = mayThrow<Allowed...>([&] { result = parser.getChunk(start, buffer.data(), buffer.size()); });
    require(!answered || result <= static_cast<long>(buffer.size() * 8));
    return answered ? result : -1;
}

/// Chunk after chunk from a start on. What can be told of each result is checked.
template <typename... Allowed>
void walkMap(agent::core::fs::IBlockBitmapChunkProvider const& parser, unsigned long start, std::size_t bytes) {
    for (int i = 0; i < kMostChunks; ++i) {
        std::vector<char> buffer(bytes);
        long const count = chunkOf<Allowed...>(parser, start, buffer);
        if (count <= 0) {
            return;
        }
        start += static_cast<unsigned long>(count);
    }
}

} // namespace fuzz
