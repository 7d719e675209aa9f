// A moving line, or JSON lines.
#include "cli/Progress.h"

#include "cli/Summary.h"
#include "cli/Terminal.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <unistd.h>

namespace cli {

namespace {

constexpr std::chrono::milliseconds kInterval{200};

constexpr std::size_t kBarCharacters = 24;

/// Takes the line away, up to its end.
constexpr char const* kClearLine = "\r\x1b[K";

std::string clockText(double seconds) {
    auto const whole = static_cast<std::uint64_t>(std::min(seconds, 359999.0));
    return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                        : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

std::string bar(double share) {
    auto const full = static_cast<std::size_t>(share * static_cast<double>(kBarCharacters));
    return std::string(full, '#') + std::string(kBarCharacters - std::min(full, kBarCharacters), '.');
}

} // namespace

Progress::Progress(ProgressChoice choice)
    : isShown_(choice == ProgressChoice::Json || (choice == ProgressChoice::Auto && ::isatty(STDERR_FILENO) == 1)),
      isJson_(choice == ProgressChoice::Json), begin_(Clock::now()), told_(begin_) {}

Progress::~Progress() {
    if (isShown_ && !isJson_) {
        std::fputs(kClearLine, stderr);
    }
}

void Progress::begin(std::uint64_t total) {
    total_ = total;
    begin_ = Clock::now();
    told_ = begin_;
}

void Progress::update(std::uint64_t done, std::uint64_t offset) {
    done_ = done;
    offset_ = offset;
    if (isShown_ && Clock::now() - told_ >= kInterval) {
        tell();
        told_ = Clock::now();
    }
}

void Progress::end() {
    if (isShown_) {
        tell();
    }
}

void Progress::tell() const {
    double const seconds = std::chrono::duration<double>(Clock::now() - begin_).count();
    double const rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
    if (!isJson_) {
        tellLine(seconds, rate);
        return;
    }
    Json line;
    line["event"] = "progress";
    line["done"] = done_;
    line["total"] = total_;
    line["offset"] = offset_;
    line["bytes_per_second"] = static_cast<std::uint64_t>(rate);
    line["seconds"] = seconds;
    std::fputs((dumpDocument(line) + "\n").c_str(), stderr);
}

void Progress::tellLine(double seconds, double rate) const {
    double const share = total_ == 0 ? 1 : std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_));
    double const left = rate > 0 ? static_cast<double>(total_ - std::min(total_, done_)) / rate : 0;
    std::string line = fmt::format("[{}] {:3.0f} %  {} of {}  {}/s  {} left, {} gone  at {}", bar(share), share * 100,
                                   humanSize(done_), humanSize(total_), humanSize(static_cast<std::uint64_t>(rate)),
                                   clockText(left), clockText(seconds), offset_);
    line.resize(std::min(line.size(), windowSize().columns - 1));
    std::fputs((kClearLine + line).c_str(), stderr);
}

} // namespace cli
