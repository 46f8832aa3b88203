// Times as the log has them, units of 100 ns since 1970, and as people write them, ISO 8601.
#pragma once

#include "qxLss/src/TimeText.h"
#include "qxUtils/BasicTypes.h"

#include <optional>
#include <string_view>

namespace quna::qxstore {

using quna::TimeText;

// "2026-11-21", then, with T or a space between, "20:15", ":30", ".5", and "Z" or an offset such as "+01:00": what is left
// out at the end is zero, and a time without zone is one of this machine's zone. Nothing if it is none, or before 1970.
std::optional<uint64> ParseTime(std::string_view text);

} // namespace quna::qxstore
