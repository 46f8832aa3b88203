// Backups by a process that only reads, of which the file may be damaged or cut.
#include "qxLss/CorruptLSSException.h"
#include "qxLss/src/CopyGate.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxLss/CopyFixture.h"
#include "tests/support/ExpectAssertion.h"

#include <gtest/gtest.h>

namespace quna {
namespace {

class ReadOnlyBackup : public CopyFixture {
protected:
    // A cleanly closed store, opened again for reading.
    void OpenFilled() {
        Fill(100, 200);
        Store().CheckpointForTest();
        m_lss->Close();
        Open(OM_OPEN_EXISTING_READ_ONLY);
    }
};

TEST_F(ReadOnlyBackup, CancelledAtAnyReportItLeavesNothingBehind) {
    OpenFilled();
    for (int at = 0; at < 8; ++at) {
        int reports = 0;
        BackupOptions options;
        options.progress = [&](const BackupProgress&) { return reports++ < at; };
        EXPECT_FALSE(Backup(options).completed);
        EXPECT_EQ(reports, at + 1);
        EXPECT_FALSE(Exists("d/copy.part"));
    }
}

TEST_F(ReadOnlyBackup, WhatStandsInFreeSlotsIsCopiedAndOfDamageOnlyOnRequest) {
    OpenFilled();
    const Location l = Store().IndexForTest().Get(m_seids[3]);
    const octet_t byte = 1;
    m_sys.PokeSize("d/store", m_sys.SizeOf("d/store") + 4096);
    m_sys.Poke("d/store", m_sys.SizeOf("d/store") - 100, &byte, 1);
    EXPECT_TRUE(Backup().completed);
    EXPECT_EQ(m_sys.Peek("d/copy", m_sys.SizeOf("d/copy") - 100, 1)[0], 1);
    RemoveFile(m_sys, "d/copy");
    const octet_t flipped = static_cast<octet_t>(m_sys.Peek("d/store", LocationOffset(l) + 40, 1)[0] ^ 1);
    m_sys.Poke("d/store", LocationOffset(l) + 40, &flipped, 1);
    EXPECT_THROW(Backup(), CorruptLSSException);
    BackupOptions options;
    options.verify = false;
    EXPECT_TRUE(Backup(options).completed);
}

// The file was cut behind the reader's back: what the usage table counts is not there.
TEST_F(ReadOnlyBackup, ASegmentThatIsCutShortIsReported) {
    OpenFilled();
    SegmentTable& segments = *Store().CoreForTest().m_segments;
    ssize_t last = 0;
    for (ssize_t slot = 0; slot < Store().SpaceForTest().NumSlots(); ++slot)
        if (segments[slot].livePackets > 1) last = slot;
    for (const ssize_t left : {SEGMENT_HEADER_BYTES + 8, ssize_t{300}}) {
        m_sys.PokeSize("d/store", segments.OffsetOf(last) + left);
        EXPECT_THROW(Backup(), CorruptLSSException);
    }
}

TEST(CopyGate, OnceShutNobodyPasses) {
    CopyGate gate;
    { const CopyGate::Pass pass(gate, "d/copy"); }
    gate.Shut();
    ExpectException<FileException>("Can't make the copy 'd/copy': the store is being closed",
                                   [&] { const CopyGate::Pass pass(gate, "d/copy"); });
}

} // namespace
} // namespace quna
