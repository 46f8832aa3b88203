// From arguments to a command and its options.
#pragma once

#include "tools/qxstore/Commands.h"

#include <string>

namespace quna::qxstore {

using Command = EExit (*)(const Options& options, Console& console);

struct CommandLine {
    Command command = nullptr; // null: there is nothing to do but to exit
    std::string name;          // of the command
    Options options;
    EExit exitCode = EXIT_GOOD; // without a command
};

// Prints help, version or what is wrong with the arguments.
CommandLine ParseCommandLine(int argc, const char* const* argv, Console& console);

} // namespace quna::qxstore
