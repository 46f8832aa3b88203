// Every short sequence of operations on one OID, against a model of what must come of it.
#include "qxPersistStore/src/PSpace.h"
#include "tests/support/AsyncBindFixture.h"
#include "tests/support/Sanitized.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

using enum EAsyncBindResult;

// What there is to find under the OID.
enum class Source {
    Stored,     // the store holds a leaf with the number 7
    NoHandler,  // nothing, and nobody to ask
    NotHandled, // nothing; the handler does not deal with it
    Pending,    // nothing; the handler promises it, and never keeps the promise
    Bound,      // nothing; the handler makes a leaf with the number 8
};

enum class Act {
    Bind,
    Evict,
    Persist, // makes a leaf with the number 9 persistent under the OID
    Load,    // the load thread does what is queued
    Update,  // and so does the update thread
    SyncBind,
    Collect,
};
constexpr int NUM_ACTS = 7;
constexpr char ACT_LETTERS[] = "BEPLUSC";

class AsyncBindSequences : public AsyncBindFixture, public ::testing::WithParamInterface<Source> {
protected:
    enum State {
        None,
        Queued,
        Delivered,
        Asked,
        Missing,
        Loaded, // clean
        Mine,   // dirty
    };

    void Begin(OID oid) {
        m_oid = oid;
        m_state = None;
        m_numEnds = 0;
        if (GetParam() == Source::Pending) m_handler->Answer(oid, Pending);
        if (GetParam() == Source::Bound) {
            m_handler->Answer(oid, [](OID) { return MAsyncBind{Bound, new TestLeaf(8)}; });
        }
        m_lss->HoldOpen(oid);
    }
    // Under the exclusive lock, which Update gives up for a moment.
    void Do(Act act) {
        switch (act) {
        case Act::Bind: return DoBind();
        case Act::Evict: return DoEvict();
        case Act::Persist: return DoPersist();
        case Act::Load: return DoLoad();
        case Act::Update: return DoUpdate();
        case Act::SyncBind: return DoSyncBind();
        case Act::Collect:
            SynchronousGc(Domain());
            // Nobody depends on the placeholder; one that is still to be settled stays nevertheless.
            if (m_state == Loaded || m_state == Missing) m_state = None;
            return;
        }
    }
    void ExpectTableAsInTheModel() {
        const auto* const leaf = static_cast<const TestLeaf*>(Table().FindResidentObject(m_oid).m_self);
        const int loaded = GetParam() == Source::Stored ? 7 : 8;
        ASSERT_EQ(m_state == Loaded ? loaded : m_state == Mine ? 9 : 0, leaf ? leaf->m_number : 0);
    }
    void End() {
        m_lss->Release(m_oid);
        DoEvict();
        Unlock(Domain());
        Table().Close();
        EXPECT_EQ(m_numEnds, m_handler->NumEnds(m_oid));
        Lock(Domain(), Exclusive);
    }

private:
    bool IsStored() const { return GetParam() == Source::Stored; }
    bool HasPlaceholder() const { return m_state >= Queued && m_state <= Missing; }
    void EndPlaceholder() { m_numEnds += m_state == Asked; }
    void Settle() {
        if (m_state != Queued && m_state != Delivered) return;
        switch (GetParam()) {
        case Source::Stored:
        case Source::Bound: m_state = Loaded; return;
        case Source::NoHandler:
        case Source::NotHandled: m_state = Missing; return;
        case Source::Pending: m_state = Asked; return;
        }
    }
    void DoBind() {
        if (m_state == None) m_state = Queued;
        const EAsyncBindResult expected = m_state == Missing ? DoesNotExist : HasPlaceholder() ? Pending : Bound;
        ASSERT_EQ(expected, m_ps->AsyncBind2(m_oid).result);
    }
    void DoEvict() {
        EvictAllDgsNodes(Domain());
        if (!HasPlaceholder()) return;
        EndPlaceholder();
        m_state = m_state == Delivered && IsStored() ? Loaded : None;
    }
    void DoPersist() {
        const bool isFree = m_state == None || HasPlaceholder();
        ASSERT_EQ(isFree, m_ps->MakeObjectPersistWithGivenOID(NewObject<TestLeaf>(9), m_oid, false));
        if (!isFree) return;
        EndPlaceholder();
        m_state = Mine;
    }
    void DoLoad() {
        m_lss->Release(m_oid);
        WaitForLoads();
        m_lss->HoldOpen(m_oid);
        if (m_state == Queued) m_state = Delivered;
    }
    void DoUpdate() {
        m_lss->Release(m_oid);
        Unlock(Domain());
        WaitForUpdates();
        Lock(Domain(), Exclusive);
        m_lss->HoldOpen(m_oid);
        Settle();
    }
    void DoSyncBind() {
        m_lss->Release(m_oid);
        const bool found = static_cast<bool>(m_ps->TryBindObject(m_oid));
        m_lss->HoldOpen(m_oid);
        ASSERT_EQ(IsStored() || m_state == Loaded || m_state == Mine, found);
        if (m_state == None && IsStored()) m_state = Loaded;
        Settle();
    }

    OID m_oid;
    State m_state = None;
    int m_numEnds = 0;
};

TEST_P(AsyncBindSequences, AgreeWithTheModel) {
    constexpr int LENGTH = UNDER_SANITIZER ? 3 : 4;
    int numSequences = 1;
    for (int i = 0; i < LENGTH; ++i) numSequences *= NUM_ACTS;
    if (GetParam() != Source::NoHandler) SetHandler();
    std::vector<OID> oids;
    if (GetParam() == Source::Stored) oids = StoredLeaves(m_ps, numSequences, 7, 0);

    const SpaceScope scope(m_ps);
    for (int sequence = 0; sequence < numSequences && !HasFailure(); ++sequence) {
        Begin(oids.empty() ? MissingOid() : oids[static_cast<std::size_t>(sequence)]);
        std::string acts;
        int rest = sequence;
        for (int i = 0; i < LENGTH && !HasFailure(); ++i, rest /= NUM_ACTS) {
            acts += ACT_LETTERS[rest % NUM_ACTS];
            SCOPED_TRACE("after " + acts);
            Do(static_cast<Act>(rest % NUM_ACTS));
            if (!HasFatalFailure()) ExpectTableAsInTheModel();
        }
        SCOPED_TRACE("at the end of " + acts);
        End();
    }
}

constexpr ConstStringZ SOURCE_NAMES[] = {"Stored", "NoHandler", "NotHandled", "Pending", "Bound"};

INSTANTIATE_TEST_SUITE_P(All, AsyncBindSequences,
                         ::testing::Values(Source::Stored, Source::NoHandler, Source::NotHandled, Source::Pending,
                                           Source::Bound),
                         [](const auto& source) { return SOURCE_NAMES[static_cast<int>(source.param)]; });

} // namespace
} // namespace quna
