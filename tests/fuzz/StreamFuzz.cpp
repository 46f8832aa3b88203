// Fuzz target: any bytes as a stream of objects from another store, with the identifiers of its spaces translated. It ends in
// an exception of the library, or in objects that have a place here. The store's own records, and identifiers of its own space
// that it never gave out, are no such place.
//
// Input: a byte of flags, then the stream: of each object its identifier, a byte for its class, and its record.
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/OidHighReader.h"
#include "qxPersistStore/OidHighWriter.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxUtils/RecordLimits.h"
#include "tests/support/FuzzBasics.h"
#include "tests/support/FuzzSpace.h"
#include "tests/support/TestObjects.h"

#include <cstddef>
#include <vector>

namespace quna {
namespace {

constexpr ssize_t MAX_OBJECTS = 64;
constexpr int64 MEMORY_ALLOWANCE = int64{16} << 20;
constexpr OidHigh OWN = 1;

Guid GuidOf(octet_t n) {
    Guid guid{};
    guid.Data1 = n;
    return guid;
}

struct Owner {
    ptr<IPersistable> po;
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    ~Owner() {
        if (po) po->Destroy();
    }
};

void Make(octet_t kind, Owner& owner) {
    switch (kind % 3) {
    case 0: owner.po = new TestLeaf; break;
    case 1: owner.po = new TestNode; break;
    default: owner.po = new OidSpaceMap; break;
    }
}

class Sink : public IOutputStream {
public:
    void WriteStream(const void* bytes, ssize_t n) override {
        const auto* p = static_cast<const octet_t*>(bytes);
        m_bytes.insert(m_bytes.end(), p, p + n);
    }
    void FlushStream() override {}
    std::vector<octet_t> m_bytes;
};

// A second store's side: what was received is sent on, and arrives there under the same names.
void SendOn(OidSpaceMap& spaces, const std::vector<OID>& oids) {
    OidHighWriter writer(&spaces);
    Sink sink;
    {
        Archive ar(&sink);
        const OidHighWriterScope hook(ar, writer);
        for (const OID oid : oids) ar << oid;
    }
    const ssize_t n = std::ssize(sink.m_bytes);
    sink.m_bytes.resize(sink.m_bytes.size() + static_cast<size_t>(RECORD_SLACK));
    const RecordLimitsScope limits(sink.m_bytes.data(), sink.m_bytes.data() + n);
    OidSpaceMap there;
    OidHighReader reader(&there);
    const OidHighReaderScope hook(reader);
    InputArchive ar(sink.m_bytes.data());
    for (const OID oid : oids) {
        OID arrived;
        ar = ar >> arrived;
        Guid here{};
        Guid name{};
        FuzzRequire(spaces.GetOidSpaceGuid(oid.high_, here) && there.GetOidSpaceGuid(arrived.high_, name) &&
                        here == name && arrived.low_ == oid.low_,
                    "an identifier changed on its way");
    }
    FuzzRequire(ar.ptr() == sink.m_bytes.data() + n, "a stream is not read to its end");
}

void Receive(const octet_t* begin, const octet_t* end, octet_t flags) {
    OidSpaceMap spaces;
    spaces.Add(OWN, GuidOf(1));
    if (flags & 1) spaces.Add(7, GuidOf(7));
    OidHighReader reader(&spaces);
    std::vector<OID> oids;
    TryRecord([&] {
        const RecordLimitsScope limits(begin, end);
        const OidHighReaderScope hook(reader);
        InputArchive ar(begin);
        while (ar.ptr() < end && std::ssize(oids) < MAX_OBJECTS) {
            OID oid;
            ar = ar >> oid;
            if (!oid) break;
            oids.push_back(oid);
            Owner owner;
            octet_t kind = 0;
            ar = ar >> kind;
            Make(kind, owner);
            ar = owner.po->Deserialise(ar);
        }
    });
    FuzzRequire(reader.GetNumGuidsSent() >= spaces.size() - 2, "a space came from nowhere");
    for (const OID oid : oids) FuzzRequire(oid.high_ != 0, "an identifier without a space");
    SendOn(spaces, oids);
}

} // namespace
} // namespace quna

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size) {
    if (size == 0) return 0;
    quna::PrepareForFuzz();
    quna::FuzzSpace::Get().Lss().Forget();
    quna::ResetPeakMemory();
    std::vector<quna::octet_t> stream(data + 1, data + size);
    stream.resize(stream.size() + static_cast<std::size_t>(quna::RECORD_SLACK));
    quna::Receive(stream.data(), stream.data() + (size - 1), data[0]);
    quna::FuzzRequire(quna::PeakMemory() <= quna::MEMORY_ALLOWANCE,
                      "the memory in use is out of proportion to the stream");
    return 0;
}
