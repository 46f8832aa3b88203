#include "qxObject/PrintInstance.h"

#include "qxObject/PrefHooks.h"
#include "qxObject/QunaSystemException.h"
#include "qxObject/RegisterProject.h"
#include "qxUtils/xostream.h"
#include "tests/qxObject/ReflectionTestClasses.h"
#include "tests/support/ExpectAssertion.h"

#include <string>

#include <gtest/gtest.h>

namespace quna {
namespace {

struct Label : IObjectBaseMixin<Label, EmptyBase> {
    static constexpr auto Members() {
        return MemberList(Member("text", &Label::m_text), Member("tags", &Label::m_tags));
    }
    xstring m_text;
    xvector<int32> m_tags;
};
QX_REFLECT_CLASS(Label, "printtest::Label")

struct Nameless : IObjectBaseMixin<Nameless, EmptyBase> {
    const ReflectedClass* GetReflectedClass() const { return nullptr; }
};

std::string Printed(ptr<const IObject> object, const PrintTypeSettings& settings = PrintTypeSettings()) {
    StringStream os(64);
    PrintInstance(os, object, settings);
    return os.c_str();
}

std::string Pointer(ptr<const IObject> object) {
    StringStream os(64);
    WriteIObjectPtr(os, object);
    return os.c_str();
}

std::string Hex(const void* p) {
    StringStream os(32);
    os << HexNumber<uint64>(reinterpret_cast<uintptr_t>(p));
    return os.c_str();
}

TEST(PrintInstance, ShowsTheClassAndItsFields) {
    Register_Project_qxObject();
    Label label;
    label.m_text = "hello";
    label.m_tags = {1, 2};
    EXPECT_EQ(Printed(&label), "printtest::Label{text = hello, tags = [1, 2]}");
}

TEST(PrintInstance, SettingsAddTypesAndLines) {
    static_assert(sizeof(PrintTypeSettings) == 3);
    Register_Project_qxObject();
    const Label label;
    PrintTypeSettings settings;
    settings.m_printFieldTypes = true;
    EXPECT_EQ(Printed(&label, settings), "printtest::Label{xstring text = , xvector<int32> tags = []}");
    settings.m_printFieldTypes = false;
    settings.m_oneLinePerField = true;
    EXPECT_EQ(Printed(&label, settings), "printtest::Label{\n    text = \n    tags = []\n}");
}

TEST(PrintInstance, AFieldWithoutTextIsAQuestionMark) {
    const demo::Shape shape;
    const std::string text = Printed(&shape);
    EXPECT_NE(text.find("next = ?"), std::string::npos);
}

TEST(PrintInstance, WithoutFieldsAnObjectIsItsPointer) {
    const demo::Number number;
    EXPECT_EQ(Printed(&number), "demo::Number@" + Hex(&number));
    EXPECT_EQ(Printed(null), "null");
}

TEST(WriteIObjectPtr, NamesClassAndAddress) {
    const demo::Number number;
    EXPECT_EQ(Pointer(&number), "demo::Number@" + Hex(&number));
    const Nameless nameless;
    EXPECT_EQ(Pointer(&nameless), Hex(&nameless));
    EXPECT_EQ(Pointer(null), "null");
}

TEST(QunaSystemException, ItsTextIsItsMessage) {
    QunaSystemException e("PersistStore is missing root object");
    EXPECT_TRUE(e.Message == "PersistStore is missing root object");
    EXPECT_EQ(TextOf(e), "PersistStore is missing root object");
    EXPECT_STREQ(e.what(), "PersistStore is missing root object");
    e.SetMessage("other");
    EXPECT_TRUE(e.GetMessage() == "other");
    EXPECT_STREQ(e.what(), "other");
}

TEST(QunaSystemException, HasARecord) {
    const QunaSystemException e("m");
    const IReflectedException& r = e;
    const ReflectedClass* rc = r.GetReflectedClass();
    EXPECT_STREQ(rc->m_name, "quna::QunaSystemException");
    ASSERT_EQ(rc->m_numFields, 1);
    EXPECT_STREQ(rc->m_fields[0].m_name, "Message");
    EXPECT_EQ(rc->m_fields[0].AddressIn(&e), &e.Message);
    ExpectException<QunaSystemException>("m", [&] { throw e; });
}

} // namespace
} // namespace quna
