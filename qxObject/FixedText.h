// A text as a template argument.
#pragma once

#include <cstddef>

namespace quna {

template <std::size_t N>
struct FixedText {
    constexpr FixedText(const char (&chars)[N]) { // NOLINT(google-explicit-constructor): a literal is a text
        for (std::size_t i = 0; i < N; ++i) text[i] = chars[i];
    }
    char text[N] = {};
};

} // namespace quna
