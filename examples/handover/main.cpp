// A project that moves from one store to another and back: an object with all that it owns, as bytes, its references intact
// in both directions. run-demo.sh shows it at work.
#include "Commands.h"
#include "Office.h"
#include "Session.h"
#include "SubTreeStream.h"
#include "qxLss/CorruptLSSException.h"
#include "qxUtils/Exceptions.h"

#include <charconv>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr const char* USAGE = "usage: handover create STORE [STEPS]     make a store with a project of so many steps\n"
                              "       handover show STORE               say how far the project is\n"
                              "       handover work STORE               go on with the project\n"
                              "       handover send STORE FILE          write the project to a file\n"
                              "       handover receive STORE FILE       take the project from a file\n"
                              "       handover talk STORE OTHER_STORE   send the project twice over one stream\n";

constexpr int DEFAULT_NUM_STEPS = 12;

// A number of steps, or 0.
int ParseSteps(const std::string& text) {
    int n = 0;
    const char* const end = text.data() + text.size();
    const auto [p, error] = std::from_chars(text.data(), end, n);
    return error == std::errc() && p == end && n > 0 ? n : 0;
}

// False when the arguments are no command.
bool Run(const std::vector<std::string>& args) {
    using namespace handover;
    const std::string command = args.empty() ? "" : args[0];
    const int numSteps = args.size() == 3 ? ParseSteps(args[2]) : DEFAULT_NUM_STEPS;
    if (command == "create" && (args.size() == 2 || args.size() == 3) && numSteps > 0)
        Create(args[1], numSteps);
    else if (command == "show" && args.size() == 2)
        Show(args[1]);
    else if (command == "work" && args.size() == 2)
        Work(args[1]);
    else if (command == "send" && args.size() == 3)
        Send(args[1], args[2]);
    else if (command == "receive" && args.size() == 3)
        Receive(args[1], args[2]);
    else if (command == "talk" && args.size() == 3)
        Talk(args[1], args[2]);
    else
        return false;
    return true;
}

int Fail(const std::exception& e, const char* whatToDo) {
    std::cerr << "handover: " << e.what() << '\n' << whatToDo << '\n';
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    try {
        handover::RegisterClasses();
        if (Run(args)) return 0;
        std::cerr << USAGE;
        return 2;
    } catch (const handover::BadMessageError& e) {
        return Fail(e, "The store is as it was. Send the project again: handover send STORE FILE");
    } catch (const handover::NotFoundError& e) {
        return Fail(e, "Make a project first (handover create STORE), or receive one.");
    } catch (const quna::CorruptLSSException& e) {
        return Fail(e, "Put a copy of the store in its place.");
    } catch (const quna::FileException& e) {
        return Fail(e, "Check the path, and that no other process has the file.");
    } catch (const std::exception& e) {
        return Fail(e, "This is not foreseen: keep the store and the text above for whoever looks into it.");
    }
}
