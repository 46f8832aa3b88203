// Expectations that an action is refused: with an assertion of a given text, or with an exception of a given text.
//
//     ExpectAssertion("po", [&] { roots.AddRoot("r", nullptr); });
//     ExpectAssertion("e.m_ptr == __null", "src/PSpaceMap", [&] { store.OpenPSpace("a"); });
//     ExpectException<FileException>("Cannot open \"x\": ...", [&] { Open("x"); });
//
// Texts are compared as a whole. A failure is reported at the caller's line and the test goes on.
#pragma once

#include "qxUtils/Exceptions.h"
#include "qxUtils/xostream.h"

#include <exception>
#include <string>
#include <type_traits>
#include <typeinfo>

#include <gtest/gtest.h>

namespace quna {

// What IException::Write gives for `e`.
inline std::string TextOf(const IException& e) {
    StringStream os(256);
    e.Write(os);
    return std::string(os.c_str(), static_cast<std::size_t>(os.size()));
}

namespace detail {

// Runs `action` and gives the exception of type E that it throws to `check`; anything else is a failure at file:line.
template <class E, class Action, class Check>
void ExpectThrow(const std::string& expectation, Action&& action, Check&& check, const char* file, int line) {
    try {
        action();
        ADD_FAILURE_AT(file, line) << expectation << "\nbut nothing was thrown";
    } catch (const E& e) {
        check(e);
    } catch (const std::exception& e) {
        ADD_FAILURE_AT(file, line) << expectation << "\nbut found " << typeid(e).name() << ": " << e.what();
    } catch (...) {
        ADD_FAILURE_AT(file, line) << expectation << "\nbut found an exception that is no std::exception";
    }
}

} // namespace detail

// `action` fails the assertion `text`.
template <class Action>
    requires std::is_invocable_v<Action&>
void ExpectAssertion(const std::string& text, Action&& action, const char* file = __builtin_FILE(),
                     int line = __builtin_LINE()) {
    detail::ExpectThrow<QunaAssertionError>(
        "expected the assertion \"" + text + "\"", action,
        [&](const QunaAssertionError& e) {
            if (text != e.GetText())
                ADD_FAILURE_AT(file, line) << "expected the assertion \"" << text << "\"\nbut found     \""
                                           << e.GetText() << "\" in " << e.GetPath() << ":" << e.GetLine();
        },
        file, line);
}

// `action` fails the assertion `text` of the source `path`, which is given as in "src/PSpaceMap".
template <class Action>
    requires std::is_invocable_v<Action&>
void ExpectAssertion(const std::string& text, const std::string& path, Action&& action,
                     const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    detail::ExpectThrow<QunaAssertionError>(
        "expected the assertion \"" + text + "\" in " + path, action,
        [&](const QunaAssertionError& e) {
            if (text != e.GetText() || path != e.GetPath())
                ADD_FAILURE_AT(file, line)
                    << "expected the assertion \"" << text << "\" in " << path << "\nbut found     \"" << e.GetText()
                    << "\" in " << e.GetPath() << ":" << e.GetLine();
        },
        file, line);
}

// `action` throws an E whose Write gives `text` and whose what() agrees with it.
template <class E, class Action>
    requires std::is_invocable_v<Action&>
void ExpectException(const std::string& text, Action&& action, const char* file = __builtin_FILE(),
                     int line = __builtin_LINE()) {
    static_assert(std::is_base_of_v<IException, E>);
    detail::ExpectThrow<E>(
        std::string("expected a ") + typeid(E).name() + " \"" + text + "\"", action,
        [&](const E& e) {
            const std::string found = TextOf(e);
            if (found != text)
                ADD_FAILURE_AT(file, line)
                    << "expected a " << typeid(E).name() << " \"" << text << "\"\nbut found \"" << found << "\"";
            if (found != e.what())
                ADD_FAILURE_AT(file, line) << "Write gives \"" << found << "\"\nbut what() \"" << e.what() << "\"";
        },
        file, line);
}

} // namespace quna
