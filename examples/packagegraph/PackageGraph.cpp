#include "PackageGraph.h"

#include "qxObject/CSpace.h"
#include "qxPersistStore/IPersistStore.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <unordered_set>

namespace packagegraph {

namespace {

constexpr double NODE_FILL = 0.8;

// Who answers to a name: the package itself, or else those that provide it.
class Names {
public:
    void Add(const DpkgEntry& entry, Package* package) {
        m_packages.emplace(entry.name, package);
        for (const std::string& name : entry.provides) m_providers.emplace(name, package);
    }

    Package* Find(const std::string& name) const {
        if (const auto i = m_packages.find(name); i != m_packages.end()) return i->second;
        if (const auto i = m_providers.find(name); i != m_providers.end()) return i->second;
        return nullptr;
    }

    Package* FindFirst(const DpkgEntry::Alternatives& alternatives) const {
        for (const std::string& name : alternatives)
            if (Package* const package = Find(name)) return package;
        return nullptr;
    }

private:
    std::map<std::string, Package*> m_packages;
    std::map<std::string, Package*> m_providers;
};

Package* MakePackage(const DpkgEntry& entry) {
    auto* const package = new Package;
    quna::RegisterGcObject(package); // from here on the collector owns it
    package->m_name = quna::xstring(entry.name);
    package->m_version = quna::xstring(entry.version);
    package->m_section = quna::xstring(entry.section);
    package->m_summary = quna::xstring(entry.summary);
    package->m_installedKiB = entry.installedKiB;
    return package;
}

bool RefersTo(const Package& from, const Package& to) {
    return std::any_of(from.m_dependsOn.begin(), from.m_dependsOn.end(),
                       [&](const quna::cref<Package>& r) { return r.Get() == &to; });
}

void ReferTo(const DpkgEntry& entry, Package& package, const Names& names, ImportFigures& figures) {
    for (const DpkgEntry::Alternatives& alternatives : entry.dependsOn) {
        Package* const target = names.FindFirst(alternatives);
        if (!target) {
            ++figures.numUnmet;
            continue;
        }
        if (target == &package || RefersTo(package, *target)) continue;
        package.m_dependsOn.push_back(quna::cref<Package>(target));
        ++figures.numReferences;
        if (!RefersTo(*target, package)) continue;
        ++figures.numMutual;
        if (figures.mutualExample.empty())
            figures.mutualExample = package.m_name.str() + " <-> " + target->m_name.str();
    }
}

} // namespace

Catalogue* MakeGraph(const std::vector<DpkgEntry>& entries, const std::string& source, ImportFigures& figures) {
    auto* const catalogue = new Catalogue;
    quna::RegisterGcObject(catalogue);
    catalogue->m_source = quna::xstring(source);

    // A name can occur once for each architecture; the first is taken.
    Names names;
    std::map<quna::xstring, quna::cref<Package>> byName;
    std::vector<std::pair<const DpkgEntry*, Package*>> made;
    for (const DpkgEntry& entry : entries) {
        quna::cref<Package>& reference = byName[quna::xstring(entry.name)];
        if (reference) continue;
        Package* const package = MakePackage(entry);
        reference = package;
        names.Add(entry, package);
        made.emplace_back(&entry, package);
    }
    figures = ImportFigures();
    figures.numPackages = static_cast<quna::ssize_t>(made.size());
    std::map<DependencyRank, quna::cref<Package>> byDependencies;
    for (const auto& [entry, package] : made) {
        ReferTo(*entry, *package, names, figures);
        byDependencies.emplace(RankOf(*package), package);
    }
    // What is there in order fills the nodes without searching. Room in them saves splits later.
    catalogue->m_byName = decltype(catalogue->m_byName)::FromSorted(byName, NODE_FILL);
    catalogue->m_byDependencies = decltype(catalogue->m_byDependencies)::FromSorted(byDependencies, NODE_FILL);
    return catalogue;
}

Closure WalkClosure(const Package& start) {
    Closure closure;
    std::unordered_set<const Package*> found = {&start};
    std::vector<const Package*> level = {&start};
    while (!level.empty()) {
        std::vector<const Package*> next;
        for (const Package* package : level) {
            closure.installedKiB += package->m_installedKiB;
            for (const quna::cref<Package>& reference : package->m_dependsOn) {
                const Package* const target = reference.Get(); // here it is loaded, unless it is in memory
                ++closure.numFollowed;
                if (found.insert(target).second)
                    next.push_back(target);
                else
                    ++closure.numKnown;
            }
        }
        closure.levels.push_back(std::move(level));
        level = std::move(next);
    }
    closure.numPackages = static_cast<quna::ssize_t>(found.size());
    return closure;
}

std::vector<Package*> FindSubTree(const Catalogue& catalogue, Package& package) {
    std::unordered_map<const Package*, std::vector<const Package*>> dependents;
    for (auto [name, reference] : catalogue.m_byName)
        for (const quna::cref<Package>& target : reference->m_dependsOn)
            dependents[target.Get()].push_back(reference.Get());

    std::vector<Package*> subTree = {&package};
    std::unordered_set<const Package*> chosen = {&package};
    const auto isNeededByOthers = [&](const Package* candidate) {
        const std::vector<const Package*>& needing = dependents[candidate];
        return std::any_of(needing.begin(), needing.end(), [&](const Package* p) { return !chosen.contains(p); });
    };
    // A package that is added may have been the last that needed one seen before, so look again until nothing is added.
    for (std::size_t before = 0; before != subTree.size();) {
        before = subTree.size();
        for (std::size_t i = 0; i < subTree.size(); ++i) {
            for (const quna::cref<Package>& reference : subTree[i]->m_dependsOn) {
                Package* const candidate = reference.Get();
                if (chosen.contains(candidate) || isNeededByOthers(candidate)) continue;
                chosen.insert(candidate);
                subTree.push_back(candidate);
            }
        }
    }
    return subTree;
}

quna::ssize_t Remove(Catalogue& catalogue, const std::vector<Package*>& packages) {
    const std::unordered_set<const Package*> removed(packages.begin(), packages.end());
    for (Package* package : packages) {
        catalogue.m_byName.erase(package->m_name);
        catalogue.m_byDependencies.erase(RankOf(*package));
    }
    const auto isRemoved = [&](const quna::cref<Package>& reference) { return removed.contains(reference.Get()); };
    std::vector<Package*> referring;
    for (auto [name, reference] : catalogue.m_byName) {
        const auto& targets = reference->m_dependsOn;
        if (std::any_of(targets.begin(), targets.end(), isRemoved)) referring.push_back(reference.Get());
    }
    quna::ssize_t numDropped = 0;
    for (Package* package : referring) {
        catalogue.m_byDependencies.erase(RankOf(*package));
        package->MarkAsDirtyWithoutTrace();
        auto& targets = package->m_dependsOn;
        const auto keptEnd = std::remove_if(targets.begin(), targets.end(), isRemoved);
        numDropped += targets.end() - keptEnd;
        targets.resize(keptEnd - targets.begin());
        catalogue.m_byDependencies.insert(RankOf(*package), package);
    }
    for (Package* package : packages) quna::AsyncPermanentlyDeleteSubTree(package);
    return numDropped;
}

} // namespace packagegraph
