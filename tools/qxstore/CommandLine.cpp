#include "tools/qxstore/CommandLine.h"

#include "tools/qxstore/Report.h"
#include "tools/qxstore/Times.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace quna::qxstore {

namespace {

constexpr const char* ABOUT =
    "Looks into a store file, and copies it. Nothing is ever written to a store that is named as "
    "STORE or BASE, and it can't be in use by a process that writes.";
constexpr const char* STATUSES =
    "Exit status: 0 good, 1 the store is damaged, 2 wrong arguments, 3 the store can't be opened, 4 not found in the "
    "store, 5 a failure that is not foreseen, 6 the new file can't be made, 130 interrupted.";

struct CommandEntry {
    const char* name;
    const char* about;
    Command command;
    bool isLong = false; // such that a progress bar is shown
};

constexpr CommandEntry COMMANDS[] = {
    {"info", "What the store is: format, size, how it was closed, how much is in it", &RunInfo},
    {"stats", "Figures of the file: elements and their sizes, segments and how full they are", &RunStats},
    {"spaces", "The spaces of the store", &RunSpaces},
    {"roots", "The named objects of each space", &RunRoots},
    {"classes", "How many objects of each class there are and what they take (reads every object)", &RunClasses, true},
    {"dump", "One record, decoded as far as the store itself knows it, and in hex", &RunDump},
    {"verify", "Reads the whole file and says whether it is sound", &RunVerify, true},
    {"backup", "A copy of the store, with all that its file holds", &RunBackup, true},
    {"compact", "A copy of the elements alone, as small as they allow, neighbours together", &RunCompact, true},
    {"restore", "The store as it was after a transaction or at a time, from a copy and its archive", &RunRestore, true},
};

// CLI11's own texts for wrong numbers have hundreds of digits, and it takes -1 for a large one.
std::string CheckNumber(const std::string& text) {
    int64 number = 0;
    const std::from_chars_result end = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isGood = end.ec == std::errc() && end.ptr == text.data() + text.size() && number >= 0;
    return isGood ? "" : "'" + text + "' is no number from 0 on";
}

void AddDumpOptions(CLI::App& app, Options& options) {
    app.add_option("OBJECT", options.object,
                   "An OID as high:low in hexadecimal (1:2a), or the name of a root, with its space before it if "
                   "several spaces have one (SPACE/ROOT)")
        ->required();
    app.add_option("--space", options.space, "OBJECT is the name of a root of this space");
    app.add_option("--bytes", options.maxBytes, "The most bytes to show in hex; 0: all")
        ->check(CheckNumber, "")
        ->capture_default_str();
    app.add_option("--rows", options.maxRows, "The most rows of a table to show; 0: all")
        ->check(CheckNumber, "")
        ->capture_default_str();
    app.add_flag("--raw", options.raw, "Write the bytes of the record, and nothing else, to standard output");
}

void AddTarget(CLI::App& app, Options& options) {
    app.add_option("TARGET", options.target, "The file to make; it gets its name when it is whole")->required();
    app.add_flag("--force", options.force, "Replace the file TARGET if there is one, when the new one is whole");
}

void SetTime(const std::string& text, Options& options) {
    const std::optional<uint64> time = ParseTime(text);
    if (!time)
        throw CLI::ValidationError("--time", "'" + text +
                                                 "' is no time; spell it like 2026-11-21T20:15:00Z, or "
                                                 "'2026-11-21 20:15' in this machine's zone");
    options.upTo = {RestoreTarget::EKind::TIME, *time};
}

void AddRestoreOptions(CLI::App& app, Options& options) {
    app.add_option("BASE", options.store, "A copy of the store, older than what is wanted")->required();
    app.add_option("DELTAS", options.deltas, "The folder of the store's archive")->required();
    AddTarget(app, options);
    CLI::Option* const transaction = app.add_option_function<uint64>(
        "--transaction",
        [&options](uint64 number) {
            options.upTo = {RestoreTarget::EKind::TRANSACTION, number};
        },
        "As after the transaction of this number");
    CLI::Option* const time = app.add_option_function<std::string>(
        "--time", [&options](const std::string& text) { SetTime(text, options); },
        "As at this time, in ISO 8601: 2026-11-21T20:15:00Z; without a zone in this machine's");
    CLI::Option* const latest = app.add_flag_callback(
        "--latest", [&options] { options.upTo = {}; }, "As far as the archive goes, which is the default");
    transaction->check(CheckNumber, "")->type_name("NUMBER")->excludes(time)->excludes(latest);
    time->type_name("TIME")->excludes(latest);
}

void AddOptionsOf(CLI::App& app, const CommandEntry& entry, Options& options) {
    app.add_flag("--json", options.json, "Print JSON");
    if (entry.command == &RunRestore)
        AddRestoreOptions(app, options);
    else
        app.add_option("STORE", options.store, "The file of the store")->required();
    if (entry.command == &RunRoots) app.add_option("--space", options.space, "Only the roots of this space");
    if (entry.command == &RunDump) AddDumpOptions(app, options);
    if (entry.command == &RunBackup || entry.command == &RunCompact) AddTarget(app, options);
    if (entry.command == &RunBackup)
        app.add_flag("--as-is", options.asIs, "Copy what there is of a damaged store too: checksums are not verified");
    if (entry.isLong) app.add_flag("--quiet", options.quiet, "Show no progress bar");
}

} // namespace

CommandLine ParseCommandLine(int argc, const char* const* argv, Console& console) {
    CommandLine line;
    CLI::App app(ABOUT, "qxstore");
    app.footer(STATUSES);
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Print this help; 'qxstore COMMAND --help' for one command");
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return std::string("qxstore: ") + e.what() +
               "; 'qxstore --help' and 'qxstore COMMAND --help' show the usage.\n";
    });
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
        line.exitCode = app.exit(e, console.out, console.err) == 0 ? EXIT_GOOD : EXIT_USAGE;
        const bool wantsJson = std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
        if (wantsJson && line.exitCode) console.out << ErrorToJson("", "", e.what(), line.exitCode) << std::flush;
    }
    return line;
}

} // namespace quna::qxstore
