// In the place of libFuzzer, for the builds of every day: replay COUNT FOLDER plays each file of the folder, then COUNT
// inputs made of them at random, always the same ones.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

std::mt19937 g_random(20240607);

std::size_t below(std::size_t count) {
    return g_random() % count;
}

/// Pieces of seeds, some bytes of which are others; small ones are common, since many numbers of an input are lengths.
Bytes madeOf(const std::vector<Bytes>& seeds) {
    Bytes made;
    for (std::size_t pieces = 1 + below(8); pieces > 0; --pieces) {
        const Bytes& seed = seeds[below(seeds.size())];
        const std::size_t from = below(seed.size());
        made.insert(made.end(), seed.begin() + static_cast<std::ptrdiff_t>(from), seed.end());
        for (std::size_t more = below(30); more > 0; --more)
            made.push_back(static_cast<std::uint8_t>(below(1 + below(256))));
    }
    for (std::size_t i = 1 + made.size() / 50; i > 0; --i) {
        made[below(made.size())] = static_cast<std::uint8_t>(below(1 + below(256)));
    }
    return made;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 || std::freopen("/dev/null", "w", stdout) == nullptr) return 2;  // the library's own talk
    std::vector<Bytes> seeds;
    using Folder = std::filesystem::directory_iterator;
    for (const std::filesystem::path& path : std::set<std::filesystem::path>(Folder(argv[2]), Folder())) {
        std::ifstream file(path, std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(seeds.back().data(), seeds.back().size());
        if (seeds.back().empty()) seeds.pop_back();
    }
    if (seeds.empty()) return 2;
    for (int left = std::atoi(argv[1]); left > 0; --left) {
        const Bytes bytes = madeOf(seeds);
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::_Exit(0);  // threads of ours may be at work still
}
