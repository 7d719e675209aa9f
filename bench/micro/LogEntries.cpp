// A log entry while its level is off, and while it is on.
#include "agent/info/Logger.h"

#include <benchmark/benchmark.h>

namespace {

using agent::info::Level;
using agent::info::Logger;

/// Drops what it takes.
class DroppingLogger : public Logger {
public:
    explicit DroppingLogger(bool isOn) : isOn_(isOn) {}

    bool isEnabled(Level) const override { return isOn_; }
    void write(Level, std::string const& text) override { benchmark::DoNotOptimize(text.data()); }

private:
    bool isOn_;
};

void logEntry(benchmark::State& state) {
    DroppingLogger logger(state.range(0) != 0);
    unsigned long inode = 5;
    for ([[maybe_unused]] auto const& pass : state) {
        benchmark::DoNotOptimize(inode);
        Logger::Entry(logger, Level::Debug) << "Reading $MFT for inode " << inode << " at offset " << inode * 1024;
    }
}
BENCHMARK(logEntry)->ArgName("on")->Arg(0)->Arg(1);

} // namespace
