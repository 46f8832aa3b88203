// The library's string.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/xvector.h"

#include <cstring>
#include <string>
#include <string_view>

namespace quna {

template <class Char>
class basic_xstring;

// Bytes with a terminating zero behind them. Derives from xvector<char> and adds no field; the zero is kept by the
// byte vector underneath, so that c_str() costs nothing, whoever changed the text.
template <>
class basic_xstring<char> : public xvector<char> {
public:
    basic_xstring() = default;
    basic_xstring(ConstStringZ text) { // NOLINT(google-explicit-constructor): a literal is a string
        if (text) append(text, static_cast<ssize_t>(std::strlen(text)));
    }
    basic_xstring(const char* text, ssize_t n) { append(text, n); }
    explicit basic_xstring(std::string_view text) { append(text.data(), static_cast<ssize_t>(text.size())); }

    ConstStringZ c_str() const { return empty() ? "" : data(); }
    std::string_view view() const { return {c_str(), static_cast<std::size_t>(size())}; }
    std::string str() const { return std::string(view()); }

    basic_xstring& operator+=(const basic_xstring& rhs) {
        m_buffer.append(rhs.m_buffer.data(), rhs.m_buffer.size());
        return *this;
    }
    basic_xstring& operator+=(ConstStringZ rhs) {
        m_buffer.append(rhs, static_cast<ssize_t>(std::strlen(rhs)));
        return *this;
    }
    basic_xstring& operator+=(char c) {
        push_back(c);
        return *this;
    }
};

using xstring = basic_xstring<char>;
using string8 = xstring;

inline bool operator==(const xstring& x, const xstring& y) { return x.m_buffer == y.m_buffer; }
inline bool operator==(const xstring& x, ConstStringZ y) { return x.view() == y; }
inline bool operator!=(const xstring& x, const xstring& y) { return !(x == y); }
inline bool operator!=(const xstring& x, ConstStringZ y) { return !(x == y); }
// The ordinary string order: bytewise as unsigned, then shorter first.
inline bool operator<(const xstring& x, const xstring& y) { return x.m_buffer < y.m_buffer; }
inline bool operator>(const xstring& x, const xstring& y) { return y < x; }
inline bool operator<=(const xstring& x, const xstring& y) { return !(y < x); }
inline bool operator>=(const xstring& x, const xstring& y) { return !(x < y); }

} // namespace quna
