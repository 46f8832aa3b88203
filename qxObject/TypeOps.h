// The table of operations on one type, through which code that learns a type at run time handles its values.
#pragma once

#include "qxUtils/Archive.h"
#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Guid.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

namespace quna {

class IObjectVisitor;
class IPrefVisitor;
class xostream;
struct ReflectionByteCode;

// A static table. Any pointer may be null: the type does not offer the operation, and the matching Has... is false. A
// type with nothing to destruct or to visit has null in those slots.
//
// Array operations work on values that lie `stride` bytes apart, at any alignment: elements at unaligned addresses are
// handled through aligned local copies, so a type with a table must survive a bitwise move. A stride of 0 with a count
// of 1 is a single value.
//
// Each public form fails an assertion that names the field when its pointer is null.
struct TypeOps {
    using EqualsFn = bool (*)(const void*, const void*);
    using LessFn = bool (*)(const void*, const void*);
    using PrintVariableFn = void (*)(xostream&, const void*);
    using ConstructArrayFn = void (*)(void*, ssize_t stride, ssize_t count);
    using CopyConstructArrayFn = void (*)(void* dst, ssize_t dstStride, const void* src, ssize_t srcStride,
                                          ssize_t count);
    using AssignArrayFn = void (*)(void* dst, ssize_t dstStride, const void* src, ssize_t srcStride, ssize_t count);
    using DestructArrayFn = void (*)(void*, ssize_t stride, ssize_t count);
    using SerialiseArrayFn = void (*)(Archive&, const void*, ssize_t stride, ssize_t count);
    using DeserialiseArrayFn = InputArchive (*)(InputArchive, void*, ssize_t stride, ssize_t count);
    using VisitObjectsInArrayFn = void (*)(IObjectVisitor&, const void*, ssize_t stride, ssize_t count);
    using VisitPrefsInArrayFn = void (*)(IPrefVisitor&, const void*, ssize_t stride, ssize_t count);
    using BoundFn = ssize_t (*)(const void* array, ssize_t stride, ssize_t count, const void* value);
    using FromSelfFn = bool (*)(ReflectionByteCode, const void*, const void*, bool);
    using FromVariableFn = bool (*)(void*, ReflectionByteCode, const void*, bool);

    bool HasEqual() const { return m_equalsFn != nullptr; }
    bool HasLess() const { return m_lessFn != nullptr; }
    bool HasPrint() const { return m_PrintVariableFn != nullptr; }
    bool HasConstruct() const { return m_ConstructArrayFn != nullptr; }
    bool HasCopyConstruct() const { return m_CopyConstructArrayFn != nullptr; }
    bool HasAssign() const { return m_AssignArrayFn != nullptr; }
    bool HasDestruct() const { return m_DestructArrayFn != nullptr; }
    bool HasSerialise() const { return m_SerialiseArrayFn != nullptr; }
    bool HasDeserialise() const { return m_DeserialiseArrayFn != nullptr; }
    bool HasVisitObjects() const { return m_VisitObjectsInArrayFn != nullptr; }
    bool HasVisitPrefs() const { return m_VisitPrefsInArrayFn != nullptr; }
    bool HasLowerBound() const { return m_LowerBoundFn != nullptr; }
    bool HasUpperBound() const { return m_UpperBoundFn != nullptr; }

    bool Equal(const void* p1, const void* p2) const {
        QX_ASSERT_IN("src/TypeOps", m_equalsFn);
        QX_ASSERT_IN("src/TypeOps", p1);
        QX_ASSERT_IN("src/TypeOps", p2);
        return m_equalsFn(p1, p2);
    }

    // The order is total; the other three comparisons follow from Less.
    bool Less(const void* p1, const void* p2) const {
        QX_ASSERT_IN("src/TypeOps", m_lessFn);
        QX_ASSERT_IN("src/TypeOps", p1);
        QX_ASSERT_IN("src/TypeOps", p2);
        return m_lessFn(p1, p2);
    }
    bool Greater(const void* p1, const void* p2) const {
        QX_ASSERT_IN("src/TypeOps", m_lessFn);
        QX_ASSERT_IN("src/TypeOps", p1);
        QX_ASSERT_IN("src/TypeOps", p2);
        return m_lessFn(p2, p1);
    }
    bool LessOrEqual(const void* p1, const void* p2) const { return !Greater(p1, p2); }
    bool GreaterOrEqual(const void* p1, const void* p2) const { return !Less(p1, p2); }

    void PrintVariable(xostream& os, const void* p) const {
        QX_ASSERT_IN("src/TypeOps", m_PrintVariableFn);
        m_PrintVariableFn(os, p);
    }

    // Default values in raw memory.
    void ConstructArray(void* p, ssize_t stride, ssize_t count) const {
        QX_ASSERT_IN("src/TypeOps", m_ConstructArrayFn);
        m_ConstructArrayFn(p, stride, count);
    }
    void ConstructVariable(void* p) const { ConstructArray(p, 0, 1); }

    // Copies in raw memory. The arrays do not overlap.
    void CopyConstructArray(void* dst, ssize_t dstStride, const void* src, ssize_t srcStride, ssize_t count) const {
        QX_ASSERT_IN("src/TypeOps", m_CopyConstructArrayFn);
        m_CopyConstructArrayFn(dst, dstStride, src, srcStride, count);
    }
    void CopyConstructVariable(void* dst, const void* src) const { CopyConstructArray(dst, 0, src, 0, 1); }

    void AssignArray(void* dst, ssize_t dstStride, const void* src, ssize_t srcStride, ssize_t count) const {
        QX_ASSERT_IN("src/TypeOps", m_AssignArrayFn);
        m_AssignArrayFn(dst, dstStride, src, srcStride, count);
    }
    void AssignVariable(void* dst, const void* src) const { AssignArray(dst, 0, src, 0, 1); }

    void DestructArray(void* p, ssize_t stride, ssize_t count) const {
        QX_ASSERT_IN("src/TypeOps", m_DestructArrayFn);
        m_DestructArrayFn(p, stride, count);
    }
    void DestructVariable(void* p) const { DestructArray(p, 0, 1); }

    // The elements one behind the other, without a count.
    void SerialiseArray(Archive& ar, const void* p, ssize_t stride, ssize_t count) const {
        QX_ASSERT_IN("src/TypeOps", m_SerialiseArrayFn);
        m_SerialiseArrayFn(ar, p, stride, count);
    }
    void SerialiseVariable(Archive& ar, const void* p) const { SerialiseArray(ar, p, 0, 1); }

    // Into constructed values.
    InputArchive DeserialiseArray(InputArchive ar, void* p, ssize_t stride, ssize_t count) const {
        QX_ASSERT_IN("src/TypeOps", m_DeserialiseArrayFn);
        return m_DeserialiseArrayFn(ar, p, stride, count);
    }
    InputArchive DeserialiseVariable(InputArchive ar, void* p) const { return DeserialiseArray(ar, p, 0, 1); }

    void VisitObjectsInArray(IObjectVisitor& visitor, const void* p, ssize_t stride, ssize_t count) const {
        QX_ASSERT_IN("src/TypeOps", m_VisitObjectsInArrayFn);
        m_VisitObjectsInArrayFn(visitor, p, stride, count);
    }
    void VisitObjectsInVariable(IObjectVisitor& visitor, const void* p) const { VisitObjectsInArray(visitor, p, 0, 1); }

    void VisitPrefsInArray(IPrefVisitor& visitor, const void* p, ssize_t stride, ssize_t count) const {
        QX_ASSERT_IN("src/TypeOps", m_VisitPrefsInArrayFn);
        m_VisitPrefsInArrayFn(visitor, p, stride, count);
    }
    void VisitPrefsInVariable(IPrefVisitor& visitor, const void* p) const { VisitPrefsInArray(visitor, p, 0, 1); }

    // The index of the first element of an ascending array that is not below `value`; `count` when there is none.
    ssize_t LowerBound(const void* array, ssize_t stride, ssize_t count, const void* value) const {
        QX_ASSERT_IN("src/TypeOps", m_LowerBoundFn);
        return m_LowerBoundFn(array, stride, count, value);
    }
    // The index of the first element that is above `value`; `count` when there is none.
    ssize_t UpperBound(const void* array, ssize_t stride, ssize_t count, const void* value) const {
        QX_ASSERT_IN("src/TypeOps", m_UpperBoundFn);
        return m_UpperBoundFn(array, stride, count, value);
    }

    ssize_t m_size = 0; // bytes of one value; 0 in the table of a type that has no values
    EqualsFn m_equalsFn = nullptr;
    LessFn m_lessFn = nullptr;
    PrintVariableFn m_PrintVariableFn = nullptr;
    ConstructArrayFn m_ConstructArrayFn = nullptr;
    CopyConstructArrayFn m_CopyConstructArrayFn = nullptr;
    AssignArrayFn m_AssignArrayFn = nullptr;
    DestructArrayFn m_DestructArrayFn = nullptr;
    SerialiseArrayFn m_SerialiseArrayFn = nullptr;
    DeserialiseArrayFn m_DeserialiseArrayFn = nullptr;
    VisitObjectsInArrayFn m_VisitObjectsInArrayFn = nullptr;
    VisitPrefsInArrayFn m_VisitPrefsInArrayFn = nullptr;
    BoundFn m_LowerBoundFn = nullptr;
    BoundFn m_UpperBoundFn = nullptr;

    // Conversions between a value and a variable of a described type. The tables generated here leave them null.
    FromSelfFn m_ConstructVariableFromSelfFn = nullptr;
    FromVariableFn m_ConstructSelfFromVariableFn = nullptr;
    FromSelfFn m_AssignVariableFromSelfFn = nullptr;
    FromVariableFn m_AssignSelfFromVariableFn = nullptr;
};

// The tables of the basic types. A type of another module declares its own beside itself.
QX_API const TypeOps* _GetTypeOps(const bool*);
QX_API const TypeOps* _GetTypeOps(const char*);
QX_API const TypeOps* _GetTypeOps(const int8*);
QX_API const TypeOps* _GetTypeOps(const int16*);
QX_API const TypeOps* _GetTypeOps(const int32*);
QX_API const TypeOps* _GetTypeOps(const int64*);
QX_API const TypeOps* _GetTypeOps(const uint8*);
QX_API const TypeOps* _GetTypeOps(const uint16*);
QX_API const TypeOps* _GetTypeOps(const uint32*);
QX_API const TypeOps* _GetTypeOps(const uint64*);
QX_API const TypeOps* _GetTypeOps(const float32*);
QX_API const TypeOps* _GetTypeOps(const float64*);
QX_API const TypeOps* _GetTypeOps(const xstring*);
QX_API const TypeOps* _GetTypeOps(const Guid*);

// The table of a vector, generated where it is used: defined in qxObject/TypeOpsArrays.h.
template <class T>
const TypeOps* _GetTypeOps(const xvector<T>*);

namespace detail {

inline const TypeOps& TableOf(const TypeOps* table) { return *table; }
inline const TypeOps& TableOf(const TypeOps& table) { return table; }

} // namespace detail

// The table of `T`, found through `_GetTypeOps(const T*)`, which is declared beside `T`.
template <class T>
const TypeOps& GetTypeOps() {
    return detail::TableOf(_GetTypeOps(static_cast<const T*>(nullptr)));
}

} // namespace quna
