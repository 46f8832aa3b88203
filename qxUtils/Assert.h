// Assertions: active in every build, they report a programmer's mistake by throwing QunaAssertionError.
//
// The text is the condition's exact source text and is behaviour: applications and tests compare it. So the formatter
// leaves these macros alone (WhitespaceSensitiveMacros), and a condition stands on one line. A condition is evaluated
// in every build and may have effects.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// Throws QunaAssertionError (qxUtils/Exceptions.h), which carries the three arguments. `path` is the source's path
// within its module without the ending, for example "src/PSpaceMap". All three must be literals or outlive the call;
// the exception copies them.
[[noreturn]] QX_API void ThrowQunaAssertionError(const char* text, const char* path, int line);

} // namespace quna

// QX_ASSERT_TEXT(cond, "text") expands to:
//     if (cond) {} else ThrowQunaAssertionError("text", SOURCE_PATH, __LINE__)
// SOURCE_PATH is a ConstStringZ constant of the source file. QX_ASSERT takes the condition's own text; QX_ASSERT_IN
// names the path, for headers.
#define QX_ASSERT(...)                                                                                                 \
    do {                                                                                                               \
        if (!static_cast<bool>(__VA_ARGS__)) [[unlikely]]                                                              \
            ::quna::ThrowQunaAssertionError(#__VA_ARGS__, SOURCE_PATH, __LINE__);                                      \
    } while (false)

#define QX_ASSERT_TEXT(cond, text)                                                                                     \
    do {                                                                                                               \
        if (!static_cast<bool>(cond)) [[unlikely]]                                                                     \
            ::quna::ThrowQunaAssertionError(text, SOURCE_PATH, __LINE__);                                              \
    } while (false)

#define QX_ASSERT_IN(path, ...)                                                                                        \
    do {                                                                                                               \
        if (!static_cast<bool>(__VA_ARGS__)) [[unlikely]]                                                              \
            ::quna::ThrowQunaAssertionError(#__VA_ARGS__, path, __LINE__);                                             \
    } while (false)
