// The persistent classes of the example: installed packages, which refer to one another, and the catalogue that names
// them all.
#pragma once

#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

#include <map>

namespace packagegraph {

// One installed package. The list of members is all that the store needs to write it, to read it and to find its
// references; they stand in its record in this order.
//
// Threads: under the lock of its space, shared to read, exclusive to change.
class Package : public quna::PersistentObject<Package> {
public:
    static constexpr auto Members() {
        return quna::MemberList(
            quna::Member("name", &Package::m_name), quna::Member("version", &Package::m_version),
            quna::Member("section", &Package::m_section), quna::Member("summary", &Package::m_summary),
            quna::Member("installedKiB", &Package::m_installedKiB), quna::Member("timesHeld", &Package::m_timesHeld),
            quna::Member("dependsOn", &Package::m_dependsOn));
    }

    // Packages depend on one another in circles, so none owns what it refers to: whoever deletes one must not take its
    // dependencies along.
    bool RepresentsSubTree() const { return false; }

    // A held package is not to be upgraded.
    void Hold() {
        MarkAsDirtyWithoutTrace();
        ++m_timesHeld;
    }

    quna::xstring m_name;
    quna::xstring m_version;
    quna::xstring m_section;
    quna::xstring m_summary;
    quna::int64 m_installedKiB = 0;
    quna::int32 m_timesHeld = 0;
    quna::xvector<quna::cref<Package>> m_dependsOn;
};

// The root of the graph: all packages by name. It owns them, so it represents a subtree, which a root must.
class Catalogue : public quna::PersistentObject<Catalogue> {
public:
    static constexpr auto Members() {
        return quna::MemberList(quna::Member("source", &Catalogue::m_source),
                                quna::Member("packages", &Catalogue::m_packages));
    }

    // Loads the package if need be; null when there is none of that name.
    Package* Find(const quna::xstring& name) const {
        const auto i = m_packages.find(name);
        return i == m_packages.end() ? nullptr : i->second.Get();
    }

    quna::xstring m_source; // the file that was read
    std::map<quna::xstring, quna::cref<Package>> m_packages;
};

QX_REFLECT_PERSISTENT_CLASS(Package, "packagegraph::Package")
QX_REFLECT_PERSISTENT_CLASS(Catalogue, "packagegraph::Catalogue")

// Makes the library's types and both classes known to the process; the store finds classes by the names in its records.
// Once, before a store is opened.
void RegisterClasses();

} // namespace packagegraph
