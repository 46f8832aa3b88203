#include "Session.h"

#include "qxObject/CSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistStoreSettings.h"

#include <exception>

namespace handover {

namespace {

constexpr const char* SPACE_NAME = "office";
constexpr const char* DESK_ROOT = "desk";
constexpr const char* SPACES_ROOT = "identifier spaces";

// The named root, made if there is none, and kept in memory.
template <class T>
T* GetOrMakeRoot(const char* name) {
    auto* const root = static_cast<T*>(quna::BootstrapPSpaceRoot2(quna::GetReflectedClass<T>(), name));
    if (!root)
        throw NotFoundError(std::string("The root '") + name + "' of the store is no " +
                            quna::GetReflectedClass<T>().GetName());
    quna::AddGcRoot(root);
    return root;
}

} // namespace

Session::Session(const std::string& path, quna::EOpenMode openMode)
    : m_path(path), m_uncaughtAtConstruction(std::uncaught_exceptions()),
      m_store(quna::OpenPersistStore(path.c_str(), openMode, quna::PersistStoreSettings())) {
    try {
        m_space = quna::OpenPSpace(m_store, SPACE_NAME, openMode, nullptr);
        m_domain = quna::GetCSpace(m_space);
        OpenRoots();
    } catch (...) {
        quna::UndoInDestructor("Session", m_uncaughtAtConstruction, [this] { Close(); });
        throw;
    }
}

Session::~Session() noexcept(false) {
    quna::UndoInDestructor("Session", m_uncaughtAtConstruction, [this] { Close(); });
}

void Session::Close() {
    if (m_space) quna::Close(m_space);
    quna::Close(m_store);
}

// The store's own identifier space gets its name here, when the store is new, so that a sender finds it. Foreign ones get
// theirs when they arrive.
void Session::OpenRoots() {
    const SessionScope scope(*this, quna::Exclusive);
    m_desk = GetOrMakeRoot<Desk>(DESK_ROOT);
    m_spaces = GetOrMakeRoot<quna::OidSpaceMap>(SPACES_ROOT);
    quna::OidSpaceGuid guid;
    m_spaces->GetOrCreateOidSpaceGuid(quna::GetOidHighForOidAllocations(m_space), guid);
}

Project& Session::GetProject() const {
    if (m_desk->m_projects.empty()) throw NotFoundError("There is no project in the store '" + m_path + "'");
    return *m_desk->m_projects.front();
}

quna::Goid Session::GoidOf(quna::OID oid) const {
    quna::OidSpaceGuid guid;
    if (!oid || !m_spaces->GetOidSpaceGuid(oid.high_, guid)) return {};
    return {guid, oid.low_};
}

SessionScope::Current::Current(const Session& session) {
    quna::SetThreadPSpace(session.Space());
    quna::SetThreadCSpace(session.Domain());
}

SessionScope::Current::~Current() {
    quna::SetThreadCSpace(nullptr);
    quna::SetThreadPSpace(nullptr);
}

} // namespace handover
