// A truth test that cannot be confused with a number.
#pragma once

namespace quna {

// Empty base: gives Derived the test `if (x)` through Derived::boolean_test(), and nothing else. Two testable types
// that are not otherwise comparable do not compare, since the conversion is explicit.
template <class Derived>
class safe_bool {
public:
    constexpr explicit operator bool() const { return static_cast<const Derived&>(*this).boolean_test(); }

protected:
    constexpr safe_bool() = default;
    constexpr safe_bool(const safe_bool&) = default;
    constexpr safe_bool& operator=(const safe_bool&) = default;
    ~safe_bool() = default;
};

} // namespace quna
