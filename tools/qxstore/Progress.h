// A progress bar on a terminal.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <string>

namespace quna::qxstore {

// One line on standard error, drawn when its percentage changes and removed at the end. Nothing is shown when standard
// error is no terminal.
class Progress {
public:
    // `total` is what the steps add up to.
    Progress(std::string what, int64 total, bool quiet);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    void Advance(int64 n);

private:
    void Draw() const;

    const std::string m_what;
    const int64 m_total;
    const bool m_isShown;
    int64 m_done = 0;
    int64 m_percent = -1; // as drawn
};

} // namespace quna::qxstore
