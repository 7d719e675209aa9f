// The words of a picture.
#pragma once

#include "cli/Picture.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace cli {

/// Entirely free, four shares between, entirely used.
inline constexpr std::size_t kPictureShades = 6;
inline constexpr std::array<char const*, kPictureShades> kPictureMeaning{"free",      "up to 1/4 used", "up to 1/2",
                                                                         "up to 3/4", "below all",      "used"};

/// The journal, if it lies within the volume's units.
std::optional<imaging::Journal> journalInside(imaging::Geometry const& geometry);

/// The volume's name, file system and size; a longer name than `characters` is cut.
std::string pictureTitle(PictureContent const& content, std::size_t characters);

/// The units, how many are used, and what a cell stands for.
std::string pictureSubtitle(PictureContent const& content);

/// Where the journal is.
std::string journalText(imaging::Geometry const& geometry, imaging::Journal const& journal);

/// The volume's byte with which a cell begins, as people read it.
std::string offsetText(PictureContent const& content, std::size_t cell);

/// Text that any renderer takes: what is not UTF-8, or steers a terminal, becomes U+FFFD.
std::string printableText(std::string const& bytes);

/// The first characters of UTF-8 text, and an ellipsis if some are left out.
std::string shortened(std::string const& text, std::size_t characters);

/// Text between the tags of an XML document.
std::string escapedForXml(std::string const& text);

} // namespace cli
