// Writing and reading of serialised values.
//
// The two directions are unlike on purpose. Writing goes through an Archive, a large object on the caller's stack with
// a buffer inside it, a sink and a hook for identifier translation; it is passed by reference. A stored record is
// always whole in memory before it is parsed, so reading needs no buffering: it goes through an InputArchive, a bare
// cursor that every reader takes by value and returns advanced.
//
// Values lie back to back, without padding; scalars are the host's little-endian bytes.
#pragma once

#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/IStream.h"
#include "qxUtils/RecordLimits.h"
#include "qxUtils/VectorOfByte.h"

#include <cstring>
#include <type_traits>

namespace quna {

class Archive;
class InputArchive;

inline constexpr ssize_t ARCHIVE_BUFSIZE = 4096; // bytes

// Writes an item in a form of its own: the hook by which identifiers are translated on their way out.
class QX_API IItemSerialiser {
public:
    IItemSerialiser() = default;
    IItemSerialiser(const IItemSerialiser&) = default;
    IItemSerialiser& operator=(const IItemSerialiser&) = default;
    virtual ~IItemSerialiser();
    virtual void SerialiseItem(Archive& ar, const void* item) = 0;
};

// The read side of IItemSerialiser.
class QX_API IItemDeserialiser {
public:
    IItemDeserialiser() = default;
    IItemDeserialiser(const IItemDeserialiser&) = default;
    IItemDeserialiser& operator=(const IItemDeserialiser&) = default;
    virtual ~IItemDeserialiser();
    virtual InputArchive DeserialiseItem(InputArchive ar, void* item) = 0;
};

// The output half of an Archive: a buffer in front of a stream.
//
// Threads: belongs to the thread that made it.
// Invariant: m_writeBuffer <= m_pos <= m_writeBuffer + ARCHIVE_BUFSIZE; a plain value is never split by a flush.
class QX_API BaseArchiveOut {
public:
    explicit BaseArchiveOut(IOutputStream* oStream);
    BaseArchiveOut(const BaseArchiveOut&) = delete;
    BaseArchiveOut& operator=(const BaseArchiveOut&) = delete;

    // Hands what is still buffered to the stream; when an exception has begun to pass since construction, what is
    // buffered is half a record and is dropped instead.
    ~BaseArchiveOut() noexcept(false);

    // Appends the value's own bytes.
    template <class T>
    void SerialisePod(const T& x) {
        static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= ARCHIVE_BUFSIZE);
        std::memcpy(BeginWrite(static_cast<ssize_t>(sizeof(T))), &x, sizeof(T));
        m_pos += sizeof(T);
    }

    // Appends n bytes, n of any size.
    void Write(const void* bytes, ssize_t n);

    // Room for n contiguous bytes in the buffer, 0 <= n <= ARCHIVE_BUFSIZE; flushes first when there is none.
    // EndWrite commits the bytes up to `pos`.
    octet_t* BeginWrite(ssize_t n) {
        QX_ASSERT_IN("src/Archive", m_writeBuffer <= m_pos && m_pos <= m_writeBuffer+ARCHIVE_BUFSIZE);
        if (n > ARCHIVE_BUFSIZE - NumBufferedWrites()) [[unlikely]]
            FlushBuffer();
        return m_pos; // read again: a flush has moved it
    }
    void EndWrite(octet_t* pos) { m_pos = pos; }

    // Copies all that the stream still gives, or at most n bytes of it; the result is the number of bytes copied.
    ssize_t WriteStream(IInputStream* stream);
    ssize_t WriteStream(IInputStream* stream, ssize_t n);

    void FlushBuffer();
    void Flush();

    ssize_t NumBufferedWrites() const { return m_pos - m_writeBuffer; }
    int64 GetNumBytesWrittenToStream() const { return m_numBytesWrittenToStream; }
    int64 GetNumBytesWritten() const { return m_numBytesWrittenToStream + NumBufferedWrites(); }
    void ClearWriteBuffer() { m_pos = m_writeBuffer; }
    void ClearWriteBufferAndNumBytesWritten() {
        ClearWriteBuffer();
        m_numBytesWrittenToStream = 0;
    }

    bool HaveOutputStream() const { return m_oStream != nullptr; }
    IOutputStream* GetOutputStream() const { return m_oStream; }
    void SetOutputStream(IOutputStream* oStream) { m_oStream = oStream; }

protected:
    octet_t m_writeBuffer[ARCHIVE_BUFSIZE]; // bytes before m_pos are set
    octet_t* m_pos;
    IOutputStream* m_oStream; // not owned
    int64 m_numBytesWrittenToStream = 0;

public:
    // Not owned. When set, it alone decides the bytes of each identifier's high half.
    IItemSerialiser* m_oidHighSerialiser = nullptr;

private:
    int m_uncaughtAtConstruction;
};

// The input half of an Archive: reads from a stream, with bytes that can be put back in front of it.
class QX_API BaseArchiveIn {
public:
    explicit BaseArchiveIn(IInputStream* iStream) : m_iStream(iStream) {}
    BaseArchiveIn(const BaseArchiveIn&) = delete;
    BaseArchiveIn& operator=(const BaseArchiveIn&) = delete;

    // Reads exactly n bytes; RecordException when the stream ends before that.
    void Read(void* bytes, ssize_t n);
    // Reads up to n bytes; the result is the number read, less than n only at the stream's end.
    ssize_t TryRead(void* bytes, ssize_t n);
    void InsertAtFront(const void* bytes, ssize_t n);
    void Skip(ssize_t n);

    ssize_t NumBufferedReads() const { return m_buffer.size(); }
    void ClearReadBuffer() { m_buffer.clear(); }
    bool HaveInputStream() const { return m_iStream != nullptr; }
    IInputStream* GetInputStream() const { return m_iStream; }
    void SetInputStream(IInputStream* iStream) { m_iStream = iStream; }

protected:
    IInputStream* m_iStream; // not owned
    VectorOfByte m_buffer;   // read before the stream

public:
    IItemDeserialiser* m_oidHighDeserialiser = nullptr; // not owned
};

// Both halves. A record is written by a scoped Archive over its stream: build it, serialise, let it die, which
// flushes, then close the stream.
class QX_API Archive : public BaseArchiveOut, public BaseArchiveIn {
public:
    explicit Archive(IOutputStream* oStream) : BaseArchiveOut(oStream), BaseArchiveIn(nullptr) {}
    explicit Archive(IInputStream* iStream) : BaseArchiveOut(nullptr), BaseArchiveIn(iStream) {}
    bool IsStoring() const { return m_oStream != nullptr; }
    bool IsLoading() const { return m_iStream != nullptr; }
};

// A cursor in a record. It has no end; qxUtils/RecordLimits.h says how reads are checked all the same.
class InputArchive {
public:
    InputArchive(const octet_t* p_) : p(p_) {}    // NOLINT(google-explicit-constructor): a pointer is a cursor
    operator const octet_t*() const { return p; } // NOLINT(google-explicit-constructor)
    const octet_t* ptr() const { return p; }
    InputArchive& operator+=(ssize_t n) {
        CheckRecordSkip(p, n);
        p += n;
        return *this;
    }
    InputArchive& operator-=(ssize_t n) {
        p -= n;
        return *this;
    }

    const octet_t* p;
};

// Copies sizeof(T) bytes from p, of any alignment, into x and gives the pointer behind them.
template <class T>
const octet_t* DeserialisePod(const octet_t* p, T& x) {
    static_assert(std::is_trivially_copyable_v<T>);
    if constexpr (sizeof(T) <= static_cast<std::size_t>(MAX_UNCHECKED_READ))
        CheckRecordCursor(p);
    else
        CheckRecordRemaining(p, static_cast<ssize_t>(sizeof(T)));
    std::memcpy(&x, p, sizeof(T));
    return p + sizeof(T);
}

#define QX_ARCHIVE_POD(T)                                                                                              \
    inline Archive& operator<<(Archive& ar, T x) {                                                                     \
        ar.SerialisePod(x);                                                                                            \
        return ar;                                                                                                     \
    }                                                                                                                  \
    inline InputArchive operator>>(InputArchive ar, T& x) { return DeserialisePod(ar.p, x); }

QX_ARCHIVE_POD(int8)
QX_ARCHIVE_POD(uint8)
QX_ARCHIVE_POD(int16)
QX_ARCHIVE_POD(uint16)
QX_ARCHIVE_POD(int32)
QX_ARCHIVE_POD(uint32)
QX_ARCHIVE_POD(int64)
QX_ARCHIVE_POD(uint64)
QX_ARCHIVE_POD(float32)
QX_ARCHIVE_POD(float64)
QX_ARCHIVE_POD(char)
#undef QX_ARCHIVE_POD

inline Archive& operator<<(Archive& ar, bool x) {
    ar.SerialisePod(x);
    return ar;
}

// Any byte but 0 is true: a bool must never be made from another byte.
inline InputArchive operator>>(InputArchive ar, bool& x) {
    uint8 byte = 0;
    ar = DeserialisePod(ar.p, byte);
    x = byte != 0;
    return ar;
}

} // namespace quna
