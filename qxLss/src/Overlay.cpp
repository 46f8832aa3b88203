#include "qxLss/src/Overlay.h"

#include "qxLss/src/Format.h"
#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/Tracer.h"

#include <exception>
#include <mutex>
#include <utility>

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/Overlay";

} // namespace

bool Overlay::Find(Seid seid, Bytes& bytes) const {
    std::shared_lock lock(m_mutex);
    const auto i = m_elements.find(seid.value_);
    if (i == m_elements.end()) return false;
    bytes = i->second;
    return true;
}

void Overlay::Apply(const std::map<uint64, Bytes>& changes) {
    std::unique_lock lock(m_mutex);
    for (const auto& [seid, bytes] : changes) m_elements[seid] = bytes;
    m_isEmpty.store(m_elements.empty(), std::memory_order_release);
}

ReadOnlyBuffer OverlayElement::GetBuffer() {
    return {m_bytes->data(), static_cast<ssize_t>(m_bytes->size()) - ELEMENT_TAIL_BYTES};
}

OverlayTransaction::OverlayTransaction(Overlay& overlay, TurnLock& turn, ConstStringZ path, ExistsInFile existsInFile,
                                       Counted counted)
    : m_overlay(overlay), m_turn(turn), m_path(path), m_existsInFile(std::move(existsInFile)),
      m_counted(std::move(counted)) {}

void OverlayTransaction::Open() {
    m_changes.clear();
    m_uncaughtAtOpen = std::uncaught_exceptions();
    m_dropWhenUnwinding = false;
}

void OverlayTransaction::Close() {
    struct TurnRelease {
        TurnLock& turn;
        ~TurnRelease() { turn.Release(); }
    } const release{m_turn}; // also when there is no memory
    m_stream.m_isOpen = false;
    if (m_dropWhenUnwinding && std::uncaught_exceptions() > m_uncaughtAtOpen) m_changes.clear();
    if (!m_changes.empty()) {
        int64 delta = 0;
        for (const auto& [seid, bytes] : m_changes) {
            Overlay::Bytes old;
            const bool existed = m_overlay.Find(Seid(seid), old) ? old != nullptr : m_existsInFile(Seid(seid));
            delta += (bytes != nullptr) - existed;
        }
        m_overlay.Apply(m_changes);
        m_counted(delta);
        if (!std::exchange(m_traced, true))
            TracerX() << "LSS: the store '" << m_path
                      << "' is open read-only; changes are kept in memory and dropped at its close\n";
    }
}

void OverlayTransaction::RequestFlushToDisk() {
    throw FileException(("Can't flush the store '" + m_path + "': the store is open read-only").c_str());
}

ICloseableOutputStream* OverlayTransaction::WriteSerialElement(Seid seid) {
    QX_ASSERT(!m_stream.m_isOpen);
    QX_ASSERT(seid);
    static_cast<void>(m_existsInFile(seid)); // Close asks again; a damaged page of the index shows itself here
    m_stream.m_seid = seid;
    m_stream.m_isOpen = true;
    m_stream.m_uncaughtAtOpen = std::uncaught_exceptions();
    m_stream.m_bytes.clear();
    return &m_stream;
}

bool OverlayTransaction::DeleteSerialElement(Seid seid) {
    QX_ASSERT(!m_stream.m_isOpen);
    if (!Exists(seid)) return false;
    m_changes[seid.value_] = nullptr;
    return true;
}

bool OverlayTransaction::Exists(Seid seid) const {
    const auto i = m_changes.find(seid.value_);
    if (i != m_changes.end()) return i->second != nullptr;
    Overlay::Bytes bytes;
    return m_overlay.Find(seid, bytes) ? bytes != nullptr : m_existsInFile(seid);
}

OverlayTransaction::Stream::~Stream() noexcept(false) = default;

void OverlayTransaction::Stream::WriteStream(const void* buffer, ssize_t n) {
    QX_ASSERT(m_isOpen);
    const octet_t* const p = static_cast<const octet_t*>(buffer);
    m_bytes.insert(m_bytes.end(), p, p + n);
}

void OverlayTransaction::Stream::FlushStream() {}

void OverlayTransaction::Stream::Close() {
    QX_ASSERT(m_isOpen);
    m_isOpen = false;
    if (std::uncaught_exceptions() > m_uncaughtAtOpen) return;
    m_bytes.resize(m_bytes.size() + static_cast<size_t>(ELEMENT_TAIL_BYTES));
    m_transaction.m_changes[m_seid.value_] = std::make_shared<const std::vector<octet_t>>(m_bytes);
}

} // namespace quna
