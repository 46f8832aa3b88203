// The names of this process: which classes, interfaces, enums, typedefs and functions have records.
//
// Registration is explicit, in a fixed order, from one function a library, before a store is opened; nothing is ever
// taken out. Lookups are safe from any thread, also while another library registers.
#pragma once

#include "qxObject/ReflectionByteCode.h"
#include "qxObject/TypeOps.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

struct ReflectedClass;
struct ReflectedEnum;
struct ReflectedGlobalFunction;
struct ReflectedInterface;
struct ReflectedTypedef;
struct XTarget;

// What came of a registration.
enum ENameSpaceError {
    NSE_OK = 0,
    NSE_COLON_EXPECTED,      // a single ':' in the name
    NSE_IDENTIFIER_EXPECTED, // no identifier where one must stand: an empty name, "a::", "1a"
    NSE_NAME_ALREADY_IN_USE, // the name is an item or a namespace already
    NSE_NAME_NOT_FOUND,      // there is no record or no target to enter
    NSE_NOT_A_NAMESPACE,     // something in front of a "::" is the name of an item
};

// A library as its own sources describe it: a static table.
struct dsTarget {
    ConstStringZ m_targetName = nullptr; // for example "Quna/Core/qxObject"
    const dsTarget* const* m_directSubTargets = nullptr;
    ssize_t m_numDirectSubTargets = 0;
    const ConstStringZ* m_releases = nullptr;
    ssize_t m_numReleases = 0;
};

// A library as the registry knows it. Never destroyed.
struct XTarget {
    const dsTarget* m_dsTarget; // the description it was registered with, which outlives it
    ssize_t m_numItems;         // registered under it
};

// Makes the target known. A name that is known already gives the target it had.
QX_API XTarget* RegisterTarget(const dsTarget& target);

// Enter a record, which lives for ever, under its name. Names are C++ names with "::". Anything but NSE_OK leaves the
// registry as it was.
QX_API ENameSpaceError RegisterReflectedClass(const ReflectedClass* rc, XTarget* target);
QX_API ENameSpaceError RegisterReflectedInterface(const ReflectedInterface* ri, XTarget* target);
QX_API ENameSpaceError RegisterReflectedEnum(const ReflectedEnum* re, XTarget* target);
QX_API ENameSpaceError RegisterReflectedTypedef(const ReflectedTypedef* rt, XTarget* target);
QX_API ENameSpaceError RegisterReflectedGlobalFunction(const ReflectedGlobalFunction* rf, XTarget* target);

// The record of that name and kind, or null.
QX_API const ReflectedClass* FindReflectedClass(const char* name);
QX_API const ReflectedInterface* FindReflectedInterface(const char* name);
QX_API const ReflectedEnum* FindReflectedEnum(const char* name);
QX_API const ReflectedTypedef* FindReflectedTypedef(const char* name);
QX_API const ReflectedGlobalFunction* FindReflectedGlobalFunction(const char* name);

// Makes a table known for a described type that is no class and no enum: a vector, pair, map or set. The table lives for
// ever. The first table of a type stays; the result says whether it was this one.
QX_API bool RegisterTypeOps(ReflectionByteCode bc, const TypeOps* ops);

// The operations of a described type; null when this process has none. Every reference has those of prefbase.
QX_API const TypeOps* FindTypeOps(ReflectionByteCode bc);

} // namespace quna
