#include "qxLss/src/TimeText.h"

#include <cstdio>
#include <ctime>

namespace quna {

std::string TimeText(uint64 time) {
    constexpr uint64 UNITS_A_SECOND = 10'000'000;
    const std::time_t seconds = static_cast<std::time_t>(time / UNITS_A_SECOND);
    std::tm tm{};
    ::gmtime_r(&seconds, &tm);
    char text[64];
    std::string result(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm));
    if (const uint64 fraction = time % UNITS_A_SECOND) {
        std::snprintf(text, sizeof text, ".%07u", static_cast<unsigned>(fraction));
        result += text;
    }
    return result += 'Z';
}

} // namespace quna
