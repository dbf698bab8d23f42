// Runs a fuzz target's entry point once on every file of the directories
// given, in name order: in the regular suite the seeds and every crash input
// kept in the corpus are regression tests, under that build's sanitizers and
// on every architecture it runs on.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i)
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            if (entry.is_regular_file()) inputs.push_back(entry.path());
    std::sort(inputs.begin(), inputs.end());
    for (const auto& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::printf("%s\n", path.filename().c_str());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
