// Reports as text: labels and columns aligned, numbers with their units.
#include "tools/qxstore/Report.h"
#include "tools/qxstore/Units.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace quna::qxstore {

namespace {

constexpr ssize_t GAP = 2; // columns between columns
constexpr size_t HEX_BYTES_A_LINE = 16;

bool IsNumber(const Value& value) { return value.unit != Value::TEXT && value.unit != Value::YES_NO; }

std::string AsText(const Value& value, bool isLong) {
    switch (value.unit) {
    case Value::TEXT: return Printable(value.text);
    case Value::COUNT: return GroupedNumber(value.number);
    case Value::BYTES: return isLong ? LongBytes(value.number) : ShortBytes(value.number);
    case Value::PERCENT: return Percentage(value.number);
    case Value::YES_NO: return value.number ? "yes" : "no";
    }
    return {};
}

std::string Spaces(ssize_t n) { return std::string(static_cast<size_t>(std::max<ssize_t>(n, 0)), ' '); }

void WriteFields(const std::vector<Field>& fields, std::string& out) {
    ssize_t width = 0;
    for (const Field& field : fields) width = std::max(width, TextWidth(field.label));
    for (const Field& field : fields)
        out += field.label + Spaces(width + GAP - TextWidth(field.label)) + AsText(field.value, true) + '\n';
}

// One line; the last cell of a row is not filled up when it stands at the left.
void WriteRow(const std::vector<std::string>& cells, const std::vector<ssize_t>& widths,
              const std::vector<bool>& areNumbers, std::string& out) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
        const std::string fill = Spaces(widths[i] - TextWidth(cells[i]));
        if (i > 0) line += Spaces(GAP);
        line += areNumbers[i] ? fill + cells[i] : cells[i] + fill;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
}

void WriteTable(const Table& table, std::string& out) {
    if (!out.empty()) out += '\n';
    if (table.rows.empty()) {
        out += table.ifEmpty + '\n';
        return;
    }
    if (!table.title.empty()) out += table.title + '\n';
    std::vector<std::vector<std::string>> lines(1);
    std::vector<bool> areNumbers(table.columns.size());
    for (size_t i = 0; i < table.columns.size(); ++i) {
        lines[0].push_back(table.columns[i].label);
        areNumbers[i] = IsNumber(table.rows[0][i]);
    }
    for (const std::vector<Value>& row : table.rows) {
        std::vector<std::string>& cells = lines.emplace_back();
        for (const Value& value : row) cells.push_back(AsText(value, false));
    }
    std::vector<ssize_t> widths(table.columns.size());
    for (const std::vector<std::string>& cells : lines) {
        for (size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], TextWidth(cells[i]));
    }
    for (const std::vector<std::string>& cells : lines) WriteRow(cells, widths, areNumbers, out);
}

void WriteList(const List& list, std::string& out) {
    if (list.items.empty()) return;
    out += '\n' + list.title + '\n';
    for (const std::string& item : list.items) out += "  " + Printable(item) + '\n';
    if (list.numOmitted) out += "  and " + GroupedNumber(list.numOmitted) + " more\n";
}

// "00000010  68 65 6c 6c 6f ...   |hello...|".
void WriteHexLine(std::string_view bytes, int64 offset, std::string& out) {
    char text[16];
    std::snprintf(text, sizeof text, "%08llx ", static_cast<unsigned long long>(offset));
    out += text;
    for (size_t i = 0; i < HEX_BYTES_A_LINE; ++i) {
        if (i % 8 == 0) out += ' ';
        if (i < bytes.size())
            std::snprintf(text, sizeof text, "%02x ", static_cast<unsigned char>(bytes[i]));
        else
            std::snprintf(text, sizeof text, "   ");
        out += text;
    }
    out += " |";
    for (const char c : bytes) out += c >= 0x20 && c < 0x7F ? c : '.';
    out += "|\n";
}

void WriteHex(const Report& report, std::string& out) {
    out += '\n';
    const std::string_view bytes = report.bytes;
    for (size_t at = 0; at < bytes.size(); at += HEX_BYTES_A_LINE)
        WriteHexLine(bytes.substr(at, HEX_BYTES_A_LINE), report.bytesOffset + static_cast<int64>(at), out);
}

} // namespace

Value Text(std::string text) { return {Value::TEXT, 0, std::move(text)}; }
Value Count(int64 n) { return {Value::COUNT, n, {}}; }
Value Bytes(int64 n) { return {Value::BYTES, n, {}}; }
Value Share(int64 part, int64 whole) {
    const double tenths = whole > 0 ? 1000.0 * static_cast<double>(part) / static_cast<double>(whole) : 0;
    return {Value::PERCENT, static_cast<int64>(tenths + 0.5), {}};
}
Value YesNo(bool yes) { return {Value::YES_NO, yes, {}}; }

std::string ToText(const Report& report) {
    std::string out;
    WriteFields(report.fields, out);
    for (const Table& table : report.tables) WriteTable(table, out);
    for (const List& list : report.lists) WriteList(list, out);
    if (report.hasBytes) WriteHex(report, out);
    if (!report.conclusion.empty()) out += '\n' + report.conclusion + '\n';
    return out;
}

} // namespace quna::qxstore
