#include "qxUtils/Archive.h"

#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <exception>
#include <string>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/Archive";

std::size_t Bytes(ssize_t n) { return static_cast<std::size_t>(n); }

} // namespace

IItemSerialiser::~IItemSerialiser() = default;
IItemDeserialiser::~IItemDeserialiser() = default;

// The buffer's bytes are set as they are written: clearing 4096 bytes would cost more than a small record.
BaseArchiveOut::BaseArchiveOut(IOutputStream* oStream) // NOLINT(cppcoreguidelines-pro-type-member-init)
    : m_pos(m_writeBuffer), m_oStream(oStream), m_uncaughtAtConstruction(std::uncaught_exceptions()) {}

BaseArchiveOut::~BaseArchiveOut() noexcept(false) {
    if (m_oStream && NumBufferedWrites() > 0 && std::uncaught_exceptions() <= m_uncaughtAtConstruction) FlushBuffer();
}

void BaseArchiveOut::FlushBuffer() {
    const ssize_t n = NumBufferedWrites();
    if (m_oStream && n > 0) m_oStream->WriteStream(m_writeBuffer, n);
    m_numBytesWrittenToStream += n;
    m_pos = m_writeBuffer;
}

void BaseArchiveOut::Flush() {
    FlushBuffer();
    if (m_oStream) m_oStream->FlushStream();
}

void BaseArchiveOut::Write(const void* bytes, ssize_t n) {
    QX_ASSERT(n >= 0);
    if (n <= ARCHIVE_BUFSIZE - NumBufferedWrites()) {
        if (n > 0) std::memcpy(m_pos, bytes, Bytes(n));
        m_pos += n;
        return;
    }
    FlushBuffer();
    if (n >= ARCHIVE_BUFSIZE) { // no gain from a copy
        if (m_oStream) m_oStream->WriteStream(bytes, n);
        m_numBytesWrittenToStream += n;
        return;
    }
    std::memcpy(m_pos, bytes, Bytes(n));
    m_pos += n;
}

ssize_t BaseArchiveOut::WriteStream(IInputStream* stream) { return WriteStream(stream, INT64_MAX); }

ssize_t BaseArchiveOut::WriteStream(IInputStream* stream, ssize_t n) {
    QX_ASSERT(stream);
    ssize_t numCopied = 0;
    octet_t bytes[ARCHIVE_BUFSIZE];
    while (numCopied < n) {
        const ssize_t numRead = stream->ReadStream(bytes, std::min(ARCHIVE_BUFSIZE, n - numCopied));
        if (numRead <= 0) break;
        Write(bytes, numRead);
        numCopied += numRead;
    }
    return numCopied;
}

ssize_t BaseArchiveIn::TryRead(void* bytes, ssize_t n) {
    QX_ASSERT(n >= 0);
    auto* out = static_cast<octet_t*>(bytes);
    const ssize_t numBuffered = std::min(n, m_buffer.size());
    if (numBuffered > 0) {
        std::memcpy(out, m_buffer.data(), Bytes(numBuffered));
        m_buffer.assign(m_buffer.data() + numBuffered, m_buffer.size() - numBuffered);
    }
    ssize_t numRead = numBuffered;
    while (numRead < n && m_iStream) {
        const ssize_t got = m_iStream->ReadStream(out + numRead, n - numRead);
        if (got <= 0) break;
        numRead += got;
    }
    return numRead;
}

void BaseArchiveIn::Read(void* bytes, ssize_t n) {
    const ssize_t numRead = TryRead(bytes, n);
    if (numRead != n)
        throw RecordException(
            ("Stream too short: " + std::to_string(n) + " bytes expected, " + std::to_string(numRead) + " found")
                .c_str());
}

void BaseArchiveIn::InsertAtFront(const void* bytes, ssize_t n) {
    VectorOfByte buffer(bytes, n);
    buffer.append(m_buffer.data(), m_buffer.size());
    m_buffer.swap(buffer);
}

void BaseArchiveIn::Skip(ssize_t n) {
    octet_t bytes[ARCHIVE_BUFSIZE];
    while (n > 0) {
        const ssize_t step = std::min(n, ARCHIVE_BUFSIZE);
        Read(bytes, step);
        n -= step;
    }
}

} // namespace quna
