#include "qxObject/Registry.h"

#include "qxObject/PrefHooks.h"
#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectedEnum.h"
#include "qxObject/ReflectedGlobalFunction.h"
#include "qxObject/ReflectedInterface.h"
#include "qxObject/ReflectedTypedef.h"
#include "qxObject/ReflectionByteCodeValue.h"
#include "qxUtils/Mutex.h"

#include <deque>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>

namespace quna {

void (*g_PrintPref)(xostream& os, const prefbase* p) = nullptr;
void (*g_SerialisePref)(Archive& ar, const prefbase* p) = nullptr;
InputArchive (*g_DeserialisePref)(InputArchive ar, prefbase* p) = nullptr;
const TypeOps* g_PrefTypeOps = nullptr;
const TypeOps* g_PrefVectorTypeOps = nullptr;

namespace {

struct Namespace {};

using Item = std::variant<Namespace, const ReflectedClass*, const ReflectedInterface*, const ReflectedEnum*,
                          const ReflectedTypedef*, const ReflectedGlobalFunction*>;

struct DescriptionHash {
    std::size_t operator()(const ReflectionByteCodeValue& value) const {
        return static_cast<std::size_t>(value.GetHash());
    }
};

// All names of the process.
//
// Invariant: every prefix of a name that ends before a "::" is a namespace of m_items.
struct Names {
    SharedMutex m_mutex{
        "Registry::m_mutex"}; // leaf lock, guards all that follows; exclusive to register, shared to look up

    std::deque<std::string> m_storage; // what the keys refer to
    std::unordered_map<std::string_view, Item> m_items;
    std::unordered_map<ReflectionByteCodeValue, const TypeOps*, DescriptionHash> m_typeOps;
    std::unordered_map<std::string_view, XTarget*> m_targets;
};

// Never destroyed: threads that end late may still look something up.
Names& GetNames() {
    static Names* const names = new Names;
    return *names;
}

bool IsIdentifierStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool IsIdentifierPart(char c) { return IsIdentifierStart(c) || (c >= '0' && c <= '9'); }

// Checks one identifier at the front of `rest` and takes it off, with the "::" behind it.
ENameSpaceError TakeIdentifier(std::string_view& rest) {
    if (rest.empty() || !IsIdentifierStart(rest.front())) return NSE_IDENTIFIER_EXPECTED;
    std::size_t n = 1;
    while (n < rest.size() && IsIdentifierPart(rest[n])) ++n;
    rest.remove_prefix(n);
    if (rest.empty()) return NSE_OK;
    if (rest.front() != ':') return NSE_IDENTIFIER_EXPECTED;
    if (rest.size() < 2 || rest[1] != ':') return NSE_COLON_EXPECTED;
    rest.remove_prefix(2);
    return rest.empty() ? NSE_IDENTIFIER_EXPECTED : NSE_OK;
}

ENameSpaceError CheckSyntax(std::string_view name) {
    std::string_view rest = name;
    ENameSpaceError error = NSE_OK;
    do {
        error = TakeIdentifier(rest);
    } while (error == NSE_OK && !rest.empty());
    return error;
}

// The namespaces around a name, outermost first.
template <class F>
void ForEachNamespaceOf(std::string_view name, F&& f) {
    for (std::size_t at = name.find("::"); at != std::string_view::npos; at = name.find("::", at + 2))
        f(name.substr(0, at));
}

// Requires the exclusive lock.
ENameSpaceError CheckPlace(const Names& names, std::string_view name) {
    if (names.m_items.contains(name)) return NSE_NAME_ALREADY_IN_USE;
    ENameSpaceError error = NSE_OK;
    ForEachNamespaceOf(name, [&](std::string_view outer) {
        const auto i = names.m_items.find(outer);
        if (i != names.m_items.end() && !std::holds_alternative<Namespace>(i->second)) error = NSE_NOT_A_NAMESPACE;
    });
    return error;
}

template <class Record>
ENameSpaceError Register(const Record* record, XTarget* target) {
    if (!record || !record->m_name || !target) return NSE_NAME_NOT_FOUND;
    const std::string_view name = record->m_name;
    if (const ENameSpaceError error = CheckSyntax(name); error != NSE_OK) return error;

    Names& names = GetNames();
    const std::unique_lock lock(names.m_mutex);
    if (const ENameSpaceError error = CheckPlace(names, name); error != NSE_OK) return error;
    ForEachNamespaceOf(name, [&](std::string_view outer) {
        if (!names.m_items.contains(outer)) names.m_items.emplace(names.m_storage.emplace_back(outer), Namespace{});
    });
    names.m_items.emplace(names.m_storage.emplace_back(name), record);
    ++target->m_numItems;
    return NSE_OK;
}

template <class Record>
const Record* Find(const char* name) {
    if (!name) return nullptr;
    Names& names = GetNames();
    const std::shared_lock lock(names.m_mutex);
    const auto i = names.m_items.find(std::string_view(name));
    if (i == names.m_items.end()) return nullptr;
    const Record* const* const record = std::get_if<const Record*>(&i->second);
    return record ? *record : nullptr;
}

const TypeOps* UsableOps(const TypeOps& ops) { return ops.m_size > 0 ? &ops : nullptr; }

const TypeOps* FindRegisteredTypeOps(ReflectionByteCode bc) {
    const ReflectionByteCodeValue key(bc, false);
    Names& names = GetNames();
    const std::shared_lock lock(names.m_mutex);
    const auto i = names.m_typeOps.find(key);
    return i == names.m_typeOps.end() ? nullptr : i->second;
}

bool IsReference(EByteCode code) { return code == EByteCode::Pref || code == EByteCode::Cref; }

const TypeOps* FindVectorTypeOps(ReflectionByteCode bc) {
    ByteCodeStep element;
    ReadByteCodeStep(bc.m_bc + 1, bc.m_stringTable, element);
    return IsReference(element.m_code) ? g_PrefVectorTypeOps : FindRegisteredTypeOps(bc);
}

const TypeOps* FindOidTypeOps() {
    const ReflectedClass* const rc = FindReflectedClass("quna::OID");
    return rc ? UsableOps(rc->m_ops) : nullptr;
}

} // namespace

XTarget* RegisterTarget(const dsTarget& target) {
    Names& names = GetNames();
    const std::unique_lock lock(names.m_mutex);
    const std::string_view name = target.m_targetName;
    if (const auto i = names.m_targets.find(name); i != names.m_targets.end()) return i->second;
    return names.m_targets.emplace(names.m_storage.emplace_back(name), new XTarget{&target, 0}).first->second;
}

ENameSpaceError RegisterReflectedClass(const ReflectedClass* rc, XTarget* target) { return Register(rc, target); }
ENameSpaceError RegisterReflectedInterface(const ReflectedInterface* ri, XTarget* target) {
    return Register(ri, target);
}
ENameSpaceError RegisterReflectedEnum(const ReflectedEnum* re, XTarget* target) { return Register(re, target); }
ENameSpaceError RegisterReflectedTypedef(const ReflectedTypedef* rt, XTarget* target) { return Register(rt, target); }
ENameSpaceError RegisterReflectedGlobalFunction(const ReflectedGlobalFunction* rf, XTarget* target) {
    return Register(rf, target);
}

const ReflectedClass* FindReflectedClass(const char* name) { return Find<ReflectedClass>(name); }
const ReflectedInterface* FindReflectedInterface(const char* name) { return Find<ReflectedInterface>(name); }
const ReflectedEnum* FindReflectedEnum(const char* name) { return Find<ReflectedEnum>(name); }
const ReflectedTypedef* FindReflectedTypedef(const char* name) { return Find<ReflectedTypedef>(name); }
const ReflectedGlobalFunction* FindReflectedGlobalFunction(const char* name) {
    return Find<ReflectedGlobalFunction>(name);
}

bool RegisterTypeOps(ReflectionByteCode bc, const TypeOps* ops) {
    ReflectionByteCodeValue key(bc, false);
    Names& names = GetNames();
    const std::unique_lock lock(names.m_mutex);
    return names.m_typeOps.emplace(std::move(key), ops).second;
}

const TypeOps* FindTypeOps(ReflectionByteCode bc) {
    if (!bc) return nullptr;
    ByteCodeStep step;
    ReadByteCodeStep(bc.m_bc, bc.m_stringTable, step);
    switch (step.m_code) {
    case EByteCode::Bool: return &GetTypeOps<bool>();
    case EByteCode::Char: return &GetTypeOps<char>();
    case EByteCode::Int8: return &GetTypeOps<int8>();
    case EByteCode::Int16: return &GetTypeOps<int16>();
    case EByteCode::Int32: return &GetTypeOps<int32>();
    case EByteCode::Int64: return &GetTypeOps<int64>();
    case EByteCode::Uint8: return &GetTypeOps<uint8>();
    case EByteCode::Uint16: return &GetTypeOps<uint16>();
    case EByteCode::Uint32: return &GetTypeOps<uint32>();
    case EByteCode::Uint64: return &GetTypeOps<uint64>();
    case EByteCode::Float32: return &GetTypeOps<float32>();
    case EByteCode::Float64: return &GetTypeOps<float64>();
    case EByteCode::XString: return &GetTypeOps<xstring>();
    case EByteCode::Guid: return &GetTypeOps<Guid>();
    case EByteCode::Oid: return FindOidTypeOps();
    case EByteCode::Pref:
    case EByteCode::Cref: return g_PrefTypeOps;
    case EByteCode::Vector: return FindVectorTypeOps(bc);
    case EByteCode::Pair:
    case EByteCode::Map:
    case EByteCode::Set: return FindRegisteredTypeOps(bc);
    case EByteCode::Class: {
        const ReflectedClass* const rc = FindReflectedClass(step.m_name);
        return rc ? UsableOps(rc->m_ops) : nullptr;
    }
    case EByteCode::Enum: {
        const ReflectedEnum* const re = FindReflectedEnum(step.m_name);
        return re ? UsableOps(re->m_ops) : nullptr;
    }
    case EByteCode::Void:
    case EByteCode::StringZ:
    case EByteCode::Pointer:
    case EByteCode::Const:
    case EByteCode::Reference:
    case EByteCode::Interface:
    case EByteCode::Ptr: return nullptr;
    }
    return nullptr;
}

} // namespace quna
