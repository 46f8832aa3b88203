#include "PartMaker.h"

#include "Scene.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PSpaceTxn.h"

#include <algorithm>
#include <utility>

namespace frameloop {

PartMaker::PartMaker(quna::PSpace* space, std::vector<quna::OID> oids) : m_space(space), m_oids(std::move(oids)) {
    m_thread = std::thread([this] { Run(); });
    SetAsHandler(true);
}

PartMaker::~PartMaker() {
    SetAsHandler(false);
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

quna::MAsyncBind PartMaker::BeginAsyncBindRequest(quna::OID oid) {
    if (!std::binary_search(m_oids.begin(), m_oids.end(), oid)) return {quna::EAsyncBindResult::NotHandled, quna::null};
    {
        const std::lock_guard lock(m_mutex);
        m_requests.insert(oid);
    }
    m_changed.notify_all();
    return {quna::EAsyncBindResult::Pending, quna::null};
}

void PartMaker::EndAsyncBindRequest(quna::OID oid) {
    const std::lock_guard lock(m_mutex);
    m_requests.erase(oid);
}

int PartMaker::NumMade() const {
    const std::lock_guard lock(m_mutex);
    return m_numMade;
}

void PartMaker::SetAsHandler(bool set) {
    const quna::CSpaceLock lock(quna::GetCSpace(m_space), quna::Exclusive);
    quna::SetAsyncBindRequestHandler(m_space, set ? quna::ptr<quna::IAsyncBindRequestHandler>(this) : quna::null);
}

void PartMaker::Run() {
    const quna::DeclareThreadPtr<quna::PSpace> currentSpace(m_space);
    const quna::DeclareThreadPtr<quna::CSpace> currentDomain(quna::GetCSpace(m_space));
    for (quna::OID oid; WaitForRequest(oid);) Make(oid);
}

// False when the thread is to end.
bool PartMaker::WaitForRequest(quna::OID& oid) {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_stop || !m_requests.empty(); });
    if (m_stop) return false;
    oid = *m_requests.begin();
    m_requests.erase(m_requests.begin());
    return true;
}

void PartMaker::Make(quna::OID oid) {
    Part* const part = MakePartOnDemand(oid); // everything that takes long comes before the lock
    const quna::PSpaceTxn txn(quna::Exclusive);
    quna::RegisterGcObject(part);
    // False when it is there already; then the collector takes ours.
    if (!quna::MakeObjectPersistWithGivenOID(m_space, part, oid, false)) return;
    const std::lock_guard lock(m_mutex);
    ++m_numMade;
}

} // namespace frameloop
