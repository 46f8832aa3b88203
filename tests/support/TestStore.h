// A store in a directory of its own, for the scope of a test.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/Archive.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/IStream.h"
#include "qxUtils/Tracer.h"
#include "tests/support/ExpectAssertion.h"
#include "tests/support/RecordingLss.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestObjects.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

using Bytes = std::vector<octet_t>;

// What `write` puts into an archive.
template <class Write>
Bytes Written(Write&& write) {
    class Sink : public IOutputStream {
    public:
        void WriteStream(const void* buffer, ssize_t n) override {
            const auto* p = static_cast<const octet_t*>(buffer);
            m_bytes.insert(m_bytes.end(), p, p + n);
        }
        void FlushStream() override {}
        Bytes m_bytes;
    } sink;
    {
        Archive ar(&sink);
        write(ar);
    }
    return sink.m_bytes;
}

inline Bytes operator+(Bytes x, const Bytes& y) {
    x.insert(x.end(), y.begin(), y.end());
    return x;
}

inline Bytes BytesOfOid(OID oid) {
    return Written([&](Archive& ar) { SerialiseOid(ar, oid); });
}

inline Bytes BytesOfString(ConstStringZ text) {
    return Written([&](Archive& ar) { ar << xstring(text); });
}

// The whole element, as read from an open store. A missing one is a failure of the test.
inline Bytes ElementOf(ILogStructuredStore& lss, Seid seid) {
    const AutoCloser<IContiguousSerialElement> se(lss.OpenSerialElement(seid));
    if (!se) {
        ADD_FAILURE() << "there is no element " << TextOfSeid(seid);
        return {};
    }
    const ReadOnlyBuffer rob = se->GetBuffer();
    return Bytes(rob.buffer, rob.buffer + rob.size);
}

inline bool HasElement(ILogStructuredStore& lss, Seid seid) {
    const AutoCloser<IContiguousSerialElement> se(lss.OpenSerialElement(seid));
    return static_cast<bool>(se);
}

inline void PutElement(ILogStructuredStore& lss, Seid seid, const Bytes& bytes) {
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    const AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(seid));
    os->WriteStream(bytes.data(), static_cast<ssize_t>(bytes.size()));
}

inline void DeleteElement(ILogStructuredStore& lss, Seid seid) {
    const AutoCloser<ILssTransaction> txn(lss.OpenTransaction());
    EXPECT_TRUE(txn->DeleteSerialElement(seid));
}

// Makes a space and its domain current for the thread, and locks it, for a scope.
class SpaceScope {
public:
    explicit SpaceScope(PSpace* pspace, ECSpaceLockMode mode = Exclusive)
        : m_pair(pspace, pspace->GetCSpace()), m_lock(pspace->GetCSpace(), mode) {}
    SpaceScope(const SpaceScope&) = delete;
    SpaceScope& operator=(const SpaceScope&) = delete;

private:
    ThreadPSpaceScope m_pair;
    CSpaceLock m_lock;
};

// A new object in the thread's domain.
template <class X, class... Args>
X* NewObject(Args&&... args) {
    X* const x = new X(std::forward<Args>(args)...);
    RegisterGcObject(x);
    return x;
}

// Collects what is traced in a scope.
class CollectedTrace {
public:
    CollectedTrace() : m_previous(SetTraceSink({this, &CollectedTrace::Take})) {}
    ~CollectedTrace() { SetTraceSink(m_previous); }
    CollectedTrace(const CollectedTrace&) = delete;
    CollectedTrace& operator=(const CollectedTrace&) = delete;
    std::vector<std::string> Texts() const { return m_texts; }

private:
    static void Take(void* self, const char* text, ssize_t n) {
        static_cast<CollectedTrace*>(self)->m_texts.emplace_back(text, static_cast<std::size_t>(n));
    }
    std::vector<std::string> m_texts;
    TraceSink m_previous;
};

// Ownership: closes its spaces and then its store; a space that the test closed itself is taken off with Forget.
class TestStore {
public:
    // No writer in the background, so that a test alone decides what is written when.
    static PersistStoreSettings WithoutWriter() {
        PersistStoreSettings settings;
        settings.startObjectDeletion = false;
        return settings;
    }

    explicit TestStore(const PersistStoreSettings& settings = WithoutWriter(), EOpenMode mode = OM_CREATE_NEW) {
        RegisterTestObjects();
        Open(settings, mode);
    }
    TestStore(const TestStore&) = delete;
    TestStore& operator=(const TestStore&) = delete;
    ~TestStore() {
        try {
            Close();
        } catch (const std::exception& e) {
            ADD_FAILURE() << "closing the store failed: " << e.what();
        }
    }

    void Open(const PersistStoreSettings& settings = WithoutWriter(), EOpenMode mode = OM_OPEN_EXISTING) {
        m_store = OpenPersistStore(Path().c_str(), mode, settings);
    }
    void Close() {
        while (!m_spaces.empty()) CloseSpace(m_spaces.back());
        if (m_store) {
            m_store->Close();
            m_store = nullptr;
        }
        m_recorder.reset();
    }
    void Reopen(const PersistStoreSettings& settings = WithoutWriter()) {
        Close();
        Open(settings);
    }
    // For a test in which the store has ended by itself.
    void ForgetStore() { m_store = nullptr; }

    PSpace* OpenSpace(ConstStringZ name, EOpenMode mode = OM_OPEN_ALWAYS, CSpace* cs = nullptr) {
        PSpace* const pspace = OpenPSpace(m_store, name, mode, cs);
        m_spaces.push_back(pspace);
        return pspace;
    }
    void Forget(PSpace* pspace) { std::erase(m_spaces, pspace); }
    void CloseSpace(PSpace* pspace) {
        Forget(pspace);
        pspace->Close();
    }

    // From now on every transaction is noted.
    RecordingLss& Record() {
        if (!m_recorder) {
            m_recorder = std::make_unique<RecordingLss>(m_store->m_lss);
            m_store->m_lss = m_recorder.get();
        }
        m_recorder->ClearLog();
        return *m_recorder;
    }

    Bytes Element(Seid seid) { return ElementOf(*m_store->m_lss, seid); }
    bool Has(Seid seid) { return HasElement(*m_store->m_lss, seid); }

    PersistStore* Get() const { return m_store; }
    PersistStore* operator->() const { return m_store; }
    std::string Path() const { return m_dir.File("store"); }
    const TempDir& Dir() const { return m_dir; }

private:
    TempDir m_dir;
    PersistStore* m_store = nullptr;
    std::vector<PSpace*> m_spaces;
    std::unique_ptr<RecordingLss> m_recorder;
};

// The log-structured store of a closed TestStore, for a scope: to look at its elements or to damage them.
class BareLss {
public:
    explicit BareLss(const std::string& path) {
        bool createdNew = false;
        m_lss = CreateOrOpenLSS(path.c_str(), nullptr, createdNew, OM_OPEN_EXISTING, LssSettings());
    }
    BareLss(const BareLss&) = delete;
    BareLss& operator=(const BareLss&) = delete;
    ~BareLss() { m_lss->Close(); }
    ILogStructuredStore& operator*() const { return *m_lss; }
    ILogStructuredStore* operator->() const { return m_lss; }

private:
    ILogStructuredStore* m_lss = nullptr;
};

} // namespace quna
