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

void OverwriteBytes(FileBytes& bytes, int64 offset, const octet_t* data, int64 n);
// In how many ways a call can be torn; 0 for one that is no write.
uint64 NumTearsOf(const SimCall& call);

// Ownership: borrows everything. Threads: one.
class CrashImageMaker {
public:
    using Apply = void (*)(FileBytes& bytes, const SimCall& call);

    CrashImageMaker(const FileBytes& base, const FileBytes& old, const CrashVariant& variant);

    // In the order in which the calls were made. `durable`: it is on the disk in any case.
    void Add(const SimCall& call, bool durable) { m_calls.push_back({&call, durable}); }
    FileBytes Make(Apply apply);

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

    const FileBytes& m_base;
    const FileBytes& m_old;
    const CrashVariant m_variant;
    std::vector<Call> m_calls;
    std::mt19937_64 m_random;
    Apply m_apply = nullptr;
    FileBytes m_bytes;
};

} // namespace quna
