#include "tools/qxstore/Units.h"

#include <cstdio>

namespace quna::qxstore {

namespace {

// The length of the UTF-8 sequence that begins the text, 0 if none does.
size_t SequenceLength(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    const size_t n = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
    if (n == 0 || n > text.size()) return 0;
    for (size_t i = 1; i < n; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
    }
    // Overlong forms, surrogates, and what lies behind the last code point.
    if ((first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F) || (first == 0xF0 && byte(1) < 0x90) ||
        (first == 0xF4 && byte(1) > 0x8F))
        return 0;
    return n;
}

std::string WithUnit(int64 n, int64 unit, const char* name) {
    if (n % unit == 0) return std::to_string(n / unit) + " " + name;
    char text[40];
    std::snprintf(text, sizeof text, "%.1f %s", static_cast<double>(n) / static_cast<double>(unit), name);
    return text;
}

} // namespace

std::string GroupedNumber(int64 n) {
    const std::string digits = std::to_string(n);
    const size_t start = n < 0 ? 1 : 0;
    std::string grouped;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > start && (digits.size() - i) % 3 == 0) grouped += ',';
        grouped += digits[i];
    }
    return grouped;
}

std::string ShortBytes(int64 n) {
    if (n < 1024) return std::to_string(n) + " B";
    if (n < int64{1} << 20) return WithUnit(n, int64{1} << 10, "KiB");
    if (n < int64{1} << 30) return WithUnit(n, int64{1} << 20, "MiB");
    if (n < int64{1} << 40) return WithUnit(n, int64{1} << 30, "GiB");
    return WithUnit(n, int64{1} << 40, "TiB");
}

std::string LongBytes(int64 n) {
    const std::string plain = Counted(n, "byte", "bytes");
    return n < 1024 ? plain : ShortBytes(n).append(" (").append(plain).append(")");
}

std::string Percentage(int64 tenths) {
    return std::to_string(tenths / 10).append(".").append(std::to_string(tenths % 10)).append("%");
}

std::string Counted(int64 n, std::string_view one, std::string_view many) {
    return GroupedNumber(n).append(" ").append(n == 1 ? one : many);
}

std::string Printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const size_t n = SequenceLength(text);
        const unsigned char first = static_cast<unsigned char>(text[0]);
        // C1 controls, which are two bytes in UTF-8, steer terminals too.
        const bool isControl =
            first < 0x20 || first == 0x7F || (n == 2 && first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0);
        if (n == 0 || isControl) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02X", first);
            result += escape;
            text.remove_prefix(1);
        } else {
            result += text.substr(0, n);
            text.remove_prefix(n);
        }
    }
    return result;
}

ssize_t TextWidth(std::string_view text) {
    ssize_t width = 0;
    for (const char c : text) width += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return width;
}

} // namespace quna::qxstore
