// The libraries are guests in someone else's process: they print nothing, change nothing of the process, keep nothing,
// and get along with small stacks, foreign locales and other threads.
#include "GuestCalls.h"
#include "support/Sanitized.h"

#include "agent/core/backup/VolumeReader.h"
#include "support/RecordingLogger.h"
#include "support/TempDirectory.h"
#include "support/VolumeFiles.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cfenv>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <locale>
#include <pthread.h>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace tests;

using Lines = std::vector<std::string>;

std::string hexadecimal(void const* bytes, std::size_t size) {
    constexpr char const* kDigits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        unsigned const byte = static_cast<unsigned char const*>(bytes)[i];
        text += {kDigits[byte / 16], kDigits[byte % 16]};
    }
    return text;
}

void addSignals(Lines& lines) {
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) == 0) {
            lines.push_back("handler of signal " + std::to_string(signal) + ' ' +
                            hexadecimal(&action.sa_sigaction, sizeof action.sa_sigaction) + " flags " +
                            std::to_string(action.sa_flags));
        }
    }
    sigset_t mask{};
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        if (::sigismember(&mask, signal) == 1) {
            lines.push_back("blocked signal " + std::to_string(signal));
        }
    }
}

/// The names in a directory of /proc, in order.
void addNames(Lines& lines, std::string const& directory) {
    Lines names;
    for (auto const& entry : std::filesystem::directory_iterator(directory)) {
        std::error_code gone; // the descriptor that lists the directory itself
        names.push_back(entry.path().string() + " -> " + std::filesystem::read_symlink(entry.path(), gone).string());
    }
    std::sort(names.begin(), names.end());
    lines.insert(lines.end(), names.begin(), names.end());
}

/// What a guest could leave changed in the process and in the calling thread.
Lines stateOfTheProcess() {
    Lines lines;
    addSignals(lines);
    addNames(lines, "/proc/self/fd");
    addNames(lines, "/proc/self/task");
    for (char** variable = environ; *variable != nullptr; ++variable) {
        lines.push_back(*variable);
    }
    std::fenv_t arithmetic{};
    std::fegetenv(&arithmetic);
    lines.push_back("arithmetic " + hexadecimal(&arithmetic, sizeof arithmetic));
    lines.push_back("locale " + std::string(std::setlocale(LC_ALL, nullptr)) + " and " + std::locale().name());
    lines.push_back("directory " + std::filesystem::current_path().string());
    mode_t const mask = ::umask(0);
    ::umask(mask);
    lines.push_back("mask of new files " + std::to_string(mask));
    stack_t signalStack{};
    ::sigaltstack(nullptr, &signalStack);
    lines.push_back("stack of signals " + hexadecimal(&signalStack.ss_sp, sizeof signalStack.ss_sp));
    return lines;
}

std::string answerOf(std::string const& name) {
    auto const& calls = guestCalls();
    auto const call =
        std::find_if(calls.begin(), calls.end(), [&name](GuestCall const& one) { return one.name == name; });
    return call == calls.end() ? "no such call" : transcriptOf(*call).front();
}

TEST(GuestCalls, GoodVolumesAndTheDeepestTreesAreReadToTheirEnd) {
    EXPECT_TRUE(answerOf("ExtGood").ends_with(" 0")) << answerOf("ExtGood");
    EXPECT_TRUE(answerOf("FatGood").starts_with("125000 "));
    EXPECT_TRUE(answerOf("HfsFragmented").starts_with("most significant first 2048:"));
    EXPECT_TRUE(answerOf("HfsAThousandLevels").starts_with("most significant first 2048:"));
    EXPECT_TRUE(answerOf("XfsSixtyFourLevels").starts_with("least significant first 1300:"));
    EXPECT_TRUE(answerOf("XfsThreeHundredLevels").starts_with("least significant first -1"));
    EXPECT_NE(answerOf("NtfsTwoHundredLevels").find("; 24; 122+3 126+2 ; 256; S-1-5-18 S-1-1-0 ;"), std::string::npos)
        << answerOf("NtfsTwoHundredLevels");
    EXPECT_NE(answerOf("NtfsListsInAChain").find("140+1 141+1 142+1"), std::string::npos);
    EXPECT_NE(answerOf("NtfsBlocksInACircle").find("Unable to read INDEX ENTRY"), std::string::npos);
}

/// Looks at every visit. The volumes take a while to make, so all are looked at in one process.
template <typename Look>
void forEachCall(Look const& look) {
    for (GuestCall const& call : guestCalls()) {
        SCOPED_TRACE(call.name);
        look(call);
    }
}

TEST(Manners, NothingIsPrinted) {
    forEachCall([](GuestCall const& call) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        Lines const transcript = transcriptOf(call);
        ::fflush(nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_FALSE(transcript.empty());
    });
}

TEST(Manners, TheProcessStaysAsItWas) {
    forEachCall([](GuestCall const& call) {
        transcriptOf(call); // what the test itself sets up at first
        Lines const before = stateOfTheProcess();
        transcriptOf(call);
        EXPECT_EQ(stateOfTheProcess(), before);
    });
}

TEST(Manners, OnlyDocumentedExceptionsLeave) {
    forEachCall([](GuestCall const& call) {
        std::string const answer = transcriptOf(call).front();
        EXPECT_EQ(answer.find("undocumented"), std::string::npos) << answer;
    });
}

TEST(Manners, TheErrorNumberOfTheHostStays) {
    forEachCall([](GuestCall const& call) {
        if (call.opensFiles) {
            return; // its system calls fail on purpose
        }
        constexpr int kOfTheHost = 4242;
        errno = kOfTheHost;
        transcriptOf(call);
        EXPECT_EQ(errno, kOfTheHost);
    });
}

TEST(Manners, TheSameVisitGivesTheSameAnswers) {
    forEachCall([](GuestCall const& call) {
        Lines const first = transcriptOf(call);
        for (GuestCall const& other : {guestCalls().front(), guestCalls().back()}) {
            transcriptOf(other); // whatever was asked in between
        }
        EXPECT_EQ(transcriptOf(call), first);
    });
}

/// Numbers as a host may want to show them to people.
class GroupedNumbers : public std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

/// A host's own locale, for the C library and for streams, as long as it lives.
class ForeignLocale {
public:
    ForeignLocale() : previous_(std::locale::global(std::locale(std::locale(), new GroupedNumbers))) {
        cLocale_ = std::setlocale(LC_ALL, nullptr);
        for (char const* const name : {"tr_TR.UTF-8", "de_DE.UTF-8", "C.UTF-8"}) { // the first that is installed
            if (std::setlocale(LC_ALL, name) != nullptr) {
                break;
            }
        }
        std::setlocale(LC_MESSAGES, "C"); // the system's own texts follow it, and are to
    }
    ForeignLocale(ForeignLocale const&) = delete;
    ForeignLocale& operator=(ForeignLocale const&) = delete;
    ~ForeignLocale() {
        std::setlocale(LC_ALL, cLocale_.c_str());
        std::locale::global(previous_);
    }

private:
    std::locale previous_;
    std::string cLocale_;
};

TEST(Manners, TextsAreTheSameInAForeignLocale) {
    forEachCall([](GuestCall const& call) {
        Lines const plain = transcriptOf(call);
        Lines before;
        Lines after;
        Lines foreign;
        {
            ForeignLocale const locale;
            std::ostringstream number;
            number << 1234567;
            ASSERT_EQ(number.str(), "1.234.567") << "the locale does what it is here for";
            before = stateOfTheProcess();
            foreign = transcriptOf(call);
            after = stateOfTheProcess();
        }
        EXPECT_EQ(foreign, plain);
        EXPECT_EQ(after, before) << "nor is it set back";
    });
}

TEST(Manners, ArithmeticOfTheHostStaysAndChangesNothing) {
    forEachCall([](GuestCall const& call) {
        Lines const plain = transcriptOf(call);
        std::fenv_t usual{};
        std::fegetenv(&usual);
        std::fesetround(FE_UPWARD);
        Lines const upward = transcriptOf(call);
        int const rounding = std::fegetround();
        std::fesetenv(&usual);
        EXPECT_EQ(rounding, FE_UPWARD);
        EXPECT_EQ(upward, plain);
    });
}

TEST(MannersOfThreads, TwoOfThemGetTheAnswersThatOneGets) {
    std::vector<Lines> alone;
    for (GuestCall const& call : guestCalls()) {
        alone.push_back(transcriptOf(call));
    }
    auto const visitAll = [](std::vector<Lines>& transcripts, std::size_t first) {
        std::size_t const count = guestCalls().size();
        transcripts.resize(count);
        for (std::size_t i = 0; i < count; ++i) {
            std::size_t const call = (first + i) % count;
            transcripts[call] = transcriptOf(guestCalls()[call]);
        }
    };
    for (int round = 0; round < 3; ++round) {
        std::array<std::vector<Lines>, 2> together;
        std::thread left(visitAll, std::ref(together[0]), 0);
        std::thread right(visitAll, std::ref(together[1]), guestCalls().size() / 2 * (round == 0 ? 0 : 1));
        left.join();
        right.join();
        EXPECT_EQ(together[0], alone);
        EXPECT_EQ(together[1], alone);
    }
}

/// What threads of services have, and the guard page that is taken from it.
constexpr std::size_t kSmallStack = std::size_t{128} << 10;
constexpr std::size_t kGuard = 4096;

/// Runs something in a thread of its own.
void runInThread(pthread_attr_t const& attributes, std::function<void()> work) {
    auto const enter = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(::pthread_create(&thread, &attributes, enter, &work), 0);
    ASSERT_EQ(::pthread_join(thread, nullptr), 0);
}

/// The bytes of stack that something uses, what the system keeps there for each thread included.
std::size_t stackUsedBy(std::function<void()> const& work) {
    constexpr std::size_t kRoom = std::size_t{1} << 20;
    constexpr int kPaint = 0xA5;
    void* const stack = ::mmap(nullptr, kRoom, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED) {
        ADD_FAILURE() << "no memory for a stack";
        return 0;
    }
    std::memset(stack, kPaint, kRoom);
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstack(&attributes, stack, kRoom);
    runInThread(attributes, work);
    ::pthread_attr_destroy(&attributes);
    auto const* const bytes = static_cast<unsigned char const*>(stack);
    std::size_t const untouched = static_cast<std::size_t>(
        std::find_if(bytes, bytes + kRoom, [](unsigned char byte) { return byte != kPaint; }) - bytes);
    ::munmap(stack, kRoom);
    return kRoom - untouched;
}

TEST(SmallStack, IsEnough) {
    forEachCall([](GuestCall const& call) {
        if (kIsSanitized) {
            GTEST_SKIP() << "the sanitizer makes frames larger than they are";
        }
        Lines const expected = transcriptOf(call);
        Lines transcript;
        auto const visit = [&] { transcript = transcriptOf(call); };
        std::size_t const used = stackUsedBy(visit);
        RecordProperty("stack", static_cast<int>(used));
        ASSERT_LT(used, kSmallStack - kGuard);
        EXPECT_GT(used, 1000U) << "the measure sees something";
        transcript.clear();
        pthread_attr_t attributes;
        ASSERT_EQ(::pthread_attr_init(&attributes), 0);
        ASSERT_EQ(::pthread_attr_setstacksize(&attributes, kSmallStack), 0);
        runInThread(attributes, visit);
        ::pthread_attr_destroy(&attributes);
        EXPECT_EQ(transcript, expected);
    });
}

TEST(MannersOfTheVolumeReader, ADescriptorOfTheHostOnTheSameFileIsLeftAlone) {
    TempDirectory const directory;
    std::string const path = directory.file("volume");
    writePatternFile(path, 16384);
    int const own = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(own, -1);
    ASSERT_EQ(::lseek(own, 1234, SEEK_SET), 1234);
    int const flags = ::fcntl(own, F_GETFL);
    {
        RecordingLogger logger;
        agent::core::backup::VolumeReader reader(logger, path);
        ASSERT_TRUE(reader.open());
        EXPECT_NE(reader.getHandle(), own);
        AlignedBytes buffer(8192);
        EXPECT_EQ(reader.seek(4096, SEEK_SET), 4096);
        EXPECT_EQ(reader.read(buffer.data(), 8192), 8192);
        EXPECT_EQ(::lseek(own, 0, SEEK_CUR), 1234);
        EXPECT_EQ(::fcntl(own, F_GETFL), flags);
    }
    EXPECT_EQ(::lseek(own, 0, SEEK_CUR), 1234);
    ::close(own);
}

TEST(MannersOfTheVolumeReader, TheErrorNumberOfTheHostStaysWhenNothingFails) {
    TempDirectory const directory;
    std::string const path = directory.file("volume");
    writePatternFile(path, 16384);
    if (!allowsDirect(path)) {
        GTEST_SKIP() << "the temporary directory's file system refuses direct I/O";
    }
    RecordingLogger logger;
    AlignedBytes buffer(8192);
    constexpr int kOfTheHost = 4242;
    errno = kOfTheHost;
    {
        agent::core::backup::VolumeReader reader(logger, path);
        EXPECT_TRUE(reader.open());
        EXPECT_EQ(reader.seek(4096, SEEK_SET), 4096);
        EXPECT_EQ(reader.read(buffer.data(), 8192), 8192);
    }
    EXPECT_EQ(errno, kOfTheHost);
}

TEST(MannersOfTheVolumeReader, TheErrorNumberOfTheHostStaysWhereDirectReadingIsRefused) {
    constexpr char const* kPlain = "/sys/kernel/notes";
    if (::access(kPlain, R_OK) != 0 || allowsDirect(kPlain)) {
        GTEST_SKIP() << kPlain << " is not there, or takes direct I/O";
    }
    RecordingLogger logger;
    constexpr int kOfTheHost = 4242;
    errno = kOfTheHost;
    {
        agent::core::backup::VolumeReader reader(logger, kPlain);
        EXPECT_TRUE(reader.open());
    }
    EXPECT_EQ(errno, kOfTheHost) << "the refused attempt is no error";
}

} // namespace
