// qxstore: looks into a store file without the classes of the application that wrote it. docs/qxstore.md shows it at work.
#include "tools/qxstore/Program.h"

#include <csignal>
#include <iostream>

#include <unistd.h>

int main(int argc, char** argv) {
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow is an error like a full disk
    quna::qxstore::Console console{std::cout, std::cerr, ::isatty(STDERR_FILENO) != 0};
    return quna::qxstore::RunProgram(argc, argv, console);
}
