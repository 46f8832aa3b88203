#include "Session.h"

#include "qxObject/WCSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistStoreSettings.h"

#include <exception>

namespace packagegraph {

namespace {

constexpr const char* SPACE_NAME = "packages";

} // namespace

OpenStore::OpenStore(const std::string& path, quna::EOpenMode openMode)
    : m_uncaughtAtConstruction(std::uncaught_exceptions()),
      m_store(quna::OpenPersistStore(path.c_str(), openMode, quna::PersistStoreSettings())) {}

OpenStore::~OpenStore() noexcept(false) {
    quna::UndoInDestructor("OpenStore", m_uncaughtAtConstruction, [this] { quna::Close(m_store); });
}

OpenSpace::OpenSpace(const OpenStore& store, quna::EOpenMode openMode)
    : m_uncaughtAtConstruction(std::uncaught_exceptions()),
      m_space(quna::OpenPSpace(store.Get(), SPACE_NAME, openMode, nullptr)), m_domain(quna::GetCSpace(m_space)) {
    quna::SetThreadPSpace(m_space);
    quna::SetThreadCSpace(m_domain);
}

OpenSpace::~OpenSpace() noexcept(false) {
    quna::SetThreadCSpace(nullptr);
    quna::SetThreadPSpace(nullptr);
    quna::UndoInDestructor("OpenSpace", m_uncaughtAtConstruction, [this] { quna::Close(m_space); });
}

Session::Session(const std::string& storePath, quna::EOpenMode openMode)
    : m_path(storePath), m_store(storePath, openMode), m_space(m_store, openMode),
      m_numOwnObjects(quna::GetNumObjects(Domain())) {}

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
                            std::to_string(catalogue.m_byName.size()));
    return *package;
}

quna::ssize_t Session::NumResident() const { return quna::GetNumObjects(Domain()) - m_numOwnObjects; }

} // namespace packagegraph
