// Runs a fuzz target once over every file of a folder, without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int, char **arguments)
{
    int count = 0;
    if (freopen("/dev/null", "w", stdout) == nullptr)
        return 1;
    for (const auto &entry : std::filesystem::directory_iterator(arguments[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        // An exact copy, so that a sanitizer sees a read past its end.
        const std::vector<std::uint8_t> input{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(input.data(), input.size());
        ++count;
    }
    fprintf(stderr, "%d inputs replayed\n", count);
    return count == 0 ? 1 : 0; // an empty corpus is a mistake, not a success
}
