#include "qxLss/src/FileMap.h"

#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cerrno>

#include <unistd.h>

namespace quna {
namespace {

constexpr ConstStringZ SOURCE_PATH = "src/FileMap";

constexpr int64 LEAST_BYTES = int64{1} << 30;

int64 PageBytes() {
    static const int64 bytes = ::sysconf(_SC_PAGESIZE);
    return bytes;
}

} // namespace

FileMap::FileMap(File& file, int64 maxBytes) : m_file(file), m_maxBytes(maxBytes) {
    QX_ASSERT(maxBytes % CHUNK_BYTES == 0);
    const int64 least = std::max(m_file.Size(), LEAST_BYTES);
    int result = m_file.Sys().Map(m_file.Descriptor(), static_cast<size_t>(m_maxBytes), m_base);
    // EINVAL is how some memory checkers refuse a length.
    while ((result == -ENOMEM || result == -EINVAL) && m_maxBytes / 2 >= least) {
        m_maxBytes /= 2;
        result = m_file.Sys().Map(m_file.Descriptor(), static_cast<size_t>(m_maxBytes), m_base);
    }
    if (result < 0) ThrowFileError("map", m_file.Path(), -result);

    // A word that nobody touches costs no memory: 64 MiB of addresses for 8 TiB.
    m_bitmap.emplace(static_cast<size_t>(m_maxBytes / CHUNK_BYTES / 64 + 1) * sizeof(uint64));
    if (!*m_bitmap) {
        const int error = errno;
        m_file.Sys().Unmap(m_base, static_cast<size_t>(m_maxBytes));
        ThrowFileError("map the chunk table of", m_file.Path(), error);
    }
    static_assert(sizeof(std::atomic<uint64>) == sizeof(uint64) && std::atomic<uint64>::is_always_lock_free);
    m_bits = m_bitmap->As<std::atomic<uint64>>();
}

FileMap::~FileMap() {
    m_bitmap->SetUsed(static_cast<size_t>((m_chunksSeen.load(std::memory_order_relaxed) + 63) / 64) * sizeof(uint64));
    m_file.Sys().Unmap(m_base, static_cast<size_t>(m_maxBytes));
}

void FileMap::MarkLoaded(int64 offset, int64 size) {
    SetBits((offset + CHUNK_BYTES - 1) >> CHUNK_SHIFT, (offset + size) >> CHUNK_SHIFT);
}

// Chunks [first, end)
void FileMap::SetBits(int64 first, int64 end) {
    int64 seen = m_chunksSeen.load(std::memory_order_relaxed);
    while (first < end && seen < end && !m_chunksSeen.compare_exchange_weak(seen, end, std::memory_order_relaxed)) {
    }
    while (first < end) {
        const int64 wordEnd = std::min(end, (first | 63) + 1);
        const int64 count = wordEnd - first;
        const uint64 mask = (count == 64 ? ~uint64{0} : (uint64{1} << count) - 1) << (first & 63);
        Word(first).fetch_or(mask, std::memory_order_release);
        first = wordEnd;
    }
}

void FileMap::LoadMissing(int64 offset, ssize_t size, ssize_t behind) {
    int64 ahead = READ_AHEAD_CHUNKS;
    while (!TryLoadMissing(offset, size, behind, ahead)) ahead = 0;
}

// False if it is worth another look without reading ahead: the file may have been cut behind what is asked for.
bool FileMap::TryLoadMissing(int64 offset, ssize_t size, ssize_t behind, int64 ahead) {
    const int64 fileSize = m_file.Size();
    const int64 mappedSize = (fileSize + PageBytes() - 1) / PageBytes() * PageBytes();
    const bool isCut = offset + size <= fileSize && fileSize < offset + size + behind;
    size = isCut && offset + size + behind <= mappedSize ? static_cast<ssize_t>(fileSize - offset) : size + behind;
    if (offset > m_maxBytes - size || offset + size > fileSize) {
        const std::string text = "Can't read " + std::to_string(size) + " bytes of file \"" + m_file.Path() +
                                 "\" at offset " + std::to_string(offset) + ": the file has " +
                                 std::to_string(fileSize) + " bytes";
        throw FileException(text.c_str());
    }
    int64 chunk = offset >> CHUNK_SHIFT;
    const int64 end = ((offset + size - 1) >> CHUNK_SHIFT) + 1;
    const int64 fileEnd = (std::min(fileSize, m_maxBytes) + CHUNK_BYTES - 1) >> CHUNK_SHIFT;
    while (chunk < end) {
        if (IsChunkLoaded(chunk)) {
            ++chunk;
            continue;
        }
        // One run of missing chunks; at the end of the request go on a little if this looks like a scan.
        const bool scan = chunk > 0 && IsChunkLoaded(chunk - 1);
        const int64 limit = std::min(fileEnd, scan ? std::max(end, chunk + ahead) : end);
        int64 runEnd = chunk + 1;
        while (runEnd < limit && !IsChunkLoaded(runEnd)) ++runEnd;
        if (!TryLoadChunks(chunk, runEnd, fileSize, runEnd > end)) return false;
        chunk = runEnd;
    }
    return true;
}

// Chunks [first, end), of which the last may be cut by the end of the file. `isAhead`: not all of them are asked for.
bool FileMap::TryLoadChunks(int64 first, int64 end, int64 fileSize, bool isAhead) {
    const int64 page = PageBytes();
    const int64 from = first << CHUNK_SHIFT;
    const int64 to = std::min(end << CHUNK_SHIFT, (fileSize + page - 1) / page * page);
    int result;
    do result = m_file.Sys().Load(m_file.Descriptor(), m_base, from, static_cast<size_t>(to - from));
    while (result == -EINTR || result == -EAGAIN);
    if (result == -EFAULT && (isAhead || m_file.Size() < fileSize)) return false;
    if (result < 0)
        // The populating call says EFAULT where an access would have raised SIGBUS: the disk could not be read.
        ThrowFileError("read", m_file.Path(), result == -EFAULT ? EIO : -result, from);
    // A chunk that the end of the file cuts stays unmarked, so that a request beyond the end is never taken for loaded.
    SetBits(first, std::min(end, fileSize >> CHUNK_SHIFT));
    return true;
}

} // namespace quna
