// Building the graph of packages, and walking it.
#pragma once

#include "DpkgStatus.h"
#include "Package.h"
#include "qxUtils/BasicTypes.h"

#include <string>
#include <vector>

namespace packagegraph {

struct ImportFigures {
    quna::ssize_t numPackages = 0;
    quna::ssize_t numReferences = 0;
    quna::ssize_t numMutual = 0; // pairs of packages that refer to each other
    quna::ssize_t numUnmet = 0;  // dependencies that no installed package meets
    std::string mutualExample;   // "a <-> b"; empty when there is none
};

// Makes one object of each entry, refers each to those that it depends on, and names them in both indexes of a new
// catalogue. Of alternatives the first that is installed is taken. All objects are still transient.
//
// Requires: the exclusive lock of the thread's current space, until the catalogue is attached.
Catalogue* MakeGraph(const std::vector<DpkgEntry>& entries, const std::string& source, ImportFigures& figures);

// A package and all that it depends on, directly or not.
struct Closure {
    std::vector<std::vector<const Package*>> levels; // by the length of the shortest way; level 0 is the package itself
    quna::ssize_t numPackages = 0;
    quna::ssize_t numFollowed = 0; // references
    quna::ssize_t numKnown = 0;    // references that led to a package found before
    quna::int64 installedKiB = 0;
};

// Loads what is not in memory. Requires: the lock of the package's domain in any mode; the pointers in the result are
// good for as long as it is held.
Closure WalkClosure(const Package& start);

// The package and those that are there for its sake alone: whatever depends on them is among them too. Loads all packages.
// Requires: the lock in any mode.
std::vector<Package*> FindSubTree(const Catalogue& catalogue, Package& package);

// Takes the packages out of both indexes, lets no other refer to them any more, and asks for their deletion, which then
// goes on in the background. The number of references that were dropped. Loads all packages.
// Requires: a transaction on the space.
quna::ssize_t Remove(Catalogue& catalogue, const std::vector<Package*>& packages);

} // namespace packagegraph
