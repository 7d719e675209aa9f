// What the tests put into mounted NTFS volumes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tests {

/// Writes a file of so many bytes of a letter.
/// @throws std::runtime_error  it cannot be written
void writeLetters(std::filesystem::path const& path, std::size_t size, char letter = 'x');

/// A bit of everything that decides where data lie: short files, long names in several scripts, a file in many pieces,
/// holes, compressed and incompressible text, hard links and streams enough for an attribute list, deep directories.
/// Compression only where clusters allow it.
void fillWithVariety(std::filesystem::path const& root, bool withCompression = true);

/// A directory of files whose names are long, so that its index has many blocks.
void fillDirectory(std::filesystem::path const& directory, unsigned files);

/// The name of a file of fillDirectory().
std::string nameInLargeDirectory(unsigned number);

/// Leaves so many gaps of two clusters in an otherwise full volume that $MFT, growing by 512-byte clusters, needs an
/// attribute list of its own.
void breakUpMft(std::filesystem::path const& root);

} // namespace tests
