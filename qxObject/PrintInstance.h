// Text about objects, made from their records.
#pragma once

#include "qxObject/IObject.h"
#include "qxUtils/Export.h"

namespace quna {

class xostream;

struct PrintTypeSettings {
    bool m_printFieldTypes = false; // each field's type in front of its name
    bool m_printTargets = false;    // the object that a reference names, one level deep; loads it
    bool m_oneLinePerField = false; // fields on lines of their own, indented
};

// The object's class and its fields, "demo::Person{name = Ann, age = 7}"; "null" for null. A class that has no reflected
// fields but prints itself does so; otherwise its object is printed as by WriteIObjectPtr.
QX_API void PrintInstance(xostream& os, ptr<const IObject> object,
                          const PrintTypeSettings& settings = PrintTypeSettings());

// The object's class and address, "demo::Person@00007f0102030405"; the address alone for an object without a record;
// "null" for null.
QX_API void WriteIObjectPtr(xostream& os, ptr<const IObject> object);

} // namespace quna
