// Keys and payloads for trees: of odd sizes, counted, and such that throw.
#pragma once

#include "qxObject/Reflect.h"
#include "qxUtils/Archive.h"
#include "qxUtils/xostream.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace quna {

// N bytes in which a number stands, most significant first, so that the bytes order as the numbers do.
template <int N>
struct BytesKey {
    BytesKey() = default;
    BytesKey(uint64 number) { // NOLINT(google-explicit-constructor): stands for its number
        for (int i = N; i-- > 0 && number > 0; number >>= 8)
            m_bytes[static_cast<std::size_t>(i)] = static_cast<octet_t>(number);
    }
    uint64 Number() const {
        uint64 number = 0;
        for (octet_t byte : m_bytes) number = number << 8 | byte;
        return number;
    }
    auto operator<=>(const BytesKey&) const = default;

    std::array<octet_t, N> m_bytes{};
};
template <int N>
Archive& operator<<(Archive& ar, const BytesKey<N>& x) {
    ar.Write(x.m_bytes.data(), N);
    return ar;
}
template <int N>
InputArchive operator>>(InputArchive ar, BytesKey<N>& x) {
    CheckRecordRemaining(ar.p, N);
    std::memcpy(x.m_bytes.data(), ar.p, N);
    return ar += N;
}
template <int N>
xostream& operator<<(xostream& os, const BytesKey<N>& x) {
    return os << x.Number();
}

using Key3 = BytesKey<3>;
using Key24 = BytesKey<24>;
QX_REFLECT_CLASS(Key3, "test::Key3", REFLECTED_CLASS_FOR_APPLICATIONS)
QX_REFLECT_CLASS(Key24, "test::Key24", REFLECTED_CLASS_FOR_APPLICATIONS)

// A number in memory of its own: a value that is destroyed twice or not at all, or used afterwards, shows, and a sanitizer
// sees it too. Copies may be made to throw.
class CountedValue {
public:
    CountedValue() : m_p(new uint64(0)) { ++s_numLive; }
    CountedValue(uint64 x) : m_p(new uint64(x)) { ++s_numLive; } // NOLINT(google-explicit-constructor)
    CountedValue(const CountedValue& rhs) : m_p(Copied(rhs)) {
        ++s_numLive;
        ++s_numCopies;
    }
    CountedValue& operator=(const CountedValue& rhs) {
        MayThrow();
        *m_p = *rhs.m_p;
        ++s_numAssigned;
        return *this;
    }
    ~CountedValue() {
        delete m_p;
        --s_numLive;
    }
    uint64 Number() const { return *m_p; }
    bool operator==(const CountedValue& rhs) const { return *m_p == *rhs.m_p; }
    bool operator<(const CountedValue& rhs) const { return *m_p < *rhs.m_p; }
    void Serialise(Archive& ar) const { ar << *m_p; }
    InputArchive Deserialise(InputArchive ar) { return ar >> *m_p; }

    static inline int s_numLive = 0;
    static inline int s_numCopies = 0;
    static inline int s_numAssigned = 0;
    static inline int s_copiesUntilThrow = -1; // the copy after so many throws; -1: none does

private:
    static uint64* Copied(const CountedValue& rhs) {
        MayThrow();
        return new uint64(*rhs.m_p);
    }
    static void MayThrow() {
        if (s_copiesUntilThrow >= 0 && s_copiesUntilThrow-- == 0) throw std::runtime_error("copy");
    }
    uint64* m_p;
};
inline xostream& operator<<(xostream& os, const CountedValue& x) { return os << x.Number(); }
QX_REFLECT_CLASS(CountedValue, "test::CountedValue", REFLECTED_CLASS_FOR_APPLICATIONS)

// Behind RegisterTestObjects.
inline void RegisterTreeTypes() {
    static std::once_flag once;
    std::call_once(once, [] {
        static constexpr dsTarget TARGET = {"Quna/TreeTests", nullptr, 0, nullptr, 0};
        XTarget* const target = RegisterTarget(TARGET);
        _Register_Key3(target);
        _Register_Key24(target);
        _Register_CountedValue(target);
    });
}

} // namespace quna
