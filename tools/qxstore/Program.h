// The whole program but for the process around it, so that tests can run it as often as they like.
#pragma once

#include "tools/qxstore/Console.h"

namespace quna::qxstore {

// Runs the command that the arguments name, `argv[0]` being the program. Gives the exit status; throws nothing.
int RunProgram(int argc, const char* const* argv, Console& console);

} // namespace quna::qxstore
