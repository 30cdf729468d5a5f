// Replays fuzz inputs through a target's entry function without libFuzzer, so that a plain build
// runs every seed and every finding kept in the corpus as a regression test. Arguments are
// directories (every regular file in them, sorted) or files. A broken invariant aborts, as it
// does under libFuzzer; the file being read is named first so that the failure says which one.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code error;
        if (fs::is_directory(argv[i], error)) {
            std::vector<fs::path> files;
            for (const auto& entry : fs::directory_iterator(argv[i]))
                if (entry.is_regular_file()) files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else if (fs::is_regular_file(argv[i], error)) {
            inputs.emplace_back(argv[i]);
        } else {
            std::fprintf(stderr, "replay: no such file or directory: %s\n", argv[i]);
            return 2;
        }
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "replay: no inputs\n");
        return 2;
    }
    for (const auto& path : inputs) {
        std::ifstream file(path, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        std::fprintf(stderr, "replay: %s\n", path.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "replay: %zu inputs, all passed\n", inputs.size());
    return 0;
}
