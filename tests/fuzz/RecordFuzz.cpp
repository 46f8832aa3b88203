// Fuzz target: any bytes as a record of the basic forms. A reader ends in RecordException or in a value; a value that
// was read within the record, written again and read again is the same value.
//
// The first byte of the input chooses the form, the rest is the record.
#include "qxUtils/Archive.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Archivexdeque.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/RecordLimits.h"
#include "qxUtils/Schema.h"
#include "qxUtils/VariableLengthSerialise.h"
#include "qxUtils/xdeque.h"
#include "qxUtils/xstring.h"

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

void ReadRecord(octet_t form, const Record& record) {
    switch (form % 8) {
    case 0: ReadWriteRead<xstring>(record); break;
    case 1: ReadWriteRead<VectorOfByte>(record); break;
    case 2: ReadWriteRead<std::map<xstring, int64>>(record); break;
    case 3: ReadWriteRead<std::map<Guid, xstring>>(record); break;
    case 4: ReadWriteRead<xdeque<uint16, 16>>(record); break;
    case 5: ReadWriteRead<xdeque<xstring, 4>>(record); break;
    case 6: ReadVariableLength(record); break;
    default: ReadSchema(record); break;
    }
}

} // namespace
} // namespace quna

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size) {
    if (size == 0) return 0;
    try {
        quna::ReadRecord(data[0], quna::Record(data + 1, size - 1));
    } catch (const quna::RecordException&) {
        // The ordinary end of a damaged record.
    }
    return 0;
}
