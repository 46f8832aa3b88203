// One visit to a store: opens it with its space, its desk and its map of identifier spaces, and closes it.
#pragma once

#include "Office.h"
#include "qxLss/EOpenMode.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/Goid.h"
#include "qxPersistStore/OidSpaceMap.h"

#include <stdexcept>
#include <string>

namespace quna {
class PSpace;
class PersistStore;
} // namespace quna

namespace handover {

// The store is in order but does not hold what was asked for.
class NotFoundError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Closes store and space even when an exception passes, which is then not followed by a second one.
//
// Threads: belongs to the thread that made it, which works in it within a SessionScope.
class Session {
public:
    // Opens what is there; with OM_OPEN_ALWAYS or OM_CREATE_NEW makes what is not. Throws what opening throws.
    Session(const std::string& path, quna::EOpenMode openMode);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() noexcept(false);

    quna::PSpace* Space() const { return m_space; }
    quna::CSpace* Domain() const { return m_domain; }

    // Both stay in memory as long as the session. Requires: a scope.
    Desk& GetDesk() const { return *m_desk; }
    quna::OidSpaceMap& Spaces() const { return *m_spaces; }

    // The one project; NotFoundError if there is none. Requires: a scope.
    Project& GetProject() const;
    // The name of an object that means the same in every store. Requires: a scope.
    quna::Goid GoidOf(quna::OID oid) const;

private:
    void OpenRoots();
    void Close();

    const std::string m_path;
    const int m_uncaughtAtConstruction;
    quna::PersistStore* const m_store;
    quna::PSpace* m_space = nullptr;
    quna::CSpace* m_domain = nullptr;
    Desk* m_desk = nullptr;
    quna::OidSpaceMap* m_spaces = nullptr;
};

// Makes the session's space the thread's current one, where references are looked up, and locks it, for a scope.
class SessionScope {
public:
    SessionScope(const Session& session, quna::ECSpaceLockMode mode) : m_current(session), m_lock(mode) {}

private:
    struct Current {
        explicit Current(const Session& session);
        Current(const Current&) = delete;
        Current& operator=(const Current&) = delete;
        ~Current();
    } m_current;
    quna::CSpaceLock m_lock;
};

} // namespace handover
