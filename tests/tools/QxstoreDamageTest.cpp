// What qxstore says of a file that it can't open or that is damaged: it never writes to it, and never passes over damage.
#include "qxPersistStore/IPersistStore.h"
#include "qxUtils/AutoCloser.h"
#include "tests/tools/ToolRun.h"

#include <nlohmann/json.hpp>
#include <vector>

namespace quna {

namespace {

class QxstoreDamageTest : public ToolTest {
protected:
    QxstoreDamageTest() {
        ImportPackages();
        m_good = ContentOf("packages.store");
    }
    void Damage(const std::string& content) const { WriteFile("bad.store", content); }

    // With status 1, and the file is as before.
    void ExpectVerifyFinds(const std::string& content, const std::string& what) const {
        Damage(content);
        const ToolResult result = Qxstore("verify bad.store");
        EXPECT_EQ(result.status, 1) << what << "\n" << result.out << result.err;
        EXPECT_TRUE(result.out.find("DAMAGED") != std::string::npos ||
                    result.err.find("is damaged: ") != std::string::npos)
            << what << "\n"
            << result.out << result.err;
        EXPECT_EQ(ContentOf("bad.store"), content) << what;
    }

    std::string m_good;
};

TEST_F(QxstoreDamageTest, WhatIsNoStoreIsRefusedWithASentence) {
    ExpectRefusal("info none.store", "none.store", 3,
                  "Can't open the store 'none.store': there is no such file; check the path.");
    ExpectRefusal("verify .", "none", 3, "Can't open the store '.': it is a folder; name the file of a store.");
    ExpectRefusal("spaces /dev/null", "none", 3,
                  "Can't open the store '/dev/null': it is no regular file; name the file of a store.");
    WriteFile("letter", std::string(10000, 'x'));
    ExpectRefusal("roots letter", "letter", 3,
                  "Can't open the store 'letter': the file does not begin as a store does, so it is none; check the "
                  "path.");
    Damage("");
    ExpectRefusal("classes bad.store", "bad.store", 3,
                  "Can't open the store 'bad.store': the file is empty, so it is no store; check the path.");
    std::string newer = m_good;
    newer[8] = newer[4096 + 8] = 9;
    Damage(newer);
    ExpectRefusal(
        "dump bad.store 1:0", "bad.store", 3,
        "Can't open the store 'bad.store': its format has version 9, and this program reads versions up to 1; "
        "take the qxstore of the library that wrote it.");
}

TEST_F(QxstoreDamageTest, AStoreThatIsInUseIsRefusedAndOneThatIsReadIsNot) {
    ILogStructuredStore* lss = nullptr;
    const auto open = [&](EOpenMode mode) {
        bool createdNew = false;
        lss = CreateOrOpenLSS("packages.store", nullptr, createdNew, mode, LssSettings());
    };
    open(OM_OPEN_EXISTING);
    ExpectRefusal("stats packages.store", "packages.store", 3,
                  "Can't open the store 'packages.store': another process has it open for writing; try again when that "
                  "has closed it.");
    lss->Close();
    open(OM_OPEN_EXISTING_READ_ONLY);
    EXPECT_EQ(Qxstore("stats packages.store").status, 0);
    lss->Close();
}

TEST_F(QxstoreDamageTest, WhatIsNotInTheStoreIsNotFound) {
    ExpectRefusal("dump packages.store 9:9", "packages.store", 4,
                  "The store 'packages.store' has no element 00000009:00000009; 'qxstore roots' lists objects to begin "
                  "with.");
    ExpectRefusal("dump packages.store nix", "packages.store", 4,
                  "The store 'packages.store' has no root 'nix'; 'qxstore roots' lists those that it has, an OID is "
                  "spelled 1:2a.");
    ExpectRefusal("roots packages.store --space nix", "packages.store", 4,
                  "The store 'packages.store' has no space 'nix'; 'qxstore spaces' lists those that it has.");
    const ToolResult result = Qxstore("roots packages.store --space nix --json");
    EXPECT_EQ(nlohmann::json::parse(result.out)["exitStatus"], 4);
}

TEST_F(QxstoreDamageTest, WrongArgumentsAndHelp) {
    EXPECT_EQ(Qxstore("").status, 2);
    EXPECT_EQ(Qxstore("frobnicate packages.store").status, 2);
    EXPECT_EQ(Qxstore("info").status, 2);
    EXPECT_EQ(Qxstore("dump packages.store 1:0 --bytes -1").err,
              "qxstore: --bytes: '-1' is no number from 0 on; 'qxstore --help' and 'qxstore COMMAND --help' show the "
              "usage.\n");
    const ToolResult json = Qxstore("info --json");
    EXPECT_EQ(json.status, 2);
    EXPECT_EQ(nlohmann::json::parse(json.out)["exitStatus"], 2);
    EXPECT_EQ(Qxstore("--help").status, 0);
    for (const char* command : {"info", "stats", "spaces", "roots", "classes", "dump", "verify"}) {
        const ToolResult help = Qxstore(std::string(command) + " --help");
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find("--json"), std::string::npos);
        EXPECT_NE(help.out.find("Exit status: "), std::string::npos);
    }
}

// Sound though nobody closed it: what the log holds is rolled forward in memory.
TEST_F(QxstoreDamageTest, AStoreWhoseProcessWasKilledIsSoundAndStaysAsItIs) {
    bool createdNew = false;
    ILogStructuredStore* const lss =
        CreateOrOpenLSS("packages.store", nullptr, createdNew, OM_OPEN_EXISTING, LssSettings());
    {
        AutoCloser<ILssTransaction> txn(lss->OpenTransaction());
        AutoCloser<ICloseableOutputStream> os(txn->WriteSerialElement(lss->AllocateSeid(1)));
        os->WriteStream("\5", 1); // of a class, without a body
        os.Close();
        txn.Close();
    }
    lss->Abandon();
    const std::string before = ContentOf("packages.store");
    const ToolResult result = Qxstore("verify packages.store");
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(Qxstore("info packages.store").out.find("closed cleanly     no\n"), std::string::npos);
    EXPECT_NE(Qxstore("info packages.store").out.find("objects            319\n"), std::string::npos);
    EXPECT_EQ(ContentOf("packages.store"), before);
}

TEST_F(QxstoreDamageTest, EveryTruncationIsFound) {
    for (const std::size_t size : {4096u, 131072u, 524352u, 540000u})
        ExpectVerifyFinds(m_good.substr(0, size), "the first " + std::to_string(size) + " bytes");
}

TEST_F(QxstoreDamageTest, EveryFlippedBitOfAPacketOrAHeaderIsFound) {
    std::vector<std::size_t> offsets = {16, 4096 + 40, 8192 + 8, 524288 + 20};
    // The segment of the log begins at 512 KiB and holds 40 KiB and more.
    for (std::size_t i = 0; i < 8; ++i) offsets.push_back(524288 + 64 + i * 5003);
    // That of the index begins at 1536 KiB: five pages in less than 3 KiB, behind them the tables.
    for (std::size_t i = 0; i < 3; ++i) offsets.push_back(1572864 + 64 + i * 1250);
    for (const std::size_t offset : offsets) {
        std::string content = m_good;
        content[offset] = static_cast<char>(content[offset] ^ 1 << offset % 8);
        ExpectVerifyFinds(content, "a bit at offset " + std::to_string(offset));
    }
}

TEST_F(QxstoreDamageTest, OtherCommandsShowWhatCanStillBeRead) {
    std::string content = m_good;
    for (std::size_t i = 0; i < 4096; ++i) content[540000 + i] = 'x';
    Damage(content);
    EXPECT_EQ(Qxstore("info bad.store").status, 0);
    EXPECT_EQ(Qxstore("roots bad.store").status, 0);
    const ToolResult classes = Qxstore("classes bad.store");
    EXPECT_EQ(classes.status, 1);
    EXPECT_NE(classes.out.find("The store is damaged: 'qxstore verify' says where.\n"), std::string::npos);
    const ToolResult verify = Qxstore("verify bad.store");
    EXPECT_NE(verify.out.find("segment 0 (offset 524288): no valid packet at offset "), std::string::npos)
        << verify.out;
    EXPECT_NE(verify.out.find(", expected "), std::string::npos) << verify.out;
    EXPECT_NE(verify.out.find("\n  element 00000001:"), std::string::npos) << verify.out;
    EXPECT_EQ(ContentOf("bad.store"), content);

    // The page of the index that names the store's own records.
    content = m_good;
    content[1572864 + 70] = static_cast<char>(content[1572864 + 70] ^ 1);
    Damage(content);
    const ToolResult dump = Qxstore("dump bad.store catalogue");
    EXPECT_EQ(dump.status, 1);
    EXPECT_NE(dump.err.find("; so the root 'catalogue' was not found, but an OID, spelled 1:2a, can be dumped.\n"),
              std::string::npos)
        << dump.err;
}

} // namespace

} // namespace quna
