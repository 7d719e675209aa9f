// An NTFS volume over the fuzzer's bytes, and its parser.
#pragma once

#include "FuzzReader.h"
#include "support/NtfsAccess.h"

#include <memory>
#include <new>
#include <stdexcept>

namespace fuzz {

/// Where the request stands in the boot sector: in the boot code, which is not read.
inline constexpr std::uint64_t kNtfsRequest = 0x60;

struct NtfsVolume {
    explicit NtfsVolume(std::span<std::uint8_t const> packed)
        : image(Image::unpack(packed)), reader(image), request(image, kNtfsRequest), alignment(request.alignment()),
          logger(request.number(1) % 2 == 0) {}

    bool open() {
        mayThrow<std::runtime_error, std::invalid_argument, std::bad_alloc>(
            [this] { parser = std::make_unique<tests::NtfsAccess>(logger, alignment, reader); });
        return parser != nullptr;
    }

    Image image;
    ImageReader reader;
    Request request;
    unsigned alignment;
    SinkLogger logger;
    std::unique_ptr<tests::NtfsAccess> parser;
};

} // namespace fuzz
