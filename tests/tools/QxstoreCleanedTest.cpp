// verify and stores that the cleaner has worked on: they are sound whenever their process ends, and damage of what it has
// written is found.
#include "qxLss/src/LssStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/IStream.h"
#include "tests/qxLss/TestLss.h"
#include "tests/tools/ToolRun.h"

#include <nlohmann/json.hpp>

namespace quna {

namespace {

constexpr int SEGMENT_BYTES = 65536;
constexpr int NUM_ELEMENTS = 300;

class QxstoreCleanedTest : public ToolTest {
protected:
    // Its background work is done when the test says so.
    void Open(EOpenMode mode) {
        LssSettings settings;
        settings.segmentSize = SEGMENT_BYTES;
        bool createdNew = false;
        m_lss = static_cast<LssStore*>(CreateOrOpenLSS("a.store", nullptr, createdNew, mode, settings));
        m_lss->StopThreadsForTest();
    }
    void Create() {
        Open(OM_CREATE_NEW);
        m_lss->AllocateSeidHigh();
        for (int i = 0; i < 2; ++i) m_lss->AllocateSeid(1); // where an object store has its own records
        for (int i = 0; i < NUM_ELEMENTS; ++i) {
            m_seids.push_back(m_lss->AllocateSeid(1));
            Write(m_seids.back());
        }
    }
    // One in forty is in several packets.
    void Write(Seid seid) {
        const bool isLong = seid.low_ % 40 == 0;
        const std::string content(isLong ? 30000 : 200 + m_random() % 1500, static_cast<char>('a' + m_random() % 26));
        const AutoCloser<ILssTransaction> txn(m_lss->OpenTransaction());
        const AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(seid));
        os->WriteStream(content.data(), static_cast<ssize_t>(content.size()));
    }
    void WriteSome(int n) {
        while (n-- > 0) Write(m_seids[m_random() % m_seids.size()]);
    }
    void Delete(Seid seid) {
        const AutoCloser<ILssTransaction> txn(m_lss->OpenTransaction());
        txn->DeleteSerialElement(seid);
    }
    void DoSomething() {
        switch (m_random() % 8) {
        case 0: m_lss->CheckpointForTest(); break;
        case 1:
        case 2: m_lss->CleanForTest(1 + static_cast<ssize_t>(m_random() % 6)); break;
        case 3: m_lss->ShrinkForTest(); break;
        default: WriteSome(20); break;
        }
    }
    void ExpectSound(const std::string& when, const std::string& store = "a.store") {
        const ToolResult result = Qxstore("verify " + store + " --json");
        EXPECT_EQ(result.status, 0) << when << "\n" << result.out << result.err;
        EXPECT_EQ(nlohmann::json::parse(result.out)["elements"], m_seids.size()) << when;
    }
    // Of the store at work.
    void ExpectSoundCopies(const std::string& when) {
        BackupOptions options;
        options.replaceExisting = true;
        EXPECT_TRUE(m_lss->Backup("copy.store", options).completed);
        ExpectSound(when + ", backup", "copy.store");
        EXPECT_TRUE(m_lss->CopyCompacted("copy.store", options).completed);
        ExpectSound(when + ", compacted", "copy.store");
    }

    TestRandom m_random{11};
    LssStore* m_lss = nullptr;
    std::vector<Seid> m_seids;
};

TEST_F(QxstoreCleanedTest, IsSoundWheneverItsProcessIsKilledOrCloses) {
    Create();
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 8; ++i) DoSomething();
        if (round == 10) {
            for (int i = 0; i < NUM_ELEMENTS / 2; ++i) {
                Delete(m_seids.back());
                m_seids.pop_back();
            }
        }
        if (round % 5 == 0) ExpectSoundCopies("round " + std::to_string(round));
        const bool isKilled = round % 4 != 0;
        isKilled ? m_lss->Abandon() : m_lss->Close();
        ExpectSound("round " + std::to_string(round));
        Open(OM_OPEN_EXISTING);
    }
    m_lss->Close();
    EXPECT_GT(nlohmann::json::parse(Qxstore("stats a.store --json").out)["segments"][1]["segments"], 1); // of survivors
}

// A flipped bit in any packet of any segment in use, live or dead.
TEST_F(QxstoreCleanedTest, DamageInEverySegmentIsFound) {
    Create();
    WriteSome(300);
    m_lss->CheckpointForTest();
    m_lss->CleanForTest(6);
    WriteSome(30);
    // What is not known to be on the disk may be torn by a crash: there damage is the end of the log.
    m_lss->Flush();
    WriteSome(1);
    struct Place {
        int64 offset;
        ESegmentKind kind;
    };
    std::vector<Place> places;
    const SegmentTable& segments = *m_lss->CoreForTest().m_segments;
    for (ssize_t slot = 0; slot < m_lss->SpaceForTest().NumSlots(); ++slot) {
        const SutEntry entry = segments.Entry(slot);
        if (!entry.sequence || !entry.packets) continue;
        for (int i = 0; i < 3; ++i) // the header, the first packet's, and inside the first packet
            places.push_back({segments.OffsetOf(slot) + 20 + i * 48, static_cast<ESegmentKind>(entry.kind)});
    }
    m_lss->Abandon();
    ExpectSound("undamaged");
    const std::string good = ContentOf("a.store");
    int numOfSurvivors = 0;
    for (const Place& place : places) {
        numOfSurvivors += place.kind == ESegmentKind::SURVIVORS;
        std::string bad = good;
        char& byte = bad[static_cast<size_t>(place.offset)];
        byte = static_cast<char>(byte ^ 4);
        WriteFile("bad.store", bad);
        const ToolResult result = Qxstore("verify bad.store");
        EXPECT_EQ(result.status, 1) << "offset " << place.offset << "\n" << result.out << result.err;
        EXPECT_EQ(ContentOf("bad.store"), bad);
    }
    EXPECT_GE(numOfSurvivors, 6);
}

} // namespace

} // namespace quna
