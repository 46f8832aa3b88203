// From arguments to a command and its options.
#pragma once

#include "tools/qxstore/Commands.h"

#include <string>

namespace quna::qxstore {

using Command = EExit (*)(const Options& options);

struct CommandLine {
    Command command = nullptr; // null: there is nothing to do but to exit
    std::string name;          // of the command
    Options options;
    EExit exitCode = EXIT_GOOD; // without a command
};

// Prints help, version or what is wrong with the arguments.
CommandLine ParseCommandLine(int argc, char** argv);

} // namespace quna::qxstore
