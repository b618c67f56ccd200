// Replays fuzz inputs without libFuzzer: every file named on the command line, or every file
// inside a named folder, is handed to LLVMFuzzerTestOneInput once. Used by the ordinary
// (gcc, sanitizer) build so that seeds and past crash inputs run with the test suite.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int Replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A fresh heap copy of exactly the input's size lets ASan see reads past its end.
    std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int failures = 0;
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path arg(argv[i]);
        std::error_code ec;
        if (std::filesystem::is_directory(arg, ec)) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(arg)) {
                if (entry.is_regular_file()) {
                    failures += Replay(entry.path());
                    ++count;
                }
            }
        } else if (std::filesystem::exists(arg, ec)) {
            failures += Replay(arg);
            ++count;
        }
    }
    // The empty input is always worth one run.
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::printf("replayed %zu inputs\n", count + 1);
    return failures == 0 ? 0 : 1;
}
