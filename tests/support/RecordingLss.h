// A log-structured store in front of another one, which notes what is asked of it and fails where it is told to.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/xostream.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quna {

inline std::string TextOfSeid(Seid seid) {
    StringStream os;
    os << seid;
    return os.c_str();
}

// The log, one text an operation: "open", "flush", "write SEID", "delete SEID", "close"; reading and allocating are not
// noted. Ownership: borrows the inner store, whose Close it forwards. Threads: as the inner store.
class RecordingLss final : public ILogStructuredStore {
public:
    explicit RecordingLss(ILogStructuredStore* inner) : m_inner(inner) {}

    void Close() override { m_inner->Close(); }
    SeidHigh AllocateSeidHigh() override { return m_inner->AllocateSeidHigh(); }
    Seid AllocateSeid(SeidHigh high) override { return m_inner->AllocateSeid(high); }
    bool AllocateAffiliateSeid(Seid& seid) override {
        {
            const std::lock_guard lock(m_mutex);
            m_affiliateHints.push_back(seid);
        }
        if (m_refuseAffiliates) return false;
        const bool allocated = m_inner->AllocateAffiliateSeid(seid);
        if (m_affiliateInWrongSpace) seid.high_ += 1;
        return allocated;
    }
    bool IsAllocated(Seid seid) override { return m_inner->IsAllocated(seid); }
    IContiguousSerialElement* OpenSerialElement(Seid seid) override {
        if (m_onRead) m_onRead(seid);
        return m_inner->OpenSerialElement(seid);
    }
    ILssTransaction* OpenTransaction() override {
        ILssTransaction* const inner = m_inner->OpenTransaction();
        Note("open");
        m_txn = std::make_unique<Txn>(*this, inner);
        return m_txn.get();
    }
    void GetStats(LssStats& stats) override { m_inner->GetStats(stats); }
    void Flush() override {
        m_inner->Flush();
        Note("flush store");
    }
    void Abandon() override { m_inner->Abandon(); }

    std::vector<std::string> Log() const {
        const std::lock_guard lock(m_mutex);
        return m_log;
    }
    void ClearLog() {
        const std::lock_guard lock(m_mutex);
        m_log.clear();
    }
    int Count(const std::string& text) const {
        const std::lock_guard lock(m_mutex);
        return CountLocked(text);
    }
    // Waits until `text` has been noted n times.
    void WaitFor(const std::string& text, int n) {
        std::unique_lock lock(m_mutex);
        m_noted.wait(lock, [&] { return CountLocked(text) >= n; });
    }
    std::vector<Seid> AffiliateHints() const {
        const std::lock_guard lock(m_mutex);
        return m_affiliateHints;
    }

    // Called before an element is written; may throw.
    std::function<void(Seid)> m_onWrite;
    // Called before an element is read; may throw.
    std::function<void(Seid)> m_onRead;
    bool m_givesNoStream = false;
    bool m_refuseAffiliates = false;
    bool m_affiliateInWrongSpace = false;

private:
    class Txn final : public ILssTransaction {
    public:
        Txn(RecordingLss& lss, ILssTransaction* inner) : m_lss(lss), m_inner(inner) {}
        void Close() override {
            m_inner->Close();
            m_lss.Note("close");
        }
        void RequestFlushToDisk() override {
            m_lss.Note("flush");
            m_inner->RequestFlushToDisk();
        }
        void RequestDropWhenUnwinding() override { m_inner->RequestDropWhenUnwinding(); }
        ICloseableOutputStream* WriteSerialElement(Seid seid) override {
            if (m_lss.m_onWrite) m_lss.m_onWrite(seid);
            m_lss.Note("write " + TextOfSeid(seid));
            if (m_lss.m_givesNoStream) return nullptr;
            return m_inner->WriteSerialElement(seid);
        }
        bool DeleteSerialElement(Seid seid) override {
            m_lss.Note("delete " + TextOfSeid(seid));
            return m_inner->DeleteSerialElement(seid);
        }

    private:
        RecordingLss& m_lss;
        ILssTransaction* m_inner;
    };

    void Note(const std::string& text) {
        const std::lock_guard lock(m_mutex);
        m_log.push_back(text);
        m_noted.notify_all();
    }
    int CountLocked(const std::string& text) const {
        int n = 0;
        for (const std::string& entry : m_log) n += entry == text;
        return n;
    }

    ILogStructuredStore* m_inner;
    std::unique_ptr<Txn> m_txn; // the last one; at most one is open
    mutable std::mutex m_mutex;
    std::condition_variable m_noted;
    std::vector<std::string> m_log;
    std::vector<Seid> m_affiliateHints;
};

} // namespace quna
