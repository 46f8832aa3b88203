#include "qxLss/Seid.h"

#include "qxUtils/xostream.h"

namespace quna {

xostream& operator<<(xostream& os, Seid seid) {
    WriteHex(os, &seid.high_, sizeof seid.high_, false);
    os << ':';
    WriteHex(os, &seid.low_, sizeof seid.low_, false);
    return os;
}

} // namespace quna
