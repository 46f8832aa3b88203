// Times of transactions for people.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <string>

namespace quna {

// `time` in units of 100 ns since 1970, in ISO 8601 and UTC: "2026-11-21T20:15:00.0000001Z", without a fraction that is 0.
QX_API std::string TimeText(uint64 time);

} // namespace quna
