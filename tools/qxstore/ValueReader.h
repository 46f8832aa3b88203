// Reads values by the description of their type.
#pragma once

#include "qxObject/ReflectionByteCode.h"
#include "qxPersistStore/OID.h"
#include "qxUtils/Archive.h"
#include "qxUtils/BasicTypes.h"

#include <string>
#include <vector>

namespace quna::qxstore {

// Can values of the type be read without the application's code? Basic types, strings, references and containers of such
// can; classes and enumerations can't, since how they write themselves is not in the store.
bool IsReadableType(ReflectionByteCode type);

// Values of records, one after another.
//
// Requires: the record is published by a RecordLimitsScope.
class ValueReader {
public:
    // `wantText` false: only references are of interest.
    explicit ValueReader(bool wantText) : m_wantText(wantText) {}

    // Reads one value. Throws RecordException. Requires: IsReadableType(type).
    InputArchive Read(InputArchive ar, ReflectionByteCode type);

    // The text of the last value.
    const std::string& Text() const { return m_text; }
    // All references that were read, but for null ones.
    const std::vector<OID>& References() const { return m_references; }

private:
    InputArchive ReadType(InputArchive ar, const octet_t*& bc, const ConstStringZ* names);
    InputArchive ReadSequence(InputArchive ar, const octet_t*& bc, const ConstStringZ* names, bool isMap);
    InputArchive ReadReference(InputArchive ar, bool isOwned);
    InputArchive ReadString(InputArchive ar);
    template <class T>
    InputArchive ReadNumber(InputArchive ar);
    void Append(const std::string& text);

    const bool m_wantText;
    std::string m_text;
    std::vector<OID> m_references;
};

} // namespace quna::qxstore
