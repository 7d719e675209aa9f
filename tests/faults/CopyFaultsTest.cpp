// Copies, comparisons and digests while a system call on the volume goes wrong: an error and no file, or what is right.
#include "CopyBench.h"
#include "FailingAllocation.h"
#include "VolumeCalls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>

namespace {

using namespace tests;
using testing::ElementsAre;
using testing::StartsWith;

std::string callFaultName(CallFault fault) {
    static std::map<CallFault, std::string> const names{{CallFault::SeekFails, "SeekFails"},
                                                        {CallFault::ReadFails, "ReadFails"},
                                                        {CallFault::EveryReadFails, "EveryReadFails"},
                                                        {CallFault::ReadShort, "ReadShort"},
                                                        {CallFault::OtherBytes, "OtherBytes"}};
    return names.at(fault);
}

class CopyUnchanged : public testing::TestWithParam<std::string> {
protected:
    CopyBench const bench{copyVolume(GetParam())};
};

TEST_P(CopyUnchanged, VolumeIsCopiedRightlyAndWithoutItsFreeSpace) {
    TaskEnd const end = bench.copy();
    EXPECT_EQ(end.error, "");
    EXPECT_THAT(end.warnings, testing::IsEmpty());
    EXPECT_EQ(bench.lostUnit(), std::nullopt);
    EXPECT_FALSE(readFile(bench.copyPath) == bench.volume().bytes) << "free space is full of bytes and left out";
    EXPECT_TRUE(bench.verify(bench.copyPath).isEqual);
}

INSTANTIATE_TEST_SUITE_P(Volumes, CopyUnchanged, testing::ValuesIn(copyVolumeNames()),
                         [](auto const& instance) { return instance.param; });

class CopyFaults : public testing::TestWithParam<std::tuple<std::string, CallFault>> {
protected:
    /// Runs a task with each call going wrong in its turn, until none does; how many there are.
    template <typename Task, typename Check>
    unsigned forEach(Task const& task, Check const& check) const {
        for (unsigned n = 0;; ++n) {
            SCOPED_TRACE("call " + std::to_string(n));
            TaskEnd end;
            bool fired = false;
            {
                VolumeCalls const calls(bench.path, fault, n);
                end = task();
                fired = calls.fired();
            }
            EXPECT_TRUE(end.error.empty() || end.error.starts_with(bench.path + ": ")) << end.error;
            check(end);
            if (!fired) {
                EXPECT_EQ(end.error, "");
                return n;
            }
        }
    }

    CopyBench const bench{copyVolume(std::get<0>(GetParam()))};
    CallFault const fault = std::get<1>(GetParam());
};

TEST_P(CopyFaults, LeaveNoFileOrARightOne) {
    unsigned const calls = forEach([&] { return bench.copy(); },
                                   [&](TaskEnd const& end) {
                                       EXPECT_EQ(bench.hasCopy(), end.error.empty());
                                       if (bench.hasCopy()) {
                                           EXPECT_EQ(bench.lostUnit(), std::nullopt);
                                       }
                                       bench.removeCopy();
                                       EXPECT_THAT(namesIn(bench.directory), ElementsAre("volume"));
                                   });
    EXPECT_GE(calls, 2U);
}

TEST_P(CopyFaults, MakeNoVerdictOfAComparison) {
    ASSERT_EQ(bench.copy().error, "");
    forEach([&] { return bench.verify(bench.copyPath); },
            [](TaskEnd const& end) { EXPECT_EQ(end.isEqual, end.error.empty()); });
    std::string const wrong = bench.writeWrongCopy();
    forEach([&] { return bench.verify(wrong); }, [](TaskEnd const& end) { EXPECT_FALSE(end.isEqual); });
}

TEST_P(CopyFaults, GiveNoDigestOrTheRightOne) {
    std::string const right = bench.digest().digest;
    ASSERT_EQ(right.size(), 64U);
    forEach([&] { return bench.digest(); },
            [&](TaskEnd const& end) { EXPECT_EQ(end.digest, end.error.empty() ? right : ""); });
}

INSTANTIATE_TEST_SUITE_P(Volumes, CopyFaults,
                         testing::Combine(testing::ValuesIn(smallCopyVolumeNames()),
                                          testing::Values(CallFault::SeekFails, CallFault::ReadFails,
                                                          CallFault::EveryReadFails, CallFault::ReadShort)),
                         [](auto const& instance) {
                             return std::get<0>(instance.param) + callFaultName(std::get<1>(instance.param));
                         });

class CopyWithoutMemory : public testing::TestWithParam<std::string> {
protected:
    /// Runs a task with each allocation failing in its turn.
    template <typename Task, typename Check>
    void forEach(Task const& task, Check const& check) const {
        for (std::size_t n = 0;; ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            TaskEnd end;
            bool fired = false;
            {
                FailingAllocation const failing(n);
                try {
                    end = task();
                } catch (std::bad_alloc const&) {
                    end = {};
                    fired = true;
                }
                fired = fired || failing.fired();
                if (fired && end.isSure() && end.digest.empty() && !end.isEqual) {
                    end.error = "bad_alloc"; // short enough for no allocation of its own
                }
            }
            check(end);
            if (!fired) {
                EXPECT_EQ(end.error, "");
                return;
            }
        }
    }

    CopyBench const bench{copyVolume(GetParam())};
};

TEST_P(CopyWithoutMemory, LeavesNoFileOrARightOne) {
    forEach([&] { return bench.copy(); },
            [&](TaskEnd const& end) {
                if (bench.hasCopy()) {
                    EXPECT_EQ(bench.lostUnit(), std::nullopt);
                } else {
                    EXPECT_NE(end.error, "");
                }
                bench.removeCopy();
                EXPECT_THAT(namesIn(bench.directory), ElementsAre("volume"));
            });
}

TEST_P(CopyWithoutMemory, GivesNoDigestOrTheRightOne) {
    std::string const right = bench.digest().digest;
    forEach([&] { return bench.digest(); },
            [&](TaskEnd const& end) { EXPECT_EQ(end.digest, end.error.empty() ? right : ""); });
}

TEST_P(CopyWithoutMemory, GivesNoVerdictOrTheRightOne) {
    ASSERT_EQ(bench.copy().error, "");
    forEach([&] { return bench.verify(bench.copyPath); },
            [&](TaskEnd const& end) { EXPECT_EQ(end.isEqual, end.error.empty()); });
}

INSTANTIATE_TEST_SUITE_P(Volumes, CopyWithoutMemory, testing::ValuesIn(smallCopyVolumeNames()),
                         [](auto const& instance) { return instance.param; });

} // namespace
