// The content of a file in blocks that copies of it share.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace quna {

using FileBytes = std::vector<octet_t>;
using DiskImage = std::map<std::string, FileBytes>; // name -> content

// A file's bytes, to be copied and changed in a few places many thousand times a second: a copy shares all blocks, and a
// change copies the block that it meets. A block of zeros takes no room.
//
// Threads: one, for all that share blocks.
class SimBlocks {
public:
    static constexpr int64 BLOCK_BYTES = 4096;

    struct Block {
        uint32 users = 1;
        bool isHashed = false;
        uint64 hash = 0; // of the bytes, if isHashed
        octet_t bytes[BLOCK_BYTES];
    };

    // A block, or none: zeros.
    class Ref {
    public:
        Ref() = default;
        explicit Ref(Block* block) : m_block(block) {}
        Ref(const Ref& other) : m_block(other.m_block) {
            if (m_block) ++m_block->users;
        }
        Ref(Ref&& other) noexcept : m_block(std::exchange(other.m_block, nullptr)) {}
        Ref& operator=(Ref other) noexcept {
            std::swap(m_block, other.m_block);
            return *this;
        }
        ~Ref() {
            if (m_block && --m_block->users == 0) delete m_block;
        }

        explicit operator bool() const { return m_block != nullptr; }
        Block* operator->() const { return m_block; }
        bool operator==(const Ref& other) const { return m_block == other.m_block; }
        bool operator!=(const Ref& other) const { return m_block != other.m_block; }

    private:
        Block* m_block = nullptr;
    };

    SimBlocks() = default;
    explicit SimBlocks(const FileBytes& bytes);

    int64 Size() const { return m_size; }
    // New bytes are zeros.
    void Resize(int64 size);
    void Read(int64 at, octet_t* p, int64 n) const; // inside the file
    // The file is made longer if that is needed; a gap is zeros.
    void Write(int64 at, const octet_t* p, int64 n);
    void Zero(int64 at, int64 n); // inside the file
    bool IsZero(int64 at, int64 n) const;
    FileBytes Bytes() const;
    uint64 Hash() const;

    // The blocks, of which the last one is zero behind the end of the file.
    const std::vector<Ref>& Blocks() const { return m_blocks; }

private:
    Block& OwnBlock(int64 number);
    template <class Visit>
    static void ForEachPart(int64 at, int64 n, Visit visit);

    std::vector<Ref> m_blocks;
    int64 m_size = 0;
};

using SimImage = std::map<std::string, SimBlocks>; // name -> content

SimImage BlocksOf(const DiskImage& image);
DiskImage BytesOf(const SimImage& image);

} // namespace quna
