// A graph of live objects that survives its process: the packages of this machine, from the package manager's database
// into a store and back. scripts/demo shows it at work.
#include "Commands.h"
#include "DpkgStatus.h"
#include "Package.h"
#include "Session.h"
#include "qxLss/CorruptLSSException.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxUtils/Exceptions.h"

#include <cerrno>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr const char* USAGE =
    "usage: packagegraph import STORE [DATABASE]   make a store from a package database\n"
    "                                              (default: /var/lib/dpkg/status)\n"
    "       packagegraph info STORE                say what the store holds\n"
    "       packagegraph show STORE PACKAGE        what the package depends on\n"
    "       packagegraph hold STORE PACKAGE        change the package, then wait to be killed\n"
    "       packagegraph remove STORE PACKAGE      remove the package and what only it needs\n";

constexpr const char* DEFAULT_DATABASE = "/var/lib/dpkg/status";

// False when the arguments are no command.
bool Run(const std::vector<std::string>& args) {
    using namespace packagegraph;
    const std::string command = args.empty() ? "" : args[0];
    if (command == "import" && (args.size() == 2 || args.size() == 3))
        Import(args[1], args.size() == 3 ? args[2] : DEFAULT_DATABASE);
    else if (command == "info" && args.size() == 2)
        Info(args[1]);
    else if (command == "show" && args.size() == 3)
        Show(args[1], args[2]);
    else if (command == "hold" && args.size() == 3)
        Hold(args[1], args[2]);
    else if (command == "remove" && args.size() == 3)
        Remove(args[1], args[2]);
    else
        return false;
    return true;
}

const char* WhatToDoAbout(const quna::FileException& e, const std::string& command) {
    switch (e.GetErrno()) {
    case ENOSPC:
    case EDQUOT: return "Make room on that file system, then try again.";
    case EROFS:
    case EACCES:
    case EPERM: return "Choose a path where you may read and write.";
    default: break;
    }
    if (command == "import") return "Give the new store a name that is not in use, in a folder that exists.";
    return "Check the path, or make the store first: packagegraph import STORE. A store that is in use is free again "
           "when "
           "the process that has it ends.";
}

int Fail(const std::exception& e, const char* whatToDo) {
    std::cerr << "packagegraph: " << e.what() << '\n' << whatToDo << '\n';
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    std::cout << std::unitbuf; // whoever watches through a pipe sees each line when it is written
    try {
        packagegraph::RegisterClasses();
        if (Run(args)) return 0;
        std::cerr << USAGE;
        return 2;
    } catch (const packagegraph::DpkgStatusError& e) {
        return Fail(e, "Give another database: packagegraph import STORE DATABASE (examples/data has a sample).");
    } catch (const packagegraph::NotFoundError& e) {
        return Fail(e, "See what the store holds: packagegraph info STORE");
    } catch (const quna::OpenPSpaceException& e) {
        return Fail(e, "This store was not made by 'packagegraph import'. Give one that was.");
    } catch (const quna::CorruptLSSException& e) {
        return Fail(e, "Put a copy of the store in its place, or remove it and import again.");
    } catch (const quna::FileException& e) {
        return Fail(e, WhatToDoAbout(e, args.front()));
    } catch (const std::exception& e) {
        return Fail(e, "This is not foreseen: keep the store and the text above for whoever looks into it.");
    }
}
