// The command `fsparser`: arguments in, exit code out.
#include "cli/Commands.h"
#include "cli/Interrupt.h"
#include "imaging/Error.h"

#include <CLI/CLI.hpp>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
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

std::string checkUnit(std::string const& text) {
    std::uint64_t unit = 0;
    bool const isNumber = CLI::detail::lexical_cast(text, unit);
    if (!isNumber || unit == 0 || unit % kSectorBytes != 0 || unit > kLargestUnit) {
        return "a unit is a multiple of 512 up to 1073741824, not " + text;
    }
    return {};
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

void addMap(CLI::App& app, Request& request) {
    CLI::App* const map = addVerb(app, request, "map", "Draw used and free space", runMap);
    Options& options = request.options;
    map->add_option_function<std::string>(
           "--color", [&options](std::string const& when) { options.color = colorChoice(when); },
           "auto, always or never (default: auto; NO_COLOR is honoured)")
        ->type_name("WHEN")
        ->check(CLI::Validator(checkColor, ""));
    map->add_option("--width", options.columns, "cells in a line (default: the window's)")
        ->type_name("N")
        ->check(CLI::Range(1, kMostCells).description(""));
    map->add_option("--height", options.lines, "lines of the picture (default: the window's)")
        ->type_name("N")
        ->check(CLI::Range(1, kMostCells).description(""));
    map->add_flag("--ascii", options.ascii, "draw with ASCII characters only");
    addUnit(map, request);
    map->footer("Example:\n  fsparser map --width 64 --height 8 disk.img\n");
}

void addAllUsedIfRefused(CLI::App* command, Request& request) {
    command->add_flag("--all-used-if-refused", request.options.allUsedIfRefused,
                      "a volume that is recognised but refused counts as used as a whole (exit code 4)");
}

void addBitmap(CLI::App& app, Request& request) {
    CLI::App* const bitmap =
        addVerb(app, request, "bitmap", "Write the raw bitmap: one bit a unit, least significant bit first", runBitmap);
    bitmap->add_option("-o,--output", request.options.output, "where to: a file, or - for standard output (default)")
        ->type_name("FILE|-")
        ->check(CLI::Validator([](std::string& path) { return path.empty() ? "names no file" : ""; }, ""));
    addAllUsedIfRefused(bitmap, request);
    addUnit(bitmap, request);
    bitmap->footer("A file appears under its name only when it is whole.\n\nExamples:\n"
                   "  fsparser bitmap -o used.bin disk.img\n  fsparser bitmap disk.img | xxd | head\n");
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
    CLI::App* const ranges =
        addVerb(app, request, "ranges", "List the used runs: first unit and count, one run a line", runRanges);
    addUnit(ranges, request);
    ranges->footer("Example:\n  fsparser ranges disk.img | awk '{ units += $2 } END { print units }'\n");
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
        ->type_name("N");
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

/// Contradictions that no single option can see.
void checkTogether(Request const& request) {
    if (request.verb == runCopy) {
        checkCopy(request.options);
    }
    if (isFileVerb(request.verb) && request.options.paths.empty() && request.options.pathList.empty()) {
        throw CLI::ValidationError("PATH", "name at least one path, or --from FILE");
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
        return error.trouble() == imaging::Trouble::Io ? kFailure : kNotUnderstood;
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
