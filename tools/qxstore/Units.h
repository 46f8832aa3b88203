// Numbers and foreign texts as people read them.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <string>
#include <string_view>

namespace quna::qxstore {

// "1,234,567".
std::string GroupedNumber(int64 n);
// "517 B", "5.2 KiB", "3 MiB".
std::string ShortBytes(int64 n);
// "517 bytes", "3 MiB (3,145,728 bytes)".
std::string LongBytes(int64 n);
// "73.1%".
std::string Percentage(int64 tenths);
// "3 roots", "1 root".
std::string Counted(int64 n, std::string_view one, std::string_view many);

// Control characters and bytes that are no UTF-8 as \xNN, so that a name can't disturb the terminal.
std::string Printable(std::string_view text);
// The columns that a printable text takes, with one for each code point.
ssize_t TextWidth(std::string_view text);

} // namespace quna::qxstore
