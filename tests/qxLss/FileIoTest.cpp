#include "qxLss/src/FileIo.h"

#include "tests/support/ExpectAssertion.h"
#include "tests/support/ForwardingSys.h"
#include "tests/support/SimSys.h"
#include "tests/support/TempDir.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

std::string Bytes(ssize_t n) {
    std::string text(static_cast<size_t>(n), '\0');
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 23);
    return text;
}

std::string ReadAll(File& file) {
    std::string text(static_cast<size_t>(file.Size()), '\0');
    file.Read(0, text.data(), std::ssize(text));
    return text;
}

// The errno of the FileException that `action` throws, 0 if it throws none.
template <class Action>
int ErrnoOf(Action action) {
    try {
        action();
    } catch (const FileException& e) {
        return e.GetErrno();
    }
    return 0;
}

TEST(FileIo, WhatIsWrittenAtAnOffsetIsReadThere) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    const std::string text = Bytes(10000);
    file.Write(5, text.data(), std::ssize(text));
    file.WriteDurable(20000, "end", 3);
    file.SyncData();
    EXPECT_EQ(file.Size(), 20003);
    std::string found(10000, '\0');
    file.Read(5, found.data(), std::ssize(found));
    EXPECT_EQ(found, text);
    char tail[8] = {};
    EXPECT_EQ(file.ReadUpTo(20001, tail, 8), 2);
    EXPECT_STREQ(tail, "nd");
}

TEST(FileIo, ReadingBeyondTheEndThrows) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    file.Write(0, "abc", 3);
    char bytes[4];
    ExpectException<FileException>("Can't read 4 bytes of file \"" + dir.File("f") +
                                       "\" at offset 1: the file ends after 2 of them",
                                   [&] { file.Read(1, bytes, 4); });
}

TEST(FileIo, AMissingFileIsFalseOrAnExceptionThatNamesIt) {
    TempDir dir;
    File file(RealSysCalls());
    EXPECT_FALSE(file.TryOpen(dir.File("none"), EFileAccess::READ_WRITE));
    EXPECT_FALSE(file.IsOpen());
    ExpectException<FileException>("Can't open file \"" + dir.File("none") + "\": No such file or directory (errno 2)",
                                   [&] { file.Open(dir.File("none"), EFileAccess::READ_ONLY); });
    EXPECT_EQ(ErrnoOf([&] { file.Open(dir.File("no/dir"), EFileAccess::CREATE); }), ENOENT);
    EXPECT_EQ(ErrnoOf([&] { file.Open(dir.File(""), EFileAccess::READ_WRITE); }), EISDIR);
}

TEST(FileIo, CreatingDoesNotEmptyAnExistingFile) {
    TempDir dir;
    {
        File file(RealSysCalls());
        file.Open(dir.File("f"), EFileAccess::CREATE);
        file.Write(0, "abc", 3);
    }
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    EXPECT_EQ(ReadAll(file), "abc");
}

TEST(FileIo, OpeningAnOpenFileIsAnAssertion) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    ExpectAssertion("!IsOpen()", "src/FileIo", [&] { file.Open(dir.File("f"), EFileAccess::CREATE); });
}

TEST(FileIo, ALockKeepsOutOthersAlsoInThisProcess) {
    TempDir dir;
    File owner(RealSysCalls());
    owner.Open(dir.File("f"), EFileAccess::CREATE);
    EXPECT_TRUE(owner.TryLock(true));
    EXPECT_TRUE(owner.TryLock(true)); // its own lock is not in its way
    File second(RealSysCalls());
    second.Open(dir.File("f"), EFileAccess::READ_WRITE);
    EXPECT_FALSE(second.TryLock(true));
    EXPECT_FALSE(second.TryLock(false));
    owner.Close();
    EXPECT_TRUE(second.TryLock(false));
    File third(RealSysCalls());
    third.Open(dir.File("f"), EFileAccess::READ_ONLY);
    EXPECT_TRUE(third.TryLock(false)); // readers share
    File writer(RealSysCalls());
    writer.Open(dir.File("f"), EFileAccess::READ_WRITE);
    EXPECT_FALSE(writer.TryLock(true));
}

TEST(FileIo, AFileKnowsWhetherItsNameStillMeansIt) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    EXPECT_TRUE(file.IsStillNamed());
    File other(RealSysCalls());
    other.Open(dir.File("f.new"), EFileAccess::CREATE);
    EXPECT_TRUE(RenameFile(RealSysCalls(), dir.File("f.new"), dir.File("f"), true));
    EXPECT_FALSE(file.IsStillNamed());
    EXPECT_FALSE(other.IsStillNamed());
    other.SetPath(dir.File("f"));
    EXPECT_TRUE(other.IsStillNamed());
    EXPECT_TRUE(RemoveFile(RealSysCalls(), dir.File("f")));
    EXPECT_FALSE(other.IsStillNamed());
    EXPECT_FALSE(RemoveFile(RealSysCalls(), dir.File("f")));
}

TEST(FileIo, RenamingWithoutReplacingLeavesBothFiles) {
    TempDir dir;
    File a(RealSysCalls());
    a.Open(dir.File("a"), EFileAccess::CREATE);
    File b(RealSysCalls());
    b.Open(dir.File("b"), EFileAccess::CREATE);
    EXPECT_FALSE(RenameFile(RealSysCalls(), dir.File("a"), dir.File("b"), false));
    EXPECT_TRUE(a.IsStillNamed());
    EXPECT_TRUE(b.IsStillNamed());
    EXPECT_TRUE(RenameFile(RealSysCalls(), dir.File("a"), dir.File("c"), false));
    SyncDirectoryOf(RealSysCalls(), dir.File("c"));
    EXPECT_EQ(ErrnoOf([&] { SyncDirectoryOf(RealSysCalls(), dir.File("none/x")); }), ENOENT);
    EXPECT_EQ(ErrnoOf([&] { (void)RenameFile(RealSysCalls(), dir.File("a"), dir.File("d"), true); }), ENOENT);
}

TEST(FileIo, AllocatedSpaceIsZeroAndMayBePunchedAndCut) {
    TempDir dir;
    File file(RealSysCalls());
    file.Open(dir.File("f"), EFileAccess::CREATE);
    file.Write(0, "abc", 3);
    file.Allocate(0, 65536);
    EXPECT_EQ(file.Size(), 65536);
    EXPECT_EQ(ReadAll(file), std::string("abc") + std::string(65533, '\0'));
    const std::string text = Bytes(8192);
    file.Write(8192, text.data(), 8192);
    if (file.PunchHole(8192, 4096)) {
        std::string found(8192, 'x');
        file.Read(8192, found.data(), 8192);
        EXPECT_EQ(found, std::string(4096, '\0') + text.substr(4096));
    }
    EXPECT_EQ(file.Size(), 65536);
    file.Truncate(2);
    EXPECT_EQ(ReadAll(file), "ab");
    file.DropCache(0, 0);
    file.WriteBack(0, 2);
    EXPECT_EQ(ReadAll(file), "ab");
}

TEST(FileIo, WhereSpaceCannotBeAllocatedTheFileIsExtended) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    sys.FailCall(ESimCall::ALLOCATE, 1, EOPNOTSUPP, true);
    file.Allocate(4096, 4096);
    EXPECT_EQ(file.Size(), 8192);
    file.Allocate(0, 4096); // never shortens
    EXPECT_EQ(file.Size(), 8192);
    sys.FailCall(ESimCall::PUNCH, 1, EOPNOTSUPP, true);
    EXPECT_FALSE(file.PunchHole(0, 4096));
}

TEST(FileIo, ShortCountsAndInterruptionsAreInvisible) {
    SimSys sys;
    sys.Disturb(7, 2);
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    EXPECT_TRUE(file.TryLock(true));
    const std::string text = Bytes(100000);
    for (int64 offset = 0; offset < 100000; offset += 1000) file.Write(offset, text.data() + offset, 1000);
    file.WriteDurable(50, text.data() + 50, 5000);
    file.SyncData();
    file.Allocate(0, 100000);
    EXPECT_EQ(ReadAll(file), text);
    EXPECT_TRUE(RenameFile(sys, "d/f", "d/g", false));
    SyncDirectoryOf(sys, "d/g");
    EXPECT_GT(sys.NumRecorded(), 150); // more writes than asked for: some were short
    EXPECT_EQ(sys.CachedImage().at("d/g"), FileBytes(text.begin(), text.end()));
}

TEST(FileIo, EveryFailureIsReportedWithOperationPathOffsetAndErrno) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    file.Write(0, "abcd", 4);
    char bytes[4];
    sys.FailCall(ESimCall::READ, 1, EIO, false);
    ExpectException<FileException>("Can't read file \"d/f\" at offset 0: Input/output error (errno 5)",
                                   [&] { file.Read(0, bytes, 4); });
    sys.FailCall(ESimCall::WRITE, 1, ENOSPC, false);
    ExpectException<FileException>("Can't write file \"d/f\" at offset 7: No space left on device (errno 28)",
                                   [&] { file.Write(7, "x", 1); });
    sys.FailCall(ESimCall::WRITE_DURABLE, 1, EIO, false);
    ExpectException<FileException>("Can't write and sync file \"d/f\" at offset 8: Input/output error (errno 5)",
                                   [&] { file.WriteDurable(8, "x", 1); });
    sys.FailCall(ESimCall::SYNC, 1, EIO, false);
    ExpectException<FileException>("Can't sync file \"d/f\": Input/output error (errno 5)", [&] { file.SyncData(); });
    sys.FailCall(ESimCall::ALLOCATE, 1, ENOSPC, false);
    ExpectException<FileException>(
        "Can't allocate space in file \"d/f\" at offset 4096: No space left on device (errno 28)",
        [&] { file.Allocate(4096, 4096); });
    sys.FailCall(ESimCall::TRUNCATE, 1, EIO, false);
    EXPECT_EQ(ErrnoOf([&] { file.Truncate(1); }), EIO);
    sys.FailCall(ESimCall::SIZE, 1, EIO, false);
    EXPECT_EQ(ErrnoOf([&] { file.Size(); }), EIO);
    sys.FailCall(ESimCall::PUNCH, 1, EIO, false);
    EXPECT_EQ(ErrnoOf([&] { file.PunchHole(0, 1); }), EIO);
    sys.FailCall(ESimCall::LOCK, 1, ENOLCK, false);
    EXPECT_EQ(ErrnoOf([&] { (void)file.TryLock(true); }), ENOLCK);
    sys.FailCall(ESimCall::NAMES_FILE, 1, EACCES, false);
    EXPECT_EQ(ErrnoOf([&] { file.IsStillNamed(); }), EACCES);
    sys.FailCall(ESimCall::RENAME, 1, EIO, false);
    EXPECT_EQ(ErrnoOf([&] { (void)RenameFile(sys, "d/f", "d/g", true); }), EIO);
    sys.FailCall(ESimCall::SYNC_DIR, 1, EIO, false);
    EXPECT_EQ(ErrnoOf([&] { SyncDirectoryOf(sys, "d/f"); }), EIO);
    sys.FailCall(ESimCall::REMOVE, 1, EIO, false);
    EXPECT_EQ(ErrnoOf([&] { RemoveFile(sys, "d/f"); }), EIO);
    sys.FailCall(ESimCall::OPEN, 1, EMFILE, false);
    File other(sys);
    EXPECT_EQ(ErrnoOf([&] { other.Open("d/f", EFileAccess::READ_WRITE); }), EMFILE);
}

TEST(FileIo, AFailedWriteIsNotRepeated) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    sys.FailCall(ESimCall::WRITE, 1, EIO, false);
    EXPECT_EQ(ErrnoOf([&] { file.Write(0, "abc", 3); }), EIO);
    EXPECT_EQ(sys.NumCalls(ESimCall::WRITE), 1);
    sys.FailCall(ESimCall::SYNC, 1, EIO, false);
    EXPECT_EQ(ErrnoOf([&] { file.SyncData(); }), EIO);
    EXPECT_EQ(sys.NumCalls(ESimCall::SYNC), 1);
}

TEST(FileIo, TheDirectoryOfABareNameIsTheCurrentOneAndOfAnAbsoluteOneTheRoot) {
    SimSys sys;
    {
        File file(sys);
        file.Open("f", EFileAccess::CREATE);
    }
    SyncDirectoryOf(sys, "f");
    EXPECT_EQ(sys.Record().back().name, ".");
    EXPECT_EQ(ErrnoOf([&] { SyncDirectoryOf(sys, "/f"); }), ENOENT); // the imitation has no root
}

TEST(FileIo, ErrorsThatMeanAnAnswerAreNoFailures) {
    SimSys sys;
    File file(sys);
    file.Open("d/f", EFileAccess::CREATE);
    for (const int error : {EAGAIN, EACCES}) { // either is how a lock is refused
        sys.FailCall(ESimCall::LOCK, 1, error, false);
        EXPECT_FALSE(file.TryLock(true));
    }
    for (const int error : {EOPNOTSUPP, ENOSYS, EINVAL}) {
        sys.FailCall(ESimCall::ALLOCATE, 1, error, false);
        file.Allocate(0, 4096);
        EXPECT_EQ(file.Size(), 4096);
        sys.FailCall(ESimCall::PUNCH, 1, error, false);
        EXPECT_FALSE(file.PunchHole(0, 4096));
    }
    sys.FailCall(ESimCall::RENAME, 1, EEXIST, false); // no answer, if the other file is to be replaced
    EXPECT_EQ(ErrnoOf([&] { (void)RenameFile(sys, "d/f", "d/g", true); }), EEXIST);
}

// Writes nothing, and says so.
class IdleSys final : public ForwardingSys {
public:
    ssize_t Write(int, const void*, size_t, off_t) override { return 0; }

private:
    void BeforeChange() override {}
};

TEST(FileIo, AWriteThatDoesNothingIsAFailureAndNotRepeatedForEver) {
    TempDir dir;
    IdleSys sys;
    File file(sys);
    file.Open(dir.File("f"), EFileAccess::CREATE);
    EXPECT_EQ(ErrnoOf([&] { file.Write(0, "x", 1); }), EIO);
}

TEST(FileIo, AMissingDirectoryCantBeListedNorMadeBelow) {
    TempDir dir;
    EXPECT_EQ(ErrnoOf([&] { ListDirectory(RealSysCalls(), dir.File("none")); }), ENOENT);
    EXPECT_EQ(ErrnoOf([&] { MakeDirectory(RealSysCalls(), dir.File("none/deeper")); }), ENOENT);
    MakeDirectory(RealSysCalls(), dir.File("made"));
    MakeDirectory(RealSysCalls(), dir.File("made")); // it may exist
    EXPECT_EQ(ListDirectory(RealSysCalls(), dir.Path().string()), std::vector<std::string>{"made"});
}

} // namespace
} // namespace quna
