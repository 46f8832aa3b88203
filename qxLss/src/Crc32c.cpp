#include "qxLss/src/Crc32c.h"

#include "qxUtils/Assert.h"

#include <array>
#include <atomic>
#include <cstring>

#include <immintrin.h>

// The crc32 instruction has a latency of three cycles and a throughput of one, so a single chain uses a third of the
// unit. The third path runs three chains over three neighbouring blocks and joins their results:
//
// Let A, B, C be the (reflected) registers after the three blocks of L bytes. The register of the whole is
// A * x^(16L) + B * x^(8L) + C modulo P. A carry-less product of two reflected 32-bit values, read as 64 reflected bits,
// is their product times x; and the crc32 instruction, given a zero register and 64 bits, multiplies by x^32 and reduces.
// So the factor for a distance of n bits is x^(n - 33) mod P.
//
// Below 384 bytes a single chain is as fast. Blocks of 128 bytes keep short packets on three chains; blocks of 1024
// make the joining disappear (bench/qxLss/Crc32cBench).

namespace quna {
namespace {

constexpr ConstStringZ SOURCE_PATH = "src/Crc32c";

constexpr uint32 POLYNOMIAL = 0x82F63B78; // reflected
constexpr ssize_t SMALL_BLOCK = 128;
constexpr ssize_t LARGE_BLOCK = 1024;

// --- table

using Tables = std::array<std::array<uint32, 256>, 8>;

constexpr Tables MakeTables() {
    Tables tables{};
    for (uint32 i = 0; i < 256; ++i) {
        uint32 crc = i;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? POLYNOMIAL : 0);
        tables[0][i] = crc;
    }
    for (size_t t = 1; t < 8; ++t)
        for (size_t i = 0; i < 256; ++i) tables[t][i] = (tables[t - 1][i] >> 8) ^ tables[0][tables[t - 1][i] & 0xFF];
    return tables;
}

constexpr Tables TABLES = MakeTables();

uint64 ReadWord(const octet_t* p) {
    uint64 word;
    std::memcpy(&word, p, sizeof word);
    return word;
}

uint32 ByTable(const octet_t* p, ssize_t n, uint32 crc) {
    for (; n >= 8; n -= 8, p += 8) {
        const uint64 word = ReadWord(p) ^ crc;
        crc = TABLES[7][word & 0xFF] ^ TABLES[6][(word >> 8) & 0xFF] ^ TABLES[5][(word >> 16) & 0xFF] ^
              TABLES[4][(word >> 24) & 0xFF] ^ TABLES[3][(word >> 32) & 0xFF] ^ TABLES[2][(word >> 40) & 0xFF] ^
              TABLES[1][(word >> 48) & 0xFF] ^ TABLES[0][word >> 56];
    }
    for (; n > 0; --n) crc = (crc >> 8) ^ TABLES[0][(crc ^ *p++) & 0xFF];
    return crc;
}

// --- one chain

__attribute__((target("sse4.2"))) inline uint32 OneChain(const octet_t* p, ssize_t n, uint32 crc) {
    uint64 wide = crc;
    for (; n >= 8; n -= 8, p += 8) wide = _mm_crc32_u64(wide, ReadWord(p));
    crc = static_cast<uint32>(wide);
    if (n >= 4) {
        uint32 word;
        std::memcpy(&word, p, sizeof word);
        crc = _mm_crc32_u32(crc, word);
        p += 4;
        n -= 4;
    }
    for (; n > 0; --n) crc = _mm_crc32_u8(crc, *p++);
    return crc;
}

__attribute__((target("sse4.2"))) uint32 BySse42(const octet_t* p, ssize_t n, uint32 crc) {
    return OneChain(p, n, crc);
}

// --- three chains

// x^n modulo P, reflected: bit 31 is x^0.
constexpr uint32 PowerOfX(int n) {
    uint32 value = 0x80000000;
    for (; n > 0; --n) value = (value >> 1) ^ ((value & 1) ? POLYNOMIAL : 0);
    return value;
}

constexpr uint32 ShiftFactor(ssize_t bytes) { return PowerOfX(static_cast<int>(8 * bytes) - 33); }

__attribute__((target("sse4.2,pclmul"))) inline uint32 Shift(uint64 crc, uint32 factor) {
    const __m128i product = _mm_clmulepi64_si128(_mm_cvtsi64_si128(static_cast<long long>(crc)),
                                                 _mm_cvtsi32_si128(static_cast<int>(factor)), 0);
    return static_cast<uint32>(_mm_crc32_u64(0, static_cast<uint64>(_mm_cvtsi128_si64(product))));
}

// Three neighbouring blocks; the register behind them.
template <ssize_t BLOCK>
__attribute__((target("sse4.2,pclmul"))) inline uint32 ThreeBlocks(const octet_t* p, uint32 crc) {
    constexpr uint32 ONE_BLOCK = ShiftFactor(BLOCK);
    constexpr uint32 TWO_BLOCKS = ShiftFactor(2 * BLOCK);
    uint64 a = crc;
    uint64 b = 0;
    uint64 c = 0;
    for (ssize_t i = 0; i < BLOCK; i += 8) {
        a = _mm_crc32_u64(a, ReadWord(p + i));
        b = _mm_crc32_u64(b, ReadWord(p + BLOCK + i));
        c = _mm_crc32_u64(c, ReadWord(p + 2 * BLOCK + i));
    }
    return Shift(a, TWO_BLOCKS) ^ Shift(b, ONE_BLOCK) ^ static_cast<uint32>(c);
}

__attribute__((target("sse4.2,pclmul"))) uint32 ByPclmul(const octet_t* p, ssize_t n, uint32 crc) {
    for (; n >= 3 * LARGE_BLOCK; n -= 3 * LARGE_BLOCK, p += 3 * LARGE_BLOCK) crc = ThreeBlocks<LARGE_BLOCK>(p, crc);
    for (; n >= 3 * SMALL_BLOCK; n -= 3 * SMALL_BLOCK, p += 3 * SMALL_BLOCK) crc = ThreeBlocks<SMALL_BLOCK>(p, crc);
    return OneChain(p, n, crc);
}

// --- choice

using Function = uint32 (*)(const octet_t* p, ssize_t n, uint32 crc);

Function FunctionOf(ECrc32cPath path) {
    switch (path) {
    case ECrc32cPath::TABLE: return ByTable;
    case ECrc32cPath::SSE42: return BySse42;
    case ECrc32cPath::PCLMUL: return ByPclmul;
    }
    return ByTable;
}

uint32 ChooseAndRun(const octet_t* p, ssize_t n, uint32 crc);

// Set by the first call; a pointer that every thread may find and set alike.
constinit std::atomic<Function> chosenFunction{ChooseAndRun};

uint32 ChooseAndRun(const octet_t* p, ssize_t n, uint32 crc) {
    const Function function = FunctionOf(BestCrc32cPath());
    chosenFunction.store(function, std::memory_order_relaxed);
    return function(p, n, crc);
}

} // namespace

uint32 Crc32c(const void* p, ssize_t n, uint32 start) {
    return ~chosenFunction.load(std::memory_order_relaxed)(static_cast<const octet_t*>(p), n, ~start);
}

bool IsCrc32cPathSupported(ECrc32cPath path) {
    __builtin_cpu_init();
    switch (path) {
    case ECrc32cPath::TABLE: return true;
    case ECrc32cPath::SSE42: return __builtin_cpu_supports("sse4.2");
    case ECrc32cPath::PCLMUL: return __builtin_cpu_supports("sse4.2") && __builtin_cpu_supports("pclmul");
    }
    return false;
}

ECrc32cPath BestCrc32cPath() {
    if (IsCrc32cPathSupported(ECrc32cPath::PCLMUL)) return ECrc32cPath::PCLMUL;
    if (IsCrc32cPathSupported(ECrc32cPath::SSE42)) return ECrc32cPath::SSE42;
    return ECrc32cPath::TABLE;
}

uint32 Crc32cByPath(ECrc32cPath path, const void* p, ssize_t n, uint32 start) {
    QX_ASSERT(IsCrc32cPathSupported(path));
    return ~FunctionOf(path)(static_cast<const octet_t*>(p), n, ~start);
}

} // namespace quna
