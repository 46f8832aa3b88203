// Where a command writes to.
#pragma once

#include <ostream>

namespace quna::qxstore {

struct Console {
    std::ostream& out;          // the result
    std::ostream& err;          // failures, and the progress bar
    bool showsProgress = false; // `err` is a terminal, and nobody asked for quiet
};

} // namespace quna::qxstore
