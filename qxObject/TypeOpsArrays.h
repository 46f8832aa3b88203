// The functions that fill a TypeOps table for a type T, over arrays of values that lie a stride apart at any alignment.
//
// A value at an unaligned address is never used there: it is moved bitwise into an aligned local and, when it was
// changed, bitwise back. On x86-64 the test costs one instruction, and nothing for types without alignment.
#pragma once

#include "qxObject/TypeOps.h"
#include "qxObject/ValueOps.h"
#include "qxUtils/BasicTypes.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

namespace quna {

namespace detail {

template <class T>
bool IsAlignedFor(const void* p) noexcept {
    return reinterpret_cast<std::uintptr_t>(p) % alignof(T) == 0;
}

template <class T>
struct alignas(T) RawValue {
    unsigned char m_bytes[sizeof(T)];
};

// The value at p, to be read only.
template <class T>
class ReadView {
public:
    explicit ReadView(const void* p) noexcept {
        if (IsAlignedFor<T>(p)) [[likely]] {
            m_value = static_cast<const T*>(p);
        } else {
            std::memcpy(m_copy.m_bytes, p, sizeof(T));
            m_value = std::launder(reinterpret_cast<const T*>(m_copy.m_bytes));
        }
    }
    ReadView(const ReadView&) = delete;
    ReadView& operator=(const ReadView&) = delete;
    const T& operator*() const noexcept { return *m_value; }

private:
    const T* m_value;
    RawValue<T> m_copy;
};

// The value at p, to be changed; lies at p again when the view ends, whatever happened.
template <class T>
class WriteView {
public:
    explicit WriteView(void* p) noexcept : m_place(p) {
        if (IsAlignedFor<T>(p)) [[likely]] {
            m_value = static_cast<T*>(p);
        } else {
            std::memcpy(m_copy.m_bytes, p, sizeof(T));
            m_value = std::launder(reinterpret_cast<T*>(m_copy.m_bytes));
        }
    }
    ~WriteView() {
        if (!IsAlignedFor<T>(m_place)) [[unlikely]]
            std::memcpy(m_place, m_copy.m_bytes, sizeof(T));
    }
    WriteView(const WriteView&) = delete;
    WriteView& operator=(const WriteView&) = delete;
    T& operator*() const noexcept { return *m_value; }

private:
    void* m_place;
    T* m_value;
    RawValue<T> m_copy;
};

// Makes a value at p.
template <class T, class... Args>
void ConstructAt(void* p, const Args&... args) {
    if (IsAlignedFor<T>(p)) [[likely]] {
        ::new (p) T(args...);
    } else {
        RawValue<T> raw;
        ::new (static_cast<void*>(raw.m_bytes)) T(args...);
        std::memcpy(p, raw.m_bytes, sizeof(T));
    }
}

inline char* ElementAt(void* array, ssize_t stride, ssize_t i) noexcept {
    return static_cast<char*>(array) + stride * i;
}
inline const char* ElementAt(const void* array, ssize_t stride, ssize_t i) noexcept {
    return static_cast<const char*>(array) + stride * i;
}

// Hands the edges of an aligned copy on as those of the value that was copied: the address of an evictable pointer
// inside the copy becomes its true, unaligned address.
class RelocatedEdges final : public IObjectVisitor {
public:
    RelocatedEdges(IObjectVisitor& target, const void* copy, const void* place, ssize_t size)
        : m_target(target), m_copy(reinterpret_cast<std::uintptr_t>(copy)),
          m_place(reinterpret_cast<std::uintptr_t>(place)), m_size(static_cast<std::uintptr_t>(size)) {}

    void VisitObject(ptr<const IObject> object) override { m_target.VisitObject(object); }
    void VisitEvictablePtr(AnyInterface* p) override {
        const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(p) - m_copy;
        m_target.VisitEvictablePtr(offset < m_size ? reinterpret_cast<AnyInterface*>(m_place + offset) : p);
    }

private:
    IObjectVisitor& m_target;
    const std::uintptr_t m_copy;
    const std::uintptr_t m_place;
    const std::uintptr_t m_size; // bytes
};

} // namespace detail

// Whether a visitor changed an unaligned value, which then goes back to its place. A type whose const operations only
// fill in a cache overloads it, so that visiting under a shared lock writes nothing that could tear.
template <class T>
bool ShouldStoreVisited(const T& before, const T& after) {
    return std::memcmp(static_cast<const void*>(&before), static_cast<const void*>(&after), sizeof(T)) != 0;
}

template <class T>
void DestructArray(void* array, ssize_t stride, ssize_t count) {
    for (ssize_t i = 0; i < count; ++i) {
        char* const place = detail::ElementAt(array, stride, i);
        if (detail::IsAlignedFor<T>(place)) [[likely]] {
            std::destroy_at(reinterpret_cast<T*>(place));
        } else {
            detail::RawValue<T> raw;
            std::memcpy(raw.m_bytes, place, sizeof(T));
            std::destroy_at(std::launder(reinterpret_cast<T*>(raw.m_bytes)));
        }
    }
}

// When a constructor throws, what was constructed is destroyed again and the array is raw memory as before.
template <class T>
void ConstructArray(void* array, ssize_t stride, ssize_t count) {
    ssize_t i = 0;
    try {
        for (; i < count; ++i) detail::ConstructAt<T>(detail::ElementAt(array, stride, i));
    } catch (...) {
        DestructArray<T>(array, stride, i);
        throw;
    }
}

template <class T>
void CopyConstructArray(void* dst, ssize_t dstStride, const void* src, ssize_t srcStride, ssize_t count) {
    ssize_t i = 0;
    try {
        for (; i < count; ++i) {
            const detail::ReadView<T> from(detail::ElementAt(src, srcStride, i));
            detail::ConstructAt<T>(detail::ElementAt(dst, dstStride, i), *from);
        }
    } catch (...) {
        DestructArray<T>(dst, dstStride, i);
        throw;
    }
}

template <class T>
void AssignArray(void* dst, ssize_t dstStride, const void* src, ssize_t srcStride, ssize_t count) {
    for (ssize_t i = 0; i < count; ++i) {
        char* const to = detail::ElementAt(dst, dstStride, i);
        const char* const from = detail::ElementAt(src, srcStride, i);
        if (to == from) continue; // two unaligned views of one value would disown each other
        const detail::ReadView<T> source(from);
        const detail::WriteView<T> target(to);
        *target = *source;
    }
}

namespace detail {

// Values whose bytes are their serial form, as many at a time as the archive's buffer still takes: it is flushed where it
// would be value by value.
template <class T>
void SerialiseRawArray(Archive& ar, const void* array, ssize_t stride, ssize_t count) {
    constexpr ssize_t SIZE = static_cast<ssize_t>(sizeof(T));
    const char* from = static_cast<const char*>(array);
    while (count > 0) {
        const ssize_t room = (ARCHIVE_BUFSIZE - ar.NumBufferedWrites()) / SIZE;
        const ssize_t n = std::min(count, room > 0 ? room : ARCHIVE_BUFSIZE / SIZE);
        octet_t* to = ar.BeginWrite(n * SIZE);
        for (ssize_t i = 0; i < n; ++i, to += SIZE, from += stride) std::memcpy(to, from, sizeof(T));
        ar.EndWrite(to);
        count -= n;
    }
}

} // namespace detail

template <class T>
void SerialiseArray(Archive& ar, const void* array, ssize_t stride, ssize_t count) {
    if constexpr (detail::IS_RAW<T>) {
        detail::SerialiseRawArray<T>(ar, array, stride, count);
    } else {
        for (ssize_t i = 0; i < count; ++i)
            ValueOps<T>::Serialise(ar, *detail::ReadView<T>(detail::ElementAt(array, stride, i)));
    }
}

template <class T>
InputArchive DeserialiseArray(InputArchive ar, void* array, ssize_t stride, ssize_t count) {
    for (ssize_t i = 0; i < count; ++i)
        ar = ValueOps<T>::Deserialise(ar, *detail::WriteView<T>(detail::ElementAt(array, stride, i)));
    return ar;
}

template <class T>
void VisitObjectsInArray(IObjectVisitor& visitor, const void* array, ssize_t stride, ssize_t count) {
    for (ssize_t i = 0; i < count; ++i) {
        const char* const place = detail::ElementAt(array, stride, i);
        const detail::ReadView<T> view(place);
        if (detail::IsAlignedFor<T>(place)) [[likely]] {
            ValueOps<T>::VisitObjects(visitor, *view);
        } else {
            detail::RelocatedEdges edges(visitor, &*view, place, static_cast<ssize_t>(sizeof(T)));
            ValueOps<T>::VisitObjects(edges, *view);
            // A reference takes its target's identity over before it calls the edge evictable. The collector, which has
            // the exclusive lock, then clears the pointer at the place, so the identity must stand there too.
            if (std::memcmp(static_cast<const void*>(&*view), place, sizeof(T)) != 0)
                std::memcpy(const_cast<char*>(place), static_cast<const void*>(&*view), sizeof(T));
        }
    }
}

template <class T>
void VisitPrefsInArray(IPrefVisitor& visitor, const void* array, ssize_t stride, ssize_t count) {
    for (ssize_t i = 0; i < count; ++i) {
        const char* const place = detail::ElementAt(array, stride, i);
        if (detail::IsAlignedFor<T>(place)) [[likely]] {
            ValueOps<T>::VisitPrefs(visitor, *reinterpret_cast<const T*>(place));
            continue;
        }
        detail::RawValue<T> visited;
        std::memcpy(visited.m_bytes, place, sizeof(T));
        const T& value = *std::launder(reinterpret_cast<const T*>(visited.m_bytes));
        ValueOps<T>::VisitPrefs(visitor, value);
        // The array is const in what it means; a visitor that aims references elsewhere says so by casting, as here.
        if (ShouldStoreVisited(*detail::ReadView<T>(place), value))
            std::memcpy(const_cast<char*>(place), visited.m_bytes, sizeof(T));
    }
}

template <class T>
bool VariableEqual(const void* p1, const void* p2) {
    return ValueOps<T>::Equal(*detail::ReadView<T>(p1), *detail::ReadView<T>(p2));
}

template <class T>
bool VariableLess(const void* p1, const void* p2) {
    return ValueOps<T>::Less(*detail::ReadView<T>(p1), *detail::ReadView<T>(p2));
}

template <class T>
void PrintVariable(xostream& os, const void* p) {
    ValueOps<T>::Print(os, *detail::ReadView<T>(p));
}

namespace detail {

// Values that are compared by one machine instruction.
template <class T>
inline constexpr bool IS_MACHINE_VALUE = std::is_arithmetic_v<T> && !std::is_same_v<T, bool>;

template <class T>
T LoadMachineValue(const char* p) noexcept {
    T value;
    std::memcpy(&value, p, sizeof(T));
    return value;
}

// How many elements of an array come before the first for which `isBefore` is false. No branch depends on a comparison,
// since half of them would be predicted wrong; instead of the processor's guess the next two candidates are asked for
// ahead of the comparison that decides between them.
template <class T, class IsBefore>
ssize_t CountBefore(const void* array, ssize_t stride, ssize_t count, IsBefore&& isBefore) {
    if (count <= 0) return 0;
    const char* base = static_cast<const char*>(array);
    ssize_t first = 0;
    while (count > 1) {
        const ssize_t half = count / 2;
        const ssize_t quarter = (count - half) / 2;
        __builtin_prefetch(base + stride * (quarter - 1 + static_cast<ssize_t>(quarter == 0)));
        __builtin_prefetch(base + stride * (half + quarter - 1));
        const ssize_t taken = -static_cast<ssize_t>(isBefore(LoadMachineValue<T>(base + stride * (half - 1))));
        base += taken & (stride * half);
        first += taken & half;
        count -= half;
    }
    return first + static_cast<ssize_t>(isBefore(LoadMachineValue<T>(base)));
}

} // namespace detail

template <class T>
ssize_t BinaryLowerBound(const void* array, ssize_t stride, ssize_t count, const void* value) {
    if constexpr (detail::IS_MACHINE_VALUE<T>) {
        const T machineValue = detail::LoadMachineValue<T>(static_cast<const char*>(value));
        return detail::CountBefore<T>(array, stride, count, [machineValue](T x) { return x < machineValue; });
    } else {
        const detail::ReadView<T> sought(value);
        ssize_t first = 0;
        while (count > 0) {
            const ssize_t half = count / 2;
            if (ValueOps<T>::Less(*detail::ReadView<T>(detail::ElementAt(array, stride, first + half)), *sought)) {
                first += half + 1;
                count -= half + 1;
            } else {
                count = half;
            }
        }
        return first;
    }
}

template <class T>
ssize_t BinaryUpperBound(const void* array, ssize_t stride, ssize_t count, const void* value) {
    if constexpr (detail::IS_MACHINE_VALUE<T>) {
        const T machineValue = detail::LoadMachineValue<T>(static_cast<const char*>(value));
        return detail::CountBefore<T>(array, stride, count, [machineValue](T x) { return !(machineValue < x); });
    } else {
        const detail::ReadView<T> sought(value);
        ssize_t first = 0;
        while (count > 0) {
            const ssize_t half = count / 2;
            if (!ValueOps<T>::Less(*sought, *detail::ReadView<T>(detail::ElementAt(array, stride, first + half)))) {
                first += half + 1;
                count -= half + 1;
            } else {
                count = half;
            }
        }
        return first;
    }
}

// The table of `T`: each slot is filled when T can do what it stands for. A type that is destroyed by doing nothing has
// no destruct slot.
template <class T>
constexpr TypeOps MakeTypeOps() {
    using Ops = ValueOps<T>;
    TypeOps ops;
    ops.m_size = static_cast<ssize_t>(sizeof(T));
    if constexpr (Ops::CAN_EQUAL) ops.m_equalsFn = &VariableEqual<T>;
    if constexpr (Ops::CAN_LESS) {
        ops.m_lessFn = &VariableLess<T>;
        ops.m_LowerBoundFn = &BinaryLowerBound<T>;
        ops.m_UpperBoundFn = &BinaryUpperBound<T>;
    }
    if constexpr (Ops::CAN_PRINT) ops.m_PrintVariableFn = &PrintVariable<T>;
    if constexpr (std::is_default_constructible_v<T>) ops.m_ConstructArrayFn = &ConstructArray<T>;
    if constexpr (std::is_copy_constructible_v<T>) ops.m_CopyConstructArrayFn = &CopyConstructArray<T>;
    if constexpr (std::is_copy_assignable_v<T>) ops.m_AssignArrayFn = &AssignArray<T>;
    if constexpr (!std::is_trivially_destructible_v<T>) ops.m_DestructArrayFn = &DestructArray<T>;
    if constexpr (Ops::CAN_SERIALISE) ops.m_SerialiseArrayFn = &SerialiseArray<T>;
    if constexpr (Ops::CAN_DESERIALISE) ops.m_DeserialiseArrayFn = &DeserialiseArray<T>;
    if constexpr (Ops::CAN_VISIT_OBJECTS) ops.m_VisitObjectsInArrayFn = &VisitObjectsInArray<T>;
    if constexpr (Ops::CAN_VISIT_PREFS) ops.m_VisitPrefsInArrayFn = &VisitPrefsInArray<T>;
    return ops;
}

// The same without a comparison, text, record or visit: for a class whose values are only made, copied and destroyed.
template <class T>
constexpr TypeOps MakeLifeTypeOps() {
    TypeOps ops;
    ops.m_size = static_cast<ssize_t>(sizeof(T));
    if constexpr (std::is_default_constructible_v<T>) ops.m_ConstructArrayFn = &ConstructArray<T>;
    if constexpr (std::is_copy_constructible_v<T>) ops.m_CopyConstructArrayFn = &CopyConstructArray<T>;
    if constexpr (std::is_copy_assignable_v<T>) ops.m_AssignArrayFn = &AssignArray<T>;
    ops.m_DestructArrayFn = &DestructArray<T>;
    return ops;
}

namespace detail {

// One table of each type in the process.
template <class T>
struct QX_API TypeOpsOf {
    static constexpr TypeOps s_ops = MakeTypeOps<T>();
};

} // namespace detail

template <class T>
const TypeOps* _GetTypeOps(const xvector<T>*) {
    return &detail::TypeOpsOf<xvector<T>>::s_ops;
}

} // namespace quna
