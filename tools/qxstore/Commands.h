// The commands of the tool. Each looks at a store and tells what it found, or did, in a report. None writes to a store that
// it is given: backup, compact and restore make another file.
#pragma once

#include "qxLss/Restore.h"
#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/Console.h"
#include "tools/qxstore/Report.h"
#include "tools/qxstore/ToolError.h"

#include <string>
#include <string_view>

namespace quna::qxstore {

// How far a store is restored.
struct RestoreUpTo {
    RestoreTarget::EKind kind = RestoreTarget::EKind::END;
    uint64 value = 0; // transaction, or time in units of 100 ns since 1970
};

// What the command line says.
struct Options {
    std::string store; // path; restore: of the base
    bool json = false;
    bool quiet = false; // no progress bar

    std::string space;     // roots: of this one alone; dump: where the root is. Empty: any
    std::string object;    // dump: OID or name of a root
    int64 maxBytes = 4096; // dump: so many in hex; 0: all
    int64 maxRows = 1000;  // dump: so many roots, entries, classes...; 0: all
    bool raw = false;      // dump: the bytes alone, to standard output

    std::string target; // backup, compact, restore: the file to be made
    bool force = false; // if it stands already, it is replaced
    bool asIs = false;  // backup: damage is copied
    std::string deltas; // restore: the folder of the archive
    RestoreUpTo upTo;   // restore
};

// They print through Print and give the exit status.
EExit RunInfo(const Options& options, Console& console);
EExit RunStats(const Options& options, Console& console);
EExit RunSpaces(const Options& options, Console& console);
EExit RunRoots(const Options& options, Console& console);
EExit RunClasses(const Options& options, Console& console);
EExit RunDump(const Options& options, Console& console);
EExit RunVerify(const Options& options, Console& console);
EExit RunBackup(const Options& options, Console& console);
EExit RunCompact(const Options& options, Console& console);
EExit RunRestore(const Options& options, Console& console);

// As text or as JSON.
void Print(const Report& report, const Options& options, Console& console);
// Throws ToolError when the output takes no more.
void WriteOut(std::string_view bytes, Console& console);

} // namespace quna::qxstore
