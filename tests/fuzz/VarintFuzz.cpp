// Fuzz target: variable-length numbers and identifiers, there and back.
//
// Any bytes are a row of numbers: each is read as a value that is written in no more bytes and read again as the same, by
// all readers, or ends in RecordException. The same bytes as identifiers, and as plain words to be written.
#include "qxPersistStore/OID.h"
#include "qxUtils/Archive.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/RecordLimits.h"
#include "qxUtils/VariableLengthSerialise.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace quna {
namespace {

void Require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "VarintFuzz: %s\n", what);
    std::abort();
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

class Source : public IInputStream {
public:
    Source(const octet_t* bytes, ssize_t n) : m_at(bytes), m_end(bytes + n) {}
    ssize_t ReadStream(void* buffer, ssize_t n) override {
        const ssize_t taken = std::min(n, static_cast<ssize_t>(m_end - m_at));
        if (taken > 0) std::memcpy(buffer, m_at, static_cast<size_t>(taken));
        m_at += taken;
        return taken;
    }

private:
    const octet_t* m_at;
    const octet_t* m_end;
};

// A value that was read in `n` bytes. The shortest form is unique, so another one must be longer.
void WriteAndReadAgain(const std::vector<uint32>& values, ssize_t numBytesRead) {
    Sink sink;
    {
        Archive ar(&sink);
        for (const uint32 x : values) SerialiseVariableLengthUint32(ar, x);
    }
    const ssize_t n = std::ssize(sink.m_bytes);
    Require(n <= numBytesRead, "a value is written in more bytes than it was read from");
    sink.m_bytes.resize(sink.m_bytes.size() + static_cast<size_t>(RECORD_SLACK));
    const octet_t* const begin = sink.m_bytes.data();
    const RecordLimitsScope limits(begin, begin + n);
    const octet_t* p = begin;
    const octet_t* wide = begin;
    Source source(begin, n);
    Archive in(static_cast<IInputStream*>(&source));
    for (const uint32 x : values) {
        uint32 again = ~x;
        bool escaped = true;
        const octet_t* const next = DeserialiseVariableLengthUint(p, again, escaped);
        Require(again == x && !escaped, "a value changed on its way");
        uint64 widened = 0;
        wide = DeserialiseVariableLengthUint(wide, widened);
        Require(widened == x && wide == next, "the wide reader reads another value");
        Require(DeserialiseVariableLengthUint32(in) == x, "the reader of a stream reads another value");
        p = next;
    }
    Require(p == begin + n, "a written row of values is not read to its end");
}

void ReadNumbers(const octet_t* begin, const octet_t* end) {
    std::vector<uint32> values;
    const octet_t* p = begin;
    ssize_t numBytes = 0;
    try {
        while (p < end) {
            uint32 x = 0;
            bool escaped = false;
            const octet_t* const next = DeserialiseVariableLengthUint(p, x, escaped);
            Require(next > p && next - p <= MAX_VARIABLE_LENGTH_UINT_SIZE, "a value of impossible length");
            Require(escaped == (*p == VARIABLE_LENGTH_ESCAPE), "the escape was missed");
            if (!escaped) {
                values.push_back(x);
                numBytes += next - p;
            }
            p = next;
        }
    } catch (const RecordException&) {
        Require(*p > 0xF0, "a value was refused"); // nothing else is no beginning of one
    }
    WriteAndReadAgain(values, numBytes);
}

void ReadIdentifiers(const octet_t* begin, const octet_t* end) {
    std::vector<OID> oids;
    try {
        for (InputArchive ar(begin); ar.ptr() < end;) {
            OID oid;
            ar = ar >> oid;
            oids.push_back(oid.high_ == 0 ? OID() : oid); // without a space there is no low half
        }
    } catch (const RecordException&) {
        // What was read before it counts.
    }
    Sink sink;
    {
        Archive ar(&sink);
        for (const OID oid : oids) ar << oid;
    }
    const ssize_t n = std::ssize(sink.m_bytes);
    sink.m_bytes.resize(sink.m_bytes.size() + static_cast<size_t>(RECORD_SLACK));
    const RecordLimitsScope limits(sink.m_bytes.data(), sink.m_bytes.data() + n);
    InputArchive ar(sink.m_bytes.data());
    for (const OID oid : oids) {
        OID again;
        ar = ar >> again;
        Require(again == oid, "an identifier changed on its way");
    }
    Require(ar.ptr() == sink.m_bytes.data() + n, "a written row of identifiers is not read to its end");
}

void WriteWords(const octet_t* begin, const octet_t* end) {
    std::vector<uint32> values;
    for (const octet_t* p = begin; end - p >= 4; p += 4) {
        uint32 x = 0;
        std::memcpy(&x, p, sizeof x);
        values.push_back(x);
    }
    WriteAndReadAgain(values, std::ssize(values) * MAX_VARIABLE_LENGTH_UINT_SIZE);
}

} // namespace
} // namespace quna

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size) {
    std::vector<quna::octet_t> bytes(data, data + size);
    bytes.resize(size + static_cast<std::size_t>(quna::RECORD_SLACK));
    const quna::octet_t* const begin = bytes.data();
    const quna::octet_t* const end = begin + size;
    const quna::RecordLimitsScope limits(begin, end);
    quna::ReadNumbers(begin, end);
    quna::ReadIdentifiers(begin, end);
    quna::WriteWords(begin, end);
    return 0;
}
