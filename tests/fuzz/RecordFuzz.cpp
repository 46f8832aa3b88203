// Fuzz target: any bytes as a record: of the basic forms, of the store's own kinds, of its classes. A reader ends in an
// exception of the library or in a value. A value that was read to the record's end is written, read and written again:
// both times the same bytes.
//
// The first byte of the input chooses the form, the rest is the record.
#include "qxObject/ReflectionByteCodeValue.h"
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/Goid.h"
#include "qxPersistStore/InternalNode.h"
#include "qxPersistStore/LeafNode.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxPersistStore/src/CidMap.h"
#include "qxPersistStore/src/DeletionQueue.h"
#include "qxPersistStore/src/PSpaceMap.h"
#include "qxPersistStore/src/PSpaceRoots.h"
#include "qxPersistStore/src/RootPersistStoreObject.h"
#include "qxPersistStore/src/TypeOpsMap.h"
#include "qxUtils/Archive.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Archivexdeque.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/RecordLimits.h"
#include "qxUtils/Schema.h"
#include "qxUtils/VariableLengthSerialise.h"
#include "qxUtils/xdeque.h"
#include "qxUtils/xstring.h"
#include "tests/support/FuzzBasics.h"
#include "tests/support/FuzzSpace.h"
#include "tests/support/TestObjects.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>
#include <vector>

namespace quna {
namespace {

constexpr int LATEST_SCHEMA = 100;

class Sink : public IOutputStream {
public:
    void WriteStream(const void* bytes, ssize_t n) override {
        const auto* p = static_cast<const octet_t*>(bytes);
        m_bytes.insert(m_bytes.end(), p, p + n);
    }
    void FlushStream() override {}
    std::vector<octet_t> m_bytes;
};

// A record in memory with the readable bytes behind it that readers may count on.
class Record {
public:
    Record(const octet_t* bytes, std::size_t n) : m_bytes(bytes, bytes + n), m_size(n) {
        m_bytes.resize(n + static_cast<std::size_t>(RECORD_SLACK));
    }
    const octet_t* Begin() const { return m_bytes.data(); }
    const octet_t* End() const { return m_bytes.data() + m_size; }

private:
    std::vector<octet_t> m_bytes;
    std::size_t m_size;
};

void Require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "RecordFuzz: %s\n", what);
    std::abort();
}

template <class T>
bool Same(const T& x, const T& y) {
    return x == y;
}

template <class T, ssize_t pageSize>
bool Same(const xdeque<T, pageSize>& x, const xdeque<T, pageSize>& y) {
    if (x.size() != y.size()) return false;
    auto j = y.begin();
    for (const T& element : x) {
        if (!(element == *j)) return false;
        ++j;
    }
    return true;
}

template <class T>
const octet_t* Read(const Record& record, T& value) {
    RecordLimitsScope scope(record.Begin(), record.End());
    return (InputArchive(record.Begin()) >> value).ptr();
}

template <class T>
void ReadWriteRead(const Record& record) {
    T first{};
    if (Read(record, first) > record.End()) return; // a short value at the very end; a record's owner refuses it

    Sink sink;
    {
        Archive ar(&sink);
        ar << first;
    }
    const Record again(sink.m_bytes.data(), sink.m_bytes.size());
    T second{};
    Require(Read(again, second) == again.End(), "a written value is not read to its end");
    Require(Same(first, second), "a value changed on its way");
}

void ReadVariableLength(const Record& record) {
    RecordLimitsScope scope(record.Begin(), record.End());
    const octet_t* p = record.Begin();
    while (p < record.End()) {
        uint32 value = 0;
        bool escaped = false;
        const octet_t* next = DeserialiseVariableLengthUint(p, value, escaped);
        Require(next > p && next - p <= MAX_VARIABLE_LENGTH_UINT_SIZE, "a value of impossible length");
        Require(!escaped || value == VARIABLE_LENGTH_ESCAPE, "an escape with a value");
        p = next;
    }
}

void ReadSchema(const Record& record) {
    RecordLimitsScope scope(record.Begin(), record.End());
    int schema = 0;
    DeserialiseSchema(record.Begin(), LATEST_SCHEMA, schema);
    Require(1 <= schema && schema <= LATEST_SCHEMA, "a schema out of range was let through");
}

// --- records of the store

// Of a record kind: how one is made, and, where they are not its own methods, how it is read and written.
template <class X>
struct Kind {
    X value{};
    InputArchive Deserialise(InputArchive ar) { return value.Deserialise(ar); }
    void Serialise(Archive& ar) const { value.Serialise(ar); }
};
template <>
struct Kind<CidMap> {
    CidMap value;
    InputArchive Deserialise(InputArchive ar) {
        bool dirty = false;
        return value.Deserialise(ar, nullptr, dirty);
    }
    void Serialise(Archive& ar) const { value.Serialise(ar); }
};
template <>
struct Kind<RootPersistStoreObject> {
    RootPersistStoreObject value;
    InputArchive Deserialise(InputArchive ar) { return value.Deserialise(ar, nullptr); }
    void Serialise(Archive& ar) const { value.Serialise(ar); }
};
template <>
struct Kind<PSpaceMap> {
    PSpaceMap value{FuzzSpace::Get().Store()};
    InputArchive Deserialise(InputArchive ar) { return value.Deserialise(ar); }
    void Serialise(Archive& ar) const { value.Serialise(ar); }
};
template <>
struct Kind<PSpaceRoots> {
    PSpaceRoots value{OID(99, 1), false};
    InputArchive Deserialise(InputArchive ar) { return value.Deserialise(ar); }
    void Serialise(Archive& ar) const { value.Serialise(ar); }
};
template <>
struct Kind<DeletionQueue> {
    DeletionQueue value{false};
    InputArchive Deserialise(InputArchive ar) { return value.Deserialise(ar); }
    void Serialise(Archive& ar) const { value.Serialise(ar); }
};
template <>
struct Kind<Goid> {
    Goid value;
    InputArchive Deserialise(InputArchive ar) { return ar >> value.oidSpaceGuid >> value.oidLow; }
    void Serialise(Archive& ar) const { ar << value.oidSpaceGuid << value.oidLow; }
};

template <class X>
std::vector<octet_t> Written(const Kind<X>& kind) {
    Sink sink;
    {
        Archive ar(&sink);
        kind.Serialise(ar);
    }
    return std::move(sink.m_bytes);
}

// Was the record used exactly?
template <class X>
bool ReadKind(const Record& record, Kind<X>& kind) {
    const RecordLimitsScope scope(record.Begin(), record.End());
    return kind.Deserialise(record.Begin()).ptr() == record.End();
}

template <class X>
void ReadStoreRecord(const Record& record) {
    Kind<X> first;
    if (!ReadKind(record, first)) return;
    const std::vector<octet_t> once = Written(first);
    Kind<X> second;
    bool usedExactly = false;
    try {
        usedExactly = ReadKind(Record(once.data(), once.size()), second);
    } catch (const IException&) {
        Require(false, "a written record is refused");
    }
    Require(usedExactly, "a written record is not read to its end");
    Require(Written(second) == once, "a record changed on its way");
}

// As the store reads an object, the class id first.
void ReadObjectRecord(const Record& record) {
    struct Owner {
        ptr<IPersistable> po;
        ~Owner() {
            if (po) po->Destroy();
        }
    } owner;
    FuzzSpace::Get().Store().DynCreateDeserialise(record.Begin(), record.End(), owner.po, OID(77, 1), false);
    if (owner.po) Require(MeasurePersistableObjectSize(owner.po) > 0, "an object without a record"); // class 0: none
}

using Reader = void (*)(const Record&);

constexpr Reader READERS[] = {
    ReadWriteRead<xstring>,
    ReadWriteRead<VectorOfByte>,
    ReadWriteRead<std::map<xstring, int64>>,
    ReadWriteRead<std::map<Guid, xstring>>,
    ReadWriteRead<xdeque<uint16, 16>>,
    ReadWriteRead<xdeque<xstring, 4>>,
    ReadVariableLength,
    ReadSchema,
    ReadStoreRecord<CidMap>,
    ReadStoreRecord<TypeOpsMap>,
    ReadStoreRecord<RootPersistStoreObject>,
    ReadStoreRecord<PSpaceMap>,
    ReadStoreRecord<PSpaceRoots>,
    ReadStoreRecord<DeletionQueue>,
    ReadStoreRecord<ReflectionByteCodeValue>,
    ReadStoreRecord<Goid>,
    ReadStoreRecord<BPlusTree>,
    ReadStoreRecord<LeafNode>,
    ReadStoreRecord<InternalNode>,
    ReadStoreRecord<OidSpaceMap>,
    ReadStoreRecord<TestLeaf>,
    ReadStoreRecord<TestNode>,
    ReadObjectRecord,
};
constexpr std::size_t NUM_READERS = sizeof READERS / sizeof READERS[0];

} // namespace
} // namespace quna

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size) {
    if (size == 0) return 0;
    quna::PrepareForFuzz();
    quna::FuzzSpace::Get();
    quna::ResetPeakMemory();
    quna::TryRecord([&] { quna::READERS[data[0] % quna::NUM_READERS](quna::Record(data + 1, size - 1)); });
    quna::FuzzRequire(quna::PeakMemory() <= 16 << 20, "the memory in use is out of proportion to the record");
    return 0;
}
