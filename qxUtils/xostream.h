// Text output.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Guid.h"
#include "qxUtils/IStream.h"
#include "qxUtils/VectorOfByte.h"
#include "qxUtils/xstring.h"

#include <string>
#include <string_view>

namespace quna {

// Writes text to a byte stream, with an indentation that Indenter sets for a scope.
// Ownership: the stream is borrowed. Threads: belongs to one thread at a time.
class QX_API xostream {
public:
    explicit xostream(IOutputStream* oStream) : m_oStream(oStream) {}
    xostream(const xostream&) = delete;
    xostream& operator=(const xostream&) = delete;
    virtual ~xostream() noexcept(false);

    void put(const char* text);
    void put(const char* text, ssize_t n);
    void put(char c) { put(&c, 1); }
    void put(int x) { put(static_cast<ssize_t>(x)); }
    void put(ssize_t x);
    void put(uint64 x);
    void put(double x); // the shortest form that reads back as the same number
    void flush();

    ssize_t GetIndentation() const { return m_indentation; }
    // Columns of blanks in front of each line that has text; takes effect at the next line's start.
    void SetIndentation(ssize_t columns) { m_indentation = columns; }

private:
    IOutputStream* m_oStream;
    ssize_t m_indentation = 0; // columns
    bool m_atLineStart = true;
};

QX_API xostream& operator<<(xostream& os, const char* text);
QX_API xostream& operator<<(xostream& os, char c);
QX_API xostream& operator<<(xostream& os, bool x); // "true" or "false"
QX_API xostream& operator<<(xostream& os, int8 x);
QX_API xostream& operator<<(xostream& os, uint8 x);
QX_API xostream& operator<<(xostream& os, int16 x);
QX_API xostream& operator<<(xostream& os, uint16 x);
QX_API xostream& operator<<(xostream& os, int32 x);
QX_API xostream& operator<<(xostream& os, uint32 x);
QX_API xostream& operator<<(xostream& os, int64 x);
QX_API xostream& operator<<(xostream& os, uint64 x);
QX_API xostream& operator<<(xostream& os, float32 x);
QX_API xostream& operator<<(xostream& os, float64 x);
QX_API xostream& operator<<(xostream& os, const xstring& text);
QX_API xostream& operator<<(xostream& os, std::string_view text);
inline xostream& operator<<(xostream& os, const std::string& text) { return os << std::string_view(text); }
// 8-4-4-4-12 lower-case hexadecimal digits.
QX_API xostream& operator<<(xostream& os, const Guid& guid);

// The bytes of a number as 2 * numBytes hexadecimal digits, most significant first, without a prefix.
QX_API void WriteHex(xostream& os, const void* number, ssize_t numBytes, bool upperCase);

// Prints its value in hexadecimal, over the size of T.
template <class T>
struct HexNumber {
    explicit HexNumber(T x_) : x(x_) {}
    T x;
};

template <class T>
xostream& operator<<(xostream& os, const HexNumber<T>& number) {
    WriteHex(os, &number.x, static_cast<ssize_t>(sizeof(T)), false);
    return os;
}

namespace detail {

// Collects bytes. A base of StringStream, so that it exists before the xostream over it.
class QX_API ByteCollector : public IOutputStream {
public:
    void WriteStream(const void* buffer, ssize_t n) override;
    void FlushStream() override;
    VectorOfByte m_bytes;
};

} // namespace detail

// Collects text. `capacity` is the number of bytes that fit before memory is taken again.
class QX_API StringStream : private detail::ByteCollector, public xostream {
public:
    explicit StringStream(ssize_t capacity = 0);
    ~StringStream() noexcept(false) override;

    // Gives the text collected so far; with `append` behind what `text` holds, otherwise in its place.
    void GetString(xstring& text, bool append = false) const;
    ConstStringZ c_str() const { return m_bytes.empty() ? "" : reinterpret_cast<ConstStringZ>(m_bytes.data()); }
    ssize_t size() const { return m_bytes.size(); }
};

inline constexpr ssize_t DEFAULT_TRACE_INDENTATION = 2; // columns

// Indents a stream by further columns for a scope.
class Indenter {
public:
    Indenter(xostream& os, ssize_t columns) : m_os(os), m_previous(os.GetIndentation()) {
        os.SetIndentation(m_previous + columns);
    }
    ~Indenter() { m_os.SetIndentation(m_previous); }
    Indenter(const Indenter&) = delete;
    Indenter& operator=(const Indenter&) = delete;

private:
    xostream& m_os;
    ssize_t m_previous;
};

} // namespace quna
