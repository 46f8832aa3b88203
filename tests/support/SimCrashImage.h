// What a power failure makes of one file.
#pragma once

#include "tests/support/SimDisk.h"

#include <random>
#include <vector>

namespace quna {

// A well mixed number for each number.
inline uint64 MixBits(uint64 x) {
    x += 0x9E3779B97F4A7C15u;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
    return x ^ (x >> 31);
}

// In how many ways a call can be torn; 0 for one that is no write.
uint64 NumTearsOf(const SimCall& call);

// Ownership: borrows everything. Threads: one.
class CrashImageMaker {
public:
    using Apply = void (*)(SimBlocks& bytes, const SimCall& call);

    CrashImageMaker(const SimBlocks& base, const SimBlocks& old, const CrashVariant& variant);

    // In the order in which the calls were made. `durable`: it is on the disk in any case.
    void Add(const SimCall& call, bool durable) { m_calls.push_back({&call, durable}); }
    SimBlocks Make(Apply apply);

private:
    struct Call {
        const SimCall* call;
        bool durable;
    };

    uint64 Pick(uint64 limit) { return limit ? m_random() % limit : 0; }
    bool OneIn(uint64 n) { return Pick(n) == 0; }
    void ApplyAll() {
        for (const Call& c : m_calls) m_apply(m_bytes, *c.call);
    }
    void ApplyDurable();
    void ApplyChosen();
    void ApplySubset();
    void ApplyTears();
    void ApplyTorn(const SimCall& call);
    void ApplySectors();
    void ApplyOneTear();
    void FillNewSpace();
    void ChangeSize();
    void Garble();
    void WriteRandom(int64 at, int64 n);

    const SimBlocks& m_base;
    const SimBlocks& m_old;
    const CrashVariant m_variant;
    std::vector<Call> m_calls;
    std::mt19937_64 m_random;
    Apply m_apply = nullptr;
    SimBlocks m_bytes;
};

} // namespace quna
