// A command a hole.
#include "imaging/formats/HolePunchFormat.h"

namespace imaging {

namespace {

/// The volume's path is not in it: a path may hold anything, also a newline and commands.
constexpr char const* kHead = R"(#!/bin/sh
# Punches holes into a full copy of a volume, where the volume's space is free.
# The copy's path is the only argument. Written by fsparser.
set -eu
)";

constexpr char const* kChecks = R"(fail() {
    printf 'fallocate script: %s\n' "$1" >&2
    exit 1
}
[ "$#" -eq 1 ] || fail 'name the copy, and nothing else'
copy=$1
[ -f "$copy" ] || fail "$copy: is not a regular file"
bytes=$(($(wc -c <"$copy")))
[ "$bytes" -eq "$size" ] || fail "$copy: has $bytes bytes and not $size; it is left alone"
punch() {
    fallocate --punch-hole --offset "$1" --length "$2" -- "$copy"
}
)";

} // namespace

void HolePunchFormat::write(FormatInput const& input, TextSink const& sink) const {
    sink(kHead);
    sink("size=" + std::to_string(input.size) + "\n");
    sink(kChecks);
    walkWhole(input, [&sink](ByteRange const& range, bool isTaken) {
        if (!isTaken) {
            sink("punch " + std::to_string(range.begin) + " " + std::to_string(range.size()) + "\n");
        }
    });
}

} // namespace imaging
