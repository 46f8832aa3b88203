// verify: from the file's front over its segments and its index to the objects.
#include "qxUtils/Exceptions.h"
#include "tools/qxstore/Commands.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/Findings.h"
#include "tools/qxstore/FrontCheck.h"
#include "tools/qxstore/ObjectCheck.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/Progress.h"
#include "tools/qxstore/SegmentCheck.h"
#include "tools/qxstore/Units.h"

namespace quna::qxstore {

namespace {

struct IndexSums {
    int64 pages = 0;
    int64 elements = 0;
    int64 elementBytes = 0;
};

void CheckElement(OpenedStore& store, Seid seid, ObjectCheck& objects, Findings& findings, IndexSums& sums) {
    ++sums.elements;
    try {
        store.WithElement(seid, [&](const ReadOnlyBuffer& element) {
            sums.elementBytes += element.size;
            objects.Check(seid, element);
        });
    } catch (const IException& e) {
        findings.Problem("element " + OidText(seid), e);
    }
}

// Loads every page and reads every element that the pages name.
IndexSums CheckIndex(OpenedStore& store, ObjectCheck& objects, Findings& findings, bool quiet) {
    IndexSums sums;
    Progress progress("elements", store.Stats().numLiveHeadPackets, quiet);
    bool isWhole = true;
    store.Lss().IndexForTest().VisitAll(
        [&](uint64 seid, Location) {
            CheckElement(store, Seid(seid), objects, findings, sums);
            progress.Advance(1);
        },
        [&](Location) { ++sums.pages; },
        [&] {
            isWhole = false;
            try {
                throw;
            } catch (const IException& e) {
                findings.Problem("a page of the index, with all elements below it", e);
            }
        });
    if (!isWhole) {
        findings.Note("the usage table was not compared with the index, since that is not whole");
        return sums;
    }
    try {
        store.Lss().Validate();
    } catch (const IException& e) {
        findings.Problem("", e);
    }
    return sums;
}

void AddFigures(const SegmentCheck& segments, const IndexSums& sums, const ObjectCheck& objects,
                const Directory& directory, const Findings& findings, Report& report) {
    report.Add("segments", "segments", Count(segments.NumSegments()));
    report.Add("packets", "packets", Count(segments.NumPackets()));
    report.Add("indexPages", "index pages", Count(sums.pages));
    report.Add("elements", "elements", Count(sums.elements));
    report.Add("elementBytes", "their content", Bytes(sums.elementBytes));
    if (directory.IsObjectStore()) {
        report.Add("objects", "objects", Count(objects.NumObjects()));
        report.Add("opaqueObjects", "of the application's classes", Count(objects.NumOpaque()));
        report.Add("references", "references followed", Count(objects.NumReferences()));
        report.Add("orphansKnown", "orphans looked for", YesNo(objects.AreOrphansKnown()));
        if (objects.AreOrphansKnown()) report.Add("numOrphans", "orphans", Count(findings.NumOrphans()));
    }
    report.Add("numProblems", "problems", Count(findings.NumProblems()));
    report.Add("sound", "sound", YesNo(findings.NumProblems() == 0));
}

} // namespace

EExit RunVerify(const Options& options) {
    OpenedStore store(options.store);
    Findings findings(options.store);
    CheckFront(store, findings);
    SegmentCheck segments(store, findings);
    segments.Run(options.quiet);
    const Directory directory(store, [&](const std::string& problem) { findings.Problem(problem); });
    ObjectCheck objects(store, directory, findings);
    const IndexSums sums = CheckIndex(store, objects, findings, options.quiet);
    objects.CheckSpaces();
    objects.FindOrphans();

    Report report("verify", options.store);
    AddFigures(segments, sums, objects, directory, findings, report);
    findings.AddTo(report);
    const int64 numProblems = findings.NumProblems();
    report.conclusion = numProblems ? "The store is DAMAGED: " + Counted(numProblems, "problem", "problems") + "."
                                    : "The store is sound.";
    Print(report, options);
    return numProblems ? EXIT_DAMAGED : EXIT_GOOD;
}

} // namespace quna::qxstore
