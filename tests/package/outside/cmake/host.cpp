// A host that loads a guest, lets it work and unloads it, over and over.
//
//     host GUEST VOLUMES ROUNDS
//
// VOLUMES is the beginning of the volumes' names, which the guest completes. Prints what the guest answered, whether
// the libraries were there meanwhile, and what the process holds before and after.
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <malloc.h>
#include <string>
#include <unistd.h>

namespace {

using Visit = long (*)(char const*);

long linesOfMaps(std::string const& word) {
    std::ifstream maps("/proc/self/maps");
    long lines = 0;
    for (std::string line; std::getline(maps, line);) {
        lines += line.find(word) == std::string::npos ? 0 : 1;
    }
    return lines;
}

long residentPages() {
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return resident;
}

void report(std::string const& when) {
    auto const descriptors = std::filesystem::directory_iterator("/proc/self/fd");
    std::cout << when << "_descriptors " << std::distance(begin(descriptors), end(descriptors)) << '\n'
              << when << "_mappings " << linesOfMaps("") << '\n'
              << when << "_heap " << ::mallinfo2().uordblks << '\n'
              << when << "_mapped_heap " << ::mallinfo2().hblkhd << '\n'
              << when << "_resident " << residentPages() * ::sysconf(_SC_PAGESIZE) << '\n'
              << when << "_libraries " << linesOfMaps("libfsparser.so") + linesOfMaps("libmortar.so") << '\n';
}

/// Loads, visits and unloads; the guest's answer.
long visitOnce(char const* guest, char const* volume) {
    void* const library = ::dlopen(guest, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::cerr << ::dlerror() << '\n';
        std::exit(1);
    }
    auto const visit = reinterpret_cast<Visit>(::dlsym(library, "visit"));
    long const answer = visit(volume);
    if (linesOfMaps("libfsparser.so") == 0 || linesOfMaps("libmortar.so") == 0) {
        std::cerr << "the guest works without the libraries\n";
        std::exit(1);
    }
    ::dlclose(library);
    return answer;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 4) {
        return 2;
    }
    constexpr int kRoundsToWarmUp = 5;
    long answer = 0;
    for (int round = 0; round < kRoundsToWarmUp; ++round) {
        answer = visitOnce(arguments[1], arguments[2]);
    }
    std::cout << "answer " << answer << '\n';
    report("before");
    for (int round = 0; round < std::atoi(arguments[3]); ++round) {
        if (visitOnce(arguments[1], arguments[2]) != answer) {
            std::cerr << "another answer\n";
            return 1;
        }
    }
    report("after");
    return 0;
}
