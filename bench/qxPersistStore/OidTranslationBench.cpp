// What does it cost to translate identifiers between stores, once their spaces have been introduced in the stream? Limit:
// twice the time of the untranslated form, in writing and in reading.
//
// One space is the usual case. With eight in random order, each identifier is of another space than the one before.
#include "bench/support/BenchObjects.h"
#include "bench/support/Contest.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxUtils/IStream.h"

#include <chrono>
#include <memory>
#include <random>
#include <vector>

namespace {

using namespace quna;

using Clock = std::chrono::steady_clock;

constexpr ssize_t NUM_OIDS = 1'000'000;
constexpr int NUM_PASSES = 10; // over the same identifiers, in one round
constexpr uint32 SEED = 20240611;

class NullStream final : public IOutputStream {
public:
    void WriteStream(const void*, ssize_t n) override { m_numBytes += n; }
    void FlushStream() override {}
    int64 m_numBytes = 0;
};

class BytesStream final : public IOutputStream {
public:
    void WriteStream(const void* buffer, ssize_t n) override {
        const auto* const p = static_cast<const octet_t*>(buffer);
        m_bytes.insert(m_bytes.end(), p, p + n);
    }
    void FlushStream() override {}
    std::vector<octet_t> m_bytes;
};

// Identifiers as a store of a million objects has them, of the spaces 1 to numSpaces in random order.
std::vector<OID> MakeOids(uint32 numSpaces) {
    std::mt19937 random(SEED);
    std::vector<OID> oids;
    for (ssize_t i = 0; i < NUM_OIDS; ++i)
        oids.emplace_back(static_cast<OidLow>(random() % NUM_OIDS), static_cast<OidHigh>(1 + random() % numSpaces));
    return oids;
}

void WriteAll(Archive& ar, const std::vector<OID>& oids) {
    for (const OID oid : oids) ar << oid;
}

uint64 ReadAll(const octet_t* bytes) {
    InputArchive ar = bytes;
    uint64 sum = 0;
    for (ssize_t i = 0; i < NUM_OIDS; ++i) {
        OID oid;
        ar = ar >> oid;
        sum += oid.value_;
    }
    return sum;
}

// The identifiers of one case, their untranslated form, and a stream that has introduced all their spaces.
class Case {
public:
    Case(std::string name, uint32 numSpaces, OidSpaceMap& map)
        : m_name(std::move(name)), m_oids(MakeOids(numSpaces)), m_writer(&map), m_reader(&map) {
        BytesStream introductions;
        {
            Archive ar(&introductions);
            for (OidHigh oh = 1; oh <= numSpaces; ++oh) m_writer.SerialiseOidHigh(ar, oh);
        }
        InputArchive ar = introductions.m_bytes.data();
        OidHigh local = 0;
        for (OidHigh oh = 1; oh <= numSpaces; ++oh) ar = m_reader.DeserialiseOidHigh(ar, local);
        BytesStream plain;
        {
            Archive out(&plain);
            WriteAll(out, m_oids);
        }
        m_bytes = std::move(plain.m_bytes);
        m_bytes.resize(m_bytes.size() + static_cast<std::size_t>(RECORD_SLACK));
        m_sum = ReadAll(m_bytes.data());
    }
    Case(const Case&) = delete;
    Case& operator=(const Case&) = delete;

    void Measure(Contest::Report& report, bool translated) {
        NullStream stream;
        {
            Archive ar(&stream);
            if (translated) ar.m_oidHighSerialiser = &m_writer;
            const auto begin = Clock::now();
            for (int i = 0; i < NUM_PASSES; ++i) WriteAll(ar, m_oids);
            report.Time("write, " + m_name, NUM_PASSES * NUM_OIDS, SecondsSince(begin));
        }
        SetThreadOidHighDeserialiser(translated ? &m_reader : nullptr);
        uint64 sum = 0;
        const auto begin = Clock::now();
        for (int i = 0; i < NUM_PASSES; ++i) sum += ReadAll(m_bytes.data());
        report.Time("read, " + m_name, NUM_PASSES * NUM_OIDS, SecondsSince(begin));
        SetThreadOidHighDeserialiser(nullptr);
        // Sender and receiver are the same store, so the numbers come back as they were.
        if (sum != NUM_PASSES * m_sum || stream.m_numBytes == 0) std::abort();
    }

private:
    const std::string m_name;
    const std::vector<OID> m_oids;
    std::vector<octet_t> m_bytes;
    uint64 m_sum = 0;
    OidHighWriter m_writer;
    OidHighReader m_reader;
};

} // namespace

int main() {
    const TempDir dir;
    BenchStore store(dir / "store", OM_CREATE_NEW);
    const CSpaceLock lock(Exclusive);
    const auto map = std::make_unique<OidSpaceMap>(); // transient: only its look-ups matter
    for (OidHigh oh = 1; oh <= 8; ++oh) {
        OidSpaceGuid guid;
        map->GetOrCreateOidSpaceGuid(oh, guid);
    }
    Case one("1 space", 1, *map);
    Case eight("8 spaces in random order", 8, *map);
    Contest contest;
    for (const bool translated : {false, true})
        contest.Add(translated ? "translated" : "plain", [&, translated](Contest::Report& report) {
            one.Measure(report, translated);
            eight.Measure(report, translated);
        });
    contest.Run("Identifiers of known spaces, 1 M, ten passes a round");
    return 0;
}
