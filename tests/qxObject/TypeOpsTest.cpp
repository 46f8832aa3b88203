#include "qxObject/TypeOps.h"

#include "qxObject/TypeOpsArrays.h"
#include "qxUtils/Exceptions.h"
#include "tests/qxObject/ReflectionTestClasses.h"
#include "tests/support/ExpectAssertion.h"

#include <cstddef>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

class Bytes : public IOutputStream {
public:
    void WriteStream(const void* p, ssize_t n) override {
        m_bytes.append(static_cast<const char*>(p), static_cast<std::size_t>(n));
    }
    void FlushStream() override {}
    std::string m_bytes;
};

// The serial form of an array, with bytes behind it that a reader may look at.
std::string Serialised(const TypeOps& ops, const void* array, ssize_t stride, ssize_t count) {
    Bytes bytes;
    {
        Archive ar(&bytes);
        ops.SerialiseArray(ar, array, stride, count);
    }
    return bytes.m_bytes;
}

const octet_t* Cursor(const std::string& bytes) { return reinterpret_cast<const octet_t*>(bytes.data()); }

std::string Printed(const TypeOps& ops, const void* p) {
    StringStream os(64);
    ops.PrintVariable(os, p);
    return os.c_str();
}

// An array of strings whose elements lie at every alignment, as the entries of packed records do.
class PackedStrings {
public:
    static constexpr ssize_t STRIDE = static_cast<ssize_t>(sizeof(xstring)) + 3;
    explicit PackedStrings(ssize_t n) : m_memory(static_cast<std::size_t>(n * STRIDE) + 1), m_count(n) {
        Ops().ConstructArray(At(0), STRIDE, n);
    }
    ~PackedStrings() { Ops().DestructArray(At(0), STRIDE, m_count); }
    PackedStrings(const PackedStrings&) = delete;
    PackedStrings& operator=(const PackedStrings&) = delete;

    static const TypeOps& Ops() { return GetTypeOps<xstring>(); }
    char* At(ssize_t i) { return m_memory.data() + 1 + i * STRIDE; }
    void Set(ssize_t i, const char* text) {
        const xstring value(text);
        Ops().AssignVariable(At(i), &value);
    }
    std::string Get(ssize_t i) { return Printed(Ops(), At(i)); }

private:
    std::vector<char> m_memory;
    ssize_t m_count;
};

TEST(TypeOps, TheTableOfAnIntegerFillsWhatAnIntegerCanDo) {
    const TypeOps& ops = GetTypeOps<int32>();
    EXPECT_EQ(ops.m_size, 4);
    const int32 two = 2;
    const int32 three = 3;
    EXPECT_TRUE(ops.Equal(&two, &two));
    EXPECT_FALSE(ops.Equal(&two, &three));
    EXPECT_TRUE(ops.Less(&two, &three));
    EXPECT_FALSE(ops.Less(&two, &two));
    EXPECT_TRUE(ops.LessOrEqual(&two, &two));
    EXPECT_TRUE(ops.Greater(&three, &two));
    EXPECT_TRUE(ops.GreaterOrEqual(&three, &three));
    EXPECT_EQ(Printed(ops, &three), "3");
    EXPECT_FALSE(ops.HasDestruct());
    EXPECT_FALSE(ops.HasVisitObjects());
    EXPECT_FALSE(ops.HasVisitPrefs());
}

TEST(TypeOps, OneTableOfATypeIsFoundEachTime) {
    EXPECT_EQ(_GetTypeOps(static_cast<const int32*>(nullptr)), &GetTypeOps<int32>());
    EXPECT_EQ(&GetTypeOps<xvector<int32>>(), _GetTypeOps(static_cast<const xvector<int32>*>(nullptr)));
    EXPECT_NE(&GetTypeOps<int32>(), &GetTypeOps<uint32>());
}

TEST(TypeOps, TheSizeStandsFirstAndTheSeventeenFunctionsFollowInOrder) {
    static_assert(sizeof(TypeOps) == 18 * 8);
    static_assert(offsetof(TypeOps, m_size) == 0 && offsetof(TypeOps, m_equalsFn) == 8 &&
                  offsetof(TypeOps, m_lessFn) == 16);
    static_assert(offsetof(TypeOps, m_PrintVariableFn) == 24 && offsetof(TypeOps, m_ConstructArrayFn) == 32);
    static_assert(offsetof(TypeOps, m_CopyConstructArrayFn) == 40 && offsetof(TypeOps, m_AssignArrayFn) == 48);
    static_assert(offsetof(TypeOps, m_DestructArrayFn) == 56 && offsetof(TypeOps, m_SerialiseArrayFn) == 64);
    static_assert(offsetof(TypeOps, m_DeserialiseArrayFn) == 72 && offsetof(TypeOps, m_VisitObjectsInArrayFn) == 80);
    static_assert(offsetof(TypeOps, m_VisitPrefsInArrayFn) == 88 && offsetof(TypeOps, m_LowerBoundFn) == 96);
    static_assert(offsetof(TypeOps, m_UpperBoundFn) == 104 && offsetof(TypeOps, m_ConstructVariableFromSelfFn) == 112);
    static_assert(offsetof(TypeOps, m_AssignSelfFromVariableFn) == 136);
}

TEST(TypeOps, AMissingOperationFailsAnAssertionThatNamesItsField) {
    const TypeOps none;
    int32 x = 0;
    StringStream os(16);
    Bytes bytes;
    Archive ar(&bytes);
    ExpectAssertion("m_equalsFn", "src/TypeOps", [&] { none.Equal(&x, &x); });
    ExpectAssertion("m_lessFn", "src/TypeOps", [&] { none.Less(&x, &x); });
    ExpectAssertion("m_lessFn", [&] { none.LessOrEqual(&x, &x); });
    ExpectAssertion("m_lessFn", [&] { none.Greater(&x, &x); });
    ExpectAssertion("m_lessFn", [&] { none.GreaterOrEqual(&x, &x); });
    ExpectAssertion("m_PrintVariableFn", [&] { none.PrintVariable(os, &x); });
    ExpectAssertion("m_ConstructArrayFn", [&] { none.ConstructVariable(&x); });
    ExpectAssertion("m_CopyConstructArrayFn", [&] { none.CopyConstructVariable(&x, &x); });
    ExpectAssertion("m_AssignArrayFn", [&] { none.AssignVariable(&x, &x); });
    ExpectAssertion("m_DestructArrayFn", [&] { none.DestructVariable(&x); });
    ExpectAssertion("m_SerialiseArrayFn", [&] { none.SerialiseVariable(ar, &x); });
    ExpectAssertion("m_DeserialiseArrayFn", [&] { none.DeserialiseVariable(InputArchive(nullptr), &x); });
    ExpectAssertion("m_LowerBoundFn", [&] { none.LowerBound(&x, 4, 1, &x); });
    ExpectAssertion("m_UpperBoundFn", [&] { none.UpperBound(&x, 4, 1, &x); });
}

TEST(TypeOps, ComparisonsRefuseNullArguments) {
    const TypeOps& ops = GetTypeOps<int32>();
    const int32 x = 0;
    ExpectAssertion("p1", "src/TypeOps", [&] { ops.Equal(nullptr, &x); });
    ExpectAssertion("p2", [&] { ops.Equal(&x, nullptr); });
    ExpectAssertion("p1", [&] { ops.Less(nullptr, &x); });
    ExpectAssertion("p2", [&] { ops.Less(&x, nullptr); });
}

TEST(TypeOps, ConstructingGivesZeroToNumbers) {
    const TypeOps& ops = GetTypeOps<float64>();
    float64 values[3] = {1, 2, 3};
    ops.ConstructArray(values, 8, 3);
    EXPECT_EQ(values[0] + values[1] + values[2], 0);
}

TEST(TypeOps, ArrayFunctionsLeaveTheBytesBetweenElementsAlone) {
    struct Entry {
        int32 m_key;
        int32 m_other;
    };
    Entry entries[3] = {{1, 9}, {2, 9}, {3, 9}};
    const int32 source[3] = {7, 8, 9};
    GetTypeOps<int32>().AssignArray(&entries[0].m_key, sizeof(Entry), source, sizeof(int32), 3);
    EXPECT_EQ(entries[2].m_key, 9);
    EXPECT_EQ(entries[0].m_other + entries[1].m_other + entries[2].m_other, 27);
}

TEST(TypeOps, ElementsAtUnalignedAddressesAreBuiltAssignedPrintedAndDestroyed) {
    PackedStrings strings(5);
    EXPECT_EQ(strings.Get(0), "");
    strings.Set(0, "a text that is longer than any small buffer");
    strings.Set(1, "b");
    EXPECT_EQ(strings.Get(0), "a text that is longer than any small buffer");
    EXPECT_EQ(strings.Get(1), "b");
    // Moving the bytes moves the value.
    std::vector<char> moved(strings.At(0), strings.At(0) + sizeof(xstring));
    std::memcpy(strings.At(0), strings.At(1), sizeof(xstring));
    std::memcpy(strings.At(1), moved.data(), sizeof(xstring));
    EXPECT_EQ(strings.Get(0), "b");
}

TEST(TypeOps, AssigningAnUnalignedElementToItselfKeepsIt) {
    PackedStrings strings(2);
    strings.Set(1, "kept");
    PackedStrings::Ops().AssignVariable(strings.At(1), strings.At(1));
    EXPECT_EQ(strings.Get(1), "kept");
}

TEST(TypeOps, CopyConstructionCopiesBetweenArraysOfDifferentStrideAndAlignment) {
    PackedStrings strings(2);
    strings.Set(0, "first");
    strings.Set(1, "second");
    alignas(xstring) char copies[2 * sizeof(xstring)];
    PackedStrings::Ops().CopyConstructArray(copies, sizeof(xstring), strings.At(0), PackedStrings::STRIDE, 2);
    EXPECT_EQ(Printed(PackedStrings::Ops(), copies + sizeof(xstring)), "second");
    PackedStrings::Ops().DestructArray(copies, sizeof(xstring), 2);
}

TEST(TypeOps, BoundsFindTheFirstElementNotBelowAndTheFirstAbove) {
    PackedStrings strings(5);
    const char* texts[] = {"b", "d", "d", "f", "h"};
    for (ssize_t i = 0; i < 5; ++i) strings.Set(i, texts[i]);
    const auto lower = [&](const char* text) {
        const xstring value(text);
        return PackedStrings::Ops().LowerBound(strings.At(0), PackedStrings::STRIDE, 5, &value);
    };
    const auto upper = [&](const char* text) {
        const xstring value(text);
        return PackedStrings::Ops().UpperBound(strings.At(0), PackedStrings::STRIDE, 5, &value);
    };
    EXPECT_EQ(lower("a"), 0);
    EXPECT_EQ(lower("d"), 1);
    EXPECT_EQ(upper("d"), 3);
    EXPECT_EQ(lower("e"), 3);
    EXPECT_EQ(upper("e"), 3);
    EXPECT_EQ(lower("i"), 5);
    EXPECT_EQ(upper("h"), 5);
    const xstring value("x");
    EXPECT_EQ(PackedStrings::Ops().LowerBound(strings.At(0), PackedStrings::STRIDE, 0, &value), 0);
}

TEST(TypeOps, StringsOrderByUnsignedBytesThenLength) {
    const TypeOps& ops = GetTypeOps<xstring>();
    const xstring ab("ab");
    const xstring abc("abc");
    const xstring high("\x80");
    EXPECT_TRUE(ops.Less(&ab, &abc));
    EXPECT_TRUE(ops.Less(&abc, &high));
}

TEST(TypeOps, AnArrayIsSerialisedWithoutACountAndReadsBack) {
    PackedStrings strings(2);
    strings.Set(0, "ab");
    strings.Set(1, "");
    const std::string bytes = Serialised(PackedStrings::Ops(), strings.At(0), PackedStrings::STRIDE, 2);
    EXPECT_EQ(bytes, std::string("\x02"
                                 "ab"
                                 "\x00",
                                 4));

    PackedStrings read(2);
    EXPECT_EQ(PackedStrings::Ops().DeserialiseArray(Cursor(bytes), read.At(0), PackedStrings::STRIDE, 2).ptr(),
              Cursor(bytes) + 4);
    EXPECT_EQ(read.Get(0), "ab");
}

template <class T>
void ExpectRoundTrip(const T& value, const std::string& expectedBytes) {
    const TypeOps ops = MakeTypeOps<T>();
    const std::string bytes = Serialised(ops, &value, 0, 1);
    EXPECT_EQ(bytes, expectedBytes);
    T read{};
    EXPECT_EQ(ops.DeserialiseVariable(Cursor(bytes), &read).ptr(), Cursor(bytes) + bytes.size());
    EXPECT_TRUE(ops.Equal(&value, &read));
}

TEST(TypeOps, ContainersOfAnythingHaveASerialForm) {
    ExpectRoundTrip<xvector<uint16>>({1, 2}, std::string("\x02\x01\x00\x02\x00", 5));
    ExpectRoundTrip<xvector<uint16>>({}, std::string("\0", 1));
    ExpectRoundTrip<xvector<bool>>({true, false}, std::string("\x02\x01\x00", 3));
    ExpectRoundTrip<xvector<xstring>>({xstring("x"), xstring()}, std::string("\x02\x01x\x00", 4));
    ExpectRoundTrip<xvector<xvector<uint8>>>({{1}, {}}, std::string("\x02\x01\x01\x00", 4));
    ExpectRoundTrip<std::map<uint8, xstring>>({{1, xstring("a")}, {2, xstring()}}, std::string("\x02\x01\x01"
                                                                                               "a\x02\x00",
                                                                                               6));
    ExpectRoundTrip<std::set<uint8>>({3, 1}, std::string("\x02\x01\x03", 3));
    ExpectRoundTrip<std::pair<uint8, uint8>>({1, 2}, std::string("\x01\x02", 2));
    ExpectRoundTrip<demo::Point>({1, -1}, std::string("\x01\0\0\0\xff\xff\xff\xff", 8));
    ExpectRoundTrip<demo::EColour>(demo::EColour::Green, std::string("\x02", 1));
}

TEST(TypeOps, AVectorLongerThanItsRecordIsRefused) {
    std::string bytes("\xF0\x7F\xFF\xFF\xFF", 5);
    bytes.resize(5 + RECORD_SLACK);
    const RecordLimitsScope limits(Cursor(bytes), Cursor(bytes) + 5);
    xvector<int64> read;
    EXPECT_THROW(GetTypeOps<xvector<int64>>().DeserialiseVariable(Cursor(bytes), &read), RecordException);
    xvector<xstring> texts;
    EXPECT_THROW(GetTypeOps<xvector<xstring>>().DeserialiseVariable(Cursor(bytes), &texts), RecordException);
}

TEST(TypeOps, AnExceptionWhileAnArrayIsConstructedLeavesRawMemory) {
    static int alive = 0;
    struct Third {
        Third() {
            if (alive == 2) throw 3;
            ++alive;
        }
        ~Third() { --alive; }
        char m_byte = 0;
    };
    Third* const none = nullptr;
    char memory[4];
    EXPECT_THROW(MakeTypeOps<Third>().ConstructArray(memory, 1, 4), int);
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(none, nullptr);
}

TEST(TypeOps, WhatATypeCannotDoIsANullSlot) {
    struct Opaque {
        explicit Opaque(int) {}
        Opaque(const Opaque&) = delete;
        Opaque& operator=(const Opaque&) = delete;
    };
    constexpr TypeOps ops = MakeTypeOps<Opaque>();
    EXPECT_EQ(ops.m_size, 1);
    EXPECT_FALSE(ops.HasEqual() || ops.HasLess() || ops.HasPrint() || ops.HasConstruct() || ops.HasCopyConstruct() ||
                 ops.HasAssign());
    EXPECT_FALSE(ops.HasDestruct() || ops.HasSerialise() || ops.HasDeserialise() || ops.HasVisitObjects() ||
                 ops.HasVisitPrefs());
    EXPECT_FALSE(ops.HasLowerBound() || ops.HasUpperBound());
    EXPECT_FALSE(MakeTypeOps<xvector<Opaque*>>().HasSerialise());
    EXPECT_FALSE((MakeTypeOps<std::map<int, const char*>>().HasEqual()));
}

// Holds an evictable pointer, as a reference does.
struct Holder {
    void VisitObjects(IObjectVisitor& visitor) const { visitor.VisitEvictablePtr(const_cast<ptr<IObject>*>(&m_p)); }
    ptr<IObject> m_p;
};

TEST(TypeOps, AnEvictablePointerInAnUnalignedElementIsVisitedAtItsTrueAddress) {
    class Recorder : public IObjectVisitor {
    public:
        void VisitObject(ptr<const IObject>) override {}
        void VisitEvictablePtr(AnyInterface* p) override { m_addresses.push_back(p); }
        std::vector<const void*> m_addresses;
    };
    constexpr ssize_t STRIDE = sizeof(Holder) + 1;
    char memory[3 * STRIDE];
    const TypeOps ops = MakeTypeOps<Holder>();
    ops.ConstructArray(memory, STRIDE, 3);
    Recorder recorder;
    ops.VisitObjectsInArray(recorder, memory, STRIDE, 3);
    EXPECT_EQ(recorder.m_addresses, (std::vector<const void*>{memory, memory + STRIDE, memory + 2 * STRIDE}));
}

} // namespace

// A visitor of references that only counts, in place of the one that the layer above defines.
class IPrefVisitor {
public:
    int m_visits = 0;
};

namespace {

struct Visited {
    void VisitPrefs(IPrefVisitor& visitor) const {
        ++visitor.m_visits;
        const_cast<Visited*>(this)->m_target = 7;
    }
    int32 m_target = 0;
};

TEST(TypeOps, AChangeThatAVisitorMakesToAnUnalignedElementIsStored) {
    constexpr ssize_t STRIDE = sizeof(Visited) + 1;
    char memory[4 * STRIDE];
    const TypeOps ops = MakeTypeOps<Visited>();
    ops.ConstructArray(memory, STRIDE, 4);
    IPrefVisitor visitor;
    ops.VisitPrefsInArray(visitor, memory, STRIDE, 4);
    EXPECT_EQ(visitor.m_visits, 4);
    for (ssize_t i = 0; i < 4; ++i) {
        int32 target = 0;
        std::memcpy(&target, memory + i * STRIDE, sizeof target);
        EXPECT_EQ(target, 7);
    }
}

} // namespace
} // namespace quna
