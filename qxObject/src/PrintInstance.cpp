#include "qxObject/PrintInstance.h"

#include "qxObject/PrefHooks.h"
#include "qxObject/ReflectedClass.h"
#include "qxObject/Registry.h"
#include "qxUtils/xostream.h"

#include <cstdint>

namespace quna {

namespace {

constexpr ssize_t FIELD_INDENTATION = 4; // columns

bool IsReference(ReflectionByteCode type) {
    const EByteCode code = static_cast<EByteCode>(*type.m_bc);
    return code == EByteCode::Pref || code == EByteCode::Cref;
}

void PrintFieldValue(xostream& os, ReflectionByteCode type, const void* value, const PrintTypeSettings& settings) {
    if (!type) {
        os << "?";
        return;
    }
    if (settings.m_printTargets && IsReference(type) && g_PrintPref) {
        g_PrintPref(os, static_cast<const prefbase*>(value));
        return;
    }
    const TypeOps* const ops = FindTypeOps(type);
    if (ops && ops->HasPrint())
        ops->PrintVariable(os, value);
    else
        os << "?";
}

void PrintField(xostream& os, const ReflectedField& field, const void* object, const PrintTypeSettings& settings) {
    const ReflectionByteCode type = field.m_typeFn ? field.m_typeFn() : ReflectionByteCode();
    if (settings.m_printFieldTypes && type) os << type << " ";
    os << field.m_name << " = ";
    PrintFieldValue(os, type, field.AddressIn(object), settings);
}

void PrintFields(xostream& os, const ReflectedClass& rc, const void* object, const PrintTypeSettings& settings) {
    os << rc.m_name << "{";
    {
        const Indenter indent(os, settings.m_oneLinePerField ? FIELD_INDENTATION : 0);
        for (ssize_t i = 0; i < rc.m_numFields; ++i) {
            if (settings.m_oneLinePerField)
                os << "\n";
            else if (i > 0)
                os << ", ";
            PrintField(os, rc.m_fields[i], object, settings);
        }
    }
    if (settings.m_oneLinePerField) os << "\n";
    os << "}";
}

} // namespace

void PrintInstance(xostream& os, ptr<const IObject> object, const PrintTypeSettings& settings) {
    const ReflectedClass* const rc = object ? object->GetReflectedClass() : nullptr;
    if (rc && rc->m_numFields > 0)
        PrintFields(os, *rc, object.m_self, settings);
    else if (rc && rc->m_ops.HasPrint())
        rc->m_ops.PrintVariable(os, object.m_self);
    else
        WriteIObjectPtr(os, object);
}

void WriteIObjectPtr(xostream& os, ptr<const IObject> object) {
    if (!object) {
        os << "null";
        return;
    }
    if (const ReflectedClass* const rc = object->GetReflectedClass()) os << rc->m_name << "@";
    os << HexNumber<std::uint64_t>(reinterpret_cast<std::uintptr_t>(object.m_self));
}

} // namespace quna
