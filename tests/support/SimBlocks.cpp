#include "tests/support/SimBlocks.h"

#include <algorithm>
#include <cstring>

namespace quna {
namespace {

// Several lanes, as one multiplication has to wait for the one before.
uint64 HashOf(const octet_t* p) {
    uint64 lanes[4] = {1, 2, 3, 4};
    for (int64 at = 0; at < SimBlocks::BLOCK_BYTES; at += 32) {
        uint64 words[4];
        std::memcpy(words, p + at, sizeof words);
        for (int i = 0; i < 4; ++i) {
            lanes[i] = (lanes[i] ^ words[i]) * 0x9E3779B97F4A7C15u;
            lanes[i] ^= lanes[i] >> 32;
        }
    }
    uint64 hash = 0;
    for (const uint64 lane : lanes) hash = (hash ^ (hash >> 29) ^ lane) * 0xBF58476D1CE4E5B9u;
    return hash ^ (hash >> 32);
}

constexpr octet_t ZEROS[SimBlocks::BLOCK_BYTES] = {};

} // namespace

// Calls visit(block, offset in it, offset in the range, bytes) for each block that the range meets.
template <class Visit>
void SimBlocks::ForEachPart(int64 at, int64 n, Visit visit) {
    for (int64 done = 0; done < n;) {
        const int64 offset = (at + done) % BLOCK_BYTES;
        const int64 part = std::min(n - done, BLOCK_BYTES - offset);
        visit((at + done) / BLOCK_BYTES, offset, done, static_cast<size_t>(part));
        done += part;
    }
}

SimBlocks::SimBlocks(const FileBytes& bytes) {
    Resize(std::ssize(bytes));
    ForEachPart(0, m_size, [&](int64 number, int64 offset, int64 at, size_t n) {
        if (std::memcmp(bytes.data() + at, ZEROS, n) != 0)
            std::memcpy(OwnBlock(number).bytes + offset, bytes.data() + at, n);
    });
}

// The block, for a change: nobody else's, and with its bytes as they are.
SimBlocks::Block& SimBlocks::OwnBlock(int64 number) {
    Ref& ref = m_blocks[static_cast<size_t>(number)];
    if (!ref || ref->users > 1) {
        Ref own(new Block);
        std::memcpy(own->bytes, ref ? ref->bytes : ZEROS, BLOCK_BYTES);
        ref = std::move(own);
    }
    ref->isHashed = false;
    return *ref.operator->();
}

void SimBlocks::Resize(int64 size) {
    m_blocks.resize(static_cast<size_t>((size + BLOCK_BYTES - 1) / BLOCK_BYTES));
    const int64 tail = size % BLOCK_BYTES;
    if (size < m_size && tail != 0 && m_blocks.back())
        std::memset(OwnBlock(size / BLOCK_BYTES).bytes + tail, 0, static_cast<size_t>(BLOCK_BYTES - tail));
    m_size = size;
}

void SimBlocks::Read(int64 at, octet_t* p, int64 n) const {
    ForEachPart(at, n, [&](int64 number, int64 offset, int64 done, size_t part) {
        const Ref& ref = m_blocks[static_cast<size_t>(number)];
        std::memcpy(p + done, ref ? ref->bytes + offset : ZEROS, part);
    });
}

void SimBlocks::Write(int64 at, const octet_t* p, int64 n) {
    if (n <= 0) return;
    if (at + n > m_size) Resize(at + n);
    ForEachPart(at, n, [&](int64 number, int64 offset, int64 done, size_t part) {
        const bool isFresh = !m_blocks[static_cast<size_t>(number)];
        if (isFresh && std::memcmp(p + done, ZEROS, part) == 0) return;
        std::memcpy(OwnBlock(number).bytes + offset, p + done, part);
    });
}

void SimBlocks::Zero(int64 at, int64 n) {
    ForEachPart(at, n, [&](int64 number, int64 offset, int64, size_t part) {
        Ref& ref = m_blocks[static_cast<size_t>(number)];
        if (!ref) return;
        if (part == static_cast<size_t>(BLOCK_BYTES))
            ref = Ref();
        else
            std::memset(OwnBlock(number).bytes + offset, 0, part);
    });
}

bool SimBlocks::IsZero(int64 at, int64 n) const {
    bool isZero = true;
    ForEachPart(at, n, [&](int64 number, int64 offset, int64, size_t part) {
        const Ref& ref = m_blocks[static_cast<size_t>(number)];
        isZero = isZero && (!ref || std::memcmp(ref->bytes + offset, ZEROS, part) == 0);
    });
    return isZero;
}

FileBytes SimBlocks::Bytes() const {
    FileBytes bytes(static_cast<size_t>(m_size));
    Read(0, bytes.data(), m_size);
    return bytes;
}

uint64 SimBlocks::Hash() const {
    static const uint64 zero = HashOf(ZEROS);
    uint64 hash = static_cast<uint64>(m_size);
    for (const Ref& ref : m_blocks) {
        if (ref && !ref->isHashed) {
            ref->hash = HashOf(ref->bytes);
            ref->isHashed = true;
        }
        hash = (hash ^ (hash >> 31) ^ (ref ? ref->hash : zero)) * 0x94D049BB133111EBu;
    }
    return hash ^ (hash >> 32);
}

SimImage BlocksOf(const DiskImage& image) {
    SimImage blocks;
    for (const auto& [name, bytes] : image) blocks.emplace(name, SimBlocks(bytes));
    return blocks;
}

DiskImage BytesOf(const SimImage& image) {
    DiskImage bytes;
    for (const auto& [name, blocks] : image) bytes.emplace(name, blocks.Bytes());
    return bytes;
}

} // namespace quna
