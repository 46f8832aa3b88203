#include "tools/qxstore/CommandLine.h"

#include <CLI/CLI.hpp>

namespace quna::qxstore {

namespace {

constexpr const char* ABOUT = "Looks into a store file. Nothing is ever written to it, and it can't be in use by a "
                              "process that writes.";
constexpr const char* STATUSES =
    "Exit status: 0 good, 1 the store is damaged, 2 wrong arguments, 3 the store can't be opened, 4 not found in the "
    "store, 5 a failure that is not foreseen.";

struct CommandEntry {
    const char* name;
    const char* about;
    Command command;
};

constexpr CommandEntry COMMANDS[] = {
    {"info", "What the store is: format, size, how it was closed, how much is in it", &RunInfo},
    {"stats", "Figures of the file: elements and their sizes, segments and how full they are", &RunStats},
    {"spaces", "The spaces of the store", &RunSpaces},
    {"roots", "The named objects of each space", &RunRoots},
    {"classes", "How many objects of each class there are and what they take (reads every object)", &RunClasses},
    {"dump", "One record, decoded as far as the store itself knows it, and in hex", &RunDump},
    {"verify", "Reads the whole file and says whether it is sound", &RunVerify},
};

void AddOptionsOf(CLI::App& app, const CommandEntry& entry, Options& options) {
    app.add_option("STORE", options.store, "The file of the store")->required();
    app.add_flag("--json", options.json, "Print JSON");
    if (entry.command == &RunRoots) app.add_option("--space", options.space, "Only the roots of this space");
    if (entry.command == &RunVerify || entry.command == &RunClasses)
        app.add_flag("--quiet", options.quiet, "Show no progress bar");
    if (entry.command != &RunDump) return;
    app.add_option("OBJECT", options.object,
                   "An OID as high:low in hexadecimal (1:2a), or the name of a root, with its space before it if "
                   "several spaces have one (SPACE/ROOT)")
        ->required();
    app.add_option("--space", options.space, "OBJECT is the name of a root of this space");
    app.add_option("--bytes", options.maxBytes, "The most bytes to show in hex; 0: all")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--rows", options.maxRows, "The most rows of a table to show; 0: all")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_flag("--raw", options.raw, "Write the bytes of the record, and nothing else, to standard output");
}

} // namespace

CommandLine ParseCommandLine(int argc, char** argv) {
    CommandLine line;
    CLI::App app(ABOUT, "qxstore");
    app.footer(STATUSES);
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Print this help; 'qxstore COMMAND --help' for one command");
    for (const CommandEntry& entry : COMMANDS) {
        CLI::App* const sub = app.add_subcommand(entry.name, entry.about);
        sub->footer(STATUSES);
        sub->set_help_flag("-h,--help", "Print this help");
        AddOptionsOf(*sub, entry, line.options);
        sub->callback([&line, entry] {
            line.command = entry.command;
            line.name = entry.name;
        });
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        line.command = nullptr;
        line.exitCode = app.exit(e) == 0 ? EXIT_GOOD : EXIT_USAGE;
    }
    return line;
}

} // namespace quna::qxstore
