// A log-structured store in front of another one, which tells what is asked of it and can be killed.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/BasicTypes.h"

#include <functional>
#include <memory>

namespace quna {

// Ownership: borrows the inner store, which it ends. Threads: one.
class WatchedLss final : public ILogStructuredStore {
public:
    explicit WatchedLss(ILogStructuredStore* inner) : m_inner(inner) {}

    // From now on it takes what is written, and forgets it; closing it abandons the inner store. So an owner can be ended
    // in order though its process counts as killed.
    void Die() { m_dead = true; }

    void Close() override {
        if (m_dead)
            m_inner->Abandon();
        else
            m_inner->Close();
    }
    void Abandon() override { m_inner->Abandon(); }
    SeidHigh AllocateSeidHigh() override { return m_inner->AllocateSeidHigh(); }
    Seid AllocateSeid(SeidHigh high) override {
        const Seid seid = m_inner->AllocateSeid(high);
        if (m_onAllocated) m_onAllocated(seid);
        return seid;
    }
    bool AllocateAffiliateSeid(Seid& seid) override {
        const bool allocated = m_inner->AllocateAffiliateSeid(seid);
        if (allocated && m_onAllocated) m_onAllocated(seid);
        return allocated;
    }
    IContiguousSerialElement* OpenSerialElement(Seid seid) override { return m_inner->OpenSerialElement(seid); }
    ILssTransaction* OpenTransaction() override {
        m_txn = std::make_unique<Txn>(*this, m_dead ? nullptr : m_inner->OpenTransaction());
        return m_txn.get();
    }
    void GetStats(LssStats& stats) override { m_inner->GetStats(stats); }
    void Flush() override {
        if (!m_dead) m_inner->Flush();
    }

    std::function<void(Seid)> m_onAllocated;
    std::function<void(Seid)> m_onWritten;
    // Around the Close of a transaction that has changed something.
    std::function<void()> m_onCloseBegins;
    std::function<void()> m_onClosed;

private:
    class Nowhere final : public ICloseableOutputStream {
    public:
        void Close() override {}
        void WriteStream(const void*, ssize_t) override {}
        void FlushStream() override {}
    };

    class Txn final : public ILssTransaction {
    public:
        Txn(WatchedLss& lss, ILssTransaction* inner) : m_lss(lss), m_inner(inner) {}
        void Close() override {
            if (!m_inner) return;
            const bool changed = m_changed;
            if (changed && m_lss.m_onCloseBegins) m_lss.m_onCloseBegins();
            m_inner->Close();
            if (changed && m_lss.m_onClosed) m_lss.m_onClosed();
        }
        void RequestFlushToDisk() override {
            if (m_inner) m_inner->RequestFlushToDisk();
        }
        void RequestDropWhenUnwinding() override {
            if (m_inner) m_inner->RequestDropWhenUnwinding();
        }
        ICloseableOutputStream* WriteSerialElement(Seid seid) override {
            if (!m_inner) return &m_lss.m_nowhere;
            m_changed = true;
            if (m_lss.m_onWritten) m_lss.m_onWritten(seid);
            return m_inner->WriteSerialElement(seid);
        }
        bool DeleteSerialElement(Seid seid) override {
            if (!m_inner) return true;
            const bool existed = m_inner->DeleteSerialElement(seid);
            m_changed = m_changed || existed;
            return existed;
        }

    private:
        WatchedLss& m_lss;
        ILssTransaction* const m_inner;
        bool m_changed = false;
    };

    ILogStructuredStore* const m_inner;
    bool m_dead = false;
    Nowhere m_nowhere;
    std::unique_ptr<Txn> m_txn; // the last one; at most one is open
};

} // namespace quna
