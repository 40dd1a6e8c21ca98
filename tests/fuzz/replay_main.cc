// Replays fuzz inputs without libFuzzer: each argument is a file or a folder
// of files, and every file goes once through the harness. The normal build
// runs this over the seed corpus so that past crashers stay fixed.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

int replay_file(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    int failures = 0;
    int count = 0;
    for (int i = 1; i < argc; i++) {
        std::filesystem::path arg(argv[i]);
        if (std::filesystem::is_directory(arg)) {
            for (const auto &entry : std::filesystem::recursive_directory_iterator(arg)) {
                if (entry.is_regular_file()) {
                    failures += replay_file(entry.path());
                    count++;
                }
            }
        } else {
            failures += replay_file(arg);
            count++;
        }
    }
    // An empty input is always worth one run.
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::printf("replay: %d inputs\n", count);
    return failures ? 1 : 0;
}
