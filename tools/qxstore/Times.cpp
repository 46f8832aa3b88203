#include "tools/qxstore/Times.h"

#include <chrono>
#include <ctime>

namespace quna::qxstore {

namespace {

constexpr int64 UNITS_A_SECOND = 10'000'000;
constexpr int FRACTION_DIGITS = 7;

// Reads a text from its front.
class Reader {
public:
    explicit Reader(std::string_view text) : m_text(text) {}

    bool IsAtEnd() const { return m_text.empty(); }
    // Exactly `digits` digits.
    bool Number(int digits, int& x) {
        x = 0;
        if (std::ssize(m_text) < digits) return false;
        for (int i = 0; i < digits; ++i) {
            const char c = m_text[static_cast<size_t>(i)];
            if (c < '0' || c > '9') return false;
            x = 10 * x + (c - '0');
        }
        m_text.remove_prefix(static_cast<size_t>(digits));
        return true;
    }
    // One of these characters.
    bool Take(std::string_view of, char& c) {
        if (m_text.empty() || of.find(m_text[0]) == std::string_view::npos) return false;
        c = m_text[0];
        m_text.remove_prefix(1);
        return true;
    }
    bool Take(char c) { return Take({&c, 1}, c); }

private:
    std::string_view m_text;
};

struct Parts {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int64 fraction = 0; // of 100 ns
    bool hasZone = false;
    int zoneMinutes = 0; // east of Greenwich
};

bool ReadFraction(Reader& reader, int64& fraction) {
    int digit = 0;
    int n = 0;
    for (fraction = 0; reader.Number(1, digit); ++n) {
        if (n == FRACTION_DIGITS) return false;
        fraction = 10 * fraction + digit;
    }
    for (int i = n; i < FRACTION_DIGITS; ++i) fraction *= 10;
    return n > 0;
}

bool ReadZone(Reader& reader, Parts& parts) {
    if (reader.IsAtEnd()) return true;
    parts.hasZone = true;
    if (reader.Take('Z')) return reader.IsAtEnd();
    char sign = 0;
    int hours = 0;
    int minutes = 0;
    if (!reader.Take("+-", sign) || !reader.Number(2, hours) || hours > 14) return false;
    if (!reader.IsAtEnd() && (reader.Take(':'), !reader.Number(2, minutes) || minutes > 59)) return false;
    parts.zoneMinutes = (sign == '+' ? 1 : -1) * (60 * hours + minutes);
    return reader.IsAtEnd();
}

bool ReadParts(Reader& reader, Parts& parts) {
    char c = 0;
    if (!reader.Number(4, parts.year) || !reader.Take('-') || !reader.Number(2, parts.month) || !reader.Take('-') ||
        !reader.Number(2, parts.day))
        return false;
    if (reader.IsAtEnd()) return true;
    if (!reader.Take("T ", c) || !reader.Number(2, parts.hour) || !reader.Take(':') || !reader.Number(2, parts.minute))
        return false;
    if (reader.Take(':')) {
        if (!reader.Number(2, parts.second)) return false;
        if (reader.Take('.') && !ReadFraction(reader, parts.fraction)) return false;
    }
    return ReadZone(reader, parts);
}

bool AreInRange(const Parts& parts) {
    const std::chrono::year_month_day date(std::chrono::year(parts.year),
                                           std::chrono::month(static_cast<unsigned>(parts.month)),
                                           std::chrono::day(static_cast<unsigned>(parts.day)));
    return date.ok() && parts.hour <= 23 && parts.minute <= 59 && parts.second <= 59;
}

} // namespace

std::optional<uint64> ParseTime(std::string_view text) {
    Reader reader(text);
    Parts parts;
    if (!ReadParts(reader, parts) || !AreInRange(parts)) return std::nullopt;
    std::tm tm{};
    tm.tm_year = parts.year - 1900;
    tm.tm_mon = parts.month - 1;
    tm.tm_mday = parts.day;
    tm.tm_hour = parts.hour;
    tm.tm_min = parts.minute;
    tm.tm_sec = parts.second;
    tm.tm_isdst = -1;
    const std::time_t seconds = parts.hasZone ? ::timegm(&tm) - 60 * parts.zoneMinutes : std::mktime(&tm);
    if (seconds < 0) return std::nullopt;
    return static_cast<uint64>(seconds * UNITS_A_SECOND + parts.fraction);
}

} // namespace quna::qxstore
