// What the program can do, one function a command. Each prints what it does and throws when it can't.
#pragma once

#include <string>

namespace packagegraph {

// Reads the package database and lays down a new store with the graph in it.
void Import(const std::string& storePath, const std::string& databasePath);

// Prints what the store holds: the sums, and from an index the packages with the most dependencies.
void Info(const std::string& storePath);

// Prints a package and all that it depends on, with the number of objects that were loaded for it.
void Show(const std::string& storePath, const std::string& packageName);

// As Show; then marks the package as held, waits until the background writer has written it, and waits to be killed.
// Never returns.
[[noreturn]] void Hold(const std::string& storePath, const std::string& packageName);

// Removes a package, the references to it and what is there for its sake alone; waits until the file has let go of it.
void Remove(const std::string& storePath, const std::string& packageName);

} // namespace packagegraph
