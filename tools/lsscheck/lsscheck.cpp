// lsscheck: reads a store file whole and says whether it is sound. Nothing is written.
//
// The store is opened read-only, which verifies headers, tables and the log behind the newest checkpoint. Then every page
// of the index is loaded, every element is read with its checksum, and the usage table is compared with a recount.
// Exit status: 0 sound, 1 damaged or unreadable, 2 wrong usage.
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/xostream.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

namespace {

using namespace quna;

constexpr int MAX_REPORTED = 20;

struct Findings {
    int64 elements = 0;
    int64 bytes = 0;
    int64 longest = 0;
    int64 damaged = 0;
};

void ReadElement(ILogStructuredStore& lss, Seid seid, Findings& findings) {
    ++findings.elements;
    try {
        AutoCloser<IContiguousSerialElement> element(lss.OpenSerialElement(seid));
        const ssize_t size = element->GetBuffer().size;
        findings.bytes += size;
        findings.longest = size > findings.longest ? size : findings.longest;
    } catch (const std::exception& e) {
        if (++findings.damaged > MAX_REPORTED) return;
        StringStream name;
        name << seid;
        std::printf("element %s: %s\n", name.c_str(), e.what());
    }
}

int Check(const char* path) {
    bool createdNew = false;
    LssStore& lss =
        *static_cast<LssStore*>(CreateOrOpenLSS(path, nullptr, createdNew, OM_OPEN_EXISTING_READ_ONLY, LssSettings()));
    AutoCloser<ILogStructuredStore> closer(&lss);
    Findings findings;
    lss.VisitElements([&](Seid seid, Location) { ReadElement(lss, seid, findings); });
    LssStats stats{};
    lss.GetStats(stats);
    std::printf("file            %lld bytes in segments of %d\n", static_cast<long long>(stats.fileSize),
                stats.segmentSize);
    std::printf("elements        %lld, %lld bytes, the longest %lld\n", static_cast<long long>(findings.elements),
                static_cast<long long>(findings.bytes), static_cast<long long>(findings.longest));
    std::printf("packets         %d heads, %d overflow, %d index; %d obsolete; %lld live bytes\n",
                stats.numLiveHeadPackets, stats.numLiveOverflowPackets, stats.numLiveRPMPackets,
                stats.numObsoletePackets, static_cast<long long>(stats.utilisation));
    std::printf("life            %lld transactions, %d checkpoints, %d recoveries\n",
                static_cast<long long>(stats.numTransactions), stats.numCheckPoints, stats.numRecoveries);
    if (findings.damaged) {
        std::printf("DAMAGED         %lld elements can't be read\n", static_cast<long long>(findings.damaged));
        return 1;
    }
    lss.Validate();
    std::printf("sound\n");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || std::strcmp(argv[1], "--help") == 0) {
        std::printf(
            "Usage: lsscheck STORE\nReads a store file whole and says whether it is sound. Nothing is written.\n");
        return argc == 2 ? 0 : 2;
    }
    try {
        return Check(argv[1]);
    } catch (const std::exception& e) {
        std::printf("DAMAGED         %s\n", e.what());
        return 1;
    }
}
