// Restoring with deltas that verify and do not fit their base, and with what else is in the way.
#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/Restore.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/ArchivedStore.h"
#include "tests/qxLss/DeltaBuilder.h"
#include "tests/support/ForwardingSys.h"
#include "tests/support/TempDir.h"

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quna {
namespace {

// A base with transactions up to 7, and one delta of transaction 8.
class RestoreRefusal : public testing::Test {
protected:
    RestoreRefusal() {
        TestLss lss(m_sys, SmallSegments(), OM_OPEN_ALWAYS, nullptr, "d/base");
        for (int i = 0; i < 7; ++i) m_seid = lss.Put("element");
        m_delta.header.storeId = lss->CoreForTest().m_storeId;
        m_delta.header.previousTime = lss->TimeOfLastTransaction();
        lss.Close();
        MakeDirectory(m_sys, DELTAS);
    }
    void WriteDelta() {
        const std::vector<octet_t> bytes = m_delta.Bytes();
        File file(m_sys);
        file.Open(std::string(DELTAS) + "/" + DeltaName(m_delta.header.firstTransaction), EFileAccess::CREATE);
        file.Write(0, bytes.data(), std::ssize(bytes));
    }
    bool Exists(const std::string& path) {
        File file(m_sys);
        return file.TryOpen(path, EFileAccess::READ_ONLY);
    }
    template <class Exception>
    void ExpectRefused(const std::string& text, const std::string& base = "d/base",
                       const std::string& deltas = DELTAS) {
        try {
            RestoreLssForTest(m_sys, base.c_str(), deltas.c_str(), RestoreTarget::End(), "d/new");
            ADD_FAILURE() << "restored; expected: " << text;
        } catch (const Exception& e) {
            EXPECT_THAT(e.GetMessage(), testing::HasSubstr(text));
        }
        EXPECT_FALSE(Exists("d/new"));
    }

    SimSys m_sys;
    DeltaBuilder m_delta;
    Seid m_seid;
};

TEST_F(RestoreRefusal, ATransactionThatFitsIsRepeated) {
    m_delta.Element(m_seid.value_, "changed");
    m_delta.Commit(8);
    WriteDelta();
    { // what is no delta is left alone, and so is what a killed restore has left
        File(m_sys).Open(std::string(DELTAS) + "/notes.txt", EFileAccess::CREATE);
        File(m_sys).Open("d/new.part", EFileAccess::CREATE);
    }
    const RestoredLss restored =
        RestoreLssForTest(m_sys, "d/base", (std::string(DELTAS) + "//").c_str(), RestoreTarget::End(), "d/new");
    EXPECT_EQ(restored.lastTransaction, 8u);
    TestLss lss(m_sys, SmallSegments(), OM_OPEN_EXISTING, nullptr, "d/new");
    EXPECT_EQ(lss.Get(m_seid), "changed");
}

TEST_F(RestoreRefusal, ATimeThatTheDeltaDoesNotKnowIsNotCompared) {
    m_delta.header.previousTime = 0;
    m_delta.Element(m_seid.value_, "changed");
    m_delta.Commit(8);
    WriteDelta();
    EXPECT_EQ(Restore(m_sys, RestoreTarget::End()).lastTransaction, 8u);
}

TEST_F(RestoreRefusal, AnotherHistoryIsRefused) {
    ++m_delta.header.previousTime;
    m_delta.Element(m_seid.value_, "changed");
    m_delta.Commit(8);
    WriteDelta();
    ExpectRefused<CorruptLSSException>("another history of the store");
}

TEST_F(RestoreRefusal, AnotherSegmentSizeIsRefused) {
    m_delta.header.segmentSize = 8192;
    m_delta.Element(m_seid.value_, "changed");
    m_delta.Commit(8);
    WriteDelta();
    ExpectRefused<CorruptLSSException>("the segment size");
}

TEST_F(RestoreRefusal, DeltasThatAllBeginBehindTheBaseLeaveAGap) {
    m_delta.header.firstTransaction = 10;
    m_delta.header.previousTransaction = 9;
    m_delta.Element(m_seid.value_, "changed");
    m_delta.Commit(10);
    WriteDelta();
    ExpectRefused<CorruptLSSException>("the archive has a gap");
}

TEST_F(RestoreRefusal, OperationsThatCantBeRepeatedAreRefused) {
    m_delta.Packet(EPacketType::REMOVE, Seid(999, 1).value_);
    m_delta.Commit(8);
    WriteDelta();
    ExpectRefused<CorruptLSSException>("a deletion");
}

TEST_F(RestoreRefusal, HighHalvesThatWereNeverGivenAreRefused) {
    for (const SeidHigh high : {SeidHigh{0}, SeidHigh{2}}) {
        const DeltaBuilder empty = m_delta;
        m_delta.Element(Seid(1, high).value_, "x");
        m_delta.Commit(8);
        RemoveFile(m_sys, std::string(DELTAS) + "/" + DeltaName(8));
        WriteDelta();
        ExpectRefused<CorruptLSSException>("the high half of an element's key");
        m_delta = empty;
    }
}

TEST_F(RestoreRefusal, ATransactionWithoutAChangeIsRefused) {
    m_delta.Commit(8);
    WriteDelta();
    ExpectRefused<CorruptLSSException>("nothing that changes the store");
}

TEST_F(RestoreRefusal, ABaseWhoseCreationWasCutShortCountsAsMissing) {
    { const TestLss lss(m_sys, SmallSegments(), OM_CREATE_NEW, nullptr, "d/young"); }
    ExpectRefused<FileException>("was cut short", "d/young");
}

TEST_F(RestoreRefusal, AnotherRestoreAtWorkIsNotDisturbed) {
    File part(m_sys);
    part.Open("d/new.part", EFileAccess::CREATE);
    ASSERT_TRUE(part.TryLock(true));
    ExpectRefused<FileException>("another copy is being written there");
    EXPECT_TRUE(part.IsStillNamed());
}

TEST_F(RestoreRefusal, AFileThatAppearsMeanwhileIsNotReplaced) {
    m_sys.FailCall(ESimCall::RENAME, 1, EEXIST, false);
    ExpectRefused<FileException>("exists already");
    EXPECT_FALSE(Exists("d/new.part"));
}

TEST_F(RestoreRefusal, EmptyPathsAreRefused) {
    const auto refused = [&](ConstStringZ base, ConstStringZ deltas, ConstStringZ to) {
        EXPECT_THROW(RestoreLssForTest(m_sys, base, deltas, RestoreTarget::End(), to), FileException);
    };
    refused(nullptr, DELTAS, "d/new");
    refused("", DELTAS, "d/new");
    refused("d/base", nullptr, "d/new");
    refused("d/base", "", "d/new");
    refused("d/base", DELTAS, nullptr);
    refused("d/base", DELTAS, "");
    ExpectRefused<FileException>("/", "d/base", "/"); // the root is no empty path
}

// Files that say once that they are longer than they are, as if they had been cut meanwhile.
class CutSys final : public ForwardingSys {
public:
    bool cuts = false;
    int ListDirectory(const char* path, std::vector<std::string>& names) override {
        return RealSysCalls().ListDirectory(path, names);
    }
    int64 Size(int fd) override { return ForwardingSys::Size(fd) + (std::exchange(cuts, false) ? 3 << 20 : 0); }

private:
    void BeforeChange() override {}
};

TEST_F(RestoreRefusal, ABaseThatEndsWhileItIsCopiedEndsTheCopy) {
    const TempDir dir;
    CutSys sys;
    bool createdNew = false;
    {
        AutoCloser<ILogStructuredStore> lss(
            OpenLssForTest(sys, dir.File("base").c_str(), nullptr, createdNew, OM_CREATE_NEW, SmallSegments()));
        lss->AllocateSeidHigh();
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        TestLss::Write(*txn.Get(), lss->AllocateSeid(1), "element");
        txn.Close();
        lss.Close();
    }
    MakeDirectory(RealSysCalls(), dir.File("deltas"));
    sys.cuts = true;
    EXPECT_EQ(RestoreLssForTest(sys, dir.File("base").c_str(), dir.File("deltas").c_str(), RestoreTarget::End(),
                                dir.File("new").c_str())
                  .lastTransaction,
              1u);
}

} // namespace
} // namespace quna
