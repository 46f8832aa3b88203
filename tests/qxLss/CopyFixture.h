// A store beside a model of its elements, and looks at copies of it.
#pragma once

#include "qxLss/src/LssStore.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/TestLss.h"
#include "tests/support/SimDisk.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {

// The copy under the name "d/copy", opened on a disk of its own.
class OpenedCopy {
public:
    explicit OpenedCopy(const DiskImage& image, EOpenMode mode = OM_OPEN_EXISTING, LssSettings settings = Settings())
        : m_sys(ImageOf(image.at("d/copy"))), m_lss(std::make_unique<TestLss>(m_sys, settings, mode)) {}

    static LssSettings Settings() {
        LssSettings settings = SmallSegments();
        settings.cleanerUtilisationPercent = 85;
        return settings;
    }

    SimSys& Sys() { return m_sys; }
    TestLss& Lss() { return *m_lss; }
    LssStore& Store() { return **m_lss; }

private:
    SimSys m_sys;
    std::unique_ptr<TestLss> m_lss;
};

// The store "d/store" on an imagined disk, whose background work is done when the test says so.
class CopyFixture : public testing::Test {
protected:
    CopyFixture() { Open(); }

    void Open(EOpenMode mode = OM_OPEN_ALWAYS) {
        m_lss = std::make_unique<TestLss>(m_sys, OpenedCopy::Settings(), mode);
        if (mode == OM_OPEN_ALWAYS) (*m_lss)->StopThreadsForTest();
    }
    TestLss& Lss() { return *m_lss; }
    LssStore& Store() { return **m_lss; }
    // The number of the last transaction that was closed.
    uint64 LastTransaction() { return Store().LogForTest().LastTransaction(); }

    void Write(ILssTransaction& txn, Seid seid, ssize_t bytes) {
        const std::string content = Pattern(bytes, m_random());
        TestLss::Write(txn, seid, content);
        m_model[seid.value_] = content;
    }
    Seid NewSeid() {
        const Seid seid = Lss().NewSeid();
        m_given.insert(seid.value_);
        m_seids.push_back(seid);
        return seid;
    }
    Seid SomeSeid() { return m_seids[m_random() % m_seids.size()]; }

    // `n` new elements of about `bytes`, in transactions of ten.
    void Fill(int n, ssize_t bytes) {
        while (n > 0) {
            AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
            for (int i = 0; i < 10 && n > 0; ++i, --n) Write(*txn.Get(), NewSeid(), bytes + m_random() % 32);
            txn.Close();
        }
    }
    // One transaction of new, overwritten and deleted elements, now and then a long one.
    void ChangeAtRandom() {
        AutoCloser<ILssTransaction> txn(Store().OpenTransaction());
        for (unsigned i = 1 + m_random() % 6; i > 0; --i) {
            const Seid seid = m_seids.empty() || m_random() % 4 == 0 ? NewSeid() : SomeSeid();
            if (m_random() % 8 == 0) {
                txn->DeleteSerialElement(seid);
                m_model.erase(seid.value_);
            } else {
                Write(*txn.Get(), seid, m_random() % 25 == 0 ? 5000 + m_random() % 9000 : m_random() % 600);
            }
        }
        txn.Close();
    }
    // What goes on in a store: transactions, checkpoints, the cleaner, the file's end cut off.
    void LiveOn(int steps) {
        for (int i = 0; i < steps; ++i) {
            switch (m_random() % 8) {
            case 0: Store().CheckpointForTest(); break;
            case 1: Store().CleanForTest(4); break;
            case 2: Store().ShrinkForTest(); break;
            default: ChangeAtRandom();
            }
        }
    }

    BackupResult Backup(BackupOptions options = {}) { return Store().Backup("d/copy", options); }
    BackupResult Compact(BackupOptions options = {}) { return Store().CopyCompacted("d/copy", options); }

    bool Exists(const std::string& path) const { return m_sys.CachedImage().contains(path); }
    OpenedCopy OpenCopy() const { return OpenedCopy(m_sys.CachedImage()); }
    // The copy at "d/copy" is a sound store with exactly these elements, and goes on without an identifier twice.
    void ExpectCopy(const ElementMap& model, const BackupResult& result) {
        ASSERT_TRUE(result.completed);
        EXPECT_FALSE(Exists("d/copy.part"));
        ASSERT_TRUE(Exists("d/copy"));
        const DiskImage image = m_sys.CachedImage();
        EXPECT_EQ(static_cast<int64>(image.at("d/copy").size()), result.fileSize);
        OpenedCopy copy(image);
        EXPECT_TRUE(copy.Lss().All() == model);
        copy.Store().Validate();
        EXPECT_EQ(result.numElements, static_cast<int64>(model.size()));
        EXPECT_EQ(copy.Store().LogForTest().LastTransaction(), result.transaction);
        EXPECT_EQ(copy.Lss().Stats().numRecoveries, Lss().Stats().numRecoveries);
        EXPECT_EQ(copy.Store().CoreForTest().m_storeId, Store().CoreForTest().m_storeId);
        for (int i = 0; i < 30; ++i) EXPECT_FALSE(m_given.contains(copy.Lss().NewSeid().value_));
    }

    SimSys m_sys;
    std::unique_ptr<TestLss> m_lss;
    TestRandom m_random{11};
    std::vector<Seid> m_seids;
    std::set<uint64> m_given; // identifiers
    ElementMap m_model;
};

} // namespace quna
