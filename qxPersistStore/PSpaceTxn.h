// The scoped form of a transaction on the thread's current space.
#pragma once

#include "qxObject/CSpace.h"
#include "qxUtils/Export.h"

namespace quna {

class PersistStoreTxn;

// Locks the thread's current space and opens a transaction on it; closes and unlocks at the end of the scope.
//
// No exception may pass through the scope: its changes could be half done, and the background writer would make them
// durable. One that does ends the process, with the text "false" in the trace log.
class QX_API PSpaceTxn {
public:
    explicit PSpaceTxn(ECSpaceLockMode mode);
    PSpaceTxn(const PSpaceTxn&) = delete;
    PSpaceTxn& operator=(const PSpaceTxn&) = delete;
    ~PSpaceTxn() noexcept(false);

    operator PersistStoreTxn*() const { return m_txn; } // NOLINT(google-explicit-constructor)

private:
    PersistStoreTxn* m_txn; // null in a CSpace without a PSpace
};

} // namespace quna
