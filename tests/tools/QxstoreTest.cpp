// What each command of qxstore prints about a sound store.
#include "qxPersistStore/OidSpaceMap.h"
#include "qxPersistStore/PMap.h"
#include "tests/support/TestStore.h"
#include "tests/tools/ToolRun.h"

#include <nlohmann/json.hpp>
#include <regex>

namespace quna {

namespace {

using Json = nlohmann::json;

// What differs from run to run: the store's id, and what the background writer's timing decides.
std::string Masked(const std::string& text) {
    static const std::regex varying(
        "(store id|newest checkpoint|transactions|last transaction|live data|share of the file)( +)[^\n]*");
    return std::regex_replace(text, varying, "$1$2*");
}

class QxstoreTest : public ToolTest {
protected:
    std::string Out(const std::string& arguments) const {
        const ToolResult result = Qxstore(arguments);
        EXPECT_EQ(result.status, 0) << arguments << "\n" << result.out << result.err;
        EXPECT_EQ(result.err, "") << arguments;
        return result.out;
    }
    Json JsonOf(const std::string& arguments) const { return Json::parse(Out(arguments + " --json")); }
};

TEST_F(QxstoreTest, TheProgramIsWhatTheTestsRun) {
    ImportPackages();
    const ToolResult good = Run(QXSTORE_PROGRAM, "spaces packages.store");
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.out, Out("spaces packages.store"));
    EXPECT_EQ(good.err, "");
    const ToolResult bad = Run(QXSTORE_PROGRAM, "spaces none.store");
    EXPECT_EQ(bad.status, 3);
    EXPECT_EQ(bad.out, "");
    EXPECT_EQ(bad.err, Qxstore("spaces none.store").err);
    EXPECT_EQ(Run("/bin/sh", "-c '\"" QXSTORE_PROGRAM "\" spaces packages.store >/dev/full'").err,
              "qxstore: Can't write the output; see whether there is room for it.\n");
}

// --- the package graph: classes that only its application knows

TEST_F(QxstoreTest, InfoSaysWhatAStoreIs) {
    ImportPackages();
    EXPECT_EQ(Masked(Out("info packages.store")), R"(store              packages.store
format version     1
store id           *
file size          2 MiB (2,097,152 bytes)
segment size       512 KiB (524,288 bytes)
closed cleanly     yes
newest checkpoint  *
transactions       *
last transaction   *
archived           no
live data          *
share of the file  *
object store       yes
spaces             1
roots              1
classes            5
objects            318
)");
    const Json json = JsonOf("info packages.store");
    EXPECT_EQ(json["objects"], 318);
    EXPECT_EQ(json["closedCleanly"], true);
    EXPECT_EQ(json["fileBytes"], 2097152);
}

TEST_F(QxstoreTest, StatsCountElementsAndSegments) {
    ImportPackages();
    const std::string out = Out("stats packages.store");
    EXPECT_NE(
        out.find("Segments of 512 KiB\nkind       segments     size      live  share\nlog               1  512 KiB"),
        std::string::npos)
        << out;
    const Json json = JsonOf("stats packages.store");
    EXPECT_EQ(json["elements"], 322);
    int64 elements = 0;
    for (const Json& row : json["sizes"]) elements += row["elements"].get<int64>();
    EXPECT_EQ(elements, 322);
    int64 bytes = 0;
    for (const Json& row : json["segments"]) bytes += row["liveBytes"].get<int64>();
    EXPECT_EQ(bytes, json["liveBytes"]);
}

TEST_F(QxstoreTest, SpacesRootsAndClassesAreTables) {
    ImportPackages();
    EXPECT_EQ(Out("spaces packages.store"),
              "space     record             deletion queue     roots  subtrees to delete  objects to delete\n"
              "packages  00000001:00000040  00000001:00000041      1                   0                  0\n");
    EXPECT_EQ(Out("roots packages.store"), "space     root       object             class                    size\n"
                                           "packages  catalogue  00000001:00000042  packagegraph::Catalogue  14 B\n");
    EXPECT_EQ(Out("roots packages.store --space packages"), Out("roots packages.store"));
    EXPECT_EQ(Out("classes packages.store"), R"(id  class                    objects     bytes  average  largest
1   packagegraph::Catalogue        1      14 B     14 B     14 B
2   quna::BPlusTree                2      30 B     15 B     16 B
3   quna::InternalNode             2     125 B     62 B     76 B
4   quna::LeafNode                 8   9.8 KiB  1.2 KiB  1.5 KiB
5   packagegraph::Package        305  28.7 KiB     96 B    186 B

Types of keys and payloads
id  type
1   xstring
2   cref<packagegraph::Package>
3   pair<int32, xstring>
)");
}

TEST_F(QxstoreTest, DumpDecodesWhatTheStoreItselfKnows) {
    ImportPackages();
    EXPECT_EQ(Out("dump packages.store catalogue"), R"(element   00000001:00000042
size      14 bytes
record    object
class id  1
class     packagegraph::Catalogue
content   the application's own, shown in hex only

00000000  01 01 06 73 61 6d 70 6c  65 01 43 01 80 ee        |...sample.C...|
)");
    EXPECT_EQ(Out("dump packages.store 1:40"), R"(element         00000001:00000040
size            16 bytes
record          roots of a space
deletion queue  00000001:00000041

Roots
root       object
catalogue  00000001:00000042

00000000  01 01 09 63 61 74 61 6c  6f 67 75 65 01 42 01 41  |...catalogue.B.A|
)");
    EXPECT_EQ(Out("dump packages.store 1:44 --bytes 16 --rows 2"), R"(element           00000001:00000044
size              49 bytes
record            object
class id          3
class             quna::InternalNode
schema            2
type of keys      xstring
type of payloads  cref<packagegraph::Package>
leftmost child    00000001:00000045
entries           3
rows not shown    1
bytes not shown   33 bytes

Entries
key              child
"libc6-dev"      00000001:00000096
"libldap-2.5-0"  00000001:0000012f

00000000  03 02 01 02 01 45 03 09  6c 69 62 63 36 2d 64 65  |.....E..libc6-de|

33 bytes more; --bytes 0 shows all
)");
}

TEST_F(QxstoreTest, DumpFindsRootsByNameAndGivesBytesAndJson) {
    ImportPackages();
    const std::string record = Out("dump packages.store packages/catalogue --raw");
    EXPECT_EQ(record.substr(0, 9), std::string("\1\1\6sample", 9));
    EXPECT_EQ(Out("dump packages.store catalogue --space packages --raw"), record);
    const Json root = JsonOf("dump packages.store 1:0");
    EXPECT_EQ(root["classes"].size(), 5u);
    EXPECT_EQ(root["types"][2]["name"], "pair<int32, xstring>");
    EXPECT_EQ(root["hex"].get<std::string>().size(), 2 * root["bytes"].get<std::size_t>());
    const Json leaf = JsonOf("dump packages.store 1:45");
    EXPECT_EQ(leaf["entries"][0]["key"], "\"adduser\"");
    EXPECT_EQ(leaf["entries"][0]["payload"], "00000001:00000046");
}

TEST_F(QxstoreTest, VerifySaysWhatItCouldNotFollow) {
    ImportPackages();
    const std::string before = ContentOf("packages.store");
    EXPECT_EQ(Masked(Out("verify packages.store")).substr(0, 9), "segments ");
    const Json json = JsonOf("verify packages.store");
    EXPECT_EQ(json["sound"], true);
    EXPECT_EQ(json["elements"], 322);
    EXPECT_EQ(json["objects"], 318);
    EXPECT_EQ(json["opaqueObjects"], 306);
    EXPECT_EQ(json["orphansKnown"], false);
    EXPECT_FALSE(json.contains("numOrphans"));
    EXPECT_EQ(json["notes"],
              Json::array({"306 objects of classes that only the application knows: their references were not "
                           "followed, so orphans can't be told"}));
    EXPECT_TRUE(json["problems"].empty());
    EXPECT_EQ(ContentOf("packages.store"), before);
}

// --- the map of identifier spaces

TEST_F(QxstoreTest, AMapOfIdentifierSpacesIsDecodedAndChecked) {
    const Guid one = {.Data1 = 1};
    const Guid two = {.Data1 = 2};
    TestStore store;
    PSpace* const space = store.OpenSpace("moved", OM_OPEN_ALWAYS, CreateCSpace());
    OidHigh first = 0;
    OID oid;
    {
        const SpaceScope scope(space);
        auto* const map = NewObject<OidSpaceMap>();
        space->AddRoot("map", map);
        oid = GetOid(static_cast<const OidSpaceMap*>(map));
        first = map->GetOrCreateOidHigh(one);
        map->GetOrCreateOidHigh(two);
    }
    store.CloseSpace(space);
    Bytes record = ElementOf(*store->m_lss, oid);
    store.Close();
    std::filesystem::copy_file(store.Path(), "moved.store");
    const Json json = JsonOf("dump moved.store map");
    EXPECT_EQ(json["class"], "quna::OidSpaceMap");
    EXPECT_EQ(json["schema"], 1);
    ASSERT_EQ(json["oidSpaces"].size(), 2u);
    EXPECT_EQ(json["oidSpaces"][0]["high"], first);
    EXPECT_EQ(json["oidSpaces"][0]["guid"], "00000001-0000-0000-0000-000000000000");
    EXPECT_EQ(json["oidSpaces"][1]["guid"], "00000002-0000-0000-0000-000000000000");
    EXPECT_EQ(JsonOf("verify moved.store")["orphansKnown"], true); // it refers to nothing

    // The second space gets the name of the first: no application could read that.
    record[record.size() - 16] = 1;
    store.Open();
    PutElement(*store->m_lss, oid, record);
    store.Close();
    std::filesystem::copy_file(store.Path(), "moved.store", std::filesystem::copy_options::overwrite_existing);
    const ToolResult verify = Qxstore("verify moved.store");
    EXPECT_EQ(verify.status, 1);
    EXPECT_NE(verify.out.find("an identifier space has the number 0 or the name of another one"), std::string::npos)
        << verify.out;
    EXPECT_NE(Out("dump moved.store map").find("not well formed"), std::string::npos);
}

// --- trees alone: everything can be followed

class QxstoreTreesTest : public QxstoreTest {
protected:
    // A tree under the root "numbers", and one under "names" whose entries lead to others.
    void MakeTrees() {
        PSpace* const space = m_store.OpenSpace("trees", OM_OPEN_ALWAYS, CreateCSpace());
        {
            const SpaceScope scope(space);
            auto numbers = PMap<int32, float64>::Create();
            for (int32 i = 0; i < 250; ++i) numbers.insert({i, i / 2.0});
            space->AddRoot("numbers", numbers.Get());
            auto names = PMap<xstring, cref<BPlusTree>>::Create();
            space->AddRoot("names", names.Get());
            for (const char* name : {"one", "two\n"}) {
                auto inner = PSet<xvector<uint16>>::Create();
                xvector<uint16> key;
                for (const int x : {7, 8, 9}) key.push_back(static_cast<uint16>(x));
                inner.insert(key);
                names.insert({name, inner.Get()});
            }
        }
        m_store.CloseSpace(space);
    }
    // Nothing refers to the trees below "names" any more.
    void RemoveNames() {
        PSpace* const space = m_store.OpenSpace("trees", OM_OPEN_EXISTING, CreateCSpace());
        {
            const SpaceScope scope(space);
            EXPECT_TRUE(space->RemoveRoot("names"));
        }
        m_store.CloseSpace(space);
    }
    // Closes the store and gives it to the tool.
    void TakeStore() {
        m_store.Close();
        std::filesystem::copy_file(m_store.Path(), Path("trees.store"),
                                   std::filesystem::copy_options::overwrite_existing);
    }

    TestStore m_store;
};

TEST_F(QxstoreTreesTest, EntriesOfTreesAreShownInTheFormOfTheirTypes) {
    MakeTrees();
    TakeStore();
    const Json roots = JsonOf("roots trees.store")["roots"];
    ASSERT_EQ(roots.size(), 2u);
    EXPECT_EQ(roots[1]["name"], "numbers");
    const Json numbers = JsonOf("dump trees.store numbers");
    EXPECT_EQ(numbers["size"], 250);
    EXPECT_EQ(numbers["keyType"], "int32");
    EXPECT_EQ(numbers["payloadType"], "float64");
    const Json last = JsonOf("dump trees.store " + numbers["lastLeaf"].get<std::string>())["entries"].back();
    EXPECT_EQ(last["key"], "249");
    EXPECT_EQ(last["payload"], "124.5");

    const Json names = JsonOf("dump trees.store names");
    const Json leaf = JsonOf("dump trees.store " + names["root"].get<std::string>());
    ASSERT_EQ(leaf["entries"].size(), 2u);
    EXPECT_EQ(leaf["entries"][1]["key"], "\"two\n\"");
    const Json inner = JsonOf("dump trees.store " + leaf["entries"][1]["payload"].get<std::string>());
    EXPECT_EQ(inner["payloadType"], "none: the tree is a set");
    EXPECT_EQ(JsonOf("dump trees.store " + inner["root"].get<std::string>())["entries"][0]["key"], "[7, 8, 9]");
    // In text no name can steer the terminal.
    EXPECT_NE(Out("dump trees.store " + names["root"].get<std::string>()).find("\"two\\x0A\""), std::string::npos);
}

TEST_F(QxstoreTreesTest, OrphansAreNamedWhenEverythingCanBeFollowed) {
    MakeTrees();
    TakeStore();
    Json json = JsonOf("verify trees.store");
    EXPECT_EQ(json["orphansKnown"], true);
    EXPECT_EQ(json["numOrphans"], 0);
    EXPECT_EQ(json["opaqueObjects"], 0);

    m_store.Open();
    RemoveNames();
    TakeStore();
    json = JsonOf("verify trees.store");
    EXPECT_EQ(json["sound"], true); // they take room, but harm nothing
    EXPECT_EQ(json["numOrphans"], 6);
    EXPECT_EQ(json["orphans"].size(), 6u);
    EXPECT_NE(Out("verify trees.store").find("Orphans: no root and no other object refers to them\n  00000001:"),
              std::string::npos);
}

TEST_F(QxstoreTreesTest, ANodeThatIsGoneAndAClassThatIsUnknownAreProblems) {
    MakeTrees();
    TakeStore();
    const Json numbers = JsonOf("dump trees.store numbers");
    const std::string root = numbers["root"];
    m_store.Open();
    ILogStructuredStore& lss = *m_store->m_lss;
    const Seid rootSeid(static_cast<SeidLow>(std::stoul(root.substr(9), nullptr, 16)), 1);
    DeleteElement(lss, rootSeid);
    const Seid odd = lss.AllocateSeid(1);
    PutElement(lss, odd, {77, 1});
    TakeStore();
    const ToolResult result = Qxstore("verify trees.store");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find(" (quna::BPlusTree) needs " + root + ", which does not exist\n"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("its class has the number 77, the store knows 3 classes\n"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("The store is DAMAGED: 2 problems.\n"), std::string::npos) << result.out;
}

TEST_F(QxstoreTreesTest, AStoreWithoutSpacesAndClassesIsCheckedAsFarAsItGoes) {
    bool createdNew = false;
    {
        AutoCloser<ILogStructuredStore> lss(
            CreateOrOpenLSS(Path("plain.lss").c_str(), nullptr, createdNew, OM_CREATE_NEW, LssSettings()));
        lss->AllocateSeidHigh();
        for (int i = 0; i < 3; ++i) lss->AllocateSeid(1);
        PutElement(*lss, Seid(0, 1),
                   Bytes(4, 'x')); // where a store of objects has its root record and its map of spaces
        PutElement(*lss, Seid(1, 1), Bytes());
        PutElement(*lss, Seid(2, 1), Bytes(1000000, 'x')); // in several packets
    }
    const Json json = JsonOf("verify plain.lss");
    EXPECT_EQ(json["sound"], true);
    EXPECT_EQ(json["elementBytes"], 1000004);
    EXPECT_FALSE(json.contains("objects"));
    EXPECT_EQ(JsonOf("stats plain.lss")["longElements"], 1);
    EXPECT_EQ(JsonOf("info plain.lss")["objectStore"], false);
    EXPECT_EQ(Out("dump plain.lss 1:2 --raw"), std::string(1000000, 'x'));
    ExpectRefusal("roots plain.lss", "plain.lss", 4,
                  "The store 'plain.lss' holds no spaces and classes: its elements were written by something else than "
                  "the object store; 'qxstore stats' counts them.");
}

} // namespace

} // namespace quna
