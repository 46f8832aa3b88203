// What a container does to the references among its keys and payloads when they come and go.
#pragma once

#include "qxPersistStore/IPrefVisitor.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/Export.h"

namespace quna {

class PSpace;

// Makes each transient target persistent, with all that it reaches, near the object with the given OID.
// Requires the exclusive lock of the space.
class QX_API AllocateOidsReachablePrefVisitor : public IPrefVisitor {
public:
    AllocateOidsReachablePrefVisitor(PSpace* pspace, OID parent);
    void VisitPref(const prefbase& pref) override;
    void VisitParentPref(const prefbase& pref) override;

private:
    PSpace* m_pspace;
    SeidLow m_affiliateOidLow; // of the parent
};

// Queues each target, loaded if need be, for permanent deletion with its subtree.
// Requires the exclusive lock of the space.
class QX_API PermanentlyDeleteReachablePrefVisitor : public IPrefVisitor {
public:
    explicit PermanentlyDeleteReachablePrefVisitor(PSpace* pspace) : m_pspace(pspace) {}
    void VisitPref(const prefbase& pref) override;
    void VisitParentPref(const prefbase& pref) override;

private:
    PSpace* m_pspace;
};

} // namespace quna
