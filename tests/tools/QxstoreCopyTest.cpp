// The commands that make a file: backup, compact and restore.
#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/IStream.h"
#include "tests/tools/ToolRun.h"
#include "tools/qxstore/Times.h"

#include <array>
#include <csignal>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <streambuf>
#include <utility>

namespace quna {

namespace {

using Json = nlohmann::json;

class QxstoreCopyTest : public ToolTest {
protected:
    Json Good(const std::string& arguments) const {
        const ToolResult result = Qxstore(arguments + " --json");
        EXPECT_EQ(result.status, 0) << arguments << "\n" << result.out << result.err;
        return Json::parse(result.out);
    }
    // Fails with this status and text, and leaves the folder as it was.
    void ExpectNoCopy(const std::string& arguments, int status, const std::string& text) const {
        const std::set<std::string> before = Names();
        const ToolResult result = Qxstore(arguments);
        EXPECT_EQ(result.status, status) << arguments << "\n" << result.out << result.err;
        EXPECT_EQ(result.err, "qxstore: " + text + "\n") << arguments;
        EXPECT_EQ(Names(), before) << arguments;
    }
    static std::set<std::string> Names() {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(".")) names.insert(entry.path().string());
        return names;
    }
};

TEST_F(QxstoreCopyTest, CopiesAreSoundAndHoldTheSame) {
    ImportPackages();
    const std::string before = ContentOf("packages.store");
    for (const std::string command : {"backup", "compact"}) {
        const std::string copy = command + ".store";
        const Json made = Good(command + " packages.store " + copy);
        EXPECT_EQ(made["elements"], 322);
        EXPECT_EQ(made["target"], copy);
        EXPECT_EQ(made["fileBytes"], std::filesystem::file_size(copy));
        EXPECT_EQ(Good("verify " + copy)["sound"], true);
        EXPECT_EQ(Good("info " + copy)["lastTransaction"], made["transaction"]);
        for (const std::string look : {"classes ", "roots ", "spaces ", "dump --rows 0 --bytes 0 "}) {
            const std::string object = look.starts_with("dump") ? " 1:45" : "";
            EXPECT_EQ(Qxstore(look + copy + object).out, Qxstore(look + "packages.store" + object).out)
                << command << " " << look;
        }
    }
    EXPECT_LE(std::filesystem::file_size("compact.store"), std::filesystem::file_size("packages.store"));
    EXPECT_EQ(ContentOf("packages.store"), before);
}

TEST_F(QxstoreCopyTest, ATargetIsReplacedOnlyByForce) {
    ImportPackages();
    WriteFile("old", "old");
    std::filesystem::create_directory("folder");
    for (const std::string command : {"backup", "compact"}) {
        ExpectNoCopy(command + " packages.store old", 6,
                     "Can't make the store 'old': there is a file of that name; --force replaces it.");
        EXPECT_EQ(ContentOf("old"), "old");
        ExpectNoCopy(command + " packages.store ./packages.store --force", 6,
                     "Can't make the store './packages.store': it would be made of itself; name another file.");
        ExpectNoCopy(command + " packages.store no/copy", 6,
                     "Can't make the store 'no/copy': there is no folder 'no'; make it, or name another file.");
        ExpectNoCopy(command + " packages.store folder --force", 6,
                     "Can't make the store 'folder': what stands there is no file; name another one.");
        EXPECT_EQ(Qxstore(command + " packages.store old --force").status, 0);
        EXPECT_EQ(Good("verify old")["sound"], true);
        WriteFile("old", "old");
    }
}

// Takes what is written and interrupts the process when a progress bar comes, once: a second time ends it.
class InterruptingBuffer : public std::streambuf {
    int overflow(int c) override {
        if (c == '[' && !std::exchange(m_hasInterrupted, true)) std::raise(SIGINT);
        return c;
    }

    bool m_hasInterrupted = false;
};

TEST_F(QxstoreCopyTest, CtrlCLeavesNothingBehind) {
    ImportPackages();
    WriteFile("old", "old");
    for (const char* const command : {"backup", "compact"}) {
        InterruptingBuffer buffer;
        std::ostream err(&buffer);
        std::ostringstream out;
        qxstore::Console console{out, err, true};
        const std::array<const char*, 6> argv = {"qxstore", command, "packages.store", "old", "--force", "--json"};
        EXPECT_EQ(qxstore::RunProgram(6, argv.data(), console), 130);
        EXPECT_EQ(Json::parse(out.str())["error"], "Interrupted; nothing was left behind");
        EXPECT_EQ(ContentOf("old"), "old");
        EXPECT_FALSE(std::filesystem::exists("old.part"));
    }
}

TEST_F(QxstoreCopyTest, ADamagedStoreIsCopiedOnlyAsItIs) {
    ImportPackages();
    std::string content = ContentOf("packages.store");
    content[540000] = static_cast<char>(content[540000] ^ 1);
    WriteFile("bad.store", content);
    for (const std::string command : {"backup", "compact"}) {
        const ToolResult result = Qxstore(command + " bad.store copy.store");
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_NE(result.err.find("nothing was left behind"), std::string::npos) << result.err;
        EXPECT_FALSE(std::filesystem::exists("copy.store"));
        EXPECT_FALSE(std::filesystem::exists("copy.store.part"));
    }
    EXPECT_EQ(Qxstore("backup bad.store copy.store --as-is").status, 0);
    EXPECT_EQ(Good("info copy.store")["objects"], 318);
    EXPECT_EQ(ContentOf("bad.store"), content);
}

// --- restore

class QxstoreRestoreTest : public QxstoreCopyTest {
protected:
    void Open(EOpenMode mode) {
        bool createdNew = false;
        m_lss = CreateOrOpenLSS("a.store", "deltas", createdNew, mode, LssSettings());
    }
    // A transaction whose only element is its number.
    void Write(int number) {
        const AutoCloser<ILssTransaction> txn(m_lss->OpenTransaction());
        const AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(Seid(2, 1)));
        const std::string text = std::to_string(number);
        os->WriteStream(text.data(), static_cast<ssize_t>(text.size()));
    }
    // Transactions 1 and 2 are in "base.store", 3 to 5 only in the archive.
    void MakeArchive() {
        Open(OM_CREATE_NEW);
        m_lss->AllocateSeidHigh();
        for (int i = 0; i < 3; ++i) m_lss->AllocateSeid(1);
        Write(1);
        Write(2);
        m_lss->Close();
        std::filesystem::copy_file("a.store", "base.store");
        Open(OM_OPEN_EXISTING);
        for (int number = 3; number <= 5; ++number) Write(number);
        m_lss->Close();
    }

    ILogStructuredStore* m_lss = nullptr;
};

TEST_F(QxstoreRestoreTest, GoesToATransactionATimeOrTheEnd) {
    MakeArchive();
    const std::string base = ContentOf("base.store");
    EXPECT_EQ(Good("info a.store")["archivedUpTo"], 5);
    EXPECT_EQ(Good("info a.store")["lastTransaction"], 5);

    const Json fourth = Good("restore base.store deltas fourth.store --transaction 4");
    EXPECT_EQ(fourth["transaction"], 4);
    EXPECT_EQ(fourth["replayed"], 2);
    EXPECT_EQ(Qxstore("dump fourth.store 1:2 --raw").out, "4");
    EXPECT_EQ(Good("verify fourth.store")["sound"], true);

    const std::string time = fourth["time"];
    EXPECT_EQ(Good("restore base.store deltas then.store --time " + time)["transaction"], 4) << time;
    EXPECT_EQ(Good("restore base.store deltas then.store --force")["transaction"], 5);
    EXPECT_EQ(Qxstore("dump then.store 1:2 --raw").out, "5");
    EXPECT_EQ(Good("restore base.store deltas end.store --latest")["replayed"], 3);
    EXPECT_EQ(ContentOf("base.store"), base);
}

TEST_F(QxstoreRestoreTest, RefusesWhatItCantReach) {
    MakeArchive();
    ExpectNoCopy("restore base.store deltas new.store --transaction 1", 4,
                 "Can't restore the store 'new.store': transaction 1 is wanted, and 'base.store' already has "
                 "transaction 2; take an older copy of the store.");
    ExpectNoCopy(
        "restore base.store deltas new.store --transaction 9", 6,
        "Can't restore the store 'new.store': transaction 9 is wanted, the last one that there is is 5; nothing "
        "was left behind.");
    ExpectNoCopy("restore base.store nix new.store", 3,
                 "Can't restore the store 'new.store': there is no folder 'nix'; name the folder of the archive.");
    ExpectNoCopy("restore none.store deltas new.store", 3,
                 "Can't open the store 'none.store': there is no such file; check the path.");
    ExpectNoCopy("restore base.store deltas base.store --force", 6,
                 "Can't make the store 'base.store': it would be made of itself; name another file.");
    ExpectNoCopy("restore base.store deltas a.store", 6,
                 "Can't make the store 'a.store': there is a file of that name; --force replaces it.");
    ExpectNoCopy("restore base.store deltas new.store --transaction -1", 2,
                 "--transaction: '-1' is no number from 0 on; 'qxstore --help' and 'qxstore COMMAND --help' show the "
                 "usage.");
    EXPECT_EQ(Qxstore("restore base.store deltas new.store --time yesterday").status, 2);
    const ToolResult early = Qxstore("restore base.store deltas new.store --time 2001-09-09T01:46:40Z");
    EXPECT_EQ(early.status, 6);
    EXPECT_NE(early.err.find("the time 2001-09-09T01:46:40Z is wanted"), std::string::npos) << early.err;
    EXPECT_EQ(Qxstore("restore base.store deltas new.store --latest --transaction 3").status, 2);
    for (const auto& delta : std::filesystem::directory_iterator("deltas"))
        std::filesystem::resize_file(delta.path(), delta.file_size() - 10);
    const ToolResult result = Qxstore("restore base.store deltas new.store");
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_NE(result.err.find("deltas/"), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists("new.store"));
    EXPECT_FALSE(std::filesystem::exists("new.store.part"));
}

// A restore can't be asked to stop: the process ends, and takes the part with it.
TEST_F(QxstoreRestoreTest, CtrlCRemovesThePart) {
    MakeArchive();
    WriteFile("new.store.part", "left by a killed process");
    const auto interrupted = [] {
        InterruptingBuffer buffer;
        std::ostream err(&buffer);
        qxstore::Console console{std::cout, err, true};
        const std::array<const char*, 5> argv = {"qxstore", "restore", "base.store", "deltas", "new.store"};
        qxstore::RunProgram(5, argv.data(), console);
    };
    EXPECT_EXIT(interrupted(), ::testing::ExitedWithCode(130), "qxstore: Interrupted; nothing was left behind\\.");
    EXPECT_FALSE(std::filesystem::exists("new.store.part"));
    EXPECT_FALSE(std::filesystem::exists("new.store"));
}

TEST(QxstoreTimes, AreReadAndWrittenAsIso8601) {
    using qxstore::ParseTime;
    using qxstore::TimeText;
    constexpr uint64 SECOND = 10'000'000;
    EXPECT_EQ(TimeText(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(TimeText(1'000'000'000 * SECOND + 5), "2001-09-09T01:46:40.0000005Z");
    EXPECT_EQ(ParseTime("2001-09-09T01:46:40.0000005Z"), 1'000'000'000 * SECOND + 5);
    EXPECT_EQ(ParseTime("2001-09-09 01:46:40.5Z"), 1'000'000'000 * SECOND + 5'000'000);
    EXPECT_EQ(ParseTime("2001-09-09T03:16+01:30"), (1'000'000'000 - 40) * SECOND);
    EXPECT_EQ(ParseTime("2001-09-08T21:46:40-0400"), 1'000'000'000 * SECOND);
    EXPECT_EQ(ParseTime("1970-01-01T12:00:00+02"), 36000 * SECOND);
    EXPECT_TRUE(ParseTime("2024-02-29"));
    for (const char* const bad :
         {"", "2001", "2001-09-31", "2023-02-29", "2001-13-01", "2001-09-09T", "2001-09-09T1:46Z", "2001-09-09T24:00Z",
          "2001-09-09T01:60Z", "2001-09-09T01:46:60Z", "2001-09-09T01:46:40.Z", "2001-09-09T01:46:40.12345678Z",
          "2001-09-09T01:46+15:00", "2001-09-09T01:46+01:", "2001-09-09T01:46Zx", "2001-09-09x01:46",
          "1969-12-31T23:59:59Z"})
        EXPECT_FALSE(ParseTime(bad)) << bad;
}

} // namespace

} // namespace quna
