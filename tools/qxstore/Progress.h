// A progress bar on a terminal.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/Console.h"

#include <string>

namespace quna::qxstore {

// One line among the failures, drawn when its percentage changes and removed at the end; nothing where the console shows
// no progress.
class Progress {
public:
    // `total` is what the steps add up to.
    Progress(std::string what, int64 total, Console& console);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    void Advance(int64 n) { Set(m_done + n, m_total); }
    void Set(int64 done, int64 total);

private:
    void Draw() const;

    const std::string m_what;
    Console& m_console;
    int64 m_total;
    int64 m_done = 0;
    int64 m_percent = -1; // as drawn
};

} // namespace quna::qxstore
