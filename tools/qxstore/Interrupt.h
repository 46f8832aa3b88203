// Ctrl-C while a file is being written.
#pragma once

#include <string>

namespace quna::qxstore {

// Takes SIGINT, SIGTERM and SIGHUP for a scope.
//
// Threads: one scope at a time in the process.
class InterruptScope {
public:
    // The first of them is noted, for work that asks; a second ends the process as ever.
    InterruptScope();
    // For work that can't be asked to stop: the signal removes the file `partPath` and ends the process with
    // EXIT_INTERRUPTED.
    explicit InterruptScope(const std::string& partPath);
    InterruptScope(const InterruptScope&) = delete;
    InterruptScope& operator=(const InterruptScope&) = delete;
    ~InterruptScope();

    bool WasInterrupted() const;

private:
    const std::string m_partPath;
};

} // namespace quna::qxstore
