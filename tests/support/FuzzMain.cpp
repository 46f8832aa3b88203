// The main of a fuzz target in a build without a fuzzer.
//
//   TARGET [FILE|FOLDER...]
//
// Runs the inputs that are named, those of folders in the order of their names, and then generated ones for about a second:
// half of them from scratch, half by changing one of the files. The generator is seeded, so that a failure repeats as long
// as the number of inputs does; --runs N sets it.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t SEED = 20240117;
constexpr long MAX_GENERATED = 20000;
constexpr std::chrono::milliseconds TIME_FOR_GENERATED{1000};
constexpr unsigned MAX_BYTES = 300;

void RunOne(const Bytes& input) {
    // A copy of exactly this size, so that the address sanitizer sees a read behind the end.
    const Bytes exact(input);
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

// Small numbers are the frequent counts and tags, bytes with high bits open long forms: both are likely.
std::uint8_t RandomByte(std::mt19937& random) {
    switch (random() % 4) {
    case 0: return static_cast<std::uint8_t>(random() % 4);
    case 1: return static_cast<std::uint8_t>(random() % 32);
    case 2: return static_cast<std::uint8_t>(0xF8 + random() % 8);
    default: return static_cast<std::uint8_t>(random());
    }
}

Bytes Fresh(std::mt19937& random, long i) {
    Bytes input(random() % (1 + static_cast<unsigned>(i) % MAX_BYTES));
    for (std::uint8_t& byte : input) byte = RandomByte(random);
    return input;
}

Bytes Changed(Bytes input, std::mt19937& random) {
    for (unsigned n = 1 + random() % 4; n > 0 && !input.empty(); --n) {
        const std::size_t at = random() % input.size();
        switch (random() % 5) {
        case 0: input.erase(input.begin() + static_cast<std::ptrdiff_t>(at)); break;
        case 1: input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), RandomByte(random)); break;
        case 2: input.resize(at); break;
        default: input[at] = RandomByte(random); break;
        }
    }
    return input;
}

void RunGenerated(const std::vector<Bytes>& corpus, long limit) {
    std::mt19937 random(SEED);
    const auto end = std::chrono::steady_clock::now() + TIME_FOR_GENERATED;
    long i = 0;
    for (; i < (limit >= 0 ? limit : MAX_GENERATED); ++i) {
        if (limit < 0 && i % 16 == 0 && std::chrono::steady_clock::now() > end) break;
        const bool fromCorpus = !corpus.empty() && random() % 2;
        RunOne(fromCorpus ? Changed(corpus[random() % corpus.size()], random) : Fresh(random, i));
    }
    std::printf("%zu files, %ld generated inputs, seed %u\n", corpus.size(), i, static_cast<unsigned>(SEED));
}

void Add(const std::filesystem::path& path, std::vector<std::filesystem::path>& files) {
    if (!std::filesystem::is_directory(path)) {
        files.push_back(path);
        return;
    }
    const std::size_t before = files.size();
    for (const auto& entry : std::filesystem::directory_iterator(path))
        if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin() + static_cast<std::ptrdiff_t>(before), files.end());
}

bool Replay(const std::filesystem::path& path, std::vector<Bytes>& corpus) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "Cannot read \"%s\"\n", path.c_str());
        return false;
    }
    corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    RunOne(corpus.back());
    return true;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    long runs = -1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc)
            runs = std::strtol(argv[++i], nullptr, 10);
        else
            Add(argv[i], files);
    }
    std::vector<Bytes> corpus;
    for (const std::filesystem::path& file : files)
        if (!Replay(file, corpus)) return 1;
    RunGenerated(corpus, runs);
    return 0;
}
