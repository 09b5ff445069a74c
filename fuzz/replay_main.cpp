// Replays a harness's corpus as an ordinary test in the normal build trees
// (plain, ASan+UBSan, TSan), so that inputs that once crashed, hung or leaked
// stay guarded in every CI run, not only in the clang fuzzing tree.
//   replay_<name> CORPUS_DIR
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
        return 2;
    }
    std::vector<std::filesystem::path> inputs;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1], error))
        if (entry.is_regular_file())
            inputs.push_back(entry.path());
    if (error || inputs.empty()) {
        // An empty or missing corpus would make this test pass on nothing.
        std::fprintf(stderr, "no inputs in %s\n", argv[1]);
        return 1;
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto& input : inputs) {
        std::ifstream file(input, std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        // A crash or a sanitizer report ends the process here, with the
        // input's name already printed.
        std::fprintf(stderr, "%s\n", input.filename().c_str());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("%zu passed, 0 failed\n", inputs.size());
    return 0;
}
