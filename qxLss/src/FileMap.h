// The store file in memory: one read-only mapping that is never moved, filled chunk by chunk at first touch.
#pragma once

#include "qxLss/src/FileIo.h"
#include "qxLss/src/ZeroPages.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <atomic>
#include <optional>

namespace quna {

// The whole range that a store file can ever have is mapped once, so that no address ever changes and a read costs no
// system call. The kernel's own read-ahead is off; instead a chunk is loaded by an explicit call before its first use.
// That makes a cold read as fast as a pread of the chunk, and a read error an exception instead of SIGBUS. (A page that
// the kernel drops later and then cannot read again still raises SIGBUS.)
//
// Ownership: borrows the file, which must stay open; owns the mapping and the bitmap.
// Threads:   Load and MarkLoaded from any number of threads. Two threads that meet at one chunk may both load it, which
//            is harmless. The file may be cut behind what is being loaded, also where reading ahead would reach.
// Invariant: a set bit means that the whole chunk lies in the file and has been read without an error.
class QX_API FileMap {
public:
    static constexpr ssize_t CHUNK_BYTES = 16384;
    static constexpr int CHUNK_SHIFT = 14;
    // Chunks loaded at once when the chunk before is loaded already, as in a scan.
    static constexpr ssize_t READ_AHEAD_CHUNKS = 4;
    // The most that a location can name is 8 TiB. The race detector leaves less room for mappings.
#if defined(__SANITIZE_THREAD__)
    static constexpr int64 MAX_BYTES = int64{1} << 36;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
    static constexpr int64 MAX_BYTES = int64{1} << 36;
#else
    static constexpr int64 MAX_BYTES = int64{1} << 43;
#endif
#else
    static constexpr int64 MAX_BYTES = int64{1} << 43;
#endif

    // Maps the first `maxBytes` of the file, a multiple of CHUNK_BYTES. Where the system grants less address space the
    // range is halved, but not below the file's present size or 1 GiB; see MaxBytes.
    explicit FileMap(File& file, int64 maxBytes = MAX_BYTES);
    FileMap(const FileMap&) = delete;
    FileMap& operator=(const FileMap&) = delete;
    ~FileMap();

    // How far the mapping reaches: the store must not grow beyond.
    int64 MaxBytes() const { return m_maxBytes; }

    // The address of a file offset. Not loaded: only for bytes that Load has returned or that were marked as loaded.
    const octet_t* At(int64 offset) const { return m_base + offset; }

    // Makes sure that `size` >= 1 bytes at `offset`, and `behind` more, are in memory and returns their address. Throws
    // FileException if they cannot be read or lie beyond the end of the file; then nothing is remembered. Of those behind
    // the file may lack what its last page shows as zeros.
    const octet_t* Load(int64 offset, ssize_t size, ssize_t behind = 0) {
        const int64 last = (offset + size + behind - 1) >> CHUNK_SHIFT;
        for (int64 chunk = offset >> CHUNK_SHIFT; chunk <= last; ++chunk) {
            if (!IsChunkLoaded(chunk)) [[unlikely]] {
                LoadMissing(offset, size, behind);
                break;
            }
        }
        return m_base + offset;
    }

    // The range has just been written by this process and so is in the page cache: no load will be needed for the
    // chunks that lie in it entirely.
    void MarkLoaded(int64 offset, int64 size);

    bool IsChunkLoaded(int64 chunk) const { return (Word(chunk).load(std::memory_order_acquire) >> (chunk & 63)) & 1; }

private:
    std::atomic<uint64>& Word(int64 chunk) const { return m_bits[chunk >> 6]; }
    void LoadMissing(int64 offset, ssize_t size, ssize_t behind);
    bool TryLoadMissing(int64 offset, ssize_t size, ssize_t behind, int64 ahead);
    bool TryLoadChunks(int64 first, int64 end, int64 fileSize, bool isAhead);
    void SetBits(int64 first, int64 end);

    File& m_file;
    int64 m_maxBytes;                      // constant after construction
    const octet_t* m_base = nullptr;       // constant after construction
    std::optional<ZeroPages> m_bitmap;     // constant after construction
    std::atomic<uint64>* m_bits = nullptr; // in m_bitmap: one bit a chunk
    std::atomic<int64> m_chunksSeen{0};    // behind, no bit was ever set
};

} // namespace quna
