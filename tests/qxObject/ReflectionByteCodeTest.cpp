#include "qxObject/ReflectionByteCode.h"

#include "qxObject/ReflectionByteCodeValue.h"
#include "qxObject/RegisterProject.h"
#include "qxObject/TypeDescription.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/xostream.h"
#include "tests/qxObject/ReflectionTestClasses.h"

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

std::string Text(ReflectionByteCode bc) {
    StringStream os(64);
    os << bc;
    return os.c_str();
}

class Bytes : public IOutputStream {
public:
    void WriteStream(const void* p, ssize_t n) override {
        m_bytes.append(static_cast<const char*>(p), static_cast<std::size_t>(n));
    }
    void FlushStream() override {}
    std::string m_bytes;
};

std::string Serialised(const ReflectionByteCodeValue& value) {
    Bytes bytes;
    {
        Archive ar(&bytes);
        value.Serialise(ar);
    }
    return bytes.m_bytes;
}

const octet_t* Cursor(const std::string& bytes) { return reinterpret_cast<const octet_t*>(bytes.data()); }

ReflectionByteCodeValue Read(std::string bytes) {
    const std::size_t size = bytes.size();
    bytes.resize(size + static_cast<std::size_t>(RECORD_SLACK));
    const RecordLimitsScope limits(Cursor(bytes), Cursor(bytes) + size);
    ReflectionByteCodeValue value;
    EXPECT_EQ(value.Deserialise(Cursor(bytes)).ptr(), Cursor(bytes) + size);
    return value;
}

TEST(ReflectionByteCode, PrintsAsCppSpellsTheType) {
    EXPECT_EQ(Text(DescriptionOf<int32>()), "int32");
    EXPECT_EQ(Text(DescriptionOf<xstring>()), "xstring");
    EXPECT_EQ(Text(DescriptionOf<OID>()), "OID");
    EXPECT_EQ(Text(DescriptionOf<xvector<pref<demo::INumber>>>()), "xvector<pref<demo::INumber>>");
    EXPECT_EQ(Text(DescriptionOf<xvector<cref<demo::Shape>>>()), "xvector<cref<demo::Shape>>");
    EXPECT_EQ(Text(DescriptionOf<cref<void>>()), "cref<void>");
    EXPECT_EQ(Text(DescriptionOf<demo::Point>()), "demo::Point");
    EXPECT_EQ((Text(DescriptionOf<std::map<xstring, xvector<std::pair<int8, demo::Point>>>>())),
              "map<xstring, xvector<pair<int8, demo::Point>>>");
    EXPECT_EQ(Text(DescriptionOf<std::set<Guid>>()), "set<Guid>");
    EXPECT_EQ(Text(DescriptionOf<const demo::Point&>()), "demo::Point const&");
    EXPECT_EQ(Text(DescriptionOf<demo::Point*>()), "demo::Point*");
    EXPECT_EQ(Text(DescriptionOf<ptr<const IObject>>()), "ptr<quna::IObject> const");
    EXPECT_EQ(Text(DescriptionOf<ConstStringZ>()), "ConstStringZ");
    EXPECT_EQ(Text(ReflectionByteCode()), "");
}

TEST(ReflectionByteCode, RecordsDescribeTheTypesTheyStandFor) {
    EXPECT_EQ(Text(GetReflectedClass<demo::Shape>()), "demo::Shape");
    EXPECT_EQ(Text(GetReflectedInterface<IObject>()), "quna::IObject");
    const ReflectedEnum colours = {"demo::EColour", 1, nullptr, 0, TypeOps()};
    EXPECT_EQ(Text(colours), "demo::EColour");
    const ReflectedTypedef points = {"demo::Points", &DescriptionOf<xvector<demo::Point>>};
    EXPECT_EQ(Text(points), "xvector<demo::Point>");
}

TEST(ReflectionByteCode, ItsSizeIsFoundFromTheCodeAlone) {
    EXPECT_EQ(GetByteCodeSize(DescriptionOf<int32>().m_bc), 1);
    EXPECT_EQ((GetByteCodeSize(DescriptionOf<std::map<xstring, xvector<demo::Point>>>().m_bc)), 5);
}

TEST(ReflectionByteCode, AMapIsReadAndFilledThroughItsFunctions) {
    using Map = std::map<int32, xstring>;
    const ReflectionByteCode bc = DescriptionOf<Map>();
    const PtrMapOrSetFns fns = bc.m_mapOrSetFns[0];
    Map map;
    const int32 key = 5;
    const xstring value("five");
    EXPECT_TRUE(fns->m_insertFn(&map, &key, &value));
    EXPECT_FALSE(fns->m_insertFn(&map, &key, &value));
    EXPECT_EQ(fns->m_sizeFn(&map), 1);
    std::string seen;
    fns->m_forEachFn(
        &map,
        [](void* context, const void* k, const void* v) {
            *static_cast<std::string*>(context) +=
                std::to_string(*static_cast<const int32*>(k)) + static_cast<const xstring*>(v)->str();
        },
        &seen);
    EXPECT_EQ(seen, "5five");
    fns->m_clearFn(&map);
    EXPECT_TRUE(map.empty());
}

TEST(ReflectionByteCodeValue, DoesNotDependOnTheOrderOfTheNamesItWasBuiltFrom) {
    const octet_t codeA[] = {0x41, 0x60, 0, 0x60, 1}; // pair<class, class>
    const octet_t codeB[] = {0x41, 0x60, 1, 0x60, 0};
    const ConstStringZ namesA[] = {"demo::A", "demo::B"};
    const ConstStringZ namesB[] = {"demo::B", "demo::A"};
    const ReflectionByteCodeValue a(ReflectionByteCode(codeA, namesA, nullptr), false);
    const ReflectionByteCodeValue b(ReflectionByteCode(codeB, namesB, nullptr), false);
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a < b || b < a);
    EXPECT_EQ(a.GetHash(), b.GetHash());
    EXPECT_EQ(Serialised(a), Serialised(b));

    // A name that stands twice in a table is one name.
    const octet_t codeC[] = {0x41, 0x60, 0, 0x60, 1};
    const octet_t codeD[] = {0x41, 0x60, 0, 0x60, 0};
    const ConstStringZ namesC[] = {"demo::A", "demo::A"};
    const ReflectionByteCodeValue c(ReflectionByteCode(codeC, namesC, nullptr), false);
    const ReflectionByteCodeValue d(ReflectionByteCode(codeD, namesA, nullptr), false);
    EXPECT_TRUE(c == d);
    EXPECT_TRUE(a != c);
}

TEST(ReflectionByteCodeValue, HasATotalOrder) {
    std::vector<ReflectionByteCodeValue> values;
    for (const ReflectionByteCode bc :
         {DescriptionOf<int32>(), DescriptionOf<xvector<int32>>(), DescriptionOf<demo::Point>(),
          DescriptionOf<demo::Shape>(), DescriptionOf<pref<IObject>>(), ReflectionByteCode()})
        values.emplace_back(bc, false);
    for (std::size_t i = 0; i < values.size(); ++i)
        for (std::size_t j = 0; j < values.size(); ++j) {
            EXPECT_EQ(values[i] == values[j], i == j);
            EXPECT_EQ(values[i] != values[j], i != j);
            EXPECT_EQ((values[i] < values[j]) + (values[j] < values[i]), i == j ? 0 : 1);
            EXPECT_EQ(values[i] <= values[j], !(values[j] < values[i]));
            EXPECT_EQ(values[i] > values[j], values[j] < values[i]);
            EXPECT_EQ(values[i] >= values[j], !(values[i] < values[j]));
        }
}

TEST(ReflectionByteCodeValue, OutlivesWhatItWasBuiltFromAndCopies) {
    ReflectionByteCodeValue value;
    {
        std::string name = "demo::Gone";
        const ConstStringZ names[] = {name.c_str()};
        const octet_t code[] = {0x40, 0x64, 0};
        value = ReflectionByteCodeValue(ReflectionByteCode(code, names, nullptr), false);
        name = "overwritten";
    }
    const ReflectionByteCodeValue copy(value);
    value = ReflectionByteCodeValue(DescriptionOf<int32>(), false);
    EXPECT_EQ(Text(copy.AsReflectionByteCode()), "xvector<cref<demo::Gone>>");
    ReflectionByteCodeValue assigned;
    assigned = copy;
    const ReflectionByteCodeValue moved(std::move(assigned));
    EXPECT_EQ(Text(moved.AsReflectionByteCode()), "xvector<cref<demo::Gone>>");
    EXPECT_STREQ(moved.GetStringTable()[0], "demo::Gone");
}

TEST(ReflectionByteCodeValue, SerialForm) {
    EXPECT_EQ(Serialised(ReflectionByteCodeValue()), std::string("\0\0", 2));
    EXPECT_EQ(Serialised(ReflectionByteCodeValue(DescriptionOf<int32>(), false)), std::string("\x01\x05\x00", 3));
    EXPECT_EQ(Serialised(ReflectionByteCodeValue(DescriptionOf<xvector<pref<demo::INumber>>>(), false)),
              std::string("\x03\x40\x63\x00\x01\x0d"
                          "demo::INumber",
                          19));
}

TEST(ReflectionByteCodeValue, ReadsBackEqual) {
    for (const ReflectionByteCode bc :
         {ReflectionByteCode(), DescriptionOf<Guid>(), DescriptionOf<std::map<xstring, xvector<demo::Point>>>()}) {
        const ReflectionByteCodeValue value(bc, false);
        EXPECT_TRUE(Read(Serialised(value)) == value);
    }
}

TEST(ReflectionByteCodeValue, MoreThan127NamesTakeLongerIndexes) {
    std::vector<std::string> texts;
    TypeDescriptionBuilder builder;
    for (int i = 0; i < 300; ++i) texts.push_back("demo::C" + std::to_string(i));
    for (const std::string& text : texts) {
        builder.Put(EByteCode::Pair);
        builder.PutNamed(EByteCode::Class, text.c_str());
    }
    builder.PutNamed(EByteCode::Class, texts[299].c_str());
    const ReflectionByteCodeValue value(builder.GetDescription(), false);
    EXPECT_TRUE(Read(Serialised(value)) == value);
    EXPECT_NE(Text(value.AsReflectionByteCode()).find("pair<demo::C299, demo::C299>>"), std::string::npos);
}

TEST(ReflectionByteCodeValue, DamagedBytesEndInAnException) {
    const std::string good = Serialised(ReflectionByteCodeValue(
        DescriptionOf<std::map<xstring, std::pair<demo::Point, xvector<demo::Shape>>>>(), false));
    for (std::size_t i = 0; i < good.size(); ++i)
        for (int bit = 0; bit < 8; ++bit) {
            std::string bad = good;
            bad[i] = static_cast<char>(bad[i] ^ (1 << bit));
            bad.resize(good.size() + static_cast<std::size_t>(RECORD_SLACK));
            const RecordLimitsScope limits(Cursor(bad), Cursor(bad) + good.size());
            ReflectionByteCodeValue value(DescriptionOf<int32>(), false);
            try {
                value.Deserialise(Cursor(bad));
                Text(value.AsReflectionByteCode());
            } catch (const RecordException&) {
                EXPECT_TRUE(value == ReflectionByteCodeValue(DescriptionOf<int32>(), false));
            }
        }
    EXPECT_THROW(Read(std::string("\x02\x05\x05\x00", 4)), RecordException); // bytes behind the description
    EXPECT_THROW(Read(std::string("\x01\x40\x00", 3)), RecordException);     // no argument
    EXPECT_THROW(Read(std::string("\x02\x60\x01\x01\x01"
                                  "a",
                                  6)),
                 RecordException);                                       // no such name
    EXPECT_THROW(Read(std::string("\x01\x00\x00", 3)), RecordException); // no code
}

TEST(ReflectionByteCodeValue, CheckingNamesRefusesWhatIsNotRegistered) {
    Register_Project_qxObject();
    EXPECT_NO_THROW(ReflectionByteCodeValue(DescriptionOf<ptr<IObject>>(), true));
    const octet_t code[] = {0x60, 0};
    const ConstStringZ names[] = {"demo::NobodyRegisteredThis"};
    EXPECT_THROW(ReflectionByteCodeValue(ReflectionByteCode(code, names, nullptr), true), RecordException);
}

} // namespace
} // namespace quna
