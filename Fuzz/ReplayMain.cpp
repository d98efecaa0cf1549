// Replays, without libFuzzer, the files named or found in the directories named: a test of every build.

#include "FuzzCheck.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
// Optional in a fuzz target, as with libFuzzer.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    notificationdb::fuzz::replaying = true;
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) inputs.emplace_back(argv[i]);
        std::error_code notADirectory;  // then the loop has nothing to do
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], notADirectory))
            if (entry.is_regular_file()) inputs.push_back(entry.path());
    }
    std::ranges::sort(inputs);
    for (const auto& input : inputs) {
        std::ifstream file(input, std::ios::binary);
        FUZZ_CHECK(file.good(), "cannot read " + input.string());
        const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        std::printf("%s\n", input.filename().c_str());
        notificationdb::fuzz::replayedName = input.filename().string();
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    // No inputs means a wrong path, not a passing corpus.
    return inputs.empty() ? 1 : 0;
}
