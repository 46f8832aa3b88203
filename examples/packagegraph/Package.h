// The persistent classes of the example: installed packages, which refer to one another, and the catalogue that names
// them all.
#pragma once

#include "qxPersistStore/PMap.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

#include <utility>

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
            quna::Member("dependsOn", &Package::m_dependsOn)
                .Parent()); // owns none: they depend on one another in circles
    }

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

// How many packages one depends on, and its name.
using DependencyRank = std::pair<quna::int32, quna::xstring>;

inline DependencyRank RankOf(const Package& package) {
    return {static_cast<quna::int32>(package.m_dependsOn.size()), package.m_name};
}

// The root of the graph: two indexes, both of all packages. They are trees, of which only the nodes on the way to what is
// looked up are loaded.
class Catalogue : public quna::PersistentObject<Catalogue> {
public:
    static constexpr auto Members() {
        return quna::MemberList(quna::Member("source", &Catalogue::m_source),
                                quna::Member("byName", &Catalogue::m_byName),
                                quna::Member("byDependencies", &Catalogue::m_byDependencies));
    }

    // Loads the package if need be; null when there is none of that name.
    Package* Find(const quna::xstring& name) const {
        const auto i = m_byName.find(name);
        return i == m_byName.end() ? nullptr : i->second.Get();
    }

    quna::xstring m_source; // the file that was read
    quna::PMap<quna::xstring, quna::cref<Package>> m_byName;
    quna::PMap<DependencyRank, quna::cref<Package>> m_byDependencies;
};

QX_REFLECT_PERSISTENT_CLASS(Package, "packagegraph::Package")
QX_REFLECT_PERSISTENT_CLASS(Catalogue, "packagegraph::Catalogue")

// Makes the library's types and both classes known to the process; the store finds classes by the names in its records.
// Once, before a store is opened.
void RegisterClasses();

} // namespace packagegraph
