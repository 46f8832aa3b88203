// What a command has found out, in a form that is printed as text or as JSON.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <string>
#include <utility>
#include <vector>

namespace quna::qxstore {

// A number or a text, with what text output needs to know: JSON always has the plain value.
struct Value {
    enum EUnit {
        TEXT,
        COUNT,
        BYTES,
        PERCENT, // tenths of a percent
        YES_NO
    };

    EUnit unit = TEXT;
    int64 number = 0;
    std::string text;
};

Value Text(std::string text);
Value Count(int64 n);
Value Bytes(int64 n);
// The share of `part` in `whole`; 0 if there is no whole.
Value Share(int64 part, int64 whole);
Value YesNo(bool yes);

struct Field {
    std::string key;   // in JSON
    std::string label; // in text
    Value value;
};

struct Column {
    std::string key;
    std::string label;
};

struct Table {
    std::string key;
    std::string title;
    std::vector<Column> columns;
    std::vector<std::vector<Value>> rows;
    std::string ifEmpty; // the text instead of a table without rows
};

// Texts of one kind, for example problems.
struct List {
    std::string key;
    std::string title;
    std::vector<std::string> items;
    int64 numOmitted = 0; // further ones, counted but not kept
};

// Fields, then tables, then lists, then a record's bytes, then the last line.
struct Report {
    Report(std::string command_, std::string store_) : command(std::move(command_)), store(std::move(store_)) {}

    std::string command;
    std::string store; // path
    std::vector<Field> fields;
    std::vector<Table> tables;
    std::vector<List> lists;
    std::string bytes;     // raw
    int64 bytesOffset = 0; // of `bytes` in the record
    bool hasBytes = false;
    std::string conclusion; // text output only: in JSON a field says the same

    void Add(std::string key, std::string label, Value value) {
        fields.push_back({std::move(key), std::move(label), std::move(value)});
    }
};

std::string ToText(const Report& report);
std::string ToJson(const Report& report);
// The JSON of a command that has failed.
std::string ErrorToJson(const std::string& command, const std::string& store, const std::string& error, int exitCode);

} // namespace quna::qxstore
