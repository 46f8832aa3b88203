// Transactions of a read-only store: kept in memory, seen by this process, dropped at the end.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxLss/src/TurnLock.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace quna {

// What transactions on a read-only store have written or deleted.
//
// Ownership: owns the bytes, together with the readers that have them open.
// Threads:   Find and IsEmpty from any thread; Apply by the transaction that has the turn.
class QX_API Overlay {
public:
    using Bytes = std::shared_ptr<const std::vector<octet_t>>; // null: deleted

    bool IsEmpty() const { return m_isEmpty.load(std::memory_order_acquire); }
    // Does the overlay know the element? Then `bytes` is what it is.
    bool Find(Seid seid, Bytes& bytes) const;
    void Apply(const std::map<uint64, Bytes>& changes);

private:
    mutable SharedMutex m_mutex{"Overlay::m_mutex"}; // leaf; guards m_elements
    std::unordered_map<uint64, Bytes> m_elements;
    std::atomic<bool> m_isEmpty{true};
};

// An element of the overlay. The bytes are followed by 64 more.
class QX_API OverlayElement final : public IContiguousSerialElement {
public:
    explicit OverlayElement(Overlay::Bytes bytes) : m_bytes(std::move(bytes)) {}
    void Close() override { delete this; }
    ReadOnlyBuffer GetBuffer() override;

private:
    ~OverlayElement() = default;
    const Overlay::Bytes m_bytes;
};

// Has the turn while it is open.
class QX_API OverlayTransaction final : public ILssTransaction {
public:
    // Does the element exist in the file?
    using ExistsInFile = std::function<bool(Seid)>;
    // The number of elements has changed by so many.
    using Counted = std::function<void(int64)>;

    OverlayTransaction(Overlay& overlay, TurnLock& turn, ConstStringZ path, ExistsInFile existsInFile, Counted counted);
    ~OverlayTransaction() noexcept(false) = default;

    // Requires: the caller has taken the turn.
    void Open();

    void Close() override;
    void RequestFlushToDisk() override;
    void RequestDropWhenUnwinding() override { m_dropWhenUnwinding = true; }
    ICloseableOutputStream* WriteSerialElement(Seid seid) override;
    bool DeleteSerialElement(Seid seid) override;

private:
    class Stream final : public ICloseableOutputStream {
    public:
        explicit Stream(OverlayTransaction& transaction) : m_transaction(transaction) {}
        ~Stream() noexcept(false) override;
        void WriteStream(const void* buffer, ssize_t n) override;
        void FlushStream() override;
        void Close() override;

        OverlayTransaction& m_transaction;
        bool m_isOpen = false;
        int m_uncaughtAtOpen = 0;
        Seid m_seid;
        std::vector<octet_t> m_bytes;
    };

    bool Exists(Seid seid) const;

    Overlay& m_overlay;
    TurnLock& m_turn;
    const std::string m_path;
    const ExistsInFile m_existsInFile;
    const Counted m_counted;
    std::map<uint64, Overlay::Bytes> m_changes;
    Stream m_stream{*this};
    int m_uncaughtAtOpen = 0;
    bool m_dropWhenUnwinding = false;
    bool m_traced = false;
};

} // namespace quna
