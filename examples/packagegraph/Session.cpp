#include "Session.h"

#include "qxObject/WCSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistStoreSettings.h"

#include <exception>

namespace packagegraph {

namespace {

constexpr const char* SPACE_NAME = "packages";

quna::PSpace* OpenSpaceOrCloseStore(quna::PersistStore* store, quna::EOpenMode openMode) {
    try {
        return quna::OpenPSpace(store, SPACE_NAME, openMode, nullptr);
    } catch (...) {
        quna::Close(store);
        throw;
    }
}

} // namespace

Session::Session(const std::string& storePath, quna::EOpenMode openMode)
    : m_path(storePath), m_uncaughtAtConstruction(std::uncaught_exceptions()),
      m_store(quna::OpenPersistStore(storePath.c_str(), openMode, quna::PersistStoreSettings())),
      m_space(OpenSpaceOrCloseStore(m_store, openMode)), m_domain(quna::GetCSpace(m_space)),
      m_numOwnObjects(quna::GetNumObjects(m_domain)) {
    quna::SetThreadPSpace(m_space);
    quna::SetThreadCSpace(m_domain);
}

Session::~Session() noexcept(false) {
    quna::UndoInDestructor("Session", m_uncaughtAtConstruction, [this] {
        quna::SetThreadCSpace(nullptr);
        quna::SetThreadPSpace(nullptr);
        quna::Close(m_space); // writes what is dirty; closing the store does not
        quna::Close(m_store);
    });
}

Catalogue& Session::GetCatalogue() const {
    const quna::ptr<quna::IPersistable> root = quna::GetPSpaceRoot(CATALOGUE_ROOT);
    if (!root || root->GetReflectedClass() != &quna::GetReflectedClass<Catalogue>())
        throw NotFoundError("The store '" + m_path + "' has no root '" + CATALOGUE_ROOT +
                            "' with a catalogue of packages");
    return *static_cast<Catalogue*>(root.m_self);
}

Package& Session::GetPackage(const std::string& name) const {
    const Catalogue& catalogue = GetCatalogue();
    Package* const package = catalogue.Find(quna::xstring(name));
    if (!package)
        throw NotFoundError("The store '" + m_path + "' has no package '" + name + "' among its " +
                            std::to_string(catalogue.m_packages.size()));
    return *package;
}

quna::ssize_t Session::NumResident() const { return quna::GetNumObjects(m_domain) - m_numOwnObjects; }

} // namespace packagegraph
