// Each schema tag of each kind of record in an object store is set to 0, to one more than the newest, and to 2^31 - 1:
// whatever reads the record must end in an exception that names the number found and the newest that is read, and the file
// must not change by a byte; where it was opened for writing, its data must not.
#include "qxLss/src/LssStore.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"
#include "qxUtils/VariableLengthSerialise.h"
#include "tests/support/SimArguments.h"
#include "tests/support/StepStore.h"
#include "tests/support/TempDir.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace quna {
namespace {

using Bytes = std::vector<octet_t>;

constexpr uint64 NUM_STEPS = 12;

template <class Write>
Bytes Written(Write write) {
    class Sink : public IOutputStream {
    public:
        void WriteStream(const void* buffer, ssize_t n) override {
            const auto* const p = static_cast<const octet_t*>(buffer);
            m_bytes.insert(m_bytes.end(), p, p + n);
        }
        void FlushStream() override {}
        Bytes m_bytes;
    } sink;
    {
        Archive ar(&sink);
        write(ar);
    }
    return sink.m_bytes;
}

Bytes Tag(uint32 schema) {
    return Written([&](Archive& ar) { SerialiseVariableLengthUint32(ar, schema); });
}

std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// What reads a record.
enum class EReader {
    STORE, // when it is opened
    SPACE, // likewise
    REFERENCE
};

// Where a schema tag stands.
struct Place {
    std::string name;
    Seid seid;
    size_t offset = 0; // in the element
    EReader reader = EReader::STORE;
};

PersistStoreSettings Settings() {
    PersistStoreSettings settings;
    settings.startObjectDeletion = false;
    settings.lssSettings.segmentSize = 65536;
    return settings;
}

LssStore* OpenLss(const std::string& path, EOpenMode mode) {
    bool createdNew = false;
    return static_cast<LssStore*>(CreateOrOpenLSS(path.c_str(), nullptr, createdNew, mode, Settings().lssSettings));
}

void MakeStore(const std::string& path) {
    StepStore store;
    store.Open(path, OM_CREATE_NEW, Settings(), false);
    store.MakeHomes();
    for (uint64 step = 1; step <= NUM_STEPS; ++step) store.RunStep(step);
    store.InTransaction([&](size_t i) {
        if (i == 0) store.m_spaces[i]->AddRoot("names", DollarNew<OidSpaceMap>());
        auto* const home = static_cast<SimHome*>(store.m_spaces[i]->GetRoot("home").m_self);
        for (uint64 key = 1000; key < 6000; ++key) home->m_numbers.insert_or_assign(key, key); // of several levels
    });
    store.Close();
}

// The store's own records, and for each class the first object.
std::vector<Place> FindPlaces(const std::string& path) {
    StepStore store;
    store.Open(path, OM_OPEN_EXISTING, Settings(), false);
    const RootPersistStoreObject& root = store.m_store->m_rootObject;
    const size_t cidMapBytes = Written([&](Archive& ar) { root.m_cidMap.Serialise(ar); }).size();
    std::vector<Place> places = {
        {"root object", ROOT_PERSISTSTORE_OBJECT_SEID},
        {"class ids", ROOT_PERSISTSTORE_OBJECT_SEID, 1},
        {"types", ROOT_PERSISTSTORE_OBJECT_SEID, 1 + cidMapBytes + sizeof root.m_oidHighForOidAllocations},
        {"map of spaces", PSPACEMAP_SEID},
    };
    std::set<uint64> own{ROOT_PERSISTSTORE_OBJECT_SEID.value_, PSPACEMAP_SEID.value_};
    for (const PSpace* const space : store.m_spaces) {
        own.insert(space->m_roots.m_oid.value_);
        own.insert(space->m_roots.m_dqOid.value_);
    }
    places.push_back({"roots", store.m_spaces[0]->m_roots.m_oid, 0, EReader::SPACE});
    places.push_back({"queue of deletions", store.m_spaces[0]->m_roots.m_dqOid, 0, EReader::SPACE});

    auto* const lss = static_cast<LssStore*>(store.m_store->GetLss());
    std::set<std::string> known;
    lss->VisitElements([&](Seid seid, Location) {
        if (own.contains(seid.value_)) return;
        const AutoCloser<IContiguousSerialElement> element(lss->OpenSerialElement(seid));
        uint32 cid = 0;
        const octet_t* const begin = element->GetBuffer().buffer;
        const InputArchive body = DeserialiseVariableLengthUint(InputArchive(begin), cid);
        const std::string name = store.m_store->GetReflectedClass(static_cast<CID>(cid)).GetName();
        if (known.insert(name).second)
            places.push_back({name, seid, static_cast<size_t>(body.ptr() - begin), EReader::REFERENCE});
    });
    store.Close();
    return places;
}

struct Totals {
    int64 tried = 0;
    int64 accepted = 0; // no exception
    int64 badTexts = 0; // one that does not name both numbers
    int64 changed = 0;
};

class Sweep {
public:
    Sweep(const TempDir& dir, Totals& totals) : m_base(dir.File("base")), m_path(dir.File("store")), m_totals(totals) {}

    void Run() {
        MakeStore(m_base);
        const std::vector<Place> places = FindPlaces(m_base);
        std::string names;
        for (const Place& place : places) {
            names += (names.empty() ? "" : ", ") + place.name;
            for (const uint32 schema : {0u, ~0u, 0x7FFFFFFFu}) Try(place, schema);
        }
        std::printf("records: %s\n", names.c_str());
    }

private:
    // ~0 stands for one more than what is written.
    void Try(const Place& place, uint32 schema) {
        std::filesystem::copy_file(m_base, m_path, std::filesystem::copy_options::overwrite_existing);
        const uint32 latest = SetTag(place, schema);
        const uint32 found = schema == ~0u ? latest + 1 : schema;
        for (const EOpenMode mode : {OM_OPEN_EXISTING_READ_ONLY, OM_OPEN_EXISTING}) {
            // A store that can be opened is written to when it is closed.
            if (place.reader != EReader::STORE && mode == OM_OPEN_EXISTING) continue;
            ++m_totals.tried;
            const std::string before = Contents(m_path);
            const std::string text = Use(place, mode);
            const bool says = text.find("schema " + std::to_string(found) + ",") != std::string::npos &&
                              text.find("1 to " + std::to_string(latest) + ":") != std::string::npos;
            m_totals.accepted += text.empty();
            m_totals.badTexts += !text.empty() && !says;
            if (!says) std::printf("FAULT %s, schema %u: \"%s\"\n", place.name.c_str(), found, text.c_str());
            // Who opens a store for writing notes in the allocation ring, in front of all data, that it has an owner again.
            const size_t from = mode == OM_OPEN_EXISTING ? static_cast<size_t>(FRONT_AREA_BYTES) : 0;
            if (Contents(m_path).substr(from) == before.substr(from)) continue;
            ++m_totals.changed;
            std::printf("FAULT %s, schema %u: the file has changed\n", place.name.c_str(), found);
        }
    }

    // The schema that stood there.
    uint32 SetTag(const Place& place, uint32 schema) {
        LssStore* const lss = OpenLss(m_path, OM_OPEN_EXISTING);
        Bytes bytes;
        {
            const AutoCloser<IContiguousSerialElement> element(lss->OpenSerialElement(place.seid));
            const ReadOnlyBuffer buffer = element->GetBuffer();
            bytes.assign(buffer.buffer, buffer.buffer + buffer.size);
        }
        const auto at = bytes.begin() + static_cast<ssize_t>(place.offset);
        uint32 latest = 0;
        DeserialiseVariableLengthUint(InputArchive(&*at), latest);
        const Bytes tag = Tag(schema == ~0u ? latest + 1 : schema);
        bytes.insert(bytes.erase(at, at + std::ssize(Tag(latest))), tag.begin(), tag.end());
        {
            const AutoCloser<ILssTransaction> transaction(lss->OpenTransaction());
            const AutoCloser<ICloseableOutputStream> stream(transaction->WriteSerialElement(place.seid));
            stream->WriteStream(bytes.data(), std::ssize(bytes));
        }
        lss->Close();
        return latest;
    }

    // The text of the exception; empty: there was none.
    std::string Use(const Place& place, EOpenMode mode) {
        StepStore store;
        std::string text;
        try {
            store.m_store = OpenPersistStore(m_path.c_str(), mode, Settings());
            store.OpenSpaces(OM_OPEN_EXISTING, false);
            PSpace* const space = store.m_spaces[0];
            const ThreadPSpaceScope pair(space, space->GetCSpace());
            const CSpaceLock lock(SharedRead);
            space->BindObject(place.seid);
        } catch (const SchemaException& e) {
            text = e.what();
        } catch (const std::exception& e) {
            std::printf("FAULT another exception: %s\n", e.what());
        }
        store.Close();
        return text;
    }

    const std::string m_base;
    const std::string m_path;
    Totals& m_totals;
};

int Main(int argc, char** argv) {
    const ReliabilityArguments arguments(argc, argv);
    PreferFilesInMemory();
    RegisterSimStoreObjects();
    SetTraceSink({nullptr, [](void*, const char*, ssize_t) {}});
    Totals totals;
    const TempDir dir;
    Sweep(dir, totals).Run();
    const int64 faults = totals.accepted + totals.badTexts + totals.changed;
    const bool ok = faults == 0 && totals.tried > 0;
    std::printf(
        "reliability store-versions: tried=%lld accepted=%lld bad_texts=%lld changed=%lld faults=%lld verdict=%s\n",
        static_cast<long long>(totals.tried), static_cast<long long>(totals.accepted),
        static_cast<long long>(totals.badTexts), static_cast<long long>(totals.changed), static_cast<long long>(faults),
        ok ? "ok" : "FAIL");
    return ok ? 0 : 1;
}

} // namespace
} // namespace quna

int main(int argc, char** argv) { return quna::Main(argc, argv); }
