// Runs a fuzz target over every input of its corpus, without libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputsIn(std::filesystem::path const& folder) {
    std::vector<std::filesystem::path> inputs;
    std::error_code error;
    for (auto const& entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.is_regular_file()) {
            inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS\n", argv[0]);
        return 2;
    }
    auto const inputs = inputsIn(argv[1]);
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs in %s\n", argv[1]);
        return 1;
    }
    for (auto const& input : inputs) {
        std::ifstream file(input, std::ios::binary);
        std::vector<char> const bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (file.bad()) {
            std::fprintf(stderr, "cannot read %s\n", input.c_str());
            return 1;
        }
        std::printf("%s\n", input.filename().c_str()); // the last one that is named is the one that broke it
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs\n", inputs.size());
    return 0;
}
