// The current domains of all threads.
#pragma once

namespace quna {

class CSpace;

// The domain ends: no thread keeps it as its current one.
void ForgetInThreadCSpaces(const CSpace* cspace) noexcept;

} // namespace quna
