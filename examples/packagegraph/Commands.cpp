#include "Commands.h"

#include "DpkgStatus.h"
#include "PackageGraph.h"
#include "Session.h"
#include "qxLss/ILogStructuredStore.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PSpaceTxn.h"
#include "qxUtils/Assert.h"
#include "qxUtils/AutoCloser.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string_view>
#include <thread>

#include <unistd.h>

namespace packagegraph {

namespace {

constexpr quna::ConstStringZ SOURCE_PATH = "examples/packagegraph/Commands";
constexpr std::size_t LINE_COLUMNS = 100;

class StopWatch {
public:
    // Since construction, or since the last call.
    std::string Lap() {
        const auto now = std::chrono::steady_clock::now();
        const double milliSecs = std::chrono::duration<double, std::milli>(now - m_start).count();
        m_start = now;
        std::ostringstream os;
        os << std::fixed << std::setprecision(1) << milliSecs << " ms";
        return os.str();
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

quna::LssStats GetStats(const Session& session) {
    quna::LssStats stats{};
    quna::GetLss(session.Store())->GetStats(stats);
    return stats;
}

// No lock may be held: counting writes what is dirty first.
void PrintFigures(const Session& session) {
    std::cout << "  " << quna::GetNumPersistableObjects(session.Store()) << " objects in the file, "
              << session.NumResident() << " of them in memory\n";
}

void PrintName(const Package& package, std::ostream& os) {
    os << package.m_name.view() << ' ' << package.m_version.view();
}

// The names of one level, as many to a line as fit.
void PrintLevel(std::size_t distance, const std::vector<const Package*>& level) {
    std::vector<std::string> names;
    for (const Package* package : level) names.push_back(package->m_name.str());
    std::sort(names.begin(), names.end());

    std::ostringstream start;
    start << "  " << std::setw(2) << distance << (distance == 1 ? " step: " : " steps:");
    const std::string indentation(start.str().size(), ' ');
    std::string line = start.str();
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string word = names[i] + (i + 1 < names.size() ? "," : "");
        if (line.size() + 1 + word.size() > LINE_COLUMNS) {
            std::cout << line << '\n';
            line = indentation;
        }
        line += ' ';
        line += word;
    }
    std::cout << line << '\n';
}

void PrintClosure(const Closure& closure) {
    for (std::size_t distance = 1; distance < closure.levels.size(); ++distance)
        PrintLevel(distance, closure.levels[distance]);
    std::cout << "  " << closure.numFollowed << " references followed, " << closure.numKnown
              << " of them to a package found before; " << closure.installedKiB / 1024 << " MiB installed\n";
}

void PrintHeld(const Package& package) {
    std::cout << "  ";
    PrintName(package, std::cout);
    if (package.m_timesHeld == 0)
        std::cout << " is not held\n";
    else
        std::cout << " is held (" << package.m_timesHeld << (package.m_timesHeld == 1 ? " time)\n" : " times)\n");
}

// From the end of the index by dependency count.
void PrintMostDependent(const Catalogue& catalogue) {
    constexpr int HOW_MANY = 5;
    std::cout << "  most dependencies:";
    int n = 0;
    for (auto i = catalogue.m_byDependencies.rbegin(); n < HOW_MANY && i != catalogue.m_byDependencies.rend();
         ++i, ++n) {
        std::cout << (n == 0 ? " " : ", ");
        const auto entry = *i;
        PrintName(*entry.second, std::cout);
        std::cout << " (" << entry.first.first << ')';
    }
    std::cout << '\n';
}

// The package with its closure, and what that cost.
void ShowClosure(const Session& session, const std::string& packageName) {
    StopWatch watch;
    const quna::CSpaceLock lock(session.Domain(), quna::SharedRead);
    const quna::ssize_t numBefore = session.NumResident();
    const Package& package = session.GetPackage(packageName);
    std::cout << "  ";
    PrintName(package, std::cout);
    std::cout << ": " << package.m_summary.view() << '\n';
    const Closure closure = WalkClosure(package);
    const std::string time = watch.Lap();
    PrintClosure(closure);
    const quna::ssize_t numLoaded = session.NumResident() - numBefore;
    std::cout << "  " << numLoaded << " objects loaded for it in " << time << ": the catalogue, "
              << numLoaded - 1 - closure.numPackages << " of the index by name and " << closure.numPackages
              << " packages. " << session.GetCatalogue().m_byName.size() - closure.numPackages
              << " packages stayed in the file\n";
    PrintHeld(package);
}

void MarkAsHeld(const Session& session, const std::string& packageName) {
    const quna::CSpaceLock lock(session.Domain(), quna::Exclusive);
    Package& package = session.GetPackage(packageName); // may throw, so before the transaction, which lets nothing pass
    const quna::PSpaceTxn txn(quna::Exclusive);
    package.Hold();
}

// The writer clears an object's dirty bit and commits under one exclusive lock: who sees it clear under a lock knows
// that the change is with the operating system, which keeps it whatever happens to this process.
void WaitUntilWritten(const Session& session, const std::string& packageName) {
    for (;;) {
        {
            const quna::CSpaceLock lock(session.Domain(), quna::SharedRead);
            if (!session.GetPackage(packageName).IsDirty()) return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Until the file has none of them any more.
void WaitUntilDeleted(const Session& session, const std::vector<quna::OID>& oids) {
    quna::ILogStructuredStore* const lss = quna::GetLss(session.Store());
    for (const quna::OID oid : oids) {
        while (const quna::AutoCloser<quna::IContiguousSerialElement> element{lss->OpenSerialElement(oid)})
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace

void Import(const std::string& storePath, const std::string& databasePath) {
    StopWatch watch;
    std::cout << "Reading " << databasePath << '\n';
    const std::vector<DpkgEntry> entries = ReadDpkgStatus(databasePath);
    std::cout << "  " << entries.size() << " installed packages, " << watch.Lap() << '\n';

    std::cout << "Creating the store " << storePath << '\n';
    Session session(storePath, quna::OM_CREATE_NEW);
    std::cout << "  " << watch.Lap() << '\n';

    std::cout << "Making one persistent object a package\n";
    ImportFigures figures;
    {
        const quna::PSpaceTxn txn(quna::Exclusive);
        Catalogue* const catalogue = MakeGraph(entries, databasePath, figures);
        QX_ASSERT(quna::AddPSpaceRoot(CATALOGUE_ROOT, catalogue));
    }
    std::cout << "  " << figures.numPackages << " packages, " << figures.numReferences << " references, "
              << figures.numUnmet << " dependencies on what is not installed, " << watch.Lap() << '\n';
    std::cout << "  " << figures.numMutual << " pairs of packages depend on each other";
    if (!figures.mutualExample.empty()) std::cout << ", for example " << figures.mutualExample;
    std::cout << '\n';

    std::cout << "Writing them\n";
    quna::WriteAllDirtyObjectsToLss(session.Store(), true);
    std::cout << "  on the disk after " << watch.Lap() << ", " << GetStats(session).fileSize / 1024 << " KiB\n";
    PrintFigures(session);
}

void Info(const std::string& storePath) {
    std::cout << "Opening the store " << storePath << '\n';
    const Session session(storePath, quna::OM_OPEN_EXISTING);
    PrintFigures(session);
    const quna::LssStats stats = GetStats(session);
    std::cout << "  " << stats.fileSize / 1024 << " KiB, of them " << stats.utilisation / 1024
              << " KiB live; written in " << stats.numTransactions << " transactions, recovered " << stats.numRecoveries
              << (stats.numRecoveries == 1 ? " time\n" : " times\n");
    const quna::CSpaceLock lock(session.Domain(), quna::SharedRead);
    const Catalogue& catalogue = session.GetCatalogue();
    std::cout << "  the catalogue names " << catalogue.m_byName.size() << " packages, read from "
              << catalogue.m_source.view() << '\n';
    PrintMostDependent(catalogue);
    std::cout << "  " << session.NumResident()
              << " objects in memory now: the catalogue, what these took of its indexes, "
              << "and they\n";
}

void Show(const std::string& storePath, const std::string& packageName) {
    std::cout << "Opening the store " << storePath << '\n';
    const Session session(storePath, quna::OM_OPEN_EXISTING);
    PrintFigures(session);
    std::cout << "What " << packageName << " depends on\n";
    ShowClosure(session, packageName);
    PrintFigures(session);
}

void Hold(const std::string& storePath, const std::string& packageName) {
    std::cout << "Opening the store " << storePath << '\n';
    const Session session(storePath, quna::OM_OPEN_EXISTING);
    PrintFigures(session);
    std::cout << "What " << packageName << " depends on\n";
    ShowClosure(session, packageName);

    std::cout << "Holding " << packageName << '\n';
    StopWatch watch;
    MarkAsHeld(session, packageName);
    std::cout << "  changed in memory; the writer comes by every " << quna::GetDosPeriod(session.Store()) << " ms\n";
    WaitUntilWritten(session, packageName);
    std::cout << "  written in the background after " << watch.Lap() << '\n';
    std::cout << "Waiting to be killed: process " << getpid() << std::endl;
    for (;;) pause();
}

void Remove(const std::string& storePath, const std::string& packageName) {
    std::cout << "Opening the store " << storePath << '\n';
    const Session session(storePath, quna::OM_OPEN_EXISTING);
    PrintFigures(session);
    const int numBefore = GetStats(session).numLiveHeadPackets;

    std::cout << "Removing " << packageName << " and what is there for its sake alone\n";
    StopWatch watch;
    std::vector<quna::OID> oids;
    {
        const quna::CSpaceLock lock(session.Domain(), quna::Exclusive);
        const std::vector<Package*> subTree = FindSubTree(session.GetCatalogue(), session.GetPackage(packageName));
        PrintLevel(0, std::vector<const Package*>(subTree.begin(), subTree.end()));
        for (const Package* package : subTree) oids.push_back(quna::GetOid(package));
        const quna::PSpaceTxn txn(quna::Exclusive);
        const quna::ssize_t numDropped = packagegraph::Remove(session.GetCatalogue(), subTree);
        std::cout << "  " << subTree.size() << (subTree.size() == 1 ? " package" : " packages")
                  << " out of both indexes, " << numDropped << " references of others dropped, " << watch.Lap() << '\n';
    }
    WaitUntilDeleted(session, oids);
    const int numAfter = GetStats(session).numLiveHeadPackets;
    std::cout << "  deleted in the background after " << watch.Lap() << ": " << numBefore << " live elements before, "
              << numAfter << " now\n";
    PrintFigures(session);
}

} // namespace packagegraph
