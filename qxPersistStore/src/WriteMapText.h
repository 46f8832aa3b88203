// The text of a table of identifier spaces.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Guid.h"
#include "qxUtils/xostream.h"

namespace quna::detail {

inline void WriteSpaceText(xostream& os, uint32 oidHigh) { os << HexNumber<uint32>(oidHigh); }
inline void WriteSpaceText(xostream& os, const Guid& guid) { os << guid; }

// "{(KEY,VALUE),(KEY,VALUE)}", numbers as eight hexadecimal digits.
template <class Map>
void WriteMapText(xostream& os, const Map& map) {
    os << '{';
    bool first = true;
    for (const auto& [key, value] : map) {
        os << (first ? "(" : ",(");
        first = false;
        WriteSpaceText(os, key);
        os << ',';
        WriteSpaceText(os, value);
        os << ')';
    }
    os << '}';
}

} // namespace quna::detail
