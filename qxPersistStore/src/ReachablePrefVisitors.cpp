#include "qxPersistStore/ReachablePrefVisitors.h"

#include "qxPersistStore/pref.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/PersistOperationCallbacks";

} // namespace

AllocateOidsReachablePrefVisitor::AllocateOidsReachablePrefVisitor(PSpace* pspace, OID parent)
    : m_pspace(pspace), m_affiliateOidLow(parent.low_) {
    QX_ASSERT(pspace);
}

void AllocateOidsReachablePrefVisitor::VisitPref(const prefbase& pref) {
    const ptr<IPersistable> po = pref.GetTransient();
    if (!po) return;
    QX_ASSERT(!GetOid(po));
    m_pspace->SetAffiliateOidLow(m_affiliateOidLow);
    m_pspace->MakeObjectPersist(po, true);
}

// A reference to a parent is no owning edge.
void AllocateOidsReachablePrefVisitor::VisitParentPref(const prefbase&) {}

void PermanentlyDeleteReachablePrefVisitor::VisitPref(const prefbase& pref) {
    const ptr<IPersistable> po = pref.Get();
    if (!po) return;
    QX_ASSERT_TEXT(m_pspace, "pspace"); // the thread has a current space
    m_pspace->AsyncPermanentlyDeleteSubTree(po);
}

void PermanentlyDeleteReachablePrefVisitor::VisitParentPref(const prefbase&) {}

} // namespace quna
