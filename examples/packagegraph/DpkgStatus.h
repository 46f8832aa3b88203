// Reads the database in which Debian's package manager keeps what is installed.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace packagegraph {

// The part of one installed package's entry that the graph is made of.
struct DpkgEntry {
    using Alternatives = std::vector<std::string>; // names, any of which will do

    std::string name;
    std::string version;
    std::string section;
    std::string summary; // the description's first line
    std::int64_t installedKiB = 0;
    std::vector<Alternatives> dependsOn; // all must be met; versions and architectures are left out
    std::vector<std::string> provides;   // further names under which others may ask for it
};

// The database is missing, unreadable or damaged. The text says which file, which line, and what was found.
class DpkgStatusError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The installed packages, in the order of the file. Never empty: a database without one is an error.
std::vector<DpkgEntry> ReadDpkgStatus(const std::string& path);

} // namespace packagegraph
