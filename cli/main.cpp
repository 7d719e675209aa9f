// The command `fsparser`: arguments in, exit code out.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "imaging/Error.h"
#include "imaging/formats/RangeFormat.h"

#include <CLI/CLI.hpp>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <functional>
#include <iostream>
#include <new>
#include <system_error>

namespace cli {

namespace {

using Verb = ExitCode (*)(Options const&, Console&);

constexpr char const* kDescription = "Looks inside a raw volume without mounting it: which file system it holds, and "
                                     "which of its units are in use.";

constexpr char const* kFooter = R"(Data goes to standard output, everything else to standard error.

Exit codes:
  0    done
  1    I/O or internal error
  2    usage
  3    not found, or not a file system that is understood
  4    done, but the volume is inconsistent or its map is not to be believed
  5    verification failed
  130  interrupted

Examples:
  fsparser detect disk.img
  fsparser info --json /dev/sdb1
  fsparser map --color always disk.img | less -R
  fsparser bitmap -o used.bin disk.img
  fsparser copy /dev/sdb1 disk.img
  fsparser verify /dev/sdb1 disk.img
  fsparser ranges --json disk.img | jq '.ranges | length'
  fsparser stat disk.img /Users/guest/notes.txt
  fsparser extents --json disk.img /pagefile.sys
  fsparser acl --sddl disk.img 'C:\Users'
)";

/// The largest alignment that is taken: no device asks for more.
constexpr std::uint64_t kLargestAlignment = std::uint64_t{1} << 30;

/// The units that are taken for a volume in which nothing is understood.
constexpr std::uint64_t kSectorBytes = 512;
constexpr std::uint64_t kLargestUnit = std::uint64_t{1} << 30;

constexpr std::uint64_t kLargestOffset = std::uint64_t{1} << 62;
constexpr int kMostPartitions = 65535;

/// Ten years: what a clock counts well.
constexpr int kLongestTime = 315'360'000;

/// The longest side of a picture: enough for any terminal, and memory stays small.
constexpr int kMostCells = 500;

/// What a parsed command line asks for.
struct Request {
    Options options;
    Verb verb = nullptr;
    bool quiet = false;
    int verbose = 0;

    Verbosity verbosity() const {
        if (quiet) {
            return Verbosity::Quiet;
        }
        return verbose >= 2 ? Verbosity::Debug : verbose == 1 ? Verbosity::Warnings : Verbosity::Normal;
    }
};

std::string checkAlignment(std::string const& text) {
    std::uint64_t alignment = 0;
    bool const isNumber = CLI::detail::lexical_cast(text, alignment);
    if (!isNumber || !std::has_single_bit(alignment) || alignment > kLargestAlignment) {
        return "an alignment is a power of two up to 1073741824, not " + text;
    }
    return {};
}

/// "1048576" or "2048s".
std::optional<std::uint64_t> parseOffset(std::string text) {
    std::uint64_t const factor = !text.empty() && text.back() == 's' ? kSectorBytes : 1;
    if (factor != 1) {
        text.pop_back();
    }
    std::uint64_t number = 0;
    bool const isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
                          CLI::detail::lexical_cast(text, number);
    if (!isNumber || number > kLargestOffset / factor) {
        return std::nullopt;
    }
    return number * factor;
}

/// What is wrong with a whole number, which must be in 64 bits; nothing when all is well.
std::string checkNumber(std::string const& text, std::uint64_t least) {
    std::uint64_t number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    bool const isNumber = error == std::errc() && end == text.data() + text.size() && number >= least;
    return isNumber ? "" : text + " is no whole number from " + std::to_string(least) + " on";
}

std::string checkOffset(std::string const& text) {
    return parseOffset(text) ? std::string()
                             : "an offset is a number of bytes, or of sectors with an s behind, not " + text;
}

std::string checkUnit(std::string const& text) {
    std::uint64_t unit = 0;
    bool const isNumber = CLI::detail::lexical_cast(text, unit);
    if (!isNumber || unit == 0 || unit % kSectorBytes != 0 || unit > kLargestUnit) {
        return "a unit is a multiple of 512 up to 1073741824, not " + text;
    }
    return {};
}

std::string checkFormat(std::string const& name) {
    bool const isOfUnits = name == "text" || name == "json" || name == "csv";
    return isOfUnits || imaging::makeRangeFormat(name)
               ? std::string()
               : "it is text, json, csv, bmap, ddrescue, extentlist or fallocate, not " + name;
}

ColorChoice colorChoice(std::string const& when) {
    return when == "always" ? ColorChoice::Always : when == "never" ? ColorChoice::Never : ColorChoice::Auto;
}

std::string checkColor(std::string const& when) {
    bool const isKnown = when == "auto" || when == "always" || when == "never";
    return isKnown ? std::string() : "it is auto, always or never, not " + when;
}

CLI::App* addVerb(CLI::App& app, Request& request, char const* name, char const* description, Verb verb) {
    CLI::App* const command = app.add_subcommand(name, description);
    Options& options = request.options;
    command->add_option("VOLUME", options.volume, "an image file or a block device")->required();
    command->add_flag("--json", options.json, "print one JSON document");
    command->add_option("--align", options.alignment, "read in multiples of BYTES (default: what the device asks for)")
        ->type_name("BYTES")
        ->check(CLI::Validator(checkAlignment, ""));
    CLI::Option* const partition =
        command->add_option("--partition", options.partition, "the volume is partition N of a whole disk")
            ->type_name("N")
            ->check(CLI::Range(1, kMostPartitions).description(""));
    command
        ->add_option_function<std::string>(
            "--offset", [&options](std::string const& text) { options.offset = *parseOffset(text); },
            "the volume begins there: bytes, or sectors of 512 bytes with an s behind")
        ->type_name("BYTES|Ns")
        ->check(CLI::Validator(checkOffset, ""))
        ->excludes(partition);
    command
        ->add_option("--max-reads", options.budget.reads,
                     "give a volume up after N reads (default: 100000000): its structures may lead in a circle")
        ->type_name("N")
        ->check(CLI::Validator([](std::string const& text) { return checkNumber(text, 1); }, ""));
    command
        ->add_option_function<std::uint64_t>(
            "--max-time", [&options](std::uint64_t seconds) { options.budget.time = std::chrono::seconds(seconds); },
            "give a volume up after so long (default: 86400, a day)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, kLongestTime).description(""));
    auto* const quiet = command->add_flag("-q,--quiet", request.quiet, "print errors only");
    command->add_flag("-v,--verbose", request.verbose, "show the library's warnings; -vv: its debug log")
        ->excludes(quiet);
    command->callback([&request, verb] { request.verb = verb; });
    return command;
}

void addUnit(CLI::App* command, Request& request) {
    command
        ->add_option("--unit", request.options.unit,
                     "the unit of a volume in which no file system is understood (default: 4096); all of it is used")
        ->type_name("BYTES")
        ->check(CLI::Validator(checkUnit, ""));
}

void addImage(CLI::App* map, std::string const& name, std::string& path) {
    map->add_option(name, path, "draw an image instead: a file, or - for standard output")
        ->type_name("FILE|-")
        ->check(CLI::Validator([](std::string& file) { return file.empty() ? "names no file" : ""; }, ""));
}

void addMap(CLI::App& app, Request& request) {
    CLI::App* const map = addVerb(app, request, "map", "Draw used and free space", runMap);
    Options& options = request.options;
    map->add_option_function<std::string>(
           "--color", [&options](std::string const& when) { options.color = colorChoice(when); },
           "auto, always or never (default: auto; NO_COLOR is honoured)")
        ->type_name("WHEN")
        ->check(CLI::Validator(checkColor, ""));
    map->add_option("--width", options.columns, "cells in a line (default: what fits the window, or an image)")
        ->type_name("N")
        ->check(CLI::Range(1, kMostCells).description(""));
    map->add_option("--height", options.lines, "lines of the picture (default: what fits the window, or an image)")
        ->type_name("N")
        ->check(CLI::Range(1, kMostCells).description(""));
    map->add_flag("--ascii", options.ascii, "draw with ASCII characters only");
    addImage(map, "--png", options.png);
    addImage(map, "--svg", options.svg);
    addUnit(map, request);
    map->footer("A file appears under its name only when it is whole.\n\nExamples:\n"
                "  fsparser map --width 64 --height 8 disk.img\n  fsparser map --png disk.png disk.img\n");
}

void addAllUsedIfRefused(CLI::App* command, Request& request) {
    command->add_flag("--all-used-if-refused", request.options.allUsedIfRefused,
                      "a volume that is recognised but refused counts as used as a whole (exit code 4)");
}

void addOutput(CLI::App* command, Request& request) {
    command->add_option("-o,--output", request.options.output, "where to: a file, or - for standard output (default)")
        ->type_name("FILE|-")
        ->check(CLI::Validator([](std::string& path) { return path.empty() ? "names no file" : ""; }, ""));
}

void addBitmap(CLI::App& app, Request& request) {
    CLI::App* const bitmap =
        addVerb(app, request, "bitmap", "Write the raw bitmap: one bit a unit, least significant bit first", runBitmap);
    addOutput(bitmap, request);
    addAllUsedIfRefused(bitmap, request);
    addUnit(bitmap, request);
    bitmap->footer("A file appears under its name only when it is whole.\n\nExamples:\n"
                   "  fsparser bitmap -o used.bin disk.img\n  fsparser bitmap disk.img | xxd | head\n");
}

void addRanges(CLI::App& app, Request& request) {
    CLI::App* const ranges =
        addVerb(app, request, "ranges", "List the used runs: first unit and count, one run a line", runRanges);
    ranges
        ->add_option("--format", request.options.format,
                     "text (default), json or csv: the used runs; bmap, ddrescue, extentlist or fallocate: what a copy "
                     "takes along, as bmaptool, ddrescue and nbdkit read it, or as a script that punches holes")
        ->type_name("NAME")
        ->check(CLI::Validator(checkFormat, ""));
    addOutput(ranges, request);
    addUnit(ranges, request);
    ranges->footer("A file appears under its name only when it is whole.\n\nExamples:\n"
                   "  fsparser ranges disk.img | awk '{ units += $2 } END { print units }'\n"
                   "  fsparser ranges --format bmap -o disk.bmap disk.img\n"
                   "  fsparser ranges --format fallocate disk.img | sh -s full-copy.img\n");
}

void addVerbs(CLI::App& app, Request& request) {
    addVerb(app, request, "detect", "Name the file system", runDetect)
        ->footer("Example:\n  fsparser detect /dev/sdb1\n");
    CLI::App* const info =
        addVerb(app, request, "info", "Summarise the volume: units, used, free, journal, what lies past the last unit",
                runInfo);
    addUnit(info, request);
    info->footer("Example:\n  fsparser info --json disk.img\n");
    addMap(app, request);
    addBitmap(app, request);
    addRanges(app, request);
}

ProgressChoice progressChoice(std::string const& when) {
    return when == "json" ? ProgressChoice::Json : when == "never" ? ProgressChoice::Never : ProgressChoice::Auto;
}

std::string checkProgress(std::string const& when) {
    bool const isKnown = when == "auto" || when == "never" || when == "json";
    return isKnown ? std::string() : "it is auto, never or json, not " + when;
}

void addCopy(CLI::App& app, Request& request) {
    Options& options = request.options;
    CLI::App* const copy =
        addVerb(app, request, "copy", "Copy the used units and what must always be kept, nothing else", runCopy);
    copy->add_option("DEST", options.destination, "a file, a block device with --to-device, or - for standard output")
        ->required();
    copy->add_flag("--force", options.force, "replace an existing file, once the copy is whole");
    copy->add_flag("--to-device", options.toDevice, "DEST is a block device, which is overwritten");
    CLI::Option* const skip =
        copy->add_flag("--skip-unreadable", options.skipUnreadable,
                       "go on where the volume cannot be read, and list the places (exit code 4)");
    copy->add_option("--rescue-map", options.rescueMap,
                     "where --skip-unreadable lists them, as a ddrescue mapfile (default: DEST.map)")
        ->type_name("FILE")
        ->needs(skip);
    copy->add_option_function<std::string>(
            "--progress", [&options](std::string const& when) { options.progress = progressChoice(when); },
            "auto, never or json, on standard error (default: auto, on a terminal)")
        ->type_name("WHEN")
        ->check(CLI::Validator(checkProgress, ""));
    addAllUsedIfRefused(copy, request);
    addUnit(copy, request);
    copy->footer("A file appears under its name only when it is whole. Free space is a hole in it.\n\nExamples:\n"
                 "  fsparser copy /dev/sdb1 disk.img\n  fsparser copy disk.img - | zstd > disk.img.zst\n"
                 "  fsparser copy --to-device disk.img /dev/sdc1\n");
}

void addCopyVerbs(CLI::App& app, Request& request) {
    addCopy(app, request);
    CLI::App* const verify =
        addVerb(app, request, "verify", "Compare what a copy must hold; free space may differ", runVerify);
    verify->add_option("IMAGE", request.options.destination, "the copy: an image file or a block device")->required();
    addAllUsedIfRefused(verify, request);
    addUnit(verify, request);
    verify->footer("Example:\n  fsparser verify /dev/sdb1 disk.img\n");
    CLI::App* const digest = addVerb(app, request, "digest", "Hash the map and the used content (SHA-256)", runDigest);
    addUnit(digest, request);
    digest->footer("Equal for a volume, its copies and what they are restored to.\n\nExample:\n"
                   "  fsparser digest disk.img\n");
}

void addPaths(CLI::App* command, Request& request) {
    Options& options = request.options;
    command->add_option("PATH", options.paths, "paths on the volume, with / or \\, with or without a drive prefix");
    command->add_option("--from", options.pathList, "read paths from a file, one a line; - for standard input")
        ->type_name("FILE|-");
    command->add_option("--cache", options.cache, "directories that the path cache keeps (default: 1000)")
        ->type_name("N")
        ->check(CLI::Validator([](std::string const& text) { return checkNumber(text, 0); }, ""));
}

void addFileVerbs(CLI::App& app, Request& request) {
    CLI::App* const stat = addVerb(app, request, "stat", "Show a file's record, times and attributes (NTFS)", runStat);
    addPaths(stat, request);
    stat->footer("Example:\n  fsparser stat disk.img /Users/guest/notes.txt\n");
    CLI::App* const extents = addVerb(app, request, "extents", "List the clusters of a file's data (NTFS)", runExtents);
    addPaths(extents, request);
    extents->footer("Example:\n  find mnt -type f -printf '/%P\\n' | fsparser extents --json disk.img --from -\n");
    CLI::App* const acl = addVerb(app, request, "acl", "List who may access a file (NTFS)", runAcl);
    addPaths(acl, request);
    acl->add_flag("--sddl", request.options.sddl, "print the lists as SDDL");
    acl->footer("Example:\n  fsparser acl --sddl disk.img 'C:\\Users'\n");
}

bool isFileVerb(Verb verb) {
    return verb == runStat || verb == runExtents || verb == runAcl;
}

void checkCopy(Options const& options) {
    if (options.destination.empty()) {
        throw CLI::ValidationError("DEST", "names no file");
    }
    if (options.toDevice && options.skipUnreadable && options.rescueMap.empty()) {
        throw CLI::ValidationError("--skip-unreadable", "needs --rescue-map FILE when DEST is a device");
    }
    if (options.destination != "-") {
        return;
    }
    if (options.json) {
        throw CLI::ValidationError("--json", "needs a DEST other than -: the copy itself goes to standard output");
    }
    if (options.toDevice) {
        throw CLI::ValidationError("--to-device", "- is standard output and no device");
    }
    if (options.skipUnreadable && options.rescueMap.empty()) {
        throw CLI::ValidationError("--skip-unreadable", "needs --rescue-map FILE when DEST is -");
    }
    if (isTerminal()) {
        throw CLI::ValidationError("DEST", "the copy is binary and standard output is a terminal; name a file");
    }
}

bool isSameFile(std::string const& path, std::string const& other) {
    std::error_code error; // a path that leads nowhere is told where it is used
    return path == other ||
           std::filesystem::weakly_canonical(path, error) == std::filesystem::weakly_canonical(other, error);
}

void checkMap(Options const& options) {
    bool const toStandardOutput = options.png == "-" || options.svg == "-";
    if (!options.png.empty() && !options.svg.empty() && isSameFile(options.png, options.svg)) {
        throw CLI::ValidationError("--svg", "needs another FILE than --png");
    }
    if (toStandardOutput && options.json) {
        throw CLI::ValidationError("--json", "needs a FILE other than -: the image itself goes to standard output");
    }
    if (options.png == "-" && isTerminal()) {
        throw CLI::ValidationError("--png", "the image is binary and standard output is a terminal; name a FILE");
    }
}

/// Contradictions that no single option can see.
void checkTogether(Request const& request) {
    if (request.verb == runCopy) {
        checkCopy(request.options);
    }
    if (request.verb == runMap) {
        checkMap(request.options);
    }
    if (isFileVerb(request.verb) && request.options.paths.empty() && request.options.pathList.empty()) {
        throw CLI::ValidationError("PATH", "name at least one path, or --from FILE");
    }
    if (request.verb == runRanges && request.options.json && !request.options.format.empty() &&
        request.options.format != "json") {
        throw CLI::ValidationError("--json", "is --format json, and not --format " + request.options.format);
    }
    if (request.verb != runBitmap || request.options.output != "-") {
        return;
    }
    if (request.options.json) {
        throw CLI::ValidationError("--json", "needs -o FILE: the bitmap itself goes to standard output");
    }
    if (isTerminal()) {
        throw CLI::ValidationError("-o", "the bitmap is binary and standard output is a terminal; name a FILE");
    }
}

ExitCode exitCodeOf(imaging::Trouble trouble) {
    switch (trouble) {
    case imaging::Trouble::Io:
        return kFailure;
    case imaging::Trouble::Unending:
        return kInconsistent;
    case imaging::Trouble::NotUnderstood:
        break;
    }
    return kNotUnderstood;
}

ExitCode execute(Request const& request) {
    Console console(request.verbosity());
    try {
        catchInterrupt();
        ExitCode const code = request.verb(request.options, console);
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
            console.error(std::string("standard output: cannot be written: ") + std::strerror(errno));
            return kFailure;
        }
        return code;
    } catch (imaging::VolumeError const& error) {
        console.error(error.what());
        return exitCodeOf(error.trouble());
    } catch (Interrupted const&) {
        console.error("interrupted");
        return kInterrupted;
    } catch (std::bad_alloc const&) {
        console.error(request.options.volume + ": there is not enough memory for what its header asks for");
        return kFailure;
    } catch (std::system_error const& error) { // only printing throws it
        console.error("standard output: cannot be written: " + error.code().message());
        return kFailure;
    } catch (std::exception const& error) {
        console.error(request.options.volume + ": " + error.what());
        return kFailure;
    }
}

/// "A subcommand is required" helps nobody who mistyped one.
bool isUnknownVerb(CLI::App const& app, CLI::ParseError const& error, int argc, char** argv) {
    return dynamic_cast<CLI::RequiredError const*>(&error) != nullptr && app.get_subcommands().empty() && argc > 1 &&
           argv[1][0] != '-';
}

int run(int argc, char** argv) {
    CLI::App app(kDescription, "fsparser");
    Request request;
    app.footer(kFooter);
    app.set_version_flag("--version", "fsparser " FSPARSER_VERSION);
    app.require_subcommand(1);
    addVerbs(app, request);
    addCopyVerbs(app, request);
    addFileVerbs(app, request);
    try {
        app.parse(argc, argv);
        checkTogether(request);
    } catch (CLI::ParseError const& error) {
        if (isUnknownVerb(app, error, argc, argv)) {
            Console(Verbosity::Normal).error(std::string(argv[1]) + " is not a verb; fsparser --help lists them");
            return kUsage;
        }
        if (app.exit(error) != 0) {
            return kUsage;
        }
        return std::cout.flush() ? kOk : kFailure; // --help and --version
    }
    return execute(request);
}

} // namespace

} // namespace cli

int main(int argc, char** argv) {
    try {
        return cli::run(argc, argv);
    } catch (...) { // only setting up the command line can get here
        std::fputs("fsparser: internal error\n", stderr);
        return cli::kFailure;
    }
}
