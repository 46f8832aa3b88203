// Reports as JSON: one object, keys in the order of the report.
#include "tools/qxstore/Report.h"

#include <nlohmann/json.hpp>

namespace quna::qxstore {

namespace {

using Json = nlohmann::ordered_json;

Json AsJson(const Value& value) {
    switch (value.unit) {
    case Value::TEXT: return value.text;
    case Value::COUNT:
    case Value::BYTES: return value.number;
    case Value::PERCENT: return static_cast<double>(value.number) / 10;
    case Value::YES_NO: return value.number != 0;
    }
    return nullptr;
}

Json RowsOf(const Table& table) {
    Json rows = Json::array();
    for (const std::vector<Value>& row : table.rows) {
        Json object = Json::object();
        for (size_t i = 0; i < row.size(); ++i) object[table.columns[i].key] = AsJson(row[i]);
        rows.push_back(std::move(object));
    }
    return rows;
}

std::string Hex(const std::string& bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        hex += DIGITS[static_cast<unsigned char>(c) >> 4];
        hex += DIGITS[c & 15];
    }
    return hex;
}

// Names come from the store and may be any bytes: what is no UTF-8 becomes U+FFFD.
std::string Dump(const Json& json) { return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n'; }

} // namespace

std::string ToJson(const Report& report) {
    Json json = {{"command", report.command}, {"store", report.store}};
    for (const Field& field : report.fields) json[field.key] = AsJson(field.value);
    for (const Table& table : report.tables) json[table.key] = RowsOf(table);
    for (const List& list : report.lists) {
        json[list.key] = list.items;
        if (list.numOmitted) json[list.key + "Omitted"] = list.numOmitted;
    }
    if (report.hasBytes) json["hex"] = Hex(report.bytes);
    return Dump(json);
}

std::string ErrorToJson(const std::string& command, const std::string& store, const std::string& error, int exitCode) {
    return Dump({{"command", command}, {"store", store}, {"error", error}, {"exitStatus", exitCode}});
}

} // namespace quna::qxstore
