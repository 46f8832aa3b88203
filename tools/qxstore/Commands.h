// The commands of the tool. Each looks at a store, tells what it found in a report, and never writes.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/Report.h"
#include "tools/qxstore/ToolError.h"

#include <string>

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
EExit RunInfo(const Options& options);
EExit RunStats(const Options& options);
EExit RunSpaces(const Options& options);
EExit RunRoots(const Options& options);
EExit RunClasses(const Options& options);
EExit RunDump(const Options& options);
EExit RunVerify(const Options& options);

// To standard output, as text or as JSON.
void Print(const Report& report, const Options& options);

} // namespace quna::qxstore
