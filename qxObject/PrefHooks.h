// The hooks through which reflection handles persistent references without knowing them: the layer that has references
// fills them once, while it registers.
#pragma once

#include "qxUtils/Archive.h"
#include "qxUtils/Export.h"

namespace quna {

class prefbase;
class xostream;
struct TypeOps;

// All null until they are filled.
QX_API extern void (*g_PrintPref)(xostream& os, const prefbase* p);
QX_API extern void (*g_SerialisePref)(Archive& ar, const prefbase* p);
QX_API extern InputArchive (*g_DeserialisePref)(InputArchive ar, prefbase* p);
QX_API extern const TypeOps* g_PrefTypeOps;

// The operations of a vector of references, of whatever type they are: references differ in nothing but their names.
QX_API extern const TypeOps* g_PrefVectorTypeOps;

} // namespace quna
