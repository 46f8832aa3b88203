// The key of a serial element.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/safe_bool.h"

#include <cstddef>
#include <functional>

namespace quna {

class xostream;

using SeidPart = uint32;
using SeidLow = SeidPart;
using SeidHigh = SeidPart;

// Names one serial element of a log-structured store: a high half, which says in which identifier space it was
// allocated, and a low half, which numbers it there. Null is all bits zero. The order is that of the 64-bit value: high
// half first.
struct Seid : safe_bool<Seid> {
    constexpr Seid() : value_(0) {}
    constexpr Seid(SeidLow low, SeidHigh high) : value_(static_cast<uint64>(high) << 32 | low) {}
    constexpr explicit Seid(uint64 value) : value_(value) {}

    constexpr bool boolean_test() const { return value_ != 0; }
    void SetNull() { value_ = 0; }

    // The halves and the whole are the same bytes; the platform is little-endian. The anonymous structure is an
    // extension that both compilers have.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
    union {
        uint64 value_;
        struct {
            SeidLow low_;
            SeidHigh high_;
        };
    };
#pragma GCC diagnostic pop
};

static_assert(sizeof(Seid) == 8 && alignof(Seid) == 8);

constexpr bool operator==(Seid a, Seid b) { return a.value_ == b.value_; }
constexpr bool operator!=(Seid a, Seid b) { return a.value_ != b.value_; }
constexpr bool operator<(Seid a, Seid b) { return a.value_ < b.value_; }

// The root element of every store: the first identifier that a new store hands out.
inline constexpr Seid ROOT_SEID(0, 1);

// Text form: the high half as 8 hexadecimal digits, ':', the low half likewise, for example "00000001:0000002a".
QX_API xostream& operator<<(xostream& os, Seid seid);

} // namespace quna

template <>
struct std::hash<quna::Seid> {
    std::size_t operator()(quna::Seid seid) const noexcept {
        // Neighbouring lows of few highs are the rule, so the bits are spread by a multiplication.
        return static_cast<std::size_t>((seid.value_ ^ seid.value_ >> 32) * 0x9E3779B97F4A7C15u);
    }
};
