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

// Threads: belongs to the thread that made it. As long as it lives that thread's current space is the packages', which
//   is where references are looked up.
class Session {
public:
    // The mode goes for the store and for the space. Throws what opening them throws.
    Session(const std::string& storePath, quna::EOpenMode openMode);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() noexcept(false);

    quna::PersistStore* Store() const { return m_store; }
    quna::CSpace* Domain() const { return m_domain; }

    // The root. NotFoundError if there is none. Requires: the domain's lock in any mode.
    Catalogue& GetCatalogue() const;
    // NotFoundError if there is no such package. Requires: the domain's lock in any mode.
    Package& GetPackage(const std::string& name) const;

    // Packages and catalogue that are in memory. Any thread.
    quna::ssize_t NumResident() const;

private:
    const std::string m_path;
    const int m_uncaughtAtConstruction;
    quna::PersistStore* const m_store;
    quna::PSpace* const m_space;
    quna::CSpace* const m_domain;
    const quna::ssize_t m_numOwnObjects; // what the space itself keeps in its domain
};

} // namespace packagegraph
