// One visit to the store: opens it with the space of the packages, and closes both.
#pragma once

#include "Package.h"
#include "qxLss/EOpenMode.h"
#include "qxObject/CSpace.h"
#include "qxUtils/BasicTypes.h"

#include <stdexcept>
#include <string>

namespace quna {
class PSpace;
class PersistStore;
} // namespace quna

namespace packagegraph {

// The name under which the catalogue is found.
inline constexpr const char* CATALOGUE_ROOT = "catalogue";

// The store is in order but does not hold what was asked for.
class NotFoundError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An open store. Closes it even when an exception passes, which is then not followed by a second one.
class OpenStore {
public:
    // Throws what opening throws.
    OpenStore(const std::string& path, quna::EOpenMode openMode);
    OpenStore(const OpenStore&) = delete;
    OpenStore& operator=(const OpenStore&) = delete;
    ~OpenStore() noexcept(false);

    quna::PersistStore* Get() const { return m_store; }

private:
    const int m_uncaughtAtConstruction;
    quna::PersistStore* const m_store;
};

// The packages' space in a store, and the current one of the thread that opened it: references are looked up there.
// Closing it is its last write.
class OpenSpace {
public:
    OpenSpace(const OpenStore& store, quna::EOpenMode openMode);
    OpenSpace(const OpenSpace&) = delete;
    OpenSpace& operator=(const OpenSpace&) = delete;
    ~OpenSpace() noexcept(false);

    quna::CSpace* Domain() const { return m_domain; }

private:
    const int m_uncaughtAtConstruction;
    quna::PSpace* const m_space;
    quna::CSpace* const m_domain;
};

// Threads: belongs to the thread that made it.
class Session {
public:
    // The mode goes for the store and for the space.
    Session(const std::string& storePath, quna::EOpenMode openMode);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    quna::PersistStore* Store() const { return m_store.Get(); }
    quna::CSpace* Domain() const { return m_space.Domain(); }

    // The root. NotFoundError if there is none. Requires: the domain's lock in any mode.
    Catalogue& GetCatalogue() const;
    // NotFoundError if there is no such package. Requires: the domain's lock in any mode.
    Package& GetPackage(const std::string& name) const;

    // Packages and catalogue that are in memory. Any thread.
    quna::ssize_t NumResident() const;

private:
    const std::string m_path;
    const OpenStore m_store;
    const OpenSpace m_space;             // closed before the store
    const quna::ssize_t m_numOwnObjects; // what the space itself keeps in its domain
};

} // namespace packagegraph
