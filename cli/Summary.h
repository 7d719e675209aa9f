// The keys that every verb's JSON document shares, and sizes as people read them.
#pragma once

#include "cli/Console.h"
#include "imaging/VolumeMap.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace cli {

/// A JSON object that keeps the order of its keys.
using Json = nlohmann::ordered_json;

/// Begins a document: schema "fsparser.VERB/1" and the file system's name.
Json beginDocument(std::string const& verb, imaging::Volume const& volume);

/// Adds the geometry: "unit_size", "size" and "first_unit_offset" (where unit 0 begins) in bytes, "units".
void addGeometry(Json& document, imaging::Volume const& volume, imaging::Geometry const& geometry);

/// What a volume holds: the file system's name, or what the system's own library calls a content that is not read
/// ("BitLocker", "LVM physical volume", ...); empty for nothing known.
std::string contentName(imaging::Volume const& volume);

/// One sentence on a disk whose GPT cannot be read.
std::string unreadableTableSentence(std::string const& path);

/// One sentence on a volume that is not understood.
std::string unrecognizedReason(imaging::Volume const& volume);

/// Says of a volume in which nothing is understood that every unit counts as used.
void noteIfUnrecognized(Console const& console, imaging::Volume const& volume);

/// Adds "warnings" if there are any.
void addWarnings(Json& document, std::vector<std::string> const& warnings);

/// Prints a document and a newline on standard output. Bytes of a path that are not UTF-8 become U+FFFD.
void printDocument(Json const& document);

/// The document as one line of text.
std::string dumpDocument(Json const& document);

/// "1.5 GiB" for 1610612736; bytes below a KiB as they are.
std::string humanSize(std::uint64_t bytes);

} // namespace cli
