// A log-structured store in front of another one that stops readers where a test wants them, and makes reads fail.
//
//     HoldingLss lss(inner);
//     lss.HoldOpen(oid);          // who opens this element stands still ...
//     ... start a read on another thread ...
//     lss.WaitUntilHeld(oid);     // ... and is known to do so ...
//     lss.Release(oid);           // ... until it is let go
#pragma once

#include "qxLss/ILogStructuredStore.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>

namespace quna {

// A reader can be held at two places: before an element is opened, and in the element's Close, when it has used the
// bytes. Everything but reading is forwarded.
//
// Ownership: borrows the inner store, whose Close it forwards.
// Threads: any, as the inner store. A test releases whomever it holds before it closes the store.
class HoldingLss final : public ILogStructuredStore {
public:
    explicit HoldingLss(ILogStructuredStore* inner) : m_inner(inner) {}

    // From now on readers of the element are held there.
    void HoldOpen(Seid seid) {
        Change([&] { m_holdOpen.insert(seid); });
    }
    void HoldClose(Seid seid) {
        Change([&] { m_holdClose.insert(seid); });
    }
    // New readers of the element pass; who is held stays.
    void LetNewReadersPass(Seid seid) {
        Change([&] {
            m_holdOpen.erase(seid);
            m_holdClose.erase(seid);
        });
    }
    // New readers of the element pass, and who is held goes on.
    void Release(Seid seid) {
        LetNewReadersPass(seid);
        ReleaseHeld(seid);
    }
    // Who is held goes on; the next reader is held again.
    void ReleaseHeld(Seid seid) {
        Change([&] {
            for (Held& held : m_held) held.released = held.released || held.seid == seid;
        });
    }
    void ReleaseAll() {
        Change([&] {
            m_holdOpen.clear();
            m_holdClose.clear();
            for (Held& held : m_held) held.released = true;
        });
    }
    // Waits until `n` threads are held at the element.
    void WaitUntilHeld(Seid seid, int n = 1) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return NumHeld(seid) >= n; });
    }

    // Opening the element, or getting its bytes, calls `failure`, which throws.
    void FailOpen(Seid seid, std::function<void()> failure) {
        Change([&] { m_failOpen[seid] = std::move(failure); });
    }
    void FailBuffer(Seid seid, std::function<void()> failure) {
        Change([&] { m_failBuffer[seid] = std::move(failure); });
    }
    // From now on reading succeeds.
    void StopFailing() {
        Change([&] {
            m_failOpen.clear();
            m_failBuffer.clear();
        });
    }

    // How often the element was asked for, whether it exists or not.
    int NumOpens(Seid seid) const {
        const std::lock_guard lock(m_mutex);
        const auto i = m_numOpens.find(seid);
        return i == m_numOpens.end() ? 0 : i->second;
    }
    // Elements that were opened and have not been closed.
    int NumOpenElements() const {
        const std::lock_guard lock(m_mutex);
        return m_numOpenElements;
    }

    IContiguousSerialElement* OpenSerialElement(Seid seid) override {
        Change([&] { ++m_numOpens[seid]; });
        Hold(m_holdOpen, seid);
        Fail(m_failOpen, seid);
        IContiguousSerialElement* const inner = m_inner->OpenSerialElement(seid);
        if (!inner) return nullptr;
        Change([&] { ++m_numOpenElements; });
        return new Element(*this, seid, inner);
    }

    void Close() override { m_inner->Close(); }
    SeidHigh AllocateSeidHigh() override { return m_inner->AllocateSeidHigh(); }
    Seid AllocateSeid(SeidHigh high) override { return m_inner->AllocateSeid(high); }
    bool AllocateAffiliateSeid(Seid& seid) override { return m_inner->AllocateAffiliateSeid(seid); }
    ILssTransaction* OpenTransaction() override { return m_inner->OpenTransaction(); }
    void GetStats(LssStats& stats) override { m_inner->GetStats(stats); }
    void Flush() override { m_inner->Flush(); }
    void Abandon() override { m_inner->Abandon(); }

private:
    struct Held {
        Seid seid;
        bool released = false;
    };

    class Element final : public IContiguousSerialElement {
    public:
        Element(HoldingLss& lss, Seid seid, IContiguousSerialElement* inner)
            : m_lss(lss), m_seid(seid), m_inner(inner) {}
        void Close() override {
            m_lss.Hold(m_lss.m_holdClose, m_seid);
            m_inner->Close();
            m_lss.Change([&] { --m_lss.m_numOpenElements; });
            delete this;
        }
        ReadOnlyBuffer GetBuffer() override {
            m_lss.Fail(m_lss.m_failBuffer, m_seid);
            return m_inner->GetBuffer();
        }

    private:
        HoldingLss& m_lss;
        const Seid m_seid;
        IContiguousSerialElement* const m_inner;
    };

    template <class Act>
    void Change(Act act) {
        const std::lock_guard lock(m_mutex);
        act();
        m_changed.notify_all();
    }
    int NumHeld(Seid seid) const {
        return static_cast<int>(std::count_if(m_held.begin(), m_held.end(),
                                              [&](const Held& held) { return held.seid == seid && !held.released; }));
    }
    void Hold(const std::set<Seid>& where, Seid seid) {
        std::unique_lock lock(m_mutex);
        if (where.count(seid) == 0) return;
        const auto held = m_held.insert(m_held.end(), Held{seid});
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return held->released; });
        m_held.erase(held);
    }
    void Fail(const std::map<Seid, std::function<void()>>& failures, Seid seid) const {
        std::function<void()> failure;
        {
            const std::lock_guard lock(m_mutex);
            const auto i = failures.find(seid);
            if (i != failures.end()) failure = i->second;
        }
        if (failure) failure();
    }

    ILogStructuredStore* const m_inner;
    mutable std::mutex m_mutex; // leaf lock; guards all below
    std::condition_variable m_changed;
    std::set<Seid> m_holdOpen;
    std::set<Seid> m_holdClose;
    std::list<Held> m_held; // in order of arrival
    std::map<Seid, std::function<void()>> m_failOpen;
    std::map<Seid, std::function<void()>> m_failBuffer;
    std::map<Seid, int> m_numOpens;
    int m_numOpenElements = 0;
};

} // namespace quna
