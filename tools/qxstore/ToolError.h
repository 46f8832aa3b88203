// How the tool fails.
#pragma once

#include "qxLss/src/StoreCore.h"

#include <stdexcept>
#include <string>

namespace quna::qxstore {

// The exit status of the program. docs/qxstore.md lists them.
enum EExit {
    EXIT_GOOD = 0,
    EXIT_DAMAGED = 1,      // the store is damaged
    EXIT_USAGE = 2,        // wrong arguments
    EXIT_NO_OPEN = 3,      // the store can't be opened, for another reason than damage
    EXIT_NOT_FOUND = 4,    // what was asked for is not in the store
    EXIT_INTERNAL = 5,     // a failure that is not foreseen
    EXIT_NO_TARGET = 6,    // the file that the command makes can't be made
    EXIT_INTERRUPTED = 130 // Ctrl-C, as shells count it
};

// One sentence for the user: what failed, where, and what can be done.
class ToolError : public std::runtime_error {
public:
    ToolError(EExit exitCode, const std::string& text) : std::runtime_error(text), m_exitCode(exitCode) {}
    EExit ExitCode() const { return m_exitCode; }

private:
    const EExit m_exitCode;
};

// How the library begins and ends the text of a CorruptLSSException: a sentence of its own says what can be done. A longer
// text says the beginning once, and has an end of its own.
inline std::string DamagePrefix(const std::string& path) { return "The store '" + path + "' is damaged: "; }
inline std::string WithoutAdvice(const std::string& text) {
    const std::string advice = std::string(". ") + ADVICE_RESTORE;
    return text.ends_with(advice) ? text.substr(0, text.size() - advice.size()) : text;
}
inline std::string WithoutDamagePrefix(const std::string& text, const std::string& path) {
    const std::string prefix = DamagePrefix(path);
    return WithoutAdvice(text.starts_with(prefix) ? text.substr(prefix.size()) : text);
}

} // namespace quna::qxstore
