// How the tool fails.
#pragma once

#include <stdexcept>
#include <string>

namespace quna::qxstore {

// The exit status of the program. docs/qxstore.md lists them.
enum EExit {
    EXIT_GOOD = 0,
    EXIT_DAMAGED = 1,   // the store is damaged
    EXIT_USAGE = 2,     // wrong arguments
    EXIT_NO_OPEN = 3,   // the store can't be opened, for another reason than damage
    EXIT_NOT_FOUND = 4, // what was asked for is not in the store
    EXIT_INTERNAL = 5   // a failure that is not foreseen
};

// One sentence for the user: what failed, where, and what can be done.
class ToolError : public std::runtime_error {
public:
    ToolError(EExit exitCode, const std::string& text) : std::runtime_error(text), m_exitCode(exitCode) {}
    EExit ExitCode() const { return m_exitCode; }

private:
    const EExit m_exitCode;
};

} // namespace quna::qxstore
