// Runs a fuzz target once over every file of the folders that are named, without libFuzzer.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) __attribute__((weak));

static void replay(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    // An exact copy, so that a sanitizer sees a read past its end.
    const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i)
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            replay(entry.path());
            ++count;
        }
    fprintf(stderr, "%zu inputs replayed\n", count);
    return count == 0 ? 1 : 0; // an empty corpus is a mistake, not a success
}
