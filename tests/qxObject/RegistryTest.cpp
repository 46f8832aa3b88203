#include "qxObject/Registry.h"

#include "qxObject/PrefHooks.h"
#include "qxObject/QunaSystemException.h"
#include "qxObject/ReflectFunction.h"
#include "qxObject/ReflectedGlobalFunction.h"
#include "qxObject/RegisterProject.h"
#include "tests/qxObject/ReflectionTestClasses.h"
#include "tests/support/ExpectAssertion.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

XTarget* TestTarget() {
    static constexpr dsTarget TARGET = {"Tests/Registry", nullptr, 0, nullptr, 0};
    static XTarget* const target = RegisterTarget(TARGET);
    return target;
}

// A record that lives for ever, as records do, under a name that no other has.
template <class Record>
struct NamedRecord {
    std::string m_name;
    Record m_record;
};

template <class Record>
NamedRecord<Record>& NewNamedRecord(const std::string& name) {
    static std::mutex s_mutex;
    static std::deque<NamedRecord<Record>> s_records;
    const std::lock_guard lock(s_mutex);
    NamedRecord<Record>& named = s_records.emplace_back(NamedRecord<Record>{name, Record()});
    named.m_record.m_name = named.m_name.c_str();
    return named;
}

std::string Unique(const char* what) {
    static std::atomic<int> s_next{0};
    return std::string(what) + std::to_string(s_next.fetch_add(1));
}

template <class Record>
NamedRecord<Record>& NewRecord(const char* prefix) {
    return NewNamedRecord<Record>(Unique(prefix));
}

const ReflectedClass* NewClass(const std::string& name) { return &NewNamedRecord<ReflectedClass>(name).m_record; }

ENameSpaceError RegisterClassNamed(const std::string& name) {
    return RegisterReflectedClass(NewClass(name), TestTarget());
}

TEST(Registry, ARegisteredClassIsFoundByItsFullName) {
    const std::string name = "registrytest::" + Unique("C");
    const ReflectedClass* rc = NewClass(name);
    EXPECT_EQ(FindReflectedClass(name.c_str()), nullptr);
    EXPECT_EQ(RegisterReflectedClass(rc, TestTarget()), NSE_OK);
    EXPECT_EQ(FindReflectedClass(name.c_str()), rc);
    EXPECT_EQ(FindReflectedClass((name + "x").c_str()), nullptr);
    EXPECT_EQ(FindReflectedClass(nullptr), nullptr);
}

TEST(Registry, ANameIsTakenOnce) {
    const std::string name = "registrytest::" + Unique("C");
    EXPECT_EQ(RegisterClassNamed(name), NSE_OK);
    EXPECT_EQ(RegisterClassNamed(name), NSE_NAME_ALREADY_IN_USE);
    const ReflectedInterface& ri = NewNamedRecord<ReflectedInterface>(name).m_record;
    EXPECT_EQ(RegisterReflectedInterface(&ri, TestTarget()), NSE_NAME_ALREADY_IN_USE);
    EXPECT_EQ(FindReflectedInterface(name.c_str()), nullptr);
}

TEST(Registry, ErrorsHaveTheirNumbers) {
    static_assert(NSE_OK == 0 && NSE_COLON_EXPECTED == 1 && NSE_IDENTIFIER_EXPECTED == 2 &&
                  NSE_NAME_ALREADY_IN_USE == 3);
    static_assert(NSE_NAME_NOT_FOUND == 4 && NSE_NOT_A_NAMESPACE == 5);
}

TEST(Registry, NamesFollowTheSyntaxOfCpp) {
    EXPECT_EQ(RegisterClassNamed(""), NSE_IDENTIFIER_EXPECTED);
    EXPECT_EQ(RegisterClassNamed("::a"), NSE_IDENTIFIER_EXPECTED);
    EXPECT_EQ(RegisterClassNamed("a::"), NSE_IDENTIFIER_EXPECTED);
    EXPECT_EQ(RegisterClassNamed("a::1b"), NSE_IDENTIFIER_EXPECTED);
    EXPECT_EQ(RegisterClassNamed("a b"), NSE_IDENTIFIER_EXPECTED);
    EXPECT_EQ(RegisterClassNamed("a::b<c>"), NSE_IDENTIFIER_EXPECTED);
    EXPECT_EQ(RegisterClassNamed("a:b"), NSE_COLON_EXPECTED);
    EXPECT_EQ(RegisterClassNamed("a:"), NSE_COLON_EXPECTED);
    EXPECT_EQ(RegisterClassNamed(Unique("_global")), NSE_OK);
}

TEST(Registry, AnItemIsNoNamespaceAndANamespaceIsNoItem) {
    const std::string outer = "registrytest::" + Unique("C");
    EXPECT_EQ(RegisterClassNamed(outer), NSE_OK);
    EXPECT_EQ(RegisterClassNamed(outer + "::Inner"), NSE_NOT_A_NAMESPACE);
    EXPECT_EQ(RegisterClassNamed(outer + "::a::b"), NSE_NOT_A_NAMESPACE);
    const std::string space = Unique("registrytestspace");
    EXPECT_EQ(RegisterClassNamed(space + "::C"), NSE_OK);
    EXPECT_EQ(RegisterClassNamed(space), NSE_NAME_ALREADY_IN_USE);
    EXPECT_EQ(RegisterClassNamed(space + "::D"), NSE_OK);
}

TEST(Registry, ThereMustBeARecordAndATarget) {
    EXPECT_EQ(RegisterReflectedClass(nullptr, TestTarget()), NSE_NAME_NOT_FOUND);
    EXPECT_EQ(RegisterReflectedClass(NewClass("registrytest::Targetless"), nullptr), NSE_NAME_NOT_FOUND);
    EXPECT_EQ(FindReflectedClass("registrytest::Targetless"), nullptr);
}

TEST(Registry, EachKindOfItemIsFoundAsItsKindOnly) {
    auto& [i, ri] = NewRecord<ReflectedInterface>("registrytest::I");
    auto& [e, re] = NewRecord<ReflectedEnum>("registrytest::E");
    auto& [t, rt] = NewRecord<ReflectedTypedef>("registrytest::T");
    auto& [f, rf] = NewRecord<ReflectedGlobalFunction>("registrytest::F");
    EXPECT_EQ(RegisterReflectedInterface(&ri, TestTarget()), NSE_OK);
    EXPECT_EQ(RegisterReflectedEnum(&re, TestTarget()), NSE_OK);
    EXPECT_EQ(RegisterReflectedTypedef(&rt, TestTarget()), NSE_OK);
    EXPECT_EQ(RegisterReflectedGlobalFunction(&rf, TestTarget()), NSE_OK);
    EXPECT_EQ(FindReflectedInterface(i.c_str()), &ri);
    EXPECT_EQ(FindReflectedEnum(e.c_str()), &re);
    EXPECT_EQ(FindReflectedTypedef(t.c_str()), &rt);
    EXPECT_EQ(FindReflectedGlobalFunction(f.c_str()), &rf);
    EXPECT_EQ(FindReflectedClass(i.c_str()), nullptr);
    EXPECT_EQ(FindReflectedEnum(f.c_str()), nullptr);
    EXPECT_EQ(FindReflectedClass("registrytest"), nullptr);
}

TEST(Registry, AFailedRegistrationByAHelperNamesTheCall) {
    const std::string name = "registrytest::" + Unique("C");
    RegisterOrThrow(*NewClass(name), TestTarget());
    ExpectAssertion("RegisterReflectedClass(&record, target) == NSE_OK",
                    [&] { RegisterOrThrow(*NewClass(name), TestTarget()); });
}

TEST(Registry, ATargetIsKnownByItsName) {
    static constexpr dsTarget A = {"Tests/RegistryTargetA", nullptr, 0, nullptr, 0};
    static constexpr dsTarget B = {"Tests/RegistryTargetB", nullptr, 0, nullptr, 0};
    XTarget* const a = RegisterTarget(A);
    EXPECT_EQ(a->m_dsTarget, &A);
    EXPECT_EQ(RegisterTarget(A), a);
    EXPECT_NE(RegisterTarget(B), a);
}

TEST(Registry, TheProjectRegistersItsOwnTypesOnce) {
    Register_Project_qxObject();
    const ssize_t numItems = Quna_Core_qxObject_GetXTarget()->m_numItems;
    Register_Project_qxObject();
    EXPECT_EQ(Quna_Core_qxObject_GetXTarget()->m_numItems, numItems);
    EXPECT_EQ(FindReflectedInterface("quna::IObject"), &GetReflectedInterface<IObject>());
    EXPECT_EQ(FindReflectedClass("quna::QunaSystemException"), &GetReflectedClass<QunaSystemException>());
    Unregister_Project_qxObject();
    EXPECT_NE(FindReflectedInterface("quna::IObject"), nullptr);
}

TEST(FindTypeOps, FindsTheOperationsOfBasicTypesAndTheirVectors) {
    Register_Project_qxObject();
    EXPECT_EQ(FindTypeOps(DescriptionOf<int32>()), &GetTypeOps<int32>());
    EXPECT_EQ(FindTypeOps(DescriptionOf<bool>()), &GetTypeOps<bool>());
    EXPECT_EQ(FindTypeOps(DescriptionOf<xstring>()), &GetTypeOps<xstring>());
    EXPECT_EQ(FindTypeOps(DescriptionOf<Guid>()), &GetTypeOps<Guid>());
    EXPECT_EQ(FindTypeOps(DescriptionOf<float64>())->m_size, 8);
    EXPECT_EQ(FindTypeOps(DescriptionOf<xvector<int32>>())->m_equalsFn, &VariableEqual<xvector<int32>>);
    EXPECT_EQ(FindTypeOps(DescriptionOf<xvector<xstring>>())->m_size, static_cast<ssize_t>(sizeof(xvector<xstring>)));
}

TEST(FindTypeOps, IsNullForWhatHasNone) {
    EXPECT_EQ(FindTypeOps(ReflectionByteCode()), nullptr);
    EXPECT_EQ(FindTypeOps(DescriptionOf<void>()), nullptr);
    EXPECT_EQ(FindTypeOps(DescriptionOf<demo::Point*>()), nullptr);
    EXPECT_EQ(FindTypeOps(DescriptionOf<ptr<IObject>>()), nullptr);
    EXPECT_EQ(FindTypeOps(DescriptionOf<xvector<xvector<float32>>>()), nullptr);
    const octet_t code[] = {0x60, 0};
    const ConstStringZ names[] = {"registrytest::Unknown"};
    EXPECT_EQ(FindTypeOps(ReflectionByteCode(code, names, nullptr)), nullptr);
}

TEST(FindTypeOps, FindsTheOperationsOfARegisteredClassByName) {
    static const bool registered = (demo::_Register_Shape(TestTarget()), true);
    EXPECT_TRUE(registered);
    const octet_t code[] = {0x60, 0};
    const ConstStringZ names[] = {"demo::Shape"};
    EXPECT_EQ(FindTypeOps(ReflectionByteCode(code, names, nullptr)), &GetReflectedClass<demo::Shape>().m_ops);
    EXPECT_EQ(&GetTypeOps<demo::Shape>(), &GetReflectedClass<demo::Shape>().m_ops);
}

TEST(FindTypeOps, FindsContainersThatWereMadeKnown) {
    using Map = std::map<xstring, xvector<int16>>;
    EXPECT_EQ(FindTypeOps(DescriptionOf<std::pair<int16, int16>>()), nullptr);
    RegisterTypeOpsOf<Map>();
    const TypeOps* const first = FindTypeOps(DescriptionOf<Map>());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->m_size, static_cast<ssize_t>(sizeof(Map)));
    EXPECT_FALSE(RegisterTypeOps(DescriptionOf<Map>(), &GetTypeOps<int32>()));
    EXPECT_EQ(FindTypeOps(DescriptionOf<Map>()), first);
}

TEST(FindTypeOps, EveryReferenceHasTheOperationsThatTheHookNames) {
    const TypeOps* const before = g_PrefTypeOps;
    const TypeOps* const vectorsBefore = g_PrefVectorTypeOps;
    static const TypeOps references;
    static const TypeOps vectors;
    g_PrefTypeOps = &references;
    g_PrefVectorTypeOps = &vectors;
    EXPECT_EQ(FindTypeOps(DescriptionOf<pref<demo::INumber>>()), &references);
    EXPECT_EQ(FindTypeOps(DescriptionOf<cref<demo::Shape>>()), &references);
    EXPECT_EQ(FindTypeOps(DescriptionOf<xvector<pref<demo::INumber>>>()), &vectors);
    g_PrefTypeOps = before;
    g_PrefVectorTypeOps = vectorsBefore;
}

TEST(RegistryThreads, LookingUpAndRegisteringGoTogether) {
    Register_Project_qxObject();
    std::vector<std::thread> threads;
    std::atomic<int> found{0};
    const std::string prefix = Unique("registrythreads");
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const std::string name = prefix + "::C" + std::to_string(t) + "_" + std::to_string(i);
                const ReflectedClass* const rc = NewClass(name);
                if (RegisterReflectedClass(rc, TestTarget()) == NSE_OK && FindReflectedClass(name.c_str()) == rc &&
                    FindTypeOps(DescriptionOf<xvector<int32>>()))
                    ++found;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(found, 800);
}

// --- Records of functions ---

int32 Subtract(int32 a, const demo::Point& p) { return a - p.m_x; }
demo::Point& Self(demo::Point& p) { return p; }
struct Unreflected {};
void Touch(Unreflected* u, demo::Point* p) {
    if (!u) p->m_x = 77;
}

struct Counter {
    int32 Add(int32 n) { return m_n += n; }
    int32 Get() const { return m_n; }
    int32 m_n = 0;
};

TEST(ReflectFunction, DescribesAndCallsAFunction) {
    static constexpr auto ARGS = DescribeArguments<&Subtract>("a", "p");
    static constexpr ReflectedGlobalFunction RECORD = DescribeFunction<&Subtract>("registrytest::Subtract", ARGS);
    EXPECT_EQ(RECORD.m_numArgs, 2);
    EXPECT_STREQ(RECORD.m_args[1].m_name, "p");
    StringStream os(32);
    os << RECORD.m_args[1].m_typeFn() << " " << RECORD.m_resultTypeFn();
    EXPECT_STREQ(os.c_str(), "demo::Point const& int32");

    int32 a = 10;
    demo::Point p{3, 0};
    void* const args[] = {&a, &p};
    int32 result = 0;
    RECORD.m_invokeFn(&result, args);
    EXPECT_EQ(result, 7);
}

TEST(ReflectFunction, AReferenceResultIsAnAddressAndAnUnknownTypeHasNoDescription) {
    static constexpr auto ARGS = DescribeArguments<&Self>("p");
    static constexpr ReflectedGlobalFunction RECORD = DescribeFunction<&Self>("registrytest::Self", ARGS);
    demo::Point p{1, 2};
    void* const args[] = {&p};
    demo::Point* result = nullptr;
    RECORD.m_invokeFn(&result, args);
    EXPECT_EQ(result, &p);

    static constexpr auto TOUCH_ARGS = DescribeArguments<&Touch>("u", "p");
    static constexpr ReflectedGlobalFunction TOUCH = DescribeFunction<&Touch>("registrytest::Touch", TOUCH_ARGS);
    EXPECT_EQ(TOUCH.m_args[0].m_typeFn, nullptr);
    Unreflected* u = nullptr;
    void* const touchArgs[] = {&u, &result};
    TOUCH.m_invokeFn(nullptr, touchArgs);
    EXPECT_EQ(p.m_x, 77);
}

TEST(ReflectFunction, AMethodIsCalledWithItsObjectFirst) {
    static constexpr auto ARGS = DescribeArguments<&Counter::Add>("n");
    static constexpr ReflectedMethod ADD = DescribeMethod<&Counter::Add>("Add", ARGS);
    static constexpr auto NO_ARGS = DescribeArguments<&Counter::Get>();
    static constexpr ReflectedMethod GET = DescribeMethod<&Counter::Get>("Get", NO_ARGS);
    EXPECT_EQ(ADD.m_numArgs, 1);
    Counter counter;
    Counter* self = &counter;
    int32 n = 5;
    int32 result = 0;
    void* const args[] = {&self, &n};
    ADD.m_invokeFn(&result, args);
    ADD.m_invokeFn(&result, args);
    EXPECT_EQ(result, 10);
    GET.m_invokeFn(&result, args);
    EXPECT_EQ(result, 10);
}

} // namespace
} // namespace quna
