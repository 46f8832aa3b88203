#include "qxUtils/xostream.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace quna {

namespace {

constexpr ssize_t MAX_NUMBER_LENGTH = 32; // characters of the longest number

template <class Number>
void PutNumber(xostream& os, Number x) {
    char text[MAX_NUMBER_LENGTH];
    const std::to_chars_result result = std::to_chars(text, text + MAX_NUMBER_LENGTH, x);
    os.put(text, result.ptr - text);
}

template <class Number>
xostream& Print(xostream& os, Number x) {
    PutNumber(os, x);
    return os;
}

} // namespace

xostream::~xostream() noexcept(false) = default;

void xostream::put(const char* text) { put(text, static_cast<ssize_t>(std::strlen(text))); }

void xostream::put(const char* text, ssize_t n) {
    if (m_indentation == 0) {
        if (n > 0) {
            m_oStream->WriteStream(text, n);
            m_atLineStart = text[n - 1] == '\n';
        }
        return;
    }
    const std::string blanks(static_cast<std::size_t>(m_indentation), ' ');
    const char* const end = text + n;
    while (text != end) {
        const char* lineEnd = std::find(text, end, '\n');
        if (lineEnd != text && m_atLineStart) m_oStream->WriteStream(blanks.data(), m_indentation);
        if (lineEnd != end) ++lineEnd;
        m_oStream->WriteStream(text, lineEnd - text);
        m_atLineStart = lineEnd[-1] == '\n';
        text = lineEnd;
    }
}

void xostream::put(ssize_t x) { PutNumber(*this, x); }
void xostream::put(uint64 x) { PutNumber(*this, x); }
void xostream::put(double x) { PutNumber(*this, x); }
void xostream::flush() { m_oStream->FlushStream(); }

xostream& operator<<(xostream& os, const char* text) {
    os.put(text);
    return os;
}

xostream& operator<<(xostream& os, char c) {
    os.put(c);
    return os;
}

xostream& operator<<(xostream& os, bool x) { return os << (x ? "true" : "false"); }
xostream& operator<<(xostream& os, int8 x) { return Print(os, static_cast<int>(x)); }
xostream& operator<<(xostream& os, uint8 x) { return Print(os, static_cast<int>(x)); }
xostream& operator<<(xostream& os, int16 x) { return Print(os, x); }
xostream& operator<<(xostream& os, uint16 x) { return Print(os, x); }
xostream& operator<<(xostream& os, int32 x) { return Print(os, x); }
xostream& operator<<(xostream& os, uint32 x) { return Print(os, x); }
xostream& operator<<(xostream& os, int64 x) { return Print(os, x); }
xostream& operator<<(xostream& os, uint64 x) { return Print(os, x); }
xostream& operator<<(xostream& os, float32 x) { return Print(os, x); }
xostream& operator<<(xostream& os, float64 x) { return Print(os, x); }

xostream& operator<<(xostream& os, const xstring& text) {
    os.put(text.c_str(), text.size());
    return os;
}

xostream& operator<<(xostream& os, std::string_view text) {
    os.put(text.data(), static_cast<ssize_t>(text.size()));
    return os;
}

xostream& operator<<(xostream& os, const Guid& guid) {
    os << HexNumber(guid.Data1) << '-' << HexNumber(guid.Data2) << '-' << HexNumber(guid.Data3) << '-';
    for (int i = 0; i < 8; ++i) {
        if (i == 2) os << '-';
        os << HexNumber(guid.Data4[i]);
    }
    return os;
}

void WriteHex(xostream& os, const void* number, ssize_t numBytes, bool upperCase) {
    const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
    const auto* bytes = static_cast<const octet_t*>(number);
    for (ssize_t i = numBytes - 1; i >= 0; --i) { // little-endian: the most significant byte is the last
        const char pair[2] = {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
        os.put(pair, 2);
    }
}

namespace detail {

void ByteCollector::WriteStream(const void* buffer, ssize_t n) { m_bytes.append(buffer, n); }
void ByteCollector::FlushStream() {}

} // namespace detail

StringStream::StringStream(ssize_t capacity) : xostream(static_cast<detail::ByteCollector*>(this)) {
    m_bytes.reserve(capacity);
}

StringStream::~StringStream() noexcept(false) = default;

void StringStream::GetString(xstring& text, bool append) const {
    if (append)
        text.m_buffer.append(m_bytes.data(), m_bytes.size());
    else
        text.m_buffer.assign(m_bytes.data(), m_bytes.size());
}

} // namespace quna
