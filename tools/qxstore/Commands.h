// The commands of the tool. Each looks at a store, tells what it found in a report, and never writes.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/Console.h"
#include "tools/qxstore/Report.h"
#include "tools/qxstore/ToolError.h"

#include <string>
#include <string_view>

namespace quna::qxstore {

// What the command line says.
struct Options {
    std::string store; // path
    bool json = false;
    bool quiet = false; // no progress bar

    std::string space;     // roots: of this one alone; dump: where the root is. Empty: any
    std::string object;    // dump: OID or name of a root
    int64 maxBytes = 4096; // dump: so many in hex; 0: all
    int64 maxRows = 1000;  // dump: so many roots, entries, classes...; 0: all
    bool raw = false;      // dump: the bytes alone, to standard output
};

// They print through Print and give the exit status.
EExit RunInfo(const Options& options, Console& console);
EExit RunStats(const Options& options, Console& console);
EExit RunSpaces(const Options& options, Console& console);
EExit RunRoots(const Options& options, Console& console);
EExit RunClasses(const Options& options, Console& console);
EExit RunDump(const Options& options, Console& console);
EExit RunVerify(const Options& options, Console& console);

// As text or as JSON.
void Print(const Report& report, const Options& options, Console& console);
// Throws ToolError when the output takes no more.
void WriteOut(std::string_view bytes, Console& console);

} // namespace quna::qxstore
