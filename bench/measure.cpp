// Runs a command and writes what it cost: measure RESULT COMMAND [ARGUMENT...]
//
// A small program of its own, since the largest resident size of a process counts from before its exec: a large parent
// would show in it.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

long long microseconds(timeval const& time) {
    return static_cast<long long>(time.tv_sec) * 1'000'000 + time.tv_usec;
}

/// One line: user, system and wall time in microseconds, largest resident size in KiB, exit code (128 + signal).
bool writeResult(char const* path, rusage const& usage, long long wall, int status) {
    std::FILE* const file = std::fopen(path, "w");
    if (file == nullptr) {
        return false;
    }
    int const code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::fprintf(file, "%lld %lld %lld %ld %d\n", microseconds(usage.ru_utime), microseconds(usage.ru_stime), wall,
                 usage.ru_maxrss, code);
    return std::fclose(file) == 0;
}

} // namespace

int main(int count, char** arguments) {
    if (count < 3) {
        std::fputs("usage: measure RESULT COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    auto const begin = std::chrono::steady_clock::now();
    pid_t const child = ::fork();
    if (child == 0) {
        ::execvp(arguments[2], arguments + 2);
        std::fprintf(stderr, "measure: %s: %s\n", arguments[2], std::strerror(errno));
        ::_exit(127);
    }
    int status = 0;
    rusage usage{};
    if (child == -1 || ::wait4(child, &status, 0, &usage) != child) {
        std::perror("measure");
        return 1;
    }
    std::chrono::duration<double, std::micro> const wall = std::chrono::steady_clock::now() - begin;
    return writeResult(arguments[1], usage, static_cast<long long>(wall.count()), status) ? 0 : 1;
}
