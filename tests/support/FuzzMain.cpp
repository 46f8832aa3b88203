// The main of a fuzz target in a build without a fuzzer: replays the files named on the command line, or, without any,
// a fixed number of generated inputs. The generator is seeded, so that a failure repeats.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t SEED = 20240117;
constexpr int NUM_GENERATED = 20000;
constexpr int MAX_BYTES = 300;

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

void RunGenerated() {
    std::mt19937 random(SEED);
    for (int i = 0; i < NUM_GENERATED; ++i) {
        Bytes input(random() % static_cast<unsigned>(1 + i % MAX_BYTES));
        for (std::uint8_t& byte : input) byte = RandomByte(random);
        RunOne(input);
    }
    std::printf("%d generated inputs, seed %u\n", NUM_GENERATED, static_cast<unsigned>(SEED));
}

bool Replay(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "Cannot read \"%s\"\n", path);
        return false;
    }
    RunOne(Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()));
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) RunGenerated();
    for (int i = 1; i < argc; ++i)
        if (!Replay(argv[i])) return 1;
    return 0;
}
