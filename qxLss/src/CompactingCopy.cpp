#include "qxLss/src/CompactingCopy.h"

#include "qxLss/src/LssStore.h"
#include "qxLss/src/SerialElement.h"
#include "qxUtils/AutoCloser.h"

#include <limits>

namespace quna {

namespace {

constexpr int64 BYTES_A_TRANSACTION = int64{64} << 20;
constexpr int64 BYTES_A_REPORT = int64{1} << 20;

} // namespace

// The target's open transaction. Each is synced, so that little is left for the end.
class CompactingCopy::Batch {
public:
    explicit Batch(LssStore& target) : m_target(target) {}

    void Write(Seid seid, const ReadOnlyBuffer& content) {
        if (!m_txn) {
            m_txn.ptr_ = m_target.OpenTransaction();
            // Nobody else has the target, so nobody waits for its turn, whatever the progress callback locks.
            LockRecorder::Releases(&m_target.Turn());
        }
        AutoCloser<ICloseableOutputStream> stream(m_txn->WriteSerialElement(seid));
        stream->WriteStream(content.buffer, content.size);
        stream.Close();
        m_bytes += content.size + PACKET_HEADER_BYTES;
        if (m_bytes >= BYTES_A_TRANSACTION) End();
    }
    void End() {
        if (!m_txn) return;
        m_txn.Close();
        m_target.Flush();
        m_bytes = 0;
    }

private:
    LssStore& m_target;
    AutoCloser<ILssTransaction> m_txn;
    int64 m_bytes = 0;
};

bool CompactingCopy::CopyElements(LssStore& target) {
    const StoreCounters& counters = m_source.m_counters;
    CopyProgress progress(m_options, m_gate, counters.liveBytes.load() - counters.indexBytes.load());
    bool goesOn = progress.Report(0);
    int64 reported = 0;
    Batch batch(target);
    m_index.VisitAll(
        [&](uint64 seid, Location) {
            if (!goesOn) return;
            AutoCloser<IContiguousSerialElement> element(SerialElement::Open(m_source, m_index, Seid(seid)));
            const ReadOnlyBuffer content = element->GetBuffer();
            batch.Write(Seid(seid), content);
            ++m_numElements;
            m_bytes += PaddedSize(PACKET_HEADER_BYTES + content.size);
            if (m_bytes - reported < BYTES_A_REPORT) return;
            reported = m_bytes;
            goesOn = progress.Report(m_bytes);
        },
        [](Location) {});
    if (!goesOn) return false;
    batch.End();
    return progress.Report(std::numeric_limits<int64>::max());
}

} // namespace quna
