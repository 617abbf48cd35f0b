// Runs a fuzz target over every file of the directory that its command line names, so that the
// seeds are checked without libFuzzer too.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::string content_of(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    int seeds = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        const std::string content = content_of(entry.path());
        std::printf("%s, %zu bytes\n", entry.path().filename().c_str(), content.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()),
                               content.size());
        ++seeds;
    }
    return seeds == 0 ? 1 : 0;
}
