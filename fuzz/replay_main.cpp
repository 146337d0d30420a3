// Without libFuzzer: runs the target once on every file named on the command
// line (a directory: every file in it), so the oracles inside the targets
// guard every build on their seeds. Fails when nothing was run.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code error;
        if (!fs::is_directory(argv[i], error)) {
            inputs.emplace_back(argv[i]);
            continue;
        }
        for (fs::directory_iterator it(argv[i], error), end; !error && it != end; it.increment(error))
            inputs.push_back(it->path());
    }
    std::sort(inputs.begin(), inputs.end());
    std::size_t runs = 0;
    for (const fs::path& path : inputs) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 1;
        }
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++runs;
    }
    std::printf("%zu inputs replayed\n", runs);
    return runs == 0 ? 1 : 0;
}
